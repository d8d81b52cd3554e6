// replay: a bug report rebuilt and run, with what it recorded beside what the run did.
#include "Replay.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <sstream>

namespace fbmsim {

namespace {

// Rates within this share of each other reproduce a stall.
constexpr double kRateTolerance = 0.30;
constexpr int kMaxHold = kMaxBuffers;

// One stream's figures, as recorded and as replayed.
struct StreamFigures {
    std::string id, name;
    std::string pool;
    double recordedRate = -1;  // time-outs per 100 requests; -1: the report cannot tell
    bool recordedStarves = false;
    bool recordedKnown = true;  // false: the dump alone, and processing holds part of its pool
    bool poolStarves = false;   // the dump alone: its shared pool starves, which member the dump cannot tell
    int64_t recordedInUse = -1, recordedMax = -1;
    double replayedRate = 0;
    int64_t replayedInUse = -1, replayedMax = -1;
};

std::string poolOfStream(ManagerDump const& d, std::string const& id) {
    for (auto const& [stream, pool] : d.poolOf)
        if (stream == id) return pool;
    return "";
}

// Time-outs per 100 requests of `ids` in a run.
double rateOf(RunReport const& r, std::set<std::string> const& ids) {
    uint64_t timeouts = 0, requests = 0;
    for (auto const& st : r.streams) {
        char id[32];
        std::snprintf(id, sizeof id, "0x%llx", static_cast<unsigned long long>(st.id));
        if (ids.count(id) == 0) continue;
        timeouts += st.timeouts;
        requests += st.requests;
    }
    return requests == 0 ? 0 : 100.0 * static_cast<double>(timeouts) / static_cast<double>(requests);
}

bool closeEnough(double recorded, double replayed) {
    return std::fabs(replayed - recorded) <= kRateTolerance * recorded;
}

std::string rateText(double rate) {
    if (rate < 0) return "?";
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", rate);
    return text;
}

// What the report recorded of each image stream of a manager: from the log when it has lines
// with frame numbers, else from the dump alone.
// `inFlight`: frames whose buffers are out at once in the replay.
std::vector<StreamFigures> recordedFigures(ManagerDump const& d, ReportLog const& log, int64_t inFlight) {
    std::vector<StreamFigures> figures;
    auto const held = d.heldByProcessing();
    std::map<std::string, std::set<std::string>> members;  // by pool
    for (auto const& [stream, pool] : d.poolOf) members[pool].insert(stream);
    for (auto const& img : d.images) {
        StreamFigures f{img.id, img.name, poolOfStream(d, img.id)};
        auto const pool = d.pools.find(f.pool);
        if (pool != d.pools.end()) {
            f.recordedInUse = pool->second.inUse;
            f.recordedMax = pool->second.max;
        }
        if (log.frames() > 0) {
            auto const t = log.timeouts.find(img.id);
            uint64_t const timeouts = t == log.timeouts.end() ? 0 : t->second;
            f.recordedRate = 100.0 * static_cast<double>(timeouts) / static_cast<double>(log.frames());
            f.recordedStarves = timeouts > 0;
        } else {
            // The dump alone: processing holds heaps of this pool, and with the frames in flight
            // it leaves no room for one more kept set: the next selection starves it (ready sets
            // can be given back under pressure; what processing holds cannot). A pool that
            // processing holds in part, with room left, may have starved, or not.
            auto const h = held.find(f.pool);
            size_t const sharing = members[f.pool].size();
            f.recordedStarves = h != held.end() && pool != d.pools.end() &&
                                h->second + inFlight * static_cast<int64_t>(sharing) >= pool->second.max;
            f.recordedKnown = h == held.end() || f.recordedStarves;
            // A shared pool's members take its heaps in request order: the dump shows the pool
            // starving, not which of them waits.
            f.poolStarves = f.recordedStarves && sharing > 1;
        }
        figures.push_back(f);
    }
    return figures;
}

// How long processing holds its sets is what a dump cannot show; the recorded time-out rate of
// the pools it holds tells it, or with the dump alone, a pool it left no room in: the smallest
// hold that starves it. Holds are tried from the dump's count up, doubling until
// one starves as much, then halving the gap: a run each. Returns what was fitted, or nothing.
std::string fitHold(Scenario& sc, ManagerDump const& d, std::vector<StreamFigures> const& figures, bool logged,
                    Options const& options) {
    if (sc.selector.keepNewest == 0) return "";
    auto const held = d.heldByProcessing();
    std::set<std::string> ids;
    double recorded = 0;
    for (auto const& f : figures) {
        if (held.count(f.pool) == 0 || !(logged || f.recordedStarves)) continue;
        ids.insert(f.id);
        recorded += logged ? f.recordedRate : 0;
    }
    if (ids.empty() || (logged && recorded == 0)) return "";
    double const target = logged ? recorded / static_cast<double>(ids.size()) : 1e-9;
    Options trial = options;
    trial.dumpAt.clear();
    trial.dump = trial.logcat = trial.progress = trial.progressLines = false;
    trial.traceFile.clear();
    trial.seriesFile.clear();
    trial.plotFile.clear();
    // Results on the requesting thread: nothing can come back during a wait, so a time-out of
    // 1 ms gives the same counts sooner.
    if (trial.resultThreads == 0) trial.props.emplace_back(kAcquireTimeoutProperty, 1);
    std::map<int, double> rates;
    auto rateAt = [&](int hold) {
        auto it = rates.find(hold);
        if (it != rates.end()) return it->second;
        Scenario s = sc;
        s.selector.holdSelections = static_cast<uint32_t>(hold);
        std::ostringstream ignored;
        return rates[hold] = rateOf(runSimulation(s, trial, ignored), ids);
    };
    int const shown = static_cast<int>(sc.selector.holdSelections);
    int lo = shown, hi = shown;
    while (hi < kMaxHold && rateAt(hi) < target) {
        lo = hi + 1;
        hi = std::min(kMaxHold, hi * 2);
    }
    while (lo < hi) {  // longer holds starve more
        int const mid = lo + (hi - lo) / 2;
        if (rateAt(mid) < target) lo = mid + 1;
        else hi = mid;
    }
    int best = lo;  // the smallest hold that starves as much, or the one below when that is closer
    if (logged && lo > shown && std::fabs(rateAt(lo - 1) - target) < std::fabs(rateAt(lo) - target)) best = lo - 1;
    sc.selector.holdSelections = static_cast<uint32_t>(best);
    std::string const why = logged ? "the recorded rate, " + rateText(target) + " time-outs per 100 requests"
                                   : "a pool it left no room in to starve";
    return sc.name + ": the selector holds each set for " + std::to_string(best) + " selections (the dump shows " +
           std::to_string(shown) + " sets held; " + why + ", needs " + std::to_string(best) + ")";
}

}  // namespace

bool loadReplay(std::string const& file, size_t pick, ReplayInput& out, std::string& why) {
    out.source = file == "-" ? "standard input" : file;
    try {
        std::ifstream f;
        if (file != "-") {
            f.open(file, std::ios::binary);
            if (!f) {
                why = out.source + ": cannot be read";
                return false;
            }
        }
        auto dumps = readDumps(file == "-" ? std::cin : f, &out.log);
        if (pick > dumps.size()) {
            why = "--pick " + std::to_string(pick) + ": must be from 1 to " + std::to_string(dumps.size()) +
                  ", the managers found";
            return false;
        }
        auto const scenario = scenarioOfDumps(dumps, pick, &out.log);
        out.pipelines = parseScenarios(scenario.dump());
        if (pick != 0) out.dumps = {dumps[pick - 1]};
        else out.dumps = std::move(dumps);
    } catch (DumpError const& e) {
        why = out.source + ": " + e.what();
        return false;
    } catch (ScenarioError const& e) {
        why = out.source + ": the rebuilt scenario is refused: " + e.what();
        return false;
    }
    return true;
}

ReplayOutcome runReplay(ReplayInput& in, Options options, std::ostream& out, ProcessReport& process) {
    ReplayOutcome outcome;
    ReportLog const& log = in.log;
    bool const logged = log.frames() > 0;  // the log gives rates: its lines carry frame numbers

    std::vector<std::vector<StreamFigures>> figures;
    for (size_t p = 0; p < in.dumps.size(); ++p) {
        int64_t const inFlight = options.resultThreads == 0 ? 1 : in.pipelines[p].inFlightDepth;
        figures.push_back(recordedFigures(in.dumps[p], log, inFlight));
    }

    std::vector<std::string> fitted;
    for (size_t p = 0; p < in.pipelines.size(); ++p) {
        std::string text = fitHold(in.pipelines[p], in.dumps[p], figures[p], logged, options);
        if (!text.empty()) fitted.push_back(std::move(text));
    }

    // The run, dumped at the frame the report's dump was taken: its newest set, or the middle of
    // the frames the log covers, or the middle of the run.
    int64_t at = -1;
    for (auto const& d : in.dumps) at = std::max(at, d.newestFrame());
    if (at < 0 && log.frames() > 0) at = (log.firstFrame + log.lastFrame) / 2;
    uint32_t const frames = in.pipelines.front().frames;
    if (at < 0 || at >= frames) at = frames / 2;
    options.dumpAt = {static_cast<uint32_t>(at)};
    std::ostringstream dumpText;
    process = runSimulations(in.pipelines, options, dumpText);
    std::vector<ManagerDump> replayedDumps;
    std::istringstream dumpIn(dumpText.str());
    try {
        replayedDumps = readDumps(dumpIn);
    } catch (DumpError const&) {
        // no dump: the figures at the dump stay unknown
    }
    for (size_t p = 0; p < process.pipelines.size(); ++p) {
        if (process.pipelines.size() > 1) out << "\n==== pipeline \"" << process.pipelines[p].scenario << "\" ====\n";
        printReport(process.pipelines[p], out);
    }

    // Side by side, and the verdict.
    char line[256];
    out << "\nfbm-sim replay: " << in.source << " recorded ";
    if (log.frames() > 0) out << "frames " << log.firstFrame << " to " << log.lastFrame << " in its log";
    else out << "no log line with a frame number (the dump alone)";
    out << "; the dump at frame " << at << "\n";
    for (auto const& f : fitted) out << "fitted: " << f << "\n";
    std::vector<std::string> same, differ, unknown;
    nlohmann::ordered_json streams = nlohmann::ordered_json::array();
    for (size_t p = 0; p < figures.size() && p < process.pipelines.size(); ++p) {
        RunReport const& r = process.pipelines[p];
        ManagerDump const* replayed = p < replayedDumps.size() ? &replayedDumps[p] : nullptr;
        std::snprintf(line, sizeof line, "%-8s %-12s %10s %10s   %14s %14s\n", "stream", "name", "time-outs", "per 100",
                      "pool in use", "at the dump");
        out << line;
        std::snprintf(line, sizeof line, "%-8s %-12s %10s %10s   %14s %14s\n", "", "", "recorded", "replayed", "recorded",
                      "replayed");
        out << line;
        std::set<std::string> planned, poolsStarvedInReplay;
        for (auto& f : figures[p]) {
            f.replayedRate = rateOf(r, {f.id});
            if (f.replayedRate > 0) poolsStarvedInReplay.insert(f.pool);
        }
        for (auto& f : figures[p]) {
            if (replayed != nullptr) {
                auto const pool = replayed->pools.find(poolOfStream(*replayed, f.id));
                if (pool != replayed->pools.end()) {
                    f.replayedInUse = pool->second.inUse;
                    f.replayedMax = pool->second.max;
                }
            }
            auto const inUse = [](int64_t n, int64_t max) {
                return n < 0 ? std::string("-") : std::to_string(n) + " of " + std::to_string(max);
            };
            std::snprintf(line, sizeof line, "%-8s %-12s %10s %10s   %14s %14s\n", f.id.c_str(), f.name.c_str(),
                          rateText(f.recordedRate).c_str(), rateText(f.replayedRate).c_str(),
                          inUse(f.recordedInUse, f.recordedMax).c_str(), inUse(f.replayedInUse, f.replayedMax).c_str());
            out << line;
            bool const replayedStarves = f.replayedRate > 0;
            std::string const what = f.name + " (" + rateText(f.recordedRate) + " recorded, " +
                                     rateText(f.replayedRate) + " replayed)";
            if (f.recordedStarves && replayedStarves) {
                if (f.recordedRate < 0 || closeEnough(f.recordedRate, f.replayedRate)) {
                    same.push_back(f.name);
                    if (!f.pool.empty() && planned.insert(f.pool).second) {
                        int64_t const max = f.recordedMax > 0 ? f.recordedMax : 1;
                        outcome.vary.push_back(f.name + "=" + std::to_string(max) + ".." +
                                               std::to_string(std::min<int64_t>(kMaxBuffers, max + 8)));
                    }
                } else {
                    differ.push_back(what + " starves at another rate");
                }
            } else if (f.poolStarves && poolsStarvedInReplay.count(f.pool) != 0) {
                // another member of its pool waits in the replay
            } else if (f.recordedStarves) {
                differ.push_back(f.name + " starves only in the report");
            } else if (replayedStarves && !f.recordedKnown) {
                unknown.push_back(f.name + " (" + rateText(f.replayedRate) + " replayed)");
            } else if (replayedStarves) {
                differ.push_back(what + " starves only in the replay");
            }
            auto const recordedStarves =
                f.recordedKnown && !f.poolStarves ? nlohmann::ordered_json(f.recordedStarves) : nlohmann::ordered_json();
            streams.push_back({{"id", f.id}, {"name", f.name},
                               {"recordedTimeoutsPer100", f.recordedRate < 0 ? nlohmann::ordered_json() : nlohmann::ordered_json(f.recordedRate)},
                               {"recordedStarves", recordedStarves}, {"replayedTimeoutsPer100", f.replayedRate},
                               {"recordedPoolInUse", f.recordedInUse}, {"replayedPoolInUse", f.replayedInUse}});
        }
        size_t const readyRecorded = in.dumps[p].ready.size();
        long const readyReplayed = replayed != nullptr ? static_cast<long>(replayed->ready.size()) : -1;
        out << "ready list at the dump: recorded " << readyRecorded << ", replayed "
            << (readyReplayed < 0 ? std::string("-") : std::to_string(readyReplayed)) << "\n";
    }
    std::string verdict;
    outcome.reproduced = differ.empty() && !same.empty();
    if (differ.empty() && same.empty() && !unknown.empty()) {
        verdict = "a stall in the replay that the dump alone cannot confirm: ";
        for (size_t i = 0; i < unknown.size(); ++i) verdict += (i ? ", " : "") + unknown[i];
        verdict += unknown.size() == 1 ? " starves" : " starve";
        verdict += ", from a pool that processing holds in part at the dump (a report with its log tells)";
    } else if (differ.empty() && same.empty() && !logged) {
        // One moment of the run: processing may have held more before or after it.
        verdict = "no stall: none the dump shows (processing leaves every pool room at the dump), none replayed; "
                  "a report with its log tells the rest of the run";
    } else if (differ.empty() && same.empty()) {
        verdict = "no stall: no stream starves, recorded or replayed";
    } else if (outcome.reproduced) {
        verdict = "stall reproduced: ";
        for (size_t i = 0; i < same.size(); ++i) verdict += (i ? ", " : "") + same[i];
        verdict += same.size() == 1 ? " starves" : " starve";
        verdict += logged ? ", within 30% of the recorded rate" : " (the dump shows processing leaving its pool no room)";
    } else {
        verdict = "stall not reproduced: ";
        for (size_t i = 0; i < differ.size(); ++i) verdict += (i ? "; " : "") + differ[i];
        outcome.vary.clear();
    }
    out << "verdict: " << verdict << "\n";
    outcome.json = {{"report", in.source},
                    {"firstFrame", log.firstFrame},
                    {"lastFrame", log.lastFrame},
                    {"dumpFrame", at},
                    {"fitted", fitted},
                    {"streams", streams},
                    {"reproduced", outcome.reproduced},
                    {"verdict", verdict}};
    return outcome;
}

}  // namespace fbmsim
