#pragma once
// From a bug report to a scenario: reads the manager's state dumps out of a text as it arrives
// (logcat prefixes, a system dump's indentation, other services' lines between, Windows line
// ends, cut lines) and rebuilds the scenario each describes.
#include <cstdint>
#include <istream>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

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
    std::set<std::string> poolsMade;                        // heap pools the dump shows made
};

// Every dump in `in`, in order; read line by line, so memory stays bounded whatever its size.
// Throws DumpError for a text that holds no dump, or a dump that is cut or does not parse.
std::vector<ManagerDump> readDumps(std::istream& in);

// The scenario a dump describes. What the dump cannot tell gets the simulator's defaults, named
// in the scenario's "_from_dump" note. Throws DumpError for a stream the simulator cannot make.
nlohmann::ordered_json scenarioOf(ManagerDump const& dump, std::string const& name);

// `fbm-sim from-dump FILE [-o OUT] [--pick N]`: the exit status (0, or 2 for bad input).
int fromDumpMain(int argc, char** argv);

}  // namespace fbmsim
