#include "Plan.h"

#include "Outputs.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <set>
#include <sstream>

namespace fbmsim {
namespace {

// The streams whose pool a maximum sets: the stream, and those of its sharing group (a shared
// pool takes its largest member's maximum, so they are varied together).
std::vector<ImageStreamCfg const*> poolOf(Scenario const& s, std::string const& stream) {
    ImageStreamCfg const* self = nullptr;
    for (auto const& c : s.images)
        if (c.name == stream) self = &c;
    std::vector<ImageStreamCfg const*> out{self};
    for (auto const& g : s.sharedGroups) {
        if (std::find(g.begin(), g.end(), self->id) == g.end()) continue;
        for (int64_t id : g) {
            for (auto const& c : s.images) {
                if (c.id == id && c.source == Source::Pool && &c != self &&
                    std::find(out.begin(), out.end(), &c) == out.end()) {
                    out.push_back(&c);
                }
            }
        }
        break;
    }
    return out;
}

Scenario withMaximum(Scenario s, std::vector<ImageStreamCfg const*> const& pool, int max) {
    std::set<int64_t> ids;
    for (auto const* c : pool) ids.insert(c->id);
    for (auto& c : s.images) {
        if (ids.count(c.id) == 0) continue;
        c.maxBuffers = static_cast<size_t>(max);
        c.minBuffers = std::min(c.minBuffers, c.maxBuffers);
    }
    // A planned change of this pool would override the maximum under test.
    s.poolChanges.erase(std::remove_if(s.poolChanges.begin(), s.poolChanges.end(),
                                       [&](PoolChange const& c) { return ids.count(c.stream) != 0; }),
                        s.poolChanges.end());
    return s;
}

bool parseInt(std::string const& text, int& out) {
    auto const [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return ec == std::errc() && end == text.data() + text.size() && !text.empty();
}

}  // namespace

bool parseVary(std::string const& text, Scenario const& s, Vary& out, std::string& why) {
    auto const eq = text.rfind('=');
    if (eq == std::string::npos || eq == 0) {
        why = "expected STREAM=FROM..TO, e.g. fullA=3..9";
        return false;
    }
    out.stream = text.substr(0, eq);
    std::string const range = text.substr(eq + 1);
    auto const dots = range.find("..");
    bool const parsed = dots == std::string::npos
                            ? parseInt(range, out.from) && parseInt(range, out.to)
                            : parseInt(range.substr(0, dots), out.from) && parseInt(range.substr(dots + 2), out.to);
    if (!parsed) {
        why = "expected STREAM=FROM..TO with whole numbers, e.g. fullA=3..9";
        return false;
    }
    if (out.from < 1 || out.to > kMaxBuffers || out.from > out.to) {
        why = "the range must run upwards within 1.." + std::to_string(kMaxBuffers);
        return false;
    }
    auto const it = std::find_if(s.images.begin(), s.images.end(),
                                 [&](ImageStreamCfg const& c) { return c.name == out.stream; });
    if (it == s.images.end()) {
        std::string names;
        for (auto const& c : s.images)
            if (c.source == Source::Pool) names += (names.empty() ? "" : ", ") + c.name;
        why = "no stream \"" + out.stream + "\" in the scenario (pool streams: " + names + ")";
        return false;
    }
    if (it->source != Source::Pool) {
        why = "stream \"" + out.stream + "\" is " + sourceName(it->source) + ", not a POOL stream: it has no maximum";
        return false;
    }
    return true;
}

std::vector<PlanResult> runPlan(Scenario const& scenario, Options const& base, PlanOptions const& plan) {
    size_t total = 0, done = 0;
    for (auto const& v : plan.vary) total += static_cast<size_t>(v.to - v.from + 1) * static_cast<size_t>(plan.runs);
    auto progress = [&](std::string const& what) {
        if (plan.progressLines) {
            std::fprintf(stderr, "fbm-sim plan: run %zu of %zu done (%s)\n", done, total, what.c_str());
        } else if (plan.progress) {
            int const filled = static_cast<int>(30 * done / total);
            std::fprintf(stderr, "\rfbm-sim plan [%.*s%*s] %zu/%zu runs  %-24s", filled,
                         "##############################", 30 - filled, "", done, total, what.c_str());
            if (done == total) std::fprintf(stderr, "\n");
        }
        std::fflush(stderr);
    };
    std::vector<PlanResult> results;
    for (auto const& v : plan.vary) {
        PlanResult res;
        res.vary = v;
        auto const pool = poolOf(scenario, v.stream);
        for (auto const* c : pool) {
            res.poolStreams.push_back(c->name);
            res.configured = std::max(res.configured, static_cast<int>(c->maxBuffers));
        }
        for (int max = v.from; max <= v.to; ++max) {
            PlanRow row;
            row.maxBuffers = max;
            Scenario const s = withMaximum(scenario, pool, max);
            for (int run = 0; run < plan.runs; ++run) {
                Options opt = base;
                opt.seed = base.seed + static_cast<uint64_t>(run);
                std::ostringstream dump;
                RunReport r = runSimulation(s, opt, dump);
                uint64_t timeouts = 0, slow = 0;
                for (auto const& st : r.streams) {
                    if (std::find(res.poolStreams.begin(), res.poolStreams.end(), st.name) == res.poolStreams.end()) {
                        continue;
                    }
                    timeouts += st.timeouts;
                    slow += st.slowWaits;
                    if (st.name == v.stream) {
                        row.p99Ns = std::max(row.p99Ns, st.latency.quantile(0.99));
                        row.maxNs = std::max(row.maxNs, st.latency.max());
                    }
                }
                row.timeouts = std::max(row.timeouts, timeouts);
                row.slowWaits = std::max(row.slowWaits, slow);
                row.destroyed = std::max(row.destroyed, r.destroyed);
                row.peakBytes = std::max(row.peakBytes, r.peakBytes);
                row.stoppedEarly |= r.stoppedEarly;
                row.leakFree &= r.leakFree;
                for (auto const& m : r.memory) {
                    if (std::find(m.streams.begin(), m.streams.end(), v.stream) == m.streams.end()) continue;
                    res.heapName = m.heapName;
                    res.heapBytes = m.heapBytes;
                    row.poolPeakBytes = std::max(row.poolPeakBytes, m.peakBytes);
                }
                ++done;
                progress(v.stream + "=" + std::to_string(max));
            }
            res.rows.push_back(row);
        }
        // The smallest maximum from which every larger one also ran clean: one lucky run below a
        // failing one is not a recommendation.
        for (auto it = res.rows.rbegin(); it != res.rows.rend(); ++it) {
            if (it->timeouts != 0 || it->slowWaits != 0 || it->stoppedEarly) break;
            res.recommended = it->maxBuffers;
        }
        results.push_back(std::move(res));
    }
    return results;
}

void printPlan(std::vector<PlanResult> const& results, Scenario const& s, Options const& base,
               PlanOptions const& plan, std::ostream& out) {
    char line[512];
    auto print = [&](char const* fmt, auto... args) {
        std::snprintf(line, sizeof line, fmt, args...);
        out << line;
    };
    print("fbm-sim plan: scenario \"%s\", %u frames a run, seed %llu, ", s.name.c_str(), s.frames,
          static_cast<unsigned long long>(base.seed));
    if (base.resultThreads == 0) {
        print("results on the requesting thread: 1 run per value, every count repeats\n"
              "(--result-threads N plans for results that come back from N threads, as a pipeline's do)\n");
    } else {
        print("%d result threads: %d runs per value (seeds %llu..%llu), the worst of them shown\n", base.resultThreads,
              plan.runs, static_cast<unsigned long long>(base.seed),
              static_cast<unsigned long long>(base.seed + static_cast<uint64_t>(plan.runs) - 1));
    }
    print("a time-out is a request that waited out the acquire time-out; a run stops after %llu of them.\n"
          "10 ms waits are counted after the warm-up (the first %u frames of a pool).\n",
          static_cast<unsigned long long>(base.stopAfterTimeouts), std::max<uint32_t>(10, s.frames / 20));
    for (auto const& r : results) {
        std::string shared;
        for (size_t i = 1; i < r.poolStreams.size(); ++i) shared += (shared.empty() ? "" : ", ") + r.poolStreams[i];
        print("\n%s: heaps of %s, %s each%s%s%s\n", r.vary.stream.c_str(), r.heapName.c_str(),
              bytesText(r.heapBytes).c_str(), shared.empty() ? "" : "; shares its pool with ", shared.c_str(),
              shared.empty() ? "" : ", so the pool's maximum is varied");
        print("%5s %10s %11s %10s %10s %10s %12s %14s\n", "max", "time-outs", "10 ms waits", "p99 (us)", "max (us)",
              "destroyed", "pool peak", "pipeline peak");
        for (auto const& row : r.rows) {
            std::string timeouts = std::to_string(row.timeouts) + (row.stoppedEarly ? "+" : "");
            print("%5d %10s %11llu %10.1f %10.1f %10llu %12s %14s%s\n", row.maxBuffers, timeouts.c_str(),
                  static_cast<unsigned long long>(row.slowWaits), row.p99Ns / 1000.0, row.maxNs / 1000.0,
                  static_cast<unsigned long long>(row.destroyed), bytesText(row.poolPeakBytes).c_str(),
                  bytesText(row.peakBytes).c_str(), row.leakFree ? "" : "  LOST BUFFERS");
        }
        if (std::any_of(r.rows.begin(), r.rows.end(), [](PlanRow const& row) { return row.stoppedEarly; })) {
            print("(+: the run stopped early, after %llu time-outs)\n",
                  static_cast<unsigned long long>(base.stopAfterTimeouts));
        }
    }
    print("\nrecommendation:\n");
    for (auto const& r : results) {
        if (r.recommended == 0) {
            print("  %s: no maximum up to %d runs without time-outs and 10 ms waits; try a wider range\n",
                  r.vary.stream.c_str(), r.vary.to);
            continue;
        }
        print("  %s: maximum %d (configured %d)", r.vary.stream.c_str(), r.recommended, r.configured);
        auto rowOf = [&](int max) -> PlanRow const* {
            for (auto const& row : r.rows)
                if (row.maxBuffers == max) return &row;
            return nullptr;
        };
        PlanRow const* rec = rowOf(r.recommended);
        PlanRow const* cfg = rowOf(r.configured);
        if (r.recommended < r.configured) {
            int64_t const saved = cfg ? cfg->peakBytes - rec->peakBytes
                                      : static_cast<int64_t>(r.configured - r.recommended) * r.heapBytes;
            print(": %d buffer%s fewer, saves %s of peak memory%s\n", r.configured - r.recommended,
                  r.configured - r.recommended == 1 ? "" : "s", bytesText(saved).c_str(),
                  cfg ? "" : " (estimated: the configured maximum is outside the range)");
        } else if (r.recommended > r.configured) {
            print(": the configured maximum is too small, %d more buffer%s cost %s\n", r.recommended - r.configured,
                  r.recommended - r.configured == 1 ? "" : "s",
                  bytesText(static_cast<int64_t>(r.recommended - r.configured) * r.heapBytes).c_str());
        } else {
            print(": the configured maximum is the smallest that runs clean\n");
        }
    }
}

JointPlan planTogether(Scenario const& scenario, Options const& base, std::vector<std::string> const& streams) {
    JointPlan plan;
    auto poolNamed = [&](std::string const& stream) -> JointPool& {
        auto const pool = poolOf(scenario, stream);
        for (auto& p : plan.pools) {
            if (std::find(p.poolStreams.begin(), p.poolStreams.end(), stream) != p.poolStreams.end()) return p;
        }
        JointPool p;
        p.stream = pool.front()->name;
        for (auto const* c : pool) {
            p.poolStreams.push_back(c->name);
            p.configured = std::max(p.configured, static_cast<int>(c->maxBuffers));
        }
        p.recommended = p.configured;
        plan.pools.push_back(std::move(p));
        return plan.pools.back();
    };
    for (auto const& s : streams) poolNamed(s);
    for (;;) {
        Scenario trial = scenario;
        std::string round;
        for (auto const& p : plan.pools) {
            trial = withMaximum(trial, poolOf(trial, p.stream), p.recommended);
            round += (round.empty() ? "" : ", ") + p.stream + " " + std::to_string(p.recommended);
        }
        // Results from threads vary from run to run: a pool that starves in any of 3 seeds starves.
        std::vector<std::string> starving;  // a pool once, by its first stream's name
        for (int run = 0; run < (base.resultThreads > 0 ? 3 : 1); ++run) {
            Options opt = base;
            opt.seed = base.seed + static_cast<uint64_t>(run);
            std::ostringstream ignored;
            RunReport const r = runSimulation(trial, opt, ignored);
            for (auto const& st : r.streams) {
                if (st.source != Source::Pool || (st.timeouts == 0 && st.slowWaits == 0)) continue;
                std::string const name = poolNamed(st.name).stream;
                if (std::find(starving.begin(), starving.end(), name) == starving.end()) starving.push_back(name);
            }
            for (auto const& m : r.memory) {
                for (auto& p : plan.pools)
                    if (std::find(m.streams.begin(), m.streams.end(), p.stream) != m.streams.end()) p.heapBytes = m.heapBytes;
            }
        }
        std::string what;
        for (auto const& name : starving) what += (what.empty() ? "" : ", ") + name;
        plan.rounds.push_back(round + ": " + (starving.empty() ? "no pool starves" : what + " starve" + (starving.size() == 1 ? "s" : "")));
        if (starving.empty()) {
            plan.clean = true;
            return plan;
        }
        for (auto const& name : starving) {
            JointPool& p = poolNamed(name);
            if (p.recommended >= static_cast<int>(kMaxBuffers)) return plan;  // no larger maximum to try
            ++p.recommended;
        }
    }
}

void printJointPlan(JointPlan const& plan, std::ostream& out) {
    for (auto const& round : plan.rounds) out << "  " << round << "\n";
    if (!plan.clean) {
        out << "recommendation: none; a pool reached the largest maximum (" << kMaxBuffers << ") still starving\n";
        return;
    }
    out << "recommendation, every pool together (replayed with these maximums, no pool starves):\n";
    char line[256];
    for (auto const& p : plan.pools) {
        int const more = p.recommended - p.configured;
        std::snprintf(line, sizeof line, "  %s: maximum %d (configured %d)%s%s\n", p.stream.c_str(), p.recommended,
                      p.configured, more > 0 ? ", " : ": enough as configured",
                      more > 0 ? (std::to_string(more) + " more buffer" + (more == 1 ? "" : "s") + " cost " +
                                  bytesText(static_cast<int64_t>(more) * p.heapBytes))
                                     .c_str()
                               : "");
        out << line;
    }
}

void writePlanData(std::vector<PlanResult> const& results, std::ostream& out) {
    for (auto const& r : results) {
        out << "max\ttimeouts\tslowWaits\tp99Us\tpipelinePeakMiB\tpoolPeakMiB\n";
        for (auto const& row : r.rows) {
            out << row.maxBuffers << "\t" << row.timeouts << "\t" << row.slowWaits << "\t" << row.p99Ns / 1000.0
                << "\t" << static_cast<double>(row.peakBytes) / (1 << 20) << "\t"
                << static_cast<double>(row.poolPeakBytes) / (1 << 20) << "\n";
        }
        out << "\n\n";
    }
}

std::string planPlotScript(std::vector<PlanResult> const& results, std::string const& data,
                           std::string const& scenarioName) {
    auto quoted = [](std::string const& t) { return PlotWriter::quoted(t); };
    // Per varied stream: a solid line of one column and a dashed line of another, in its colour.
    auto pairs = [&](char const* solid, char const* dashed, char const* dashedAxes, char const* solidTitle,
                     char const* dashedTitle) {
        std::string out = "plot ";
        for (size_t i = 0; i < results.size(); ++i) {
            std::string const from = data + " index " + std::to_string(i) + " using 1:";
            std::string const lc = " lc " + std::to_string(i + 1) + " title ";
            std::string const& name = results[i].vary.stream;
            out += (i ? ", " : "") + from + solid + " with linespoints lw 2" + lc + quoted(name + solidTitle) + ", " +
                   from + dashed + dashedAxes + " with linespoints dt 2" + lc + quoted(name + dashedTitle);
        }
        return out + "\n";
    };
    std::string gp = "set datafile separator '\\t'\nset key outside right\nset xtics 1\nset grid\n";
    gp += "set multiplot layout 2,1 title " + quoted("fbm-sim plan: " + scenarioName) + "\n";
    gp += "set title 'time-outs (solid) and p99 request latency (dashed) against the maximum'\n";
    gp += "set xlabel 'maximum buffers'\nset ylabel 'time-outs'\nset y2label 'p99 (us)'\nset ytics nomirror\n"
          "set y2tics\nset yrange [0:*]\nset y2range [0:*]\n";
    gp += pairs("2", "4", " axes x1y2", " time-outs", " p99");
    gp += "set title 'peak memory of the pipeline (solid) and of the varied pool (dashed)'\n";
    gp += "set ylabel 'MiB'\nunset y2label\nunset y2tics\nset ytics mirror\n";
    gp += pairs("5", "6", "", ": pipeline", ": pool");
    return gp + "unset multiplot\n";
}

}  // namespace fbmsim
