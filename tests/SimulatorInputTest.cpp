// The simulator under hostile input, run as a user runs it: no shell, no crash, no silent wrap,
// no run that only looks hung, outputs checked before and after, valid trace JSON.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cutils/trace.h>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include <nlohmann/json.hpp>
#include <vexlor/HostSeams.h>

#include "Outputs.h"
#include "SimRunner.h"

namespace {

using namespace simtest;

bool isPng(std::string const& path) { return slurp(path).rfind("\x89PNG", 0) == 0; }

bool gnuplotInstalled() { return access("/usr/bin/gnuplot", X_OK) == 0; }

TEST(SimulatorInput, PlotPathsAreNeverShellText) {
    if (!gnuplotInstalled()) GTEST_SKIP() << "gnuplot is not installed";
    TempDir dir;
    // Relative names, so that a shell would run its `touch` right here.
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(dir.path.c_str()), 0);
    std::string const hostile = "x'; touch INJECTED; echo '.png";
    SimRun a = runSim({"-n", "60", "--plot", hostile});
    SimRun b = runSim({"-n", "60", "--plot", "bob's \"plot\" $(id).png"});
    ASSERT_EQ(chdir(cwd), 0);
    EXPECT_EQ(a.exitCode, 0) << a.out;
    EXPECT_EQ(b.exitCode, 0) << b.out;
    // Exactly the two pictures: no injected file, no script, no series or temporary file left.
    EXPECT_EQ(dir.names(), (std::set<std::string>{hostile, "bob's \"plot\" $(id).png"}));
    EXPECT_TRUE(isPng(dir / hostile));
}

// Each key's range is held to the parser by SimulatorDoc; here what gets past a range check alone
// (fractions, products, 64-bit values), through the binary, and the command line.
TEST(SimulatorInput, NumbersAreCheckedBeforeTheyAreConverted) {
    TempDir dir;
    for (auto const& [json, message] : std::initializer_list<std::pair<char const*, char const*>>{
             {R"({"frames": 3.7, "images": [{"name": "a", "id": 1}]})",
              "scenario.frames: must be an integer from 1 to 100000000 (got 3.7)"},
             {R"({"images": [{"name": "a", "id": 1, "maxBuffers": 0}]})",
              "scenario.images[0].maxBuffers: must be an integer from 1 to 64 (got 0)"},
             {R"({"images": [{"name": "a", "id": 1, "width": 4294967936}]})",
              "scenario.images[0].width: must be an integer from 1 to 1073741824 (got 4294967936)"},
             {R"({"images": [{"name": "a", "id": 1, "width": 65536, "height": 65536}]})",
              "scenario.images[0]: width x height must be at most 1073741824 (1 GiB)"},
             {R"({"images": [{"name": "a", "id": 18446744073709551615}]})", "scenario.images[0].id: must be a stream id"},
             {R"({"fps": 1e-300, "images": [{"name": "a", "id": 1}]})",
              "scenario.fps: must be a number from 0.1 to 1000 (got 1e-300)"},
             {R"({"images": [{"name": "a", "id": 1}], "properties": {"x": 1099511627776}})",
              "scenario.properties.x: must be an integer from -2147483648 to 2147483647 (got 1099511627776)"},
             // What a reader of the file would not mean: a key twice (the second would win), a
             // change of a pool the pipeline cannot change, a time-out below zero.
             {R"({"frames": 5, "images": [{"name": "a", "id": 1}], "frames": 7})",
              "key \"frames\" is given twice in one object"},
             {R"({"images": [{"name": "a", "id": 1, "source": "runtime"}], "poolChanges": [{"stream": 1}]})",
              "scenario.poolChanges[0].stream: is a RUNTIME stream: only a pool stream's maximum can be changed"},
             {R"({"images": [{"name": "a", "id": 1, "source": "hal-provider"}], "poolChanges": [{"stream": 1}]})",
              "is a HAL PROVIDER stream"},
             {R"({"images": [{"name": "a", "id": 1}], "properties": {"vendor.debug.camera.pipeline.fbm.acquire.timeout": -1}})",
              "scenario.properties.vendor.debug.camera.pipeline.fbm.acquire.timeout: a time-out of milliseconds must be 0 or more"},
         }) {
        SimRun r = runSim({"--scenario", dir.write("s.json", json)});
        EXPECT_EQ(r.exitCode, 2) << json << "\n" << r.out;
        EXPECT_TRUE(has(r, message)) << message << "\n" << r.out;
    }
    // The command line, in the user's terms.
    for (auto const& [args, message] : std::initializer_list<std::pair<std::vector<std::string>, char const*>>{
             {{"-n", "1e3"}, "--frames 1e3: is not a whole number; give it as digits, from 1 to 100000000"},
             {{"-n", "abc"}, "--frames abc: is not a whole number"},
             {{"-n", "4294967297"}, "--frames 4294967297: is out of range: must be from 1 to 100000000"},
             {{"--fps", "0"}, "--fps 0: is out of range: must be from 0.1 to 1000 frames a second"},
             {{"--fps", "1e-300"}, "--fps 1e-300: is out of range"},
             {{"--fps", "inf"}, "--fps inf: is not a number"},
             {{"--seed", "-1"}, "--seed -1: must be a whole number from 0 to 18446744073709551615"},
             {{"--prop", "vendor.debug.camera.pipeline.fbm.acquire.timeout=4294967296"},
              "the value is out of range: must be from -2147483648 to 2147483647"},
             {{"--prop", "novalue"}, "--prop novalue: expected key=integer"},
             {{"--prop", "vendor.debug.camera.pipeline.fbm.acquire.timeout=-5"},
              "--prop vendor.debug.camera.pipeline.fbm.acquire.timeout=-5: a time-out of milliseconds must be 0 or more"},
             {{"--scenario", ""}, "--scenario: the file name is empty"},
             {{"--trace", ""}, "--trace: the file name is empty"},
             {{"--series", ""}, "--series: the file name is empty"},
             {{"--plot", ""}, "--plot: the file name is empty"},
             {{"--json", ""}, "--json: the file name is empty"},
         }) {
        SimRun r = runSim(args);
        EXPECT_EQ(r.exitCode, 2) << r.out;
        EXPECT_TRUE(has(r, message)) << message << "\n" << r.out;
        EXPECT_EQ(r.out.find("fbm-sim: scenario"), std::string::npos) << "ran anyway:\n" << r.out;
    }
    SimRun r = runSim({"-n", "10", "--fps", "0.5"});
    EXPECT_EQ(r.exitCode, 0) << r.out;
    EXPECT_TRUE(has(r, "10 frames at 0.5 fps")) << r.out;
}

TEST(SimulatorInput, AStarvingScenarioSaysSoAtStartAndShowsItIsAlive) {
    // Not a terminal: progress comes as log lines, first at the start and last at the end.
    SimRun r = runSim(SimSpawn{{"--scenario", FBM_SCENARIO_DIR "/starving.json", "-n", "40", "--result-threads", "0"},
                               {}, std::chrono::seconds(120), false});
    ASSERT_EQ(r.exitCode, 0) << r.out;
    EXPECT_TRUE(has(r, "fbm-sim: warning: this scenario starves stream capture: its pool has 3 buffers and needs 7 "
                       "(1 in flight, 6 held by the selector); each starved request waits up to 20 ms"))
        << r.out;
    EXPECT_TRUE(has(r, "fbm-sim: running 40 frames of scenario \"starving\"")) << r.out;
    EXPECT_TRUE(has(r, "fbm-sim: done: frame 40 of 40 (100%)")) << r.out;

    // The default scenario feeds its pools; a planned change to one buffer starves the shared one.
    TempDir dir;
    std::string json = slurp(FBM_SCENARIO_DIR "/default.json");
    json.replace(json.find("\"maxBuffers\": 6}"), 16, "\"maxBuffers\": 1}");
    r = runSim({"--scenario", dir.write("s.json", json), "-n", "1002", "--result-threads", "0", "--prop",
                "vendor.debug.camera.pipeline.fbm.acquire.timeout=5"});
    ASSERT_EQ(r.exitCode, 0) << r.out;
    EXPECT_TRUE(has(r, "starves streams fullA, fullB from frame 1000: its pool has 1 buffer and needs 4 (2 in "
                       "flight, 2 held by the selector); each starved request waits up to 5 ms"))
        << r.out;
    EXPECT_EQ(r.out.find("warning"), r.out.rfind("warning")) << "only the change starves:\n" << r.out;
}

TEST(SimulatorInput, OutputsAreCheckedBeforeTheRunAndWritesAfterIt) {
    TempDir dir;
    auto ranAnyway = [](SimRun const& r) { return has(r, "leak check:"); };
    for (auto const& args : std::vector<std::vector<std::string>>{
             {"--trace", dir.path},
             {"--series", dir / "missing/s.tsv"},
             {"--plot", dir.path},
             {"--plot", "/dev/full"},
             {"--plot", dir / "missing/p.png"},
         }) {
        std::vector<std::string> all{"-n", "100000000"};  // would run for minutes if it started
        all.insert(all.end(), args.begin(), args.end());
        SimRun r = runSim(all);
        EXPECT_EQ(r.exitCode, 2) << args[0] << " " << args[1] << "\n" << r.out;
        EXPECT_TRUE(has(r, "fbm-sim: " + args[0] + " " + args[1])) << r.out;
        EXPECT_FALSE(ranAnyway(r)) << r.out;
    }
    for (char const* option : {"--series", "--trace"}) {
        SimRun r = runSim({"-n", "30", option, "/dev/full"});
        EXPECT_EQ(r.exitCode, 1) << option << "\n" << r.out;
        EXPECT_TRUE(has(r, "fbm-sim: /dev/full: could not be written: No space left on device")) << r.out;
        EXPECT_FALSE(has(r, ": /dev/full\n")) << "reported as written:\n" << r.out;
    }
    // gnuplot fails: exit 1, and neither a picture nor a temporary file is left.
    if (!gnuplotInstalled()) GTEST_SKIP() << "gnuplot is not installed";
    TempDir bin;
    std::string const fake = bin.write("gnuplot", "#!/bin/sh\ncat >/dev/null\nexit 1\n");
    chmod(fake.c_str(), 0755);
    SimRun r = runSim(SimSpawn{{"-n", "30", "--plot", dir / "p.png"}, {"PATH=" + bin.path + ":/usr/bin:/bin"}, std::chrono::seconds(120), true});
    EXPECT_EQ(r.exitCode, 1) << r.out;
    EXPECT_TRUE(has(r, "p.png: gnuplot could not draw the plot")) << r.out;
    EXPECT_TRUE(dir.names().empty()) << *dir.names().begin();
}

TEST(SimulatorInput, TraceIsValidJsonWhateverTheStreamsAreCalled) {
    TempDir dir;
    std::string const name = "odd\nname\twith \"quotes\" \\ and \x01 \xc3\xa9";
    nlohmann::json scenario = {{"images", {{{"name", name}, {"id", 1}, {"keep", true}, {"maxBuffers", 8}}}},
                               {"metas", {{{"name", "m\r"}, {"id", 2}}}}};
    SimRun r = runSim({"--scenario", dir.write("s.json", scenario.dump()), "-n", "50", "--trace", dir / "t.json",
                       "--series", dir / "s.tsv"});
    ASSERT_EQ(r.exitCode, 0) << r.out;
    nlohmann::json trace;
    ASSERT_NO_THROW(trace = nlohmann::json::parse(slurp(dir / "t.json")));
    bool named = false;
    for (auto const& e : trace["traceEvents"]) {
        named |= e.contains("name") && e["name"].get<std::string>().find(name) != std::string::npos;
    }
    EXPECT_TRUE(named) << "no event names the stream";
    // One header line and one line per sample: the name cannot break the table.
    std::string const tsv = slurp(dir / "s.tsv");
    EXPECT_EQ(tsv.substr(0, tsv.find('\n')).find('\r'), std::string::npos);
}

TEST(SimulatorInput, TraceEventsGoToTheFileAsTheyComeNotToMemory) {
    TempDir dir;
    std::string error;
    {
        fbmsim::TraceWriter writer;
        ASSERT_TRUE(writer.open(dir / "t.json", error)) << error;
        vexlor::host::TraceRecorder::clear();
        vexlor::host::TraceRecorder::setEnabledTags(ATRACE_TAG_CAMERA);
        writer.start();
        for (int i = 0; i < 1000; ++i) {
            atrace_begin(ATRACE_TAG_CAMERA, "frame \"work\"");
            atrace_end(ATRACE_TAG_CAMERA);
        }
        EXPECT_TRUE(vexlor::host::TraceRecorder::events().empty());
        ASSERT_TRUE(writer.finish(error)) << error;
    }
    auto const trace = nlohmann::json::parse(slurp(dir / "t.json"));
    EXPECT_EQ(trace["traceEvents"].size(), 2000u);
    EXPECT_EQ(trace["traceEvents"][0]["name"], "frame \"work\"");
    // Recording resumes in memory once the writer is done.
    atrace_begin(ATRACE_TAG_CAMERA, "after");
    atrace_end(ATRACE_TAG_CAMERA);
    vexlor::host::TraceRecorder::setEnabledTags(0);
    EXPECT_EQ(vexlor::host::TraceRecorder::countBegins("after"), 1u);
}

TEST(SimulatorInput, BadSharingGroupsAreRefusedOrRunLoudly) {
    TempDir dir;
    std::string const file = dir.write("s.json", R"({
      "images": [{"name": "a", "id": 1}, {"name": "b", "id": 2, "width": 320},
                 {"name": "r", "id": 4, "source": "runtime"}],
      "metas": [{"name": "m", "id": 3}],
      "sharedGroups": [[1, 2], [1, 3, 9, 4]]})");
    SimRun r = runSim({"--scenario", file, "-n", "20"});
    EXPECT_EQ(r.exitCode, 2) << r.out;
    for (char const* problem : {"scenario.sharedGroups[0][1]: stream 2 differs in size or format from a",
                                "scenario.sharedGroups[1][0]: stream 1 is in more than one group",
                                "scenario.sharedGroups[1][1]: stream 3 is a metadata stream",
                                "scenario.sharedGroups[1][2]: stream 9 is not a stream of the scenario",
                                "scenario.sharedGroups[1][3]: stream 4 is not a POOL stream (it is RUNTIME)"}) {
        EXPECT_TRUE(has(r, std::string("fbm-sim: bad scenario: ") + file + ": " + problem)) << problem << "\n" << r.out;
    }
    EXPECT_FALSE(has(r, "leak check:"));
    r = runSim({"--scenario", file, "-n", "20", "--allow-bad-groups"});
    EXPECT_EQ(r.exitCode, 0) << r.out;
    EXPECT_TRUE(has(r, "fbm-sim: WARNING: " + file + ": scenario.sharedGroups[1][1]: stream 3 is a metadata stream: "
                       "the library will refuse it"))
        << r.out;
    EXPECT_TRUE(has(r, "leak check: OK")) << r.out;
}

TEST(SimulatorInput, RealtimeSaysWhenTheHostCannotKeepUp) {
    SimRun r = runSim({"--realtime", "--fps", "1000", "-n", "200"});
    ASSERT_EQ(r.exitCode, 0) << r.out;
    auto at = r.out.find(" frames/s (");
    ASSERT_NE(at, std::string::npos);
    double const reached = std::stod(r.out.substr(r.out.rfind('\n', at) + 1));
    EXPECT_EQ(reached < 950, has(r, "realtime: paced at 1000 fps but reached ")) << r.out;
}

}  // namespace
