#pragma once
// fbm-sim plan: runs a scenario once per pool maximum over a range and finds, per stream, the
// smallest maximum with no acquire time-out and no 10 ms wait after the warm-up, and what memory
// it saves against the configured one.
#include <ostream>
#include <string>
#include <vector>

#include "Scenario.h"
#include "Simulation.h"

namespace fbmsim {

struct Vary {
    std::string stream;
    int from = 0;
    int to = 0;
};

// "fullA=3..9" (or "fullA=5" for one value); false with one line saying what is wrong.
bool parseVary(std::string const& text, Scenario const& scenario, Vary& out, std::string& why);

struct PlanOptions {
    std::vector<Vary> vary;
    int runs = 1;                  // per value; more than 1 only helps when results come from threads
    std::string plotFile;
    bool progress = false;         // a bar on a terminal
    bool progressLines = false;    // a line per run, for logs
};

struct PlanRow {
    int maxBuffers = 0;
    uint64_t timeouts = 0;   // of the pool's streams, worst run
    uint64_t slowWaits = 0;  // 10 ms waits after the warm-up, worst run
    uint64_t p99Ns = 0;
    uint64_t maxNs = 0;
    uint64_t destroyed = 0;
    int64_t poolPeakBytes = 0;
    int64_t peakBytes = 0;   // the pipeline's, all heaps at once
    bool stoppedEarly = false;
    bool leakFree = true;
};

struct PlanResult {
    Vary vary;
    std::vector<std::string> poolStreams;  // the varied stream and those sharing its pool
    std::string heapName;
    int64_t heapBytes = 0;
    int configured = 0;
    std::vector<PlanRow> rows;
    int recommended = 0;  // 0: none in the range
};

// Runs every value of every --vary; `progress` receives the progress output.
std::vector<PlanResult> runPlan(Scenario const& scenario, Options const& base, PlanOptions const& plan);
void printPlan(std::vector<PlanResult> const& results, Scenario const& scenario, Options const& base,
               PlanOptions const& plan, std::ostream& out);

// Sizing every starving pool together: a pool given more heaps can pass the stall to another (a
// bigger capture pool lets frames reach preview's). From the given streams' pools, each round runs
// the scenario with the maximums so far and gives one more heap to every pool that still starves
// (time-outs or 10 ms waits), adding pools that start to starve, until a run is clean or a pool is
// at the largest maximum.
struct JointPool {
    std::string stream;  // the pool's first stream, which names it
    std::vector<std::string> poolStreams;
    int configured = 0, recommended = 0;
    int64_t heapBytes = 0;
};
struct JointPlan {
    std::vector<JointPool> pools;  // in the order they were found starving
    std::vector<std::string> rounds;  // one line per run: the maximums and what starved
    bool clean = false;               // the last run, with the recommended maximums, starved nothing
};
JointPlan planTogether(Scenario const& scenario, Options const& base, std::vector<std::string> const& streams);
void printJointPlan(JointPlan const& plan, std::ostream& out);

// The plot's data: one block per varied stream (gnuplot's index), one line per maximum.
void writePlanData(std::vector<PlanResult> const& results, std::ostream& out);
// Time-outs and p99 latency, and peak memory, against the maximum; `data` is the quoted data file.
std::string planPlotScript(std::vector<PlanResult> const& results, std::string const& data,
                           std::string const& scenarioName);

}  // namespace fbmsim
