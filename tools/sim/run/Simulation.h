#pragma once
// Drives a frame buffer manager the way a camera pipeline does: configuration, per-frame requests,
// tracking, results in batches from several threads, a selector thread, pool control, and at the
// end a check that every buffer came back.
#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "Histogram.h"
#include "Scenario.h"

namespace fbmsim {

struct Options {
    uint64_t seed = 1;
    int resultThreads = 2;  // 0: results and selection on the requesting thread (deterministic)
    bool realtime = false;  // pace frames at the frame rate
    std::vector<std::pair<std::string, int>> props;
    bool logcat = false;
    int logLevel = 2;  // the unified logger's detail level
    bool dump = false;
    // Frames after whose requests the manager's dump is taken mid-run, from a thread of its own
    // as a system dump would be, and written where the end-of-run dump goes.
    std::vector<uint32_t> dumpAt;
    std::string traceFile;
    std::string seriesFile;
    std::string plotFile;
    bool progress = false;       // a bar on a terminal
    bool progressLines = false;  // a line every few seconds, for logs
    bool injectLeak = false;  // the pipeline forgets one buffer: proves the leak check
    bool realMemory = false;  // heaps are real memory of their size
    uint64_t stopAfterTimeouts = 0;  // end the run after this many acquire time-outs (0: never)
};

struct StreamReport {
    std::string name;
    int64_t id = 0;
    Source source = Source::Pool;
    uint64_t requests = 0;
    uint64_t buffers = 0;
    uint64_t failures = 0;
    uint64_t timeouts = 0;
    uint64_t slowWaits = 0;  // requests of 10 ms or more that slept, after the warm-up
    size_t maxBuffers = 0;   // as configured
    Histogram latency;
};

// A heap name's memory over the run: a heap pool (a stream's or a sharing group's), or the heaps
// of a run-time or provider stream.
struct PoolMemory {
    std::string heapName;
    std::string kind;  // POOL, RUNTIME, PROVIDER
    std::vector<std::string> streams;
    int64_t heapBytes = 0;
    int64_t maxBuffers = 0;  // 0: not a pool
    int64_t peakInUse = 0;   // sampled
    int64_t peakHeaps = 0;
    int64_t peakBytes = 0;
};

struct SeriesRow {
    uint32_t frame = 0;
    double seconds = 0;
    size_t readyList = 0;
    double residentMb = 0;  // the process's resident memory
    int64_t heapBytes = 0;  // of all heaps alive
    std::map<std::string, std::pair<int64_t, int64_t>> pools;  // name: (allocated, in use)
};

struct RunReport {
    std::string scenario;
    uint32_t frames = 0;
    double fps = 0;
    uint64_t seed = 0;
    int resultThreads = 0;
    bool realtime = false;
    uint64_t completed = 0;      // frames that reached the ready list
    uint64_t destroyed = 0;
    uint64_t noTimestamp = 0;
    uint64_t untracked = 0;      // frames that kept nothing
    std::vector<StreamReport> streams;
    uint64_t runtimeAllocations = 0;
    uint64_t selections = 0;
    uint64_t selected = 0;       // sets handed to the selector, over all selections
    uint64_t keptForProcessing = 0;
    uint64_t returnedKept = 0;
    uint64_t releasedBySelector = 0;
    uint64_t processedReleased = 0;
    uint64_t cloned = 0;
    uint64_t releasedUnderPressure = 0;
    uint64_t acquireTimeouts = 0;
    std::map<Source, Histogram> latency;
    double seconds = 0;
    double peakResidentMb = 0;
    std::vector<PoolMemory> memory;
    int64_t peakBytes = 0;   // of all the pipeline's heaps at once
    bool peakBytesIsSum = false;  // several pipelines: the sum of each heap name's peak
    uint32_t warmupFrames = 0;
    bool stoppedEarly = false;  // after Options::stopAfterTimeouts
    bool leakFree = false;
    std::string leakText;
    std::vector<SeriesRow> series;
};

// Runs the scenario; `dumpOut` receives the state dump when asked. Never throws for a bad run:
// what went wrong is in the report.
RunReport runSimulation(Scenario const& scenario, Options const& options, std::ostream& dumpOut);

// Several pipelines in one process, each its own manager on its own threads, all at once; they
// share the process's metadata worker and debuggee registry. Leak-checked together at the end.
struct ProcessReport {
    std::vector<RunReport> pipelines;
    int64_t peakBytes = 0;  // all heaps of all pipelines at once
    bool leakFree = false;
};
ProcessReport runSimulations(std::vector<Scenario> const& pipelines, Options const& options, std::ostream& dumpOut);

void printReport(RunReport const& report, std::ostream& out);
void printMemory(RunReport const& report, std::ostream& out);
std::string bytesText(int64_t bytes);  // "18.3 MiB"
}  // namespace fbmsim
