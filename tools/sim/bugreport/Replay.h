#pragma once
// fbm-sim replay: a bug report's dump rebuilt as from-dump does, run, and set beside what the
// report recorded: which streams starved and how often, the pools at the dump, the ready list;
// then whether the stall is reproduced, and the pool maximums to plan where it is.
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "FromDump.h"
#include "Scenario.h"
#include "Simulation.h"

namespace fbmsim {

// A report read and its scenario rebuilt.
struct ReplayInput {
    std::string source;  // the file's name, or "standard input"
    std::vector<ManagerDump> dumps;  // the picked ones, in the scenario's pipeline order
    ReportLog log;
    std::vector<Scenario> pipelines;
};

// False with one line saying why for a report without a dump, a cut or binary one, or one whose
// scenario the simulator refuses.
bool loadReplay(std::string const& file, size_t pick, ReplayInput& out, std::string& why);

struct ReplayOutcome {
    bool reproduced = false;
    // Pools to plan, as "stream=FROM..TO": one stream of each pool that starves in both.
    std::vector<std::string> vary;
    nlohmann::ordered_json json;  // the "replay" object of the run's JSON
};

// Fits the selector's hold to the recorded time-out rate where the report gives one, runs the
// rebuilt scenario with `options`, prints its report, the side-by-side figures and the verdict
// to `out`. `report` receives the run's report.
ReplayOutcome runReplay(ReplayInput& input, Options options, std::ostream& out, ProcessReport& report);

}  // namespace fbmsim
