// fbm-sim replay, as a user meets a field report: a recorded run's log and mid-run dump rebuilt,
// run again and set beside what was recorded.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "SimRunner.h"

namespace {

using nlohmann::json;
using namespace simtest;

std::vector<std::string> const kRun{"-n", "300", "--seed", "5", "--result-threads", "0"};
// The dump alone is one moment: it shows a stall while processing holds a pool near full (frame 300 here).
std::vector<std::string> const kDumpAloneRun{"-n", "600", "--seed", "5", "--result-threads", "0"};

// Time-outs per 100 requests of each stream that starved, from a run's own stream table.
std::map<std::string, double> starvedIn(std::string const& out) {
    static std::regex const row(R"((?:^|\n)(0x[0-9a-f]+) +\S+ +.+? +(\d+) +\d+ +\d+ +(\d+)(?=\n))");
    std::map<std::string, double> rates;
    for (auto it = std::sregex_iterator(out.begin(), out.end(), row); it != std::sregex_iterator(); ++it) {
        double const requests = std::stod((*it)[2]), timeouts = std::stod((*it)[3]);
        if (timeouts > 0) rates[(*it)[1]] = 100 * timeouts / requests;
    }
    return rates;
}

TEST(SimulatorReplay, EveryShippedScenarioStarvesTheSameStreamsAgain) {
    TempDir dir;
    auto const scenarios = simtest::shippedScenarios();
    ASSERT_GE(scenarios.size(), 3u);
    bool sawStall = false;
    for (auto const& scenario : scenarios) {
        SCOPED_TRACE(scenario);
        for (bool logcat : {true, false}) {
            SCOPED_TRACE(logcat ? "log and dump" : "the dump alone");
            auto const& run = logcat ? kRun : kDumpAloneRun;
            std::vector<std::string> args{"--scenario", scenario, "--dump-at", logcat ? "150" : "300"};
            args.insert(args.end(), run.begin(), run.end());
            if (logcat) args.push_back("--logcat");
            SimRun recorded = runSim(args);
            ASSERT_EQ(recorded.exitCode, 0) << recorded.out;
            auto const starved = starvedIn(recorded.out);
            args = {"replay", dir.write("report.txt", recorded.out), "--json", dir / "replay.json"};
            args.insert(args.end(), run.begin(), run.end());
            SimRun r = runSim({args, {}, std::chrono::seconds(300)});
            ASSERT_EQ(r.exitCode, 0) << r.out;
            json const j = json::parse(slurp(dir / "replay.json"));
            std::map<std::string, double> replayed;
            for (auto const& s : j["replay"]["streams"]) {
                if (s["replayedTimeoutsPer100"].get<double>() > 0) replayed[s["id"]] = s["replayedTimeoutsPer100"];
            }
            ASSERT_EQ(replayed.size(), starved.size()) << r.out;
            for (auto const& [id, rate] : starved) {
                ASSERT_EQ(replayed.count(id), 1u) << id << "\n" << r.out;
                if (logcat) {
                    EXPECT_LE(std::fabs(replayed[id] - rate), 0.3 * rate) << id << "\n" << r.out;
                }
            }
            EXPECT_EQ(j["replay"]["reproduced"], !starved.empty()) << r.out;
            EXPECT_TRUE(has(r, starved.empty() ? "verdict: no stall" : "verdict: stall reproduced")) << r.out;
            if (!starved.empty()) {
                sawStall = true;
                // every starving pool's maximum, sized together, that ends it
                EXPECT_TRUE(has(r, "recommendation, every pool together (replayed with these maximums, no pool starves):\n  "))
                    << r.out;
            }
        }
    }
    EXPECT_TRUE(sawStall);
}


// A field report as it arrives (tools/reports/night-shot.txt): logcat with the producer's
// time-outs and the request errors that carry the frame numbers, around a system dump taken
// mid-stream while processing holds both of capture's heaps and the ready list one set of preview.
TEST(SimulatorReplay, AFieldReportIsRebuiltFromItsEvidenceAndReplayed) {
    TempDir dir;
    std::string const report = FBM_REPORT_DIR "/night-shot.txt";
    SimRun r = runSim({"from-dump", report, "-o", dir / "field.json"});
    ASSERT_EQ(r.exitCode, 0) << r.out;
    json const s = json::parse(slurp(dir / "field.json"));
    EXPECT_EQ(s["properties"]["vendor.debug.camera.pipeline.fbm.acquire.timeout"], 8);
    EXPECT_NEAR(s["fps"].get<double>(), 30, 0.1);  // 9 frames in 0.3 s: one timed set is too few
    EXPECT_EQ(s["images"][0]["keep"], true);
    EXPECT_EQ(s["selector"]["keepNewest"], 1);
    EXPECT_EQ(s["selector"]["holdSelections"], 2);
    std::string const note = s["_from_dump"];
    for (char const* said : {"the frame rate from the log lines' frame numbers and times",
                             "as pool capture has 2 heaps in use that no ready or in-flight set holds",
                             "recorded: frames 100 to 109 in the log, 3 acquire time-outs of capture"}) {
        EXPECT_NE(note.find(said), std::string::npos) << said << "\n" << note;
    }

    r = runSim({{"replay", report, "-n", "200", "--result-threads", "0"}, {}, std::chrono::seconds(300)});
    ASSERT_EQ(r.exitCode, 0) << r.out;
    // Judged on runs that repeat their counts, so every replay of the report gives this verdict.
    EXPECT_TRUE(has(r, "judged on runs with results on the requesting thread: every count, and so the verdict, repeats"))
        << r.out;
    EXPECT_TRUE(has(r, "recorded frames 100 to 109 in its log; the dump at frame 109\n")) << r.out;
    EXPECT_TRUE(has(r, "0x10     capture            30.0")) << r.out;
    EXPECT_TRUE(has(r, "2 of 2         2 of 2\n")) << r.out;
    EXPECT_TRUE(has(r, "ready list at the dump: recorded 1, replayed ")) << r.out;
    EXPECT_TRUE(has(r, "verdict: stall reproduced: capture starves")) << r.out;
    EXPECT_TRUE(has(r, "planning the starving pools of the replay together, with results on the requesting thread"))
        << r.out;
    EXPECT_TRUE(has(r, "  capture: maximum 3 (configured 2)")) << r.out;
}

TEST(SimulatorReplay, BadReportsAreOneLineAndExitTwo) {
    TempDir dir;
    for (auto const& [text, message] : std::initializer_list<std::pair<std::string, char const*>>{
             {"just logcat\n", "no frame buffer manager dump in it"},
             {"<image streams>\n    [IMAGE-HAL-POOL    ]0x1:p 64x48 fmt:0x32315659 planes:2 max:6 min:4\n",
              "line 2: the input ends inside the stream table"},
             {std::string("\x7f" "ELF\0\0", 6), "binary data"},
         }) {
        SimRun r = runSim({"replay", dir.write("bad.txt", text)});
        EXPECT_EQ(r.exitCode, 2) << r.out;
        EXPECT_TRUE(has(r, message)) << message << "\n" << r.out;
        EXPECT_FALSE(has(r, "verdict")) << r.out;
    }
    SimRun r = runSim({"replay", FBM_REPORT_DIR "/night-shot.txt", "--scenario", FBM_SCENARIO_DIR "/default.json"});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_TRUE(has(r, "replay: the scenario is the report's")) << r.out;
}

}  // namespace
