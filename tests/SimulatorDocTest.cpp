// The scenario page of the docs against the parser: every key, its range and its default.
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Scenario.h"
#include "SimRunner.h"

namespace {

struct DocKey {
    std::string object, key, type, range, def;
};

std::string trim(std::string s) {
    auto const first = s.find_first_not_of(" `");
    auto const last = s.find_last_not_of(" `");
    return first == std::string::npos ? "" : s.substr(first, last - first + 1);
}

// The rows of the key table: | object | `key` | type | range | default | what |
std::vector<DocKey> documentedKeys() {
    std::ifstream in(FBM_DOCS_DIR "/simulator.md");
    std::vector<DocKey> out;
    bool inTable = false;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("<!-- keys", 0) == 0) inTable = true;
        if (!inTable || line.find('`') == std::string::npos) {
            if (inTable && line.empty()) break;
            continue;
        }
        std::vector<std::string> cells;
        for (size_t at = 1, bar; (bar = line.find('|', at)) != std::string::npos; at = bar + 1) {
            cells.push_back(trim(line.substr(at, bar - at)));
        }
        if (cells.size() == 6) out.push_back({cells[0], cells[1], cells[2], cells[3], cells[4]});
    }
    return out;
}

// A small valid scenario, with `extra` ("\"key\": value") placed in the object `object`, where it
// replaces the scenario's own value of that key (a key may be given once).
std::string scenarioWith(std::string const& object, std::string const& extra) {
    std::string const sep = extra.empty() ? "" : ", ";
    // The object's own fields, but the one `extra` gives, then `extra`.
    auto const with = [&](std::vector<std::pair<std::string, std::string>> const& fields) {
        std::string out;
        for (auto const& [key, value] : fields) {
            if (extra.rfind("\"" + key + "\":", 0) != 0) out += (out.empty() ? "" : ", ") + ("\"" + key + "\": ") + value;
        }
        return "{" + out + (extra.empty() || out.empty() ? "" : ", ") + extra + "}";
    };
    std::string const image = R"({"name": "a", "id": 1)";
    if (object == "scenario") return R"({"images": [)" + image + "}]" + sep + extra + "}";
    if (object == "images[]") return R"({"images": [)" + with({{"name", "\"a\""}, {"id", "1"}}) + "]}";
    if (object == "metas[]") {
        return R"({"images": [)" + image + R"(}], "metas": [)" + with({{"name", "\"m\""}, {"id", "256"}}) + "]}";
    }
    if (object == "selector") return R"({"images": [)" + image + R"(}], "selector": {)" + extra + "}}";
    if (object == "poolChanges[]") return R"({"images": [)" + image + R"(}], "poolChanges": [{"stream": 1)" + sep + extra + "}]}";
    return R"({"pipelines": [{"images": [)" + image + "}]}]" + sep + extra + "}";
}

std::string refusal(std::string const& text) {
    try {
        fbmsim::parseScenarios(text);
    } catch (fbmsim::ScenarioError const& e) {
        return e.what();
    }
    return "";
}

TEST(SimulatorDoc, EveryScenarioKeyIsDescribedAsTheParserReadsIt) {
    auto const keys = documentedKeys();
    ASSERT_FALSE(keys.empty()) << "no key table in docs/simulator.md";

    std::map<std::string, std::set<std::string>> documented;
    for (auto const& k : keys) documented[k.object].insert(k.key);
    EXPECT_EQ(documented, fbmsim::scenarioKeys());

    for (auto const& k : keys) {
        SCOPED_TRACE(k.object + " " + k.key);
        auto const to = k.range.find(" to ");
        if ((k.type == "integer" || k.type == "number") && to != std::string::npos) {
            std::string const low = k.range.substr(0, to), high = k.range.substr(to + 4);
            // Out of range on either side: refused, naming the documented range.
            for (std::string const& outside : {"-" + high + "1", high + "1"}) {
                std::string const why = refusal(scenarioWith(k.object, "\"" + k.key + "\": " + outside));
                bool const named = why.find("from " + low + " to " + high) != std::string::npos ||
                                   why.find("between " + low + " and " + high) != std::string::npos;
                EXPECT_TRUE(named) << outside << ": " << why;
            }
        }
        if (k.range == "at most 256 bytes") {
            std::string const longText = "\"" + std::string(257, 'x') + "\"";
            EXPECT_NE(refusal(scenarioWith(k.object, "\"" + k.key + "\": " + longText)).find("at most 256 bytes"),
                      std::string::npos);
        }
        // The documented default is what the parser takes when the key is left out.
        bool const hasDefault = k.def == "true" || k.def == "false" || k.def[0] == '"' ||
                                (k.def[0] >= '0' && k.def[0] <= '9');
        if (!hasDefault) continue;
        std::string const base = scenarioWith(k.object, "");
        std::string const explicitDefault = scenarioWith(k.object, "\"" + k.key + "\": " + k.def);
        EXPECT_EQ(refusal(explicitDefault), "");
        EXPECT_TRUE(fbmsim::parseScenarios(base) == fbmsim::parseScenarios(explicitDefault));
    }
}

// Every option `--help` lists, of the run and of each subcommand, is on the page.
TEST(SimulatorDoc, EveryOptionOfTheHelpIsDescribed) {
    std::ifstream in(FBM_DOCS_DIR "/simulator.md");
    std::string const page((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t options = 0;
    for (auto const& command : std::vector<std::vector<std::string>>{{}, {"plan"}, {"replay"}, {"from-dump"}}) {
        auto args = command;
        args.push_back("--help");
        auto const help = simtest::runSim(args);
        ASSERT_EQ(help.exitCode, 0) << help.out;
        std::istringstream lines(help.out);
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind("  -", 0) != 0) continue;
            auto const at = line.find("--");
            std::string const option = line.substr(at, line.find_first_of(" \t", at) - at);
            if (option == "--help") continue;
            ++options;
            EXPECT_NE(page.find("`" + option), std::string::npos) << "fbm-sim " << (command.empty() ? "" : command[0])
                                                                  << ": " << option << " is not in docs/simulator.md";
        }
    }
    EXPECT_GT(options, 20u);
}

}  // namespace
