// Random scenarios and options through the simulator as users run it. Whatever it is given, it
// ends within its time limit with 0, 1 or 2, with no sanitizer report, and its leak check holds
// whenever it ran (exit 0 or 1). Bounded in count (FBM_SIM_FUZZ_RUNS, default 40) and time.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "SimRunner.h"

namespace {

using nlohmann::json;
using Rng = std::mt19937_64;

bool chance(Rng& rng, int percent) { return static_cast<int>(rng() % 100) < percent; }

template <class T>
T pick(Rng& rng, std::vector<T> const& from) {
    return from[rng() % from.size()];
}

// Half of the runs are sane throughout, so that they get to run; in the others a value is now and
// then hostile: out of range, of the wrong type, huge, fractional.
int gHostilePercent = 0;

json number(Rng& rng, int64_t lo, int64_t hi) {
    if (!chance(rng, gHostilePercent)) return lo + static_cast<int64_t>(rng() % static_cast<uint64_t>(hi - lo + 1));
    return pick<json>(rng, {-1, 0, 3.5, 1e300, "7", true, nullptr, json::array(), 4294967296LL,
                            18446744073709551615ULL, -9223372036854775807LL - 1, 1099511627776LL});
}

std::string streamName(Rng& rng, int i) {
    if (chance(rng, gHostilePercent)) return std::string(300, 'x');
    return pick<std::string>(rng, {"s", "full", "a\nb", "tab\there", "q\"uote", "back\\slash", "\x01\x1f",
                                   "\xc3\xa9t\xc3\xa9"}) +
           std::to_string(i);
}

json scenario(Rng& rng) {
    json s;
    if (chance(rng, 50)) s["fps"] = !chance(rng, gHostilePercent) ? json(10 + static_cast<int>(rng() % 200)) : number(rng, 0, 2000);
    if (chance(rng, 50)) s["inFlightDepth"] = number(rng, 1, 6);
    if (chance(rng, 50)) s["resultBatches"] = number(rng, 1, 5);
    if (chance(rng, 30)) s["destroyEvery"] = number(rng, 0, 20);
    if (chance(rng, 30)) s["noTimestampEvery"] = number(rng, 0, 20);
    if (chance(rng, 20)) s["recyclable"] = chance(rng, 50);
    int const images = 1 + static_cast<int>(rng() % 5);
    std::vector<int64_t> ids;
    for (int i = 0; i < images; ++i) {
        json img{{"name", streamName(rng, i)}, {"id", i + 1}};
        ids.push_back(i + 1);
        img["source"] = pick<std::string>(rng, {"pool", "pool", "pool", "runtime", "hal-provider", "app-provider"});
        if (chance(rng, 20)) img["blob"] = true;
        img["width"] = number(rng, 16, 640);
        img["height"] = number(rng, 16, 480);
        img["maxBuffers"] = number(rng, 4, 10);
        if (chance(rng, 50)) img["minBuffers"] = number(rng, 0, 4);
        if (chance(rng, 50)) img["keep"] = true;
        if (chance(rng, 15) && img["source"] == "pool") img["triggerAtFrame"] = number(rng, 0, 40);
        s["images"].push_back(img);
    }
    for (int i = 0, n = static_cast<int>(rng() % 3); i < n; ++i) {
        s["metas"].push_back({{"name", streamName(rng, 100 + i)}, {"id", 100 + i}, {"app", chance(rng, 50)}});
        ids.push_back(100 + i);
    }
    if (chance(rng, 40)) {
        // Sane: pool streams of one size. Hostile: any id, unknown ones too.
        json group = json::array();
        for (auto& img : s["images"]) {
            if (gHostilePercent == 0 && img["source"] != "pool") continue;
            if (gHostilePercent == 0) img["width"] = 64, img["height"] = 48, img.erase("blob");
            if (chance(rng, 60)) group.push_back(img["id"]);
        }
        if (chance(rng, gHostilePercent)) group.push_back(pick<json>(rng, {999, 100, 1}));
        s["sharedGroups"].push_back(group);
    }
    if (chance(rng, 60)) {
        s["selector"] = {{"everyFrames", number(rng, 1, 10)}, {"keepNewest", number(rng, 0, 3)},
                         {"holdSelections", number(rng, 1, 3)}, {"cloneEvery", number(rng, 0, 4)}};
        if (chance(rng, 50)) s["selector"]["returnKept"] = !chance(rng, gHostilePercent) ? json(0.5) : json(2);
    }
    if (chance(rng, 30)) {
        s["poolChanges"].push_back(
            {{"stream", 1 + static_cast<int>(rng() % static_cast<uint64_t>(images))}, {"atFrame", number(rng, 0, 40)}, {"maxBuffers", number(rng, 1, 10)}});
    }
    if (chance(rng, 20)) s["properties"]["vendor.debug.camera.log.pipeline.fbm"] = number(rng, 0, 3);
    if (chance(rng, gHostilePercent)) s["unknownKey"] = 1;
    return s;
}

// Options that change how a scenario runs. Bad option values and output paths are checked
// one by one in SimulatorInput; here they only mix with random scenarios.
std::vector<std::string> options(Rng& rng, std::string const& dir, json const& scenario) {
    std::vector<std::string> a;
    if (chance(rng, 15)) {
        // A plan over a few maximums of one of the scenario's streams (or of a name it lacks).
        std::string stream = "nope";
        if (scenario.contains("images") && !chance(rng, gHostilePercent)) {
            auto const& images = scenario["images"];
            if (auto const& name = images[rng() % images.size()]["name"]; name.is_string()) stream = name;
        }
        int const from = 1 + static_cast<int>(rng() % 6);
        a = {"plan", "--vary", stream + "=" + std::to_string(from) + ".." + std::to_string(from + static_cast<int>(rng() % 3))};
    }
    // Starved requests wait at most 10 ms: a starving scenario ends in seconds.
    a.insert(a.end(), {"-n", std::to_string(1 + rng() % 60), "--prop",
                       "vendor.debug.camera.pipeline.fbm.acquire.timeout=" + std::to_string(1 + rng() % 10)});
    if (chance(rng, 30)) a.insert(a.end(), {"--result-threads", pick<std::string>(rng, {"0", "1", "3"})});
    if (chance(rng, 20)) a.insert(a.end(), {"--seed", std::to_string(rng())});
    if (chance(rng, 15)) a.push_back("--dump");
    if (chance(rng, 10)) a.push_back("--allow-bad-groups");
    if (chance(rng, 20)) a.insert(a.end(), {"--trace", dir + "/t.json"});
    if (chance(rng, 20)) a.insert(a.end(), {"--series", dir + "/s.tsv"});
    return a;
}

std::string quoted(std::vector<std::string> const& args) {
    std::string out;
    for (auto const& a : args) out += " '" + a + "'";
    return out;
}

TEST(SimulatorFuzz, RandomScenariosAndOptionsEndCleanly) {
    int const runs = std::getenv("FBM_SIM_FUZZ_RUNS") ? std::atoi(std::getenv("FBM_SIM_FUZZ_RUNS")) : 40;
    uint64_t const seed = std::getenv("FBM_SIM_FUZZ_SEED") ? std::strtoull(std::getenv("FBM_SIM_FUZZ_SEED"), nullptr, 0)
                                                            : 20261121;
    auto const budget = std::chrono::seconds(120);
    auto const start = std::chrono::steady_clock::now();
    simtest::TempDir const tmp;
    std::string const& dir = tmp.path;
    int ran = 0, exits[3] = {0, 0, 0};
    for (int i = 0; i < runs && std::chrono::steady_clock::now() - start < budget; ++i, ++ran) {
        Rng rng(seed + static_cast<uint64_t>(i));
        gHostilePercent = i % 2 == 0 ? 0 : 8;
        json const generated = scenario(rng);
        std::string text = generated.dump(-1, ' ', false, json::error_handler_t::replace);
        if (chance(rng, gHostilePercent)) text.resize(rng() % text.size());  // a file cut short
        std::string const file = dir + "/scenario-" + std::to_string(i) + ".json";
        std::ofstream(file) << text;
        simtest::SimSpawn how;
        how.args = {"--scenario", file};
        auto const more = options(rng, dir, generated);
        how.args.insert(how.args.end(), more.begin(), more.end());
        how.limit = std::chrono::seconds(60);
        simtest::SimRun r = simtest::runSim(how);
        std::string const repro = "run " + std::to_string(i) + " (FBM_SIM_FUZZ_SEED=" + std::to_string(seed) +
                                  "): fbm-sim" + quoted(how.args) + "\n" + text + "\n" + r.out;
        ASSERT_FALSE(r.timedOut) << "did not end within 60 s: " << repro;
        ASSERT_TRUE(r.exitCode >= 0 && r.exitCode <= 2) << "exit " << r.exitCode << ": " << repro;
        ++exits[r.exitCode];
        for (char const* report : {"Sanitizer", "runtime error:", "terminate called"}) {
            ASSERT_EQ(r.out.find(report), std::string::npos) << repro;
        }
        bool const planned = how.args.size() > 2 && how.args[2] == "plan";
        if (planned) {
            ASSERT_EQ(r.out.find("LOST BUFFERS"), std::string::npos) << repro;
            if (r.exitCode == 0) {
                ASSERT_NE(r.out.find("recommendation:"), std::string::npos) << repro;
            }
        } else if (r.exitCode != 2) {
            ASSERT_NE(r.out.find("leak check: OK"), std::string::npos) << repro;
            // The run's output, whole or cut anywhere, as a bug report: a scenario or a reason.
            std::string report = r.out;
            if (chance(rng, 50)) report.resize(rng() % (report.size() + 1));
            std::string const reportFile = dir + "/report-" + std::to_string(i) + ".txt";
            std::ofstream(reportFile) << report;
            simtest::SimRun d = simtest::runSim({"from-dump", reportFile, "-o", dir + "/rebuilt.json"});
            ASSERT_TRUE(d.exitCode == 0 || d.exitCode == 2) << "from-dump exit " << d.exitCode << ": " << d.out << repro;
            ASSERT_NE(d.out.find("fbm-sim from-dump: "), std::string::npos) << d.out;
            for (char const* crash : {"Sanitizer", "runtime error:", "terminate called"}) {
                ASSERT_EQ(d.out.find(crash), std::string::npos) << d.out << repro;
            }
        } else {
            ASSERT_NE(r.out.find("fbm-sim: "), std::string::npos) << "exit 2 without a reason: " << repro;
        }
    }
    std::printf("fuzzed %d runs: %d exit 0, %d exit 1, %d exit 2\n", ran, exits[0], exits[1], exits[2]);
    EXPECT_GT(ran, 0);
}

}  // namespace
