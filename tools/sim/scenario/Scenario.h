#pragma once
// A camera configuration and run plan for the pipeline simulator, read from JSON.
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace fbmsim {

// Bounds of a scenario, checked before any value is converted. A pool of more than 64 buffers or
// a frame in more than 64 batches is no camera's; the frame rate bounds keep timestamps of the
// longest run within 64 bits.
constexpr int64_t kMaxFrames = 100000000;
// The library's acquire time-out, in milliseconds; a run sets it lower than a device does.
constexpr char const* kAcquireTimeoutProperty = "vendor.debug.camera.pipeline.fbm.acquire.timeout";
constexpr int64_t kMaxBuffers = 64;
constexpr int64_t kMaxBatches = 64;
constexpr int64_t kMaxInFlight = 64;
constexpr int64_t kMaxBufferBytes = int64_t{1} << 30;  // width x height of one plane
constexpr double kMinFps = 0.1;
constexpr double kMaxFps = 1000;

// The keys of each object of a scenario file, by the object's place ("scenario", "images[]",
// "metas[]", "selector", "poolChanges[]", and "pipelines file" for a file of several pipelines).
// Any other key is refused. docs/simulator.md describes each one; a test holds the two together.
std::map<std::string, std::set<std::string>> const& scenarioKeys();

enum class Source { Pool, Runtime, HalProvider, AppProvider };
char const* sourceName(Source s);

// A name with its control characters as '?': names go into one-line messages, headers and titles.
std::string printable(std::string const& name);

struct ImageStreamCfg {
    std::string name;
    int64_t id = 0;
    Source source = Source::Pool;
    bool blob = false;  // JPEG-like: one plane of width*height bytes
    int32_t width = 0;
    int32_t height = 0;
    size_t maxBuffers = 4;
    size_t minBuffers = 1;
    bool keep = false;                         // tracked: the frame keeps its buffer
    std::optional<uint32_t> triggerAtFrame;    // a deferred pool, allocated at that frame
    bool operator==(ImageStreamCfg const&) const = default;
};

struct MetaStreamCfg {
    std::string name;
    int64_t id = 0;
    bool app = false;
    bool keep = true;
    bool operator==(MetaStreamCfg const&) const = default;
};

struct SelectorCfg {
    uint32_t everyFrames = 8;     // a selection every this many frames
    uint32_t keepNewest = 2;      // sets kept for "processing" per selection
    uint32_t holdSelections = 2;  // processing lasts this many selections
    double returnKept = 0.5;      // of the rest: probability of giving a set back kept
    uint32_t cloneEvery = 4;      // one clone every this many selections (0: never)
    bool operator==(SelectorCfg const&) const = default;
};

struct PoolChange {
    int64_t stream = 0;
    uint32_t atFrame = 0;
    int maxBuffers = 0;
    bool operator==(PoolChange const&) const = default;
};

struct Scenario {
    std::string name = "default";
    uint32_t frames = 1000;
    double fps = 30.0;
    uint32_t inFlightDepth = 4;   // frames between request and last result
    uint32_t resultBatches = 3;   // results of a frame come back in this many batches
    uint32_t destroyEvery = 0;    // about one frame in N is destroyed early (0: never)
    uint32_t noTimestampEvery = 0;  // about one frame in N completes without a timestamp
    bool recyclable = true;
    std::vector<ImageStreamCfg> images;
    std::vector<MetaStreamCfg> metas;
    std::vector<std::vector<int64_t>> sharedGroups;
    SelectorCfg selector;
    std::vector<PoolChange> poolChanges;
    std::vector<std::pair<std::string, int>> properties;  // set before the manager is built
    // Sharing groups the library will refuse in part (an unknown, non-pool or metadata stream, a
    // stream in two groups, members of different sizes), each with its place in the file.
    std::vector<std::string> groupProblems;
    bool operator==(Scenario const&) const = default;
};

// A scenario file that cannot be used; the message names the problem and where it is.
struct ScenarioError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Pools the scenario will starve: a pool with fewer buffers than its frames in flight and the sets
// the selector holds makes every starved request wait out the acquire time-out. One line per
// pool (and per planned change that starves it), with an estimate of the cost.
// `inFlight`: frames whose buffers are out at once (1 when results come back on the requesting
// thread, the scenario's inFlightDepth when they come from threads).
std::vector<std::string> starvationWarnings(Scenario const& s, int acquireTimeoutMs, uint32_t inFlight);

Scenario parseScenario(std::string const& jsonText);  // throws ScenarioError
// A scenario file holds one pipeline, or several under "pipelines" (a dual camera, say), each with
// its own streams, selector and frame rate; stream names and ids differ across them.
std::vector<Scenario> parseScenarios(std::string const& jsonText);  // throws ScenarioError
std::vector<Scenario> loadScenarios(std::string const& path);       // throws ScenarioError
std::string defaultScenarioJson();

}  // namespace fbmsim
