// fbm-sim: a camera pipeline on the desk. Configures a frame buffer manager like a multi-frame
// capture camera, runs frames through it from several threads, and reports what happened.
#include <unistd.h>

#include <cstdio>
#include <iostream>

#include <CLI/CLI.hpp>
#include <vexlor/HostSeams.h>

#include "Scenario.h"
#include "Simulation.h"

namespace {

constexpr int kExitLost = 1;
constexpr int kExitUsage = 2;

int usageError(std::string const& message) {
    std::cerr << "fbm-sim: " << message << "\nRun 'fbm-sim --help' for the options.\n";
    return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace fbmsim;
    CLI::App app{
        "fbm-sim: runs a frame buffer manager like a camera pipeline and reports what happened.\n"
        "Exit status: 0 when every buffer came back, 1 when anything was lost, 2 for bad usage."};
    app.get_formatter()->column_width(34);

    Options opt;
    std::string scenarioFile;
    uint32_t frames = 0;
    double fps = 0;
    std::vector<std::string> props;
    bool printScenario = false;
    bool noProgress = false;
    app.add_option("--scenario", scenarioFile,
                   "JSON file describing streams, sharing groups, pool sizes and the selector "
                   "(default: the built-in scenario, also in tools/scenarios/default.json)")
        ->check(CLI::ExistingFile);
    app.add_option("-n,--frames", frames, "frames to run (default: the scenario's)")->check(CLI::Range(1u, 100000000u));
    app.add_option("--fps", fps, "frame rate of the simulated timestamps (default: the scenario's)")
        ->check(CLI::PositiveNumber);
    app.add_option("--seed", opt.seed, "random seed; the same seed gives the same frame plan and counts");
    app.add_option("--result-threads", opt.resultThreads,
                   "threads returning results; 0 returns them, and selects, on the requesting thread, "
                   "which makes every count repeatable")
        ->check(CLI::Range(0, 16));
    app.add_flag("--realtime", opt.realtime, "pace frames at the frame rate instead of as fast as possible");
    app.add_option("--prop", props,
                   "system property key=value, e.g. vendor.debug.camera.pipeline.fbm.acquire.timeout=200 "
                   "or vendor.debug.camera.log.pipeline.fbm=2 (repeatable)");
    app.add_flag("--logcat", opt.logcat, "print the manager's log lines to standard error, logcat-like");
    app.add_option("--log-level", opt.logLevel, "unified log detail level: 1 error, 2 warning, 3 info, 5 debug")
        ->check(CLI::Range(0, 5));
    app.add_flag("--dump", opt.dump, "print the manager's state dump at the end of the run");
    app.add_option("--trace", opt.traceFile, "write the run's trace sections as JSON (opens in ui.perfetto.dev)");
    app.add_option("--series", opt.seriesFile, "write pool occupancy and ready-list length over the run (TSV)");
    app.add_option("--plot", opt.plotFile, "render the series as a PNG plot (needs gnuplot)");
    app.add_flag("--no-progress", noProgress, "no progress bar on standard error");
    app.add_flag("--print-scenario", printScenario, "print the built-in scenario as JSON and exit");
    app.add_flag("--inject-leak", opt.injectLeak,
                 "the pipeline forgets to release one pooled buffer (shows the leak check failing)");

    try {
        app.parse(argc, argv);
    } catch (CLI::CallForHelp const&) {
        std::cout << app.help();
        return 0;
    } catch (CLI::ParseError const& e) {
        return usageError(e.what());
    }
    if (printScenario) {
        std::cout << defaultScenarioJson();
        return 0;
    }
    for (auto const& p : props) {
        auto const eq = p.find('=');
        char* end = nullptr;
        long const value = eq == std::string::npos ? 0 : std::strtol(p.c_str() + eq + 1, &end, 0);
        if (eq == std::string::npos || eq == 0 || end == p.c_str() + eq + 1 || *end != '\0') {
            return usageError("--prop " + p + ": expected key=integer");
        }
        opt.props.emplace_back(p.substr(0, eq), static_cast<int>(value));
    }

    Scenario scenario;
    try {
        scenario = scenarioFile.empty() ? parseScenario(defaultScenarioJson()) : loadScenario(scenarioFile);
    } catch (ScenarioError const& e) {
        return usageError(std::string("bad scenario: ") + e.what());
    }
    if (frames != 0) scenario.frames = frames;
    if (fps != 0) scenario.fps = fps;
    if (!opt.plotFile.empty() && opt.seriesFile.empty()) opt.seriesFile = opt.plotFile + ".tsv";

    // Logging: nothing is kept in memory (long runs); the log goes to stderr when asked.
    vexlor::host::LogCapture::setCapturing(false);
    vexlor::host::LogCapture::setEcho(opt.logcat);
    vexlor::host::setULogSwitches(static_cast<uint32_t>(opt.logLevel), opt.logLevel >= 3 ? 0x207000 : 0,
                                  opt.logcat ? 1 : 0);
    opt.progress = !noProgress && !opt.logcat && isatty(STDERR_FILENO);

    RunReport report = runSimulation(scenario, opt, std::cout);
    printReport(report, std::cout);
    std::string error;
    if (!opt.seriesFile.empty()) {
        if (writeSeries(report, opt.seriesFile, error)) std::cout << "series: " << opt.seriesFile << "\n";
        else std::cerr << "fbm-sim: " << error << "\n";
    }
    if (!opt.plotFile.empty()) {
        if (renderPlot(opt.seriesFile, opt.plotFile, report, error)) std::cout << "plot: " << opt.plotFile << "\n";
        else std::cerr << "fbm-sim: " << error << "\n";
    }
    if (!opt.traceFile.empty()) {
        if (writeTrace(opt.traceFile, error)) std::cout << "trace: " << opt.traceFile << "\n";
        else std::cerr << "fbm-sim: " << error << "\n";
    }
    return report.leakFree ? 0 : kExitLost;
}
