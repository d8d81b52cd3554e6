// fbm-sim from-dump: a bug report's dumps back to scenarios, run as a user runs it.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cmath>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <fbm/IFrameBufferManagerState.h>
#include <nlohmann/json.hpp>
#include <vexlor/HostSeams.h>

#include "FromDump.h"
#include "SimRunner.h"

namespace {

using nlohmann::json;
using namespace simtest;

// What a run's output says of each manager, from the manager's own lines only: its configuration
// (the three stream tables), the frame rate and the streams its ready sets keep.
struct Seen {
    std::vector<std::string> config;
    std::set<std::string> kept;
    double fps = 0;
};

std::vector<Seen> managersIn(std::string const& out) {
    static std::regex const set(R"(\[R\d+ F(\d+)\]TS:(\d+) (\{.*)$)");
    static std::regex const id(R"(\((0x[0-9a-f]+)\))");
    std::vector<Seen> seen;
    bool config = false, ready = false;
    std::istringstream lines(out);
    std::vector<std::pair<uint64_t, uint64_t>> sets;  // (frame, timestamp) of the ready sets
    auto close = [&] {
        if (seen.empty() || sets.size() < 2) return;
        auto const [lo, hi] = std::minmax_element(sets.begin(), sets.end());
        seen.back().fps = 1e9 * double(hi->first - lo->first) / double(hi->second - lo->second);
    };
    for (std::string line; std::getline(lines, line);) {
        if (line == "<image streams>") {
            close();
            sets.clear();
            seen.emplace_back();
            config = true;
        }
        if (line == "<image buffer pool>" || line == "<config messages>") config = false;
        if (line == "<ReadyList>") ready = true;
        if (line.rfind("mReadyStreamCounters:", 0) == 0) ready = false;
        if (config) seen.back().config.push_back(line);
        std::smatch m;
        if (ready && std::regex_search(line, m, set)) {
            sets.emplace_back(std::stoull(m[1]), std::stoull(m[2]));
            std::string const ids = m[3];
            for (auto it = std::sregex_iterator(ids.begin(), ids.end(), id); it != std::sregex_iterator(); ++it) {
                seen.back().kept.insert((*it)[1]);
            }
        }
    }
    close();
    return seen;
}

TEST(SimulatorFromDump, EveryShippedScenarioComesBackFromItsDump) {
    TempDir dir;
    auto const scenarios = shippedScenarios();
    ASSERT_GE(scenarios.size(), 3u);
    for (auto const& scenario : scenarios) {
        SCOPED_TRACE(scenario);
        std::vector<std::string> const run{"-n", "300", "--result-threads", "0", "--no-progress", "--dump"};
        std::vector<std::string> args{"--scenario", scenario};
        args.insert(args.end(), run.begin(), run.end());
        SimRun original = runSim(args);
        ASSERT_EQ(original.exitCode, 0) << original.out;
        std::string const report = dir.write("report.txt", original.out);
        SimRun rebuild = runSim({"from-dump", report, "-o", dir / "rebuilt.json"});
        ASSERT_EQ(rebuild.exitCode, 0) << rebuild.out;
        EXPECT_NE(slurp(dir / "rebuilt.json").find("\"_from_dump\": \"rebuilt by fbm-sim from-dump"), std::string::npos);
        args = {"--scenario", dir / "rebuilt.json"};
        args.insert(args.end(), run.begin(), run.end());
        SimRun again = runSim(args);
        ASSERT_EQ(again.exitCode, 0) << again.out;

        auto const before = managersIn(original.out), after = managersIn(again.out);
        ASSERT_EQ(before.size(), after.size());
        json const rebuilt = json::parse(slurp(dir / "rebuilt.json"));
        for (size_t i = 0; i < before.size(); ++i) {
            EXPECT_EQ(before[i].config, after[i].config);  // line for line
            json const& pipeline = before.size() == 1 ? rebuilt : rebuilt["pipelines"][i];
            if (before[i].fps > 0) {
                EXPECT_NEAR(pipeline["fps"].get<double>(), before[i].fps, before[i].fps / 100);
            }
            if (!before[i].kept.empty()) {
                // What the dump's sets keep is kept by the rebuilt streams.
                std::set<std::string> kept;
                for (auto const* list : {&pipeline["images"], &pipeline["metas"]})
                    for (auto const& stream : *list)
                        if (stream.value("keep", false)) kept.insert(stream["id"].get<std::string>());
                for (auto const& id : before[i].kept) EXPECT_EQ(kept.count(id), 1u) << id;
            }
        }
        // The state section reads back into the state it was printed from: printed again, it is
        // the same text, line for line.
        std::istringstream text(original.out);
        auto const dumps = fbmsim::readDumps(text);
        for (auto const& d : dumps) {
            ASSERT_TRUE(d.hasState);
            vexlor::host::StringPrinter again;
            printFrameBufferManagerState(&again, &d.state);
            std::vector<std::string> section;
            std::istringstream lines(original.out.substr(original.out.find("<state> name=" + d.state.name + " ")));
            for (std::string line; std::getline(lines, line) && (section.empty() || line.rfind("    ", 0) == 0);) {
                section.push_back(line);
            }
            EXPECT_EQ(again.lines(), section);
            EXPECT_FALSE(d.state.pools.empty());
        }
    }
}


// Two managers in a bug report (tools/reports/two-cameras.txt): one in logcat (threadtime, CR LF
// line ends, other services' lines between), one in a system dump's indentation, cut after its
// ready list.
TEST(SimulatorFromDump, ReadsTheTextAsItArrives) {
    TempDir dir;
    std::string const report = FBM_REPORT_DIR "/two-cameras.txt";
    SimRun r = runSim({"from-dump", report, "-o", dir / "both.json"});
    ASSERT_EQ(r.exitCode, 0) << r.out;
    EXPECT_TRUE(has(r, "2 managers found")) << r.out;
    EXPECT_TRUE(has(r, "1. from-dump-1 at line 3: 2 image streams, 1 meta streams, 2 ready sets")) << r.out;
    EXPECT_TRUE(has(r, "2. from-dump-2 at line 15: 2 image streams, 0 meta streams, 2 ready sets, cut\n"
                       "     the dump is cut: line 24: a set line cut short, not read:         [R5 F5]TS:2000\n"))
        << r.out;  // never silently
    json const both = json::parse(slurp(dir / "both.json"));
    ASSERT_EQ(both["pipelines"].size(), 2u);
    json const& first = both["pipelines"][0];
    EXPECT_EQ(first["fps"], 24.0);  // 4 frames in 166.67 ms
    EXPECT_EQ(first["images"][0], json::parse(R"({"name": "preview", "id": "0x1", "source": "pool", "width": 1280,
        "height": 720, "maxBuffers": 6, "minBuffers": 4, "keep": true})"));
    EXPECT_EQ(first["images"][1]["source"], "app-provider");
    EXPECT_EQ(first["images"][1]["blob"], true);
    EXPECT_EQ(first["metas"][0], json::parse(R"({"name": "halMeta", "id": "0x100", "app": false, "keep": true})"));
    json const& second = both["pipelines"][1];
    EXPECT_EQ(second["fps"], 20.0);
    EXPECT_EQ(second["sharedGroups"], json::parse(R"([["0x21", "0x22"]])"));
    EXPECT_EQ(second["images"][1]["triggerAtFrame"], 100000000);  // no heap pool of it in the dump
    EXPECT_NE(second["_from_dump"].get<std::string>().find("when deferred pool teleRaw was triggered: never"),
              std::string::npos);
    SimRun run = runSim({"--scenario", dir / "both.json", "-n", "40", "--no-progress"});
    EXPECT_EQ(run.exitCode, 0) << run.out;

    // One of them, to standard output.
    r = runSim({"from-dump", report, "--pick", "2"});
    ASSERT_EQ(r.exitCode, 0) << r.out;
    EXPECT_TRUE(has(r, "\"name\": \"from-dump-2\""));
    EXPECT_FALSE(has(r, "\"pipelines\""));
}

TEST(SimulatorFromDump, BadInputIsNamedWithItsPlace) {
    TempDir dir;
    std::string const head = "<image streams>\n    [IMAGE-HAL-POOL    ]0x1:p 64x48 fmt:0x32315659 planes:2 max:6 min:4\n";
    for (auto const& [text, message] : std::initializer_list<std::pair<std::string, char const*>>{
             {"just logcat\nnothing else\n", "no frame buffer manager dump in it (no \"<image streams>\" line)"},
             {head, "line 2: the input ends inside the stream table of the dump of line 1"},
             {head + head, "line 3: a new dump starts inside the stream table of the dump of line 1: that dump is cut"},
             {head + "<ReadyList>\n", "line 3: the stream table of the dump of line 1 is cut: no <meta streams>"},
             {"<image streams>\n    [IMAGE-HAL-POOL    ]0x1:preview 1920x10\n<meta streams>\n",
              "line 2: an image stream line that does not parse"},
             {"<image streams>\n  [IMAGE-HAL-POOL    ]0x1:p 64x48 fmt:0x32315659 planes:2 max:99 min:4\n<meta streams>\n",
              "line 2: 0x1:p: max 99 is out of range (1 to 64 in a scenario)"},
             {"<image streams>\n  [IMAGE-HAL-POOL    ]0x1:p 99999x99999 fmt:0x32315659 planes:2 max:6 min:4\n<meta streams>\n",
              "line 2: 0x1:p: width x height is above 1 GiB"},
             {"<image streams>\n  [IMAGE-HAL-USER    ]0x1:p 64x48 fmt:0x32315659 planes:2 max:6 min:4\n<meta streams>\n",
              "line 2: 0x1:p takes buffers from USER, which the simulator cannot drive"},
             {"<image streams>\n  [IMAGE-HAL-POOL    ]0x1:p 64x48 fmt:0x23 planes:1 max:6 min:4\n<meta streams>\n",
              "line 2: 0x1:p: format 0x23 with 1 planes is not one the simulator makes"},
             {std::string("ELF\x02\x01\x01\0\0\0", 10) + "\n<image streams>\n", "line 1: binary data (a NUL byte): not a text dump"},
             {head + "<meta streams>\n" + head + "<meta streams>\n",
              "managers 1 and 2 both have stream 0x1, which one run cannot hold: rebuild each with --pick N"},
         }) {
        SimRun r = runSim({"from-dump", dir.write("bad.txt", text)});
        EXPECT_EQ(r.exitCode, 2) << text << "\n" << r.out;
        EXPECT_TRUE(has(r, message)) << message << "\n" << r.out;
        EXPECT_FALSE(has(r, "\"images\"")) << "a scenario anyway:\n" << r.out;
    }
    // A gigabyte: read as it comes, refused on its first bytes.
    std::string const big = dir / "big.bin";
    int const fd = ::open(big.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, off_t{1} << 30), 0);  // sparse: no disk, all NUL bytes
    ::close(fd);
    SimRun r = runSim({"from-dump", big});
    EXPECT_EQ(r.exitCode, 2) << r.out;
    EXPECT_TRUE(has(r, "big.bin: line 1: binary data")) << r.out;
    std::string const one = dir.write("one.txt", head + "<meta streams>\n");
    for (auto const& [args, message] : std::initializer_list<std::pair<std::vector<std::string>, char const*>>{
             {{"from-dump", one, "--pick", "2"}, "--pick 2: must be from 1 to 1, the managers found"},
             {{"from-dump", ""}, "FILE: the file name is empty"},
             {{"from-dump", dir / "missing.txt"}, "missing.txt: cannot be read"},
         }) {
        r = runSim(args);
        EXPECT_EQ(r.exitCode, 2) << r.out;
        EXPECT_TRUE(has(r, message)) << message << "\n" << r.out;
    }
}

}  // namespace
