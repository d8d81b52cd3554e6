// fbm-sim: a camera pipeline on the desk. Configures a frame buffer manager like a multi-frame
// capture camera, runs frames through it from several threads, and reports what happened.
#include <unistd.h>

#include <charconv>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <optional>

#include <CLI/CLI.hpp>
#include <vexlor/HostSeams.h>

#include "FromDump.h"
#include "Outputs.h"
#include "Plan.h"
#include "Replay.h"
#include "Scenario.h"
#include "Simulation.h"

namespace {

constexpr int kExitLost = 1;
constexpr int kExitUsage = 2;

int usageError(std::string const& message) {
    std::cerr << "fbm-sim: " << message << "\nRun 'fbm-sim --help' for the options.\n";
    return kExitUsage;
}

// Numbers on the command line are read whole and checked before they are converted: "1e3",
// "-1" or "4294967296" are refused with what is wrong, never wrapped or cut.
bool wholeNumber(std::string const& text, int64_t min, int64_t max, int64_t& out, std::string& why,
                 bool allowHex = false) {
    std::string_view v = text;
    bool const negative = !v.empty() && v.front() == '-';
    if (negative) v.remove_prefix(1);
    int base = 10;
    if (allowHex && v.size() > 2 && v[0] == '0' && (v[1] == 'x' || v[1] == 'X')) {
        v.remove_prefix(2);
        base = 16;
    }
    uint64_t magnitude = 0;
    auto const [end, ec] = std::from_chars(v.data(), v.data() + v.size(), magnitude, base);
    bool const digits = !v.empty() && v.front() != '+' && end == v.data() + v.size();
    std::string const range = "from " + std::to_string(min) + " to " + std::to_string(max);
    if (!digits && ec != std::errc::result_out_of_range) {
        why = "is not a whole number; give it as digits, " + range;
        return false;
    }
    // 128 bits hold any 64-bit magnitude with its sign: the range test sees the true value.
    __int128 const value = negative ? -static_cast<__int128>(magnitude) : static_cast<__int128>(magnitude);
    if (ec == std::errc::result_out_of_range || value < min || value > max) {
        why = "is out of range: must be " + range;
        return false;
    }
    out = static_cast<int64_t>(value);
    return true;
}

// A plain decimal number ("29.97", "30"); no hex, infinity or NaN.
bool decimalNumber(std::string const& text, double min, double max, char const* unit, double& out,
                   std::string& why) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "from %g to %g %s", min, max, unit);
    char* end = nullptr;
    bool const plain = !text.empty() && text.find_first_of("xXnNiI") == std::string::npos &&
                       !std::isspace(static_cast<unsigned char>(text.front()));
    double const v = plain ? std::strtod(text.c_str(), &end) : 0;
    if (!plain || end != text.c_str() + text.size() || !std::isfinite(v)) {
        why = std::string("is not a number; give it ") + buf;
        return false;
    }
    if (v < min || v > max) {
        why = std::string("is out of range: must be ") + buf;
        return false;
    }
    out = v;
    return true;
}

// The acquire time-out the run will see, when the scenario or the command line (which wins) sets it.
std::optional<int> acquireTimeoutMs(std::vector<std::pair<std::string, int>> const& scenarioProps,
                                    std::vector<std::pair<std::string, int>> const& commandLineProps) {
    std::optional<int> ms;
    for (auto const* list : {&scenarioProps, &commandLineProps}) {
        for (auto const& [key, value] : *list) {
            if (key == fbmsim::kAcquireTimeoutProperty) ms = value;
        }
    }
    return ms;
}

int plan(fbmsim::Scenario const& scenario, fbmsim::Options opt, fbmsim::PlanOptions planOpt,
         std::vector<std::string> const& varyTexts, std::string const& runsText, std::string const& jsonFile,
         bool quiet, bool terminal) {
    using namespace fbmsim;
    if (!opt.traceFile.empty() || !opt.seriesFile.empty() || !jsonFile.empty() || opt.dump || !opt.dumpAt.empty() ||
        opt.injectLeak) {
        return usageError("plan: --trace, --series, --json, --dump, --dump-at and --inject-leak belong to a single run");
    }
    std::string why;
    for (auto const& text : varyTexts) {
        Vary v;
        if (!parseVary(text, scenario, v, why)) return usageError("--vary " + text + ": " + why);
        planOpt.vary.push_back(v);
    }
    int64_t runs = opt.resultThreads == 0 ? 1 : 3;
    if (!runsText.empty() && !wholeNumber(runsText, 1, 20, runs, why)) return usageError("--runs " + runsText + ": " + why);
    planOpt.runs = static_cast<int>(runs);
    // A starved run would wait 1.5 s per request: time-outs are counted at 20 ms unless the
    // scenario or the command line sets the time-out, and a run stops after 50 of them.
    bool const timeoutSet = acquireTimeoutMs(scenario.properties, opt.props).has_value();
    if (!timeoutSet) opt.props.emplace_back(fbmsim::kAcquireTimeoutProperty, 20);
    opt.stopAfterTimeouts = 50;
    PlotWriter plotter;
    std::string error;
    if (!opt.plotFile.empty() && !plotter.prepare(opt.plotFile, "", error)) return usageError("--plot " + error);
    OutputFile data;
    if (!opt.plotFile.empty() && !data.open(plotter.seriesPath(), error)) return usageError("--plot " + error);
    std::string plotFile = opt.plotFile;
    opt.plotFile.clear();
    planOpt.progress = !quiet && terminal;
    planOpt.progressLines = !quiet && !terminal;
    if (!timeoutSet) std::cout << "fbm-sim plan: acquire time-out 20 ms (--prop to change it)\n";

    auto const results = runPlan(scenario, opt, planOpt);
    printPlan(results, scenario, opt, planOpt, std::cout);
    bool clean = true;
    for (auto const& r : results)
        for (auto const& row : r.rows) clean &= row.leakFree;
    if (!plotFile.empty()) {
        writePlanData(results, data.out());
        bool ok = data.close(error);
        if (ok) ok = plotter.renderScript(planPlotScript(results, plotter.dataQuoted(), scenario.name), 900, error);
        if (ok) std::cout << "plot: " << plotFile << "\n";
        else {
            std::cerr << "fbm-sim: " << error << "\n";
            clean = false;
        }
    }
    std::cout.flush();
    return clean && std::cout ? 0 : kExitLost;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace fbmsim;
    // gnuplot may go before it has read its script: a write to it must fail, not end this process.
    std::signal(SIGPIPE, SIG_IGN);
    // from-dump reads a text and runs nothing: it takes no option of a run, but --no-progress,
    // which changes nothing there.
    for (int i = 1; i < argc; ++i) {
        std::string_view const a = argv[i];
        if (a == "from-dump") return fromDumpMain(argc - i, argv + i);
        if (a != "--no-progress") break;
    }
    CLI::App app{
        "fbm-sim: runs a frame buffer manager like a camera pipeline and reports what happened.\n"
        "Exit status: 0 when every buffer came back, 1 when anything was lost or an output could not be "
        "written, 2 for bad usage.\n"
        "fbm-sim from-dump FILE rebuilds a scenario from the manager's dumps in a bug report (see its --help); "
        "fbm-sim replay REPORT runs it and sets it beside what the report recorded."};
    app.get_formatter()->column_width(34);

    Options opt;
    std::string scenarioFile, framesText, fpsText, seedText, threadsText, levelText, jsonFile;
    std::vector<std::string> props;
    bool printScenario = false;
    bool noProgress = false;
    bool allowBadGroups = false;
    app.add_option("--scenario", scenarioFile,
                   "JSON file describing streams, sharing groups, pool sizes and the selector "
                   "(default: the built-in scenario, also in tools/scenarios/default.json)")->type_name("FILE");
    app.add_option("-n,--frames", framesText, "frames to run, 1 to 100000000 (default: the scenario's)")->type_name("N");
    app.add_option("--fps", fpsText, "frame rate of the simulated timestamps, 0.1 to 1000 (default: the scenario's)")->type_name("FPS");
    app.add_option("--seed", seedText, "random seed; the same seed gives the same frame plan and counts")->type_name("SEED");
    app.add_option("--result-threads", threadsText,
                   "threads returning results, 0 to 16 (default 2); 0 returns them, and selects, on the "
                   "requesting thread, which makes every count repeatable")
        ->type_name("N");
    app.add_flag("--realtime", opt.realtime, "pace frames at the frame rate instead of as fast as possible");
    app.add_option("--prop", props,
                   "system property key=value, e.g. vendor.debug.camera.pipeline.fbm.acquire.timeout=200 "
                   "or vendor.debug.camera.log.pipeline.fbm=2 (repeatable)")->type_name("KEY=VALUE");
    app.add_flag("--logcat", opt.logcat, "print the manager's log lines to standard error, logcat-like");
    app.add_option("--log-level", levelText, "unified log detail level: 1 error, 2 warning, 3 info, 5 debug")->type_name("LEVEL");
    app.add_flag("--dump", opt.dump, "print the manager's state dump at the end of the run");
    std::vector<std::string> dumpAtTexts;
    app.add_option("--dump-at", dumpAtTexts,
                   "print the manager's state dump mid-run, right after frame N's requests, from a thread of "
                   "its own as a system dump is taken (repeatable; with --logcat, standard error and standard "
                   "output together read as a bug report)")->type_name("N");
    app.add_option("--trace", opt.traceFile, "write the run's trace sections as JSON (opens in ui.perfetto.dev)")->type_name("FILE");
    app.add_option("--series", opt.seriesFile, "write pool occupancy and ready-list length over the run (TSV)")->type_name("FILE");
    app.add_option("--plot", opt.plotFile, "render the series as a PNG plot (needs gnuplot)")->type_name("FILE");
    app.add_flag("--no-progress", noProgress,
                 "no progress on standard error (a bar on a terminal, else a line every 5 s)");
    app.add_flag("--print-scenario", printScenario, "print the built-in scenario as JSON and exit");
    app.add_flag("--allow-bad-groups", allowBadGroups,
                 "run a scenario whose sharing groups the library will refuse in part, to watch it do so");
    app.add_flag("--inject-leak", opt.injectLeak,
                 "the pipeline forgets to release one pooled buffer (shows the leak check failing)");
    app.add_option("--json", jsonFile, "write the whole report (counts, latencies, memory) as JSON")->type_name("FILE");
    app.add_flag("--real-memory", opt.realMemory,
                 "make every heap real memory of its size, pages touched (device-like resident memory and "
                 "allocation time; slower)");

    PlanOptions planOpt;
    std::vector<std::string> varyTexts;
    std::string runsText;
    CLI::App* planCmd = app.add_subcommand(
        "plan", "run the scenario once per pool maximum over a range and recommend the smallest maximum per "
                "stream with no time-outs and no 10 ms waits, with the memory it saves; takes the run options "
                "above (--plot draws time-outs, p99 latency and peak memory against the maximum)");
    planCmd->fallthrough();  // the run options above are given after "plan" too
    planCmd->add_option("--vary", varyTexts, "the maximums to try for a pool stream, e.g. fullA=3..9 (repeatable)")
        ->required()->type_name("STREAM=FROM..TO");
    planCmd->add_option("--runs", runsText,
                        "runs per value, 1 to 20 (default 1, or 3 with --result-threads above 0, whose "
                        "results vary from run to run)")->type_name("N");

    std::string reportFile, pickText;
    CLI::App* replayCmd = app.add_subcommand(
        "replay", "rebuild the scenario of a bug report's dump as from-dump does, run it with the run options "
                  "above, and print what the report recorded beside what the run did, per stream (time-outs per "
                  "100 requests, pool in use at the dump's frame, ready list), with a verdict; where the stall is "
                  "reproduced, plan the starving pools. Exit 0 when it ran, whatever the verdict; 2 for bad input");
    replayCmd->fallthrough();
    replayCmd->add_option("REPORT", reportFile, "the bug report (logcat, dumps), or - for standard input")->required();
    replayCmd->add_option("--pick", pickText, "of several managers, replay only the N-th (from 1)")->type_name("N");

    try {
        app.parse(argc, argv);
    } catch (CLI::CallForHelp const&) {
        std::cout << (*planCmd ? planCmd->help() : *replayCmd ? replayCmd->help() : app.help());
        return 0;
    } catch (CLI::ParseError const& e) {
        return usageError(e.what());
    }
    if (printScenario) {
        std::cout << defaultScenarioJson();
        return 0;
    }
    // An empty file name would run without the output, or with the built-in scenario.
    for (auto const& [name, file] : {std::pair{"--scenario", &scenarioFile}, std::pair{"--trace", &opt.traceFile},
                                     std::pair{"--series", &opt.seriesFile}, std::pair{"--plot", &opt.plotFile},
                                     std::pair{"--json", &jsonFile}}) {
        if (app.count(name) != 0 && file->empty()) return usageError(std::string(name) + ": the file name is empty");
    }
    int64_t frames = 0, threads = opt.resultThreads, level = opt.logLevel;
    double fps = 0;
    std::string why;
    if (!framesText.empty() && !wholeNumber(framesText, 1, kMaxFrames, frames, why)) {
        return usageError("--frames " + framesText + ": " + why);
    }
    if (!fpsText.empty() && !decimalNumber(fpsText, kMinFps, kMaxFps, "frames a second", fps, why)) {
        return usageError("--fps " + fpsText + ": " + why);
    }
    if (!seedText.empty()) {
        uint64_t v = 0;
        auto const [end, ec] = std::from_chars(seedText.data(), seedText.data() + seedText.size(), v);
        if (ec != std::errc() || end != seedText.data() + seedText.size()) {
            return usageError("--seed " + seedText + ": must be a whole number from 0 to 18446744073709551615");
        }
        opt.seed = v;
    }
    bool const planning = static_cast<bool>(*planCmd);
    if (planning && threadsText.empty()) threads = 0;  // repeatable counts, one run per value
    if (!threadsText.empty() && !wholeNumber(threadsText, 0, 16, threads, why)) {
        return usageError("--result-threads " + threadsText + ": " + why);
    }
    for (auto const& text : dumpAtTexts) {
        int64_t at = 0;
        if (!wholeNumber(text, 0, kMaxFrames - 1, at, why)) return usageError("--dump-at " + text + ": " + why);
        opt.dumpAt.push_back(static_cast<uint32_t>(at));
    }
    if (!levelText.empty() && !wholeNumber(levelText, 0, 5, level, why)) {
        return usageError("--log-level " + levelText + ": " + why);
    }
    opt.resultThreads = static_cast<int>(threads);
    opt.logLevel = static_cast<int>(level);
    for (auto const& p : props) {
        auto const eq = p.find('=');
        int64_t value = 0;
        if (eq == std::string::npos || eq == 0) return usageError("--prop " + p + ": expected key=integer");
        if (!wholeNumber(p.substr(eq + 1), INT32_MIN, INT32_MAX, value, why, true)) {
            return usageError("--prop " + p + ": expected key=integer; the value " + why);
        }
        if (value < 0 && p.substr(0, eq) == fbmsim::kAcquireTimeoutProperty) {
            return usageError("--prop " + p + ": a time-out of milliseconds must be 0 or more");
        }
        opt.props.emplace_back(p.substr(0, eq), static_cast<int>(value));
    }

    bool const replaying = static_cast<bool>(*replayCmd);
    ReplayInput replay;
    std::vector<Scenario> pipelines;
    if (replaying) {
        if (!scenarioFile.empty()) return usageError("replay: the scenario is the report's; --scenario belongs to a run");
        if (opt.dump || !opt.dumpAt.empty()) return usageError("replay: it dumps at the report's frame; --dump and --dump-at belong to a run");
        int64_t pick = 0;
        if (!pickText.empty() && !wholeNumber(pickText, 1, 1000000, pick, why)) return usageError("--pick " + pickText + ": " + why);
        if (reportFile.empty()) return usageError("replay: REPORT: the file name is empty");
        if (!loadReplay(reportFile, static_cast<size_t>(pick), replay, why)) return usageError("replay: " + why);
        pipelines = replay.pipelines;
    } else {
        try {
            pipelines = scenarioFile.empty() ? std::vector<Scenario>{parseScenario(defaultScenarioJson())}
                                             : loadScenarios(scenarioFile);
        } catch (ScenarioError const& e) {
            return usageError(std::string("bad scenario: ") + e.what());
        }
    }
    std::string const place = scenarioFile.empty() ? "" : scenarioFile + ": ";
    bool badGroups = false;
    for (auto& scenario : pipelines) {
        if (frames != 0) scenario.frames = static_cast<uint32_t>(frames);
        if (fps != 0) scenario.fps = fps;
        for (auto const& problem : scenario.groupProblems) {
            badGroups = true;
            if (allowBadGroups) {
                std::cerr << "fbm-sim: WARNING: " << place << problem << ": the library will refuse it\n";
            } else {
                std::cerr << "fbm-sim: bad scenario: " << place << problem << "\n";
            }
        }
        uint32_t const inFlight = opt.resultThreads == 0 ? 1 : scenario.inFlightDepth;
        for (auto const& warning :
             starvationWarnings(scenario, acquireTimeoutMs(scenario.properties, opt.props).value_or(1500), inFlight)) {
            if (!planning && !replaying) std::cerr << "fbm-sim: warning: " << warning << "\n";  // a plan tries other maximums
        }
    }
    if (badGroups && !allowBadGroups) {
        return usageError("bad sharing groups: the library would refuse them in part "
                          "(--allow-bad-groups runs the scenario to watch it do so)");
    }
    if (planning && pipelines.size() != 1) return usageError("plan: the scenario must hold a single pipeline");
    for (uint32_t at : opt.dumpAt) {
        for (auto const& scenario : pipelines) {
            if (at >= scenario.frames) {
                return usageError("--dump-at " + std::to_string(at) + ": the run has frames 0 to " +
                                  std::to_string(scenario.frames - 1));
            }
        }
    }

    // Logging: nothing is kept in memory (long runs); the log goes to stderr when asked.
    vexlor::host::LogCapture::setCapturing(false);
    vexlor::host::LogCapture::setEcho(opt.logcat);
    vexlor::host::setULogSwitches(static_cast<uint32_t>(opt.logLevel), opt.logLevel >= 3 ? 0x207000 : 0,
                                  opt.logcat ? 1 : 0);
    vexlor::host::HeapFactory::setRealMemory(opt.realMemory);
    bool const terminal = isatty(STDERR_FILENO) != 0;
    if (planning) return plan(pipelines.front(), opt, planOpt, varyTexts, runsText, jsonFile, noProgress || opt.logcat, terminal);

    // Every output is made before the run: a bad path costs nothing.
    std::string error;
    TraceWriter trace;
    OutputFile series;
    PlotWriter plot;
    OutputFile json;
    if (!opt.traceFile.empty() && !trace.open(opt.traceFile, error)) return usageError("--trace " + error);
    if (!jsonFile.empty() && !json.open(jsonFile, error)) return usageError("--json " + error);
    if (!opt.plotFile.empty() && !plot.prepare(opt.plotFile, opt.seriesFile, error)) return usageError("--plot " + error);
    std::string const seriesPath = opt.plotFile.empty() ? opt.seriesFile : plot.seriesPath();
    if (!seriesPath.empty() && !series.open(seriesPath, error)) return usageError("--series " + error);

    opt.progress = !noProgress && !opt.logcat && terminal;
    opt.progressLines = !noProgress && !opt.logcat && !terminal;

    if (!opt.traceFile.empty()) trace.start();
    ProcessReport process;
    ReplayOutcome replayed;
    if (replaying) {
        for (auto& scenario : replay.pipelines) {
            if (frames != 0) scenario.frames = static_cast<uint32_t>(frames);
            if (fps != 0) scenario.fps = fps;
        }
        if (!acquireTimeoutMs(replay.pipelines.front().properties, opt.props).has_value()) {
            // A starving replay would wait 1.5 s a request, as plan would: 20 ms unless told.
            opt.props.emplace_back(kAcquireTimeoutProperty, 20);
            std::cout << "fbm-sim replay: acquire time-out 20 ms: the report does not show it (--prop to change it)\n";
        }
        // One report, one verdict: results on the requesting thread make every run of the replay
        // (the fit's, the replay's, the plan's) repeat its counts exactly, so the verdict repeats.
        if (threadsText.empty()) opt.resultThreads = 0;
        std::cout << (opt.resultThreads == 0
                          ? "fbm-sim replay: judged on runs with results on the requesting thread: every count, "
                            "and so the verdict, repeats for a seed\n"
                          : "fbm-sim replay: judged on runs with " + std::to_string(opt.resultThreads) +
                                " result threads: counts vary from run to run, and the verdict with them (leave "
                                "--result-threads out for a repeatable one)\n");
        replayed = runReplay(replay, opt, std::cout, process);
    } else {
        process = runSimulations(pipelines, opt, std::cout);
    }
    bool const several = process.pipelines.size() > 1;
    for (auto const& report : process.pipelines) {
        if (replaying) break;  // the replay printed its reports, with the recorded figures
        if (several) std::cout << "\n==== pipeline \"" << report.scenario << "\" ====\n";
        printReport(report, std::cout);
    }
    if (several) {
        std::cout << "\n==== process ====\n" << process.pipelines.size()
                  << " pipelines at once: peak bytes of all heaps at once " << bytesText(process.peakBytes)
                  << "; leak check: " << (process.leakFree ? "OK" : "LOST") << "\n";
        if (!seriesPath.empty()) {
            std::cout << "(series and plot show the first pipeline, \"" << process.pipelines[0].scenario << "\")\n";
        }
    }
    RunReport const& report = process.pipelines.front();
    bool written = true;
    auto failed = [&](std::string const& message) {
        std::cerr << "fbm-sim: " << message << "\n";
        written = false;
    };
    if (series.isOpen()) {
        writeSeries(report, series.out());
        if (!series.close(error)) failed(error);
        else if (!opt.seriesFile.empty()) std::cout << "series: " << opt.seriesFile << "\n";
    }
    if (!opt.plotFile.empty() && written) {
        if (plot.render(report, error)) std::cout << "plot: " << opt.plotFile << "\n";
        else failed(error);
    }
    if (json.isOpen()) {
        std::string text = several ? processJson(process) : reportJson(report);
        if (replaying) {
            auto j = nlohmann::ordered_json::parse(text);
            j["replay"] = replayed.json;
            text = j.dump(2) + "\n";
        }
        json.out() << text;
        if (!json.close(error)) failed(error);
        else std::cout << "json: " << jsonFile << "\n";
    }
    if (!opt.traceFile.empty()) {
        if (trace.finish(error)) std::cout << "trace: " << opt.traceFile << "\n";
        else failed(error);
    }
    if (replaying && !replayed.vary.empty() && replay.pipelines.size() == 1) {
        // The maximums that end the stall, every starving pool sized together: a pool given more
        // heaps may pass the stall on to another. Sized for results that come back from threads,
        // as a device's do (the stall moves on only there), unless told otherwise.
        if (threadsText.empty()) opt.resultThreads = 2;
        std::cout << "\nplanning the starving pools of the replay together, with "
                  << (opt.resultThreads > 0 ? std::to_string(opt.resultThreads) +
                                                  " result threads, 3 runs a round (seeds from the replay's): a pool "
                                                  "starving in any starves"
                                            : std::string("results on the requesting thread, one run a round"))
                  << ":\n";
        opt.dumpAt.clear();
        opt.traceFile.clear();
        opt.seriesFile.clear();
        opt.plotFile.clear();
        opt.progress = opt.progressLines = false;
        std::vector<std::string> streams;
        for (auto const& v : replayed.vary) streams.push_back(v.substr(0, v.rfind('=')));
        printJointPlan(planTogether(replay.pipelines.front(), opt, streams), std::cout);
    }
    std::cout.flush();
    if (!std::cout) return kExitLost;  // the report itself could not be written
    return process.leakFree && written ? 0 : kExitLost;
}

