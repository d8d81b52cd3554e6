#pragma once
// From a bug report to a scenario: reads the manager's state dumps out of a text as it arrives
// (logcat prefixes, a system dump's indentation, other services' lines between, Windows line
// ends, cut lines) and rebuilds the scenario each describes.
#include <cstdint>
#include <istream>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <fbm/IFrameBufferManagerState.h>
#include <nlohmann/json.hpp>

namespace fbmsim {

// Bad input: the text says what and where ("line N: ...").
struct DumpError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// One manager's dump, as read.
struct ManagerDump {
    struct Image {
        size_t line = 0;
        bool app = false;
        std::string source;  // POOL, RUNTIME, PROVIDER, USER or ?
        std::string id, name, format;
        std::string width, height, planes, max, min;  // checked when the scenario is made
        bool deferred = false;
    };
    struct Meta {
        size_t line = 0;
        bool app = false;
        std::string id, name;
    };
    struct Set {
        uint64_t frame = 0;
        uint64_t timestamp = 0;
        std::vector<std::string> images, metas;  // stream ids as printed
    };
    size_t line = 0;  // of its "<image streams>"
    std::vector<Image> images;
    std::vector<Meta> metas;
    std::vector<std::vector<std::string>> groups;
    std::vector<Set> ready, inFlight;
    std::vector<std::pair<std::string, std::string>> poolOf;  // stream id, its heap pool's name
    struct HeapPool {
        int64_t max = 0, available = 0, inUse = 0;
    };
    std::map<std::string, HeapPool> pools;  // the heap pools the dump shows made, by name
    // The dump's "--state" section, read whole when it has one: the pools above then come from it,
    // not from log lines around the dump.
    bool hasState = false;
    std::vector<std::string> cut;  // lines of it cut short ("line N: ..."), read as far as they go
    NSCam::v3::pipeline::FrameBufferManagerState state;

    // Heaps of each pool in use that no ready or in-flight set holds: held by processing (the
    // selector's sets kept for a multi-frame feature), or by the pipeline.
    std::map<std::string, int64_t> heldByProcessing() const;
    // The newest frame its sets show, or -1.
    int64_t newestFrame() const;
};

// What a bug report's log lines around the dumps recorded.
struct ReportLog {
    std::map<std::string, uint64_t> timeouts;  // acquire time-outs per stream id
    int64_t timeoutNs = -1;                    // the acquire time-out in use, when a line shows it
    int64_t firstFrame = -1, lastFrame = -1;   // of the frame numbers the lines carry
    double fps = 0;                            // from frame numbers and log times, when they tell
    int64_t frames() const { return firstFrame < 0 ? 0 : lastFrame - firstFrame + 1; }
};

// Every dump in `in`, in order; read line by line, so memory stays bounded whatever its size.
// Throws DumpError for a text that holds no dump, or a dump that is cut or does not parse.
// `log`, when given, receives what the log lines recorded.
std::vector<ManagerDump> readDumps(std::istream& in, ReportLog* log = nullptr);

// The scenario a dump describes. What the dump cannot tell gets the simulator's defaults, named
// in the scenario's "_from_dump" note. Throws DumpError for a stream the simulator cannot make.
// With `log`, the acquire time-out and the frame rate come from it where the dump cannot tell, and
// what it recorded goes into the note.
nlohmann::ordered_json scenarioOf(ManagerDump const& dump, std::string const& name, ReportLog const* log = nullptr);

// The scenario file of every dump (one pipeline each), or of the `pick`-th (from 1; 0: all).
// Throws DumpError for a set of dumps one run cannot hold.
nlohmann::ordered_json scenarioOfDumps(std::vector<ManagerDump> const& dumps, size_t pick, ReportLog const* log);

// `fbm-sim from-dump FILE [-o OUT] [--pick N]`: the exit status (0, or 2 for bad input).
int fromDumpMain(int argc, char** argv);

}  // namespace fbmsim
