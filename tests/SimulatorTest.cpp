// The pipeline simulator as its users run it: the binary, its report, files and exit codes.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "Scenario.h"
#include "SimRunner.h"

namespace {

using namespace simtest;

// Arguments split at blanks: for the tests whose arguments hold none.
SimRun sim(std::string const& args) {
    std::vector<std::string> argv;
    std::istringstream in(args);
    for (std::string a; in >> a;) argv.push_back(a);
    return runSim(argv);
}

uint64_t number(std::string const& text, std::string const& label) {
    auto at = text.find(label);
    return at == std::string::npos ? UINT64_MAX : std::stoull(text.substr(at + label.size()));
}

std::string tempPath(char const* name) { return ::testing::TempDir() + name; }

TEST(Simulator, DefaultScenarioRunsCleanAndWritesItsFiles) {
    std::string const series = tempPath("series.tsv"), trace = tempPath("trace.json");
    SimRun r = sim("-n 600 --series " + series + " --trace " + trace);
    ASSERT_EQ(r.exitCode, 0) << r.out;
    EXPECT_NE(r.out.find("leak check: OK"), std::string::npos) << r.out;
    std::string squeezed;  // runs of blanks as one: the table's columns are padded
    for (char ch : r.out) {
        if (ch != ' ' || squeezed.empty() || squeezed.back() != ' ') squeezed += ch;
    }
    for (char const* line : {"0x2 fullA POOL 600 600 0 0", "0x6 jpeg APP PROVIDER 600 600 0 0",
                             "0x7 depth POOL 300 300", "run-time allocations 600, acquire time-outs 0"}) {
        EXPECT_NE(squeezed.find(line), std::string::npos) << line << "\n" << r.out;
    }
    EXPECT_GT(number(r.out, "released under pressure "), 0u);  // the shared pool starved and was fed
    EXPECT_GT(number(r.out, "cloned "), 0u);

    std::string const tsv = slurp(series);
    EXPECT_EQ(tsv.rfind("frame\tseconds\treadyList\tresidentMb\t", 0), 0u);
    EXPECT_NE(tsv.find("shared-0x2-0x3.inUse"), std::string::npos);
    EXPECT_GT(std::count(tsv.begin(), tsv.end(), '\n'), 100);
    std::string const json = slurp(trace);
    EXPECT_EQ(json.rfind("{\"displayTimeUnit\":\"ns\",\"traceEvents\":[", 0), 0u);
    EXPECT_NE(json.find("\"name\":\"POOL requestStreamBuffer preview|request:"), std::string::npos);
    EXPECT_NE(json.find("\"name\":\"IFrameBufferManager::configureStreams\""), std::string::npos);
}

TEST(Simulator, StarvingScenarioTimesOutAndStillLosesNothing) {
    // Synchronous results and selection: the selector holds more than the pool has, every time.
    SimRun r = sim(std::string("--scenario ") + FBM_SCENARIO_DIR "/starving.json -n 200 --result-threads 0");
    ASSERT_EQ(r.exitCode, 0) << r.out;
    EXPECT_GT(number(r.out, "acquire time-outs "), 0u) << r.out;
    EXPECT_GT(number(r.out, "destroyed "), 0u);
    EXPECT_NE(r.out.find("leak check: OK"), std::string::npos);
}

TEST(Simulator, ALostBufferFailsTheRun) {
    SimRun r = sim("-n 50 --inject-leak");
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.out.find("leak check: LOST: heaps of 'preview' still in use: 1;"), std::string::npos) << r.out;
}

TEST(Simulator, SameSeedSameCountsWhenResultsAreSynchronous) {
    auto counts = [](std::string const& out) { return out.substr(0, out.find("request (us)")); };
    SimRun a = sim("-n 400 --seed 7 --result-threads 0");
    SimRun b = sim("-n 400 --seed 7 --result-threads 0");
    SimRun c = sim("-n 400 --seed 8 --result-threads 0");
    ASSERT_EQ(a.exitCode, 0);
    EXPECT_EQ(counts(a.out), counts(b.out));
    EXPECT_NE(counts(a.out), counts(c.out));
}

TEST(Simulator, DumpShowsConfigurationPoolsAndLists) {
    SimRun r = sim("-n 40 --dump");
    ASSERT_EQ(r.exitCode, 0);
    for (char const* s : {"<image streams>", "    [IMAGE-HAL-POOL    ]0x2:fullA", "<pool-shared streams>",
                          "<image buffer pool>", "<ReadyList>", "mReadyStreamCounters: ",
                          "<state> name=fbm-sim:default acquireTimeoutMs=1500 ",
                          "\n    pool shared-0x2-0x3 streams=0x2,0x3 heapBytes=18000000 max=7 "}) {
        EXPECT_NE(r.out.find(s), std::string::npos) << s;
    }
}

// A dump taken mid-run, as a bug report catches one (a system dump with its state section): the
// selector's kept sets hold two of capture's heaps at frame 20 and all three at 40, and each dump
// comes before the run's summary.
TEST(Simulator, DumpAtShowsThePoolsWhileFramesFlow) {
    SimRun r = sim("--scenario " FBM_SCENARIO_DIR "/starving.json -n 60 --result-threads 0 --dump-at 20 --dump-at 40");
    ASSERT_EQ(r.exitCode, 0) << r.out;
    size_t dumps = 0;
    for (size_t at = 0; (at = r.out.find("<image streams>", at)) != std::string::npos; ++at) ++dumps;
    EXPECT_EQ(dumps, 2u);
    size_t const two = r.out.find("allocated=3 available=1 inUse=2 "), three = r.out.find("allocated=3 available=0 inUse=3 ");
    ASSERT_NE(two, std::string::npos) << r.out;
    EXPECT_LT(two, three);
    EXPECT_LT(r.out.rfind("<ReadyList>"), r.out.find("fbm-sim: scenario \"starving\""));
    r = sim("-n 60 --dump-at 60");
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_NE(r.out.find("--dump-at 60: the run has frames 0 to 59"), std::string::npos) << r.out;
}

// Bad option values are checked one by one in SimulatorInput.
TEST(Simulator, BadScenarioExitsWithTwoAndSaysWhyHelpExitsWithZero) {
    std::string const broken = tempPath("broken.json");
    std::ofstream(broken) << R"({"images": [{"name": "a", "id": 1, "source": "magic"}]})";
    SimRun r = sim("--scenario " + broken);
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_NE(r.out.find("bad scenario: " + broken +
                         ": scenario.images[0].source: unknown source \"magic\""),
              std::string::npos)
        << r.out;
    r = sim("--help");
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_NE(r.out.find("--result-threads"), std::string::npos);
}

TEST(ScenarioFile, ShippedDefaultIsTheBuiltInOne) {
    EXPECT_EQ(slurp(FBM_SCENARIO_DIR "/default.json"), fbmsim::defaultScenarioJson());
}

TEST(ScenarioFile, ProblemsAreNamedWithTheirPlace) {
    auto error = [](std::string const& json) {
        try {
            fbmsim::parseScenario(json);
        } catch (fbmsim::ScenarioError const& e) {
            return std::string(e.what());
        }
        return std::string("no error");
    };
    EXPECT_EQ(error("{").rfind("not valid JSON: ", 0), 0u);
    EXPECT_EQ(error(R"({"images": []})"), "scenario.images: must be a non-empty array of image streams");
    EXPECT_EQ(error(R"({"images": [{"name": "a", "id": 1}], "frame": 3})"), "scenario.frame: unknown key");
    EXPECT_EQ(error(R"({"images": [{"name": "a", "id": "0xZ"}]})"),
              "scenario.images[0].id: must be a stream id (an integer or a string such as \"0x1a\", from 0 to "
              "2^63-1)");
    EXPECT_EQ(error(R"({"images": [{"name": "a", "id": 1, "minBuffers": 5, "maxBuffers": 2}]})"),
              "scenario.images[0]: minBuffers is above maxBuffers");
    EXPECT_EQ(error(R"({"images": [{"name": "a", "id": 1}, {"name": "b", "id": 1}]})"),
              "scenario.images[1].id: stream id 1 is used twice");
    EXPECT_EQ(error(R"({"images": [{"name": "a", "id": 1, "width": "wide"}]})"),
              "scenario.images[0].width: has the wrong type (string): must be an integer from 1 to 1073741824");
    EXPECT_EQ(error(R"({"images": [{"name": "a", "id": 1}], "poolChanges": [{"stream": 2}]})"),
              "scenario.poolChanges[0].stream: is not an image stream of the scenario");
}

}  // namespace
