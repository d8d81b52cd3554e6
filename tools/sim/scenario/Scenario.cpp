#include "Scenario.h"

#include <cctype>
#include <climits>
#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

namespace fbmsim {
namespace {

using nlohmann::json;

// A multi-frame capture camera. Full-size frames are kept for the selector; their shared pool
// (7 heaps) covers the frames in flight and the set being processed but not the ready list, so it
// starves and is fed by releasing the oldest history sets. Its maximum is lowered and raised again.
char const* const kDefaultScenario = R"json({
  "name": "default",
  "frames": 3000,
  "fps": 30,
  "inFlightDepth": 2,
  "resultBatches": 3,
  "destroyEvery": 97,
  "noTimestampEvery": 89,
  "recyclable": true,
  "images": [
    {"name": "preview", "id": "0x1", "source": "pool", "width": 1920, "height": 1080,
     "maxBuffers": 6, "minBuffers": 4},
    {"name": "fullA", "id": "0x2", "source": "pool", "width": 4000, "height": 3000,
     "maxBuffers": 7, "minBuffers": 3, "keep": true},
    {"name": "fullB", "id": "0x3", "source": "pool", "width": 4000, "height": 3000,
     "maxBuffers": 7, "minBuffers": 3, "keep": true},
    {"name": "lsc", "id": "0x4", "source": "runtime", "width": 640, "height": 480},
    {"name": "fdYuv", "id": "0x5", "source": "hal-provider", "width": 640, "height": 480},
    {"name": "jpeg", "id": "0x6", "source": "app-provider", "blob": true, "width": 12000000,
     "height": 1},
    {"name": "depth", "id": "0x7", "source": "pool", "width": 480, "height": 360,
     "maxBuffers": 4, "minBuffers": 2, "keep": true, "triggerAtFrame": 300}
  ],
  "metas": [
    {"name": "halMeta", "id": "0x100", "app": false, "keep": true},
    {"name": "appMeta", "id": "0x101", "app": true, "keep": true}
  ],
  "sharedGroups": [["0x2", "0x3"]],
  "selector": {"everyFrames": 8, "keepNewest": 1, "holdSelections": 1, "returnKept": 0.5,
               "cloneEvery": 4},
  "poolChanges": [
    {"stream": "0x2", "atFrame": 1000, "maxBuffers": 6},
    {"stream": "0x2", "atFrame": 2000, "maxBuffers": 7}
  ]
}
)json";

std::set<std::string> const& keysOf(char const* place) { return scenarioKeys().at(place); }

[[noreturn]] void fail(std::string const& where, std::string const& what) {
    throw ScenarioError(where + ": " + what);
}

void checkKeys(json const& j, std::string const& where, std::set<std::string> const& known) {
    if (!j.is_object()) fail(where, "must be an object");
    for (auto it = j.begin(); it != j.end(); ++it) {
        if (known.count(it.key()) == 0) fail(where + "." + it.key(), "unknown key");
    }
}

int64_t idOf(json const& j, std::string const& where) {
    // Ids are 63-bit: a negative or wider one cannot name a stream.
    if (j.is_number_unsigned() && j.get<uint64_t>() <= static_cast<uint64_t>(INT64_MAX)) return j.get<int64_t>();
    if (j.is_number_integer() && j.get<int64_t>() >= 0) return j.get<int64_t>();
    if (j.is_string()) {
        std::string const s = j.get<std::string>();
        if (!s.empty() && std::isdigit(static_cast<unsigned char>(s[0]))) {
            try {
                size_t used = 0;
                int64_t v = std::stoll(s, &used, 0);
                if (used == s.size()) return v;
            } catch (std::exception const&) {
            }
        }
    }
    fail(where, "must be a stream id (an integer or a string such as \"0x1a\", from 0 to 2^63-1)");
}

template <class T>
T get(json const& j, char const* key, std::string const& where, T fallback) {
    auto it = j.find(key);
    if (it == j.end()) return fallback;
    try {
        return it->template get<T>();
    } catch (json::exception const&) {
        fail(where + "." + key, std::string("has the wrong type (") + it->type_name() + ")");
    }
}

// An integer where one is meant, its range checked before it is converted: JSON numbers such as
// -1, 3.7 or 2^40 would otherwise wrap or truncate silently into a different scenario.
int64_t integer(json const& j, char const* key, std::string const& where, int64_t fallback, int64_t min,
                int64_t max) {
    auto it = j.find(key);
    if (it == j.end()) return fallback;
    std::string const range = "an integer from " + std::to_string(min) + " to " + std::to_string(max);
    if (!it->is_number()) {
        fail(where + "." + key, std::string("has the wrong type (") + it->type_name() + "): must be " + range);
    }
    bool inRange = false;
    if (it->is_number_unsigned()) {
        inRange = it->get<uint64_t>() <= static_cast<uint64_t>(max) && (min <= 0 || it->get<uint64_t>() >= static_cast<uint64_t>(min));
    } else if (it->is_number_integer()) {
        inRange = it->get<int64_t>() >= min && it->get<int64_t>() <= max;
    }
    if (!inRange) fail(where + "." + key, "must be " + range + " (got " + it->dump() + ")");
    return it->get<int64_t>();
}

double number(json const& j, char const* key, std::string const& where, double fallback, double min, double max) {
    auto it = j.find(key);
    if (it == j.end()) return fallback;
    std::ostringstream range;
    range << "a number from " << min << " to " << max;
    if (!it->is_number()) {
        fail(where + "." + key, std::string("has the wrong type (") + it->type_name() + "): must be " + range.str());
    }
    double const v = it->get<double>();
    if (!(v >= min && v <= max)) fail(where + "." + key, "must be " + range.str() + " (got " + it->dump() + ")");
    return v;
}

std::string text(json const& j, char const* key, std::string const& where, std::string fallback) {
    std::string v = get<std::string>(j, key, where, std::move(fallback));
    if (v.size() > 256) fail(where + "." + key, "must be at most 256 bytes long");
    return v;
}

Source sourceOf(std::string const& s, std::string const& where) {
    if (s == "pool") return Source::Pool;
    if (s == "runtime") return Source::Runtime;
    if (s == "hal-provider") return Source::HalProvider;
    if (s == "app-provider") return Source::AppProvider;
    fail(where, "unknown source \"" + s + "\" (pool, runtime, hal-provider or app-provider)");
}

}  // namespace

std::string printable(std::string const& name) {
    std::string out;
    for (unsigned char c : name) out += (c < 0x20 || c == 0x7f) ? '?' : static_cast<char>(c);
    return out;
}

char const* sourceName(Source s) {
    switch (s) {
        case Source::Pool: return "POOL";
        case Source::Runtime: return "RUNTIME";
        case Source::HalProvider: return "HAL PROVIDER";
        case Source::AppProvider: return "APP PROVIDER";
    }
    return "?";
}

namespace {

// JSON lets a key come twice in one object and keeps the last: a scenario edited by hand would
// then run with a value its reader does not see first. Refused, naming the key.
json parseJson(std::string const& text) {
    std::vector<std::set<std::string>> keys;  // of each object being read, innermost last
    auto const check = [&keys](int, json::parse_event_t event, json& parsed) {
        if (event == json::parse_event_t::object_start) {
            keys.emplace_back();
        } else if (event == json::parse_event_t::object_end) {
            keys.pop_back();
        } else if (event == json::parse_event_t::key && !keys.empty() &&
                   !keys.back().insert(parsed.get<std::string>()).second) {
            throw ScenarioError("key \"" + parsed.get<std::string>() + "\" is given twice in one object");
        }
        return true;
    };
    try {
        return json::parse(text, check);
    } catch (json::parse_error const& e) {
        throw ScenarioError(std::string("not valid JSON: ") + e.what());
    }
}

Scenario parseObject(json const& j, std::string const& root) {
    checkKeys(j, root, keysOf("scenario"));
    Scenario s;
    constexpr int64_t kEvery = 1000000;  // "one in N" and "every N" knobs
    s.name = text(j, "name", root, s.name);
    s.frames = static_cast<uint32_t>(integer(j, "frames", root, s.frames, 1, kMaxFrames));
    s.fps = number(j, "fps", root, s.fps, kMinFps, kMaxFps);
    s.inFlightDepth = static_cast<uint32_t>(integer(j, "inFlightDepth", root, s.inFlightDepth, 1, kMaxInFlight));
    s.resultBatches = static_cast<uint32_t>(integer(j, "resultBatches", root, s.resultBatches, 1, kMaxBatches));
    s.destroyEvery = static_cast<uint32_t>(integer(j, "destroyEvery", root, 0, 0, kEvery));
    s.noTimestampEvery = static_cast<uint32_t>(integer(j, "noTimestampEvery", root, 0, 0, kEvery));
    s.recyclable = get<bool>(j, "recyclable", root, true);

    std::set<int64_t> ids;
    auto claim = [&](int64_t id, std::string const& where) {
        if (!ids.insert(id).second) fail(where + ".id", "stream id " + std::to_string(id) + " is used twice");
    };
    auto images = j.find("images");
    if (images == j.end() || !images->is_array() || images->empty()) {
        fail(root + ".images", "must be a non-empty array of image streams");
    }
    if (images->size() > 64) fail(root + ".images", "must hold at most 64 image streams");
    for (size_t i = 0; i < images->size(); ++i) {
        json const& e = (*images)[i];
        std::string const where = root + ".images[" + std::to_string(i) + "]";
        checkKeys(e, where, keysOf("images[]"));
        ImageStreamCfg c;
        if (!e.contains("name") || !e.contains("id")) fail(where, "needs a name and an id");
        c.name = text(e, "name", where, "");
        c.id = idOf(e["id"], where + ".id");
        claim(c.id, where);
        c.source = sourceOf(get<std::string>(e, "source", where, "pool"), where + ".source");
        c.blob = get<bool>(e, "blob", where, false);
        c.width = static_cast<int32_t>(integer(e, "width", where, 640, 1, kMaxBufferBytes));
        c.height = static_cast<int32_t>(integer(e, "height", where, 480, 1, kMaxBufferBytes));
        if (int64_t{c.width} * c.height > kMaxBufferBytes) {
            fail(where, "width x height must be at most " + std::to_string(kMaxBufferBytes) + " (1 GiB)");
        }
        // A pool stream needs at least one buffer, or every request of it waits out the time-out.
        c.maxBuffers = static_cast<size_t>(integer(e, "maxBuffers", where, 4, 1, kMaxBuffers));
        c.minBuffers = static_cast<size_t>(integer(e, "minBuffers", where, 1, 0, kMaxBuffers));
        if (c.minBuffers > c.maxBuffers) fail(where, "minBuffers is above maxBuffers");
        c.keep = get<bool>(e, "keep", where, false);
        if (e.contains("triggerAtFrame")) {
            if (c.source != Source::Pool) fail(where + ".triggerAtFrame", "only a pool can be deferred");
            c.triggerAtFrame = static_cast<uint32_t>(integer(e, "triggerAtFrame", where, 0, 0, kMaxFrames));
        }
        s.images.push_back(c);
    }
    if (auto metas = j.find("metas"); metas != j.end()) {
        if (!metas->is_array()) fail(root + ".metas", "must be an array");
        if (metas->size() > 64) fail(root + ".metas", "must hold at most 64 metadata streams");
        for (size_t i = 0; i < metas->size(); ++i) {
            json const& e = (*metas)[i];
            std::string const where = root + ".metas[" + std::to_string(i) + "]";
            checkKeys(e, where, keysOf("metas[]"));
            if (!e.contains("name") || !e.contains("id")) fail(where, "needs a name and an id");
            MetaStreamCfg c;
            c.name = text(e, "name", where, "");
            c.id = idOf(e["id"], where + ".id");
            claim(c.id, where);
            c.app = get<bool>(e, "app", where, false);
            c.keep = get<bool>(e, "keep", where, true);
            s.metas.push_back(c);
        }
    }
    if (auto groups = j.find("sharedGroups"); groups != j.end()) {
        if (!groups->is_array()) fail(root + ".sharedGroups", "must be an array of arrays of stream ids");
        std::set<int64_t> grouped;
        for (size_t g = 0; g < groups->size(); ++g) {
            std::string const where = root + ".sharedGroups[" + std::to_string(g) + "]";
            if (!(*groups)[g].is_array()) fail(where, "must be an array of stream ids");
            std::vector<int64_t> group;
            ImageStreamCfg const* first = nullptr;
            for (size_t k = 0; k < (*groups)[g].size(); ++k) {
                std::string const at = where + "[" + std::to_string(k) + "]";
                int64_t const id = idOf((*groups)[g][k], at);
                group.push_back(id);
                auto problem = [&](std::string const& what) {
                    s.groupProblems.push_back(at + ": stream " + std::to_string(id) + " " + what);
                };
                auto img = std::find_if(s.images.begin(), s.images.end(),
                                        [id](ImageStreamCfg const& c) { return c.id == id; });
                if (img == s.images.end()) {
                    bool const meta = std::any_of(s.metas.begin(), s.metas.end(),
                                                  [id](MetaStreamCfg const& c) { return c.id == id; });
                    problem(meta ? "is a metadata stream" : "is not a stream of the scenario");
                    continue;
                }
                if (!grouped.insert(id).second) problem("is in more than one group");
                if (img->source != Source::Pool) {
                    problem(std::string("is not a POOL stream (it is ") + sourceName(img->source) + ")");
                } else if (first == nullptr) {
                    first = &*img;
                } else if (img->blob != first->blob ||
                           (!img->blob && (img->width != first->width || img->height != first->height))) {
                    problem("differs in size or format from " + first->name);
                }
            }
            s.sharedGroups.push_back(group);
        }
    }
    if (auto sel = j.find("selector"); sel != j.end()) {
        std::string const where = root + ".selector";
        checkKeys(*sel, where, keysOf("selector"));
        auto& c = s.selector;
        c.everyFrames = static_cast<uint32_t>(integer(*sel, "everyFrames", where, c.everyFrames, 1, kEvery));
        c.keepNewest = static_cast<uint32_t>(integer(*sel, "keepNewest", where, c.keepNewest, 0, kMaxBuffers));
        c.holdSelections =
            static_cast<uint32_t>(integer(*sel, "holdSelections", where, c.holdSelections, 1, kMaxBuffers));
        if (sel->contains("returnKept") && !(*sel)["returnKept"].is_number()) {
            fail(where + ".returnKept", "must be a probability between 0 and 1");
        }
        c.returnKept = get<double>(*sel, "returnKept", where, c.returnKept);
        if (c.returnKept < 0 || c.returnKept > 1) {
            fail(where + ".returnKept", "must be a probability between 0 and 1");
        }
        c.cloneEvery = static_cast<uint32_t>(integer(*sel, "cloneEvery", where, c.cloneEvery, 0, kEvery));
    }
    if (auto changes = j.find("poolChanges"); changes != j.end()) {
        if (!changes->is_array()) fail(root + ".poolChanges", "must be an array");
        if (changes->size() > 1000) fail(root + ".poolChanges", "must hold at most 1000 changes");
        for (size_t i = 0; i < changes->size(); ++i) {
            json const& e = (*changes)[i];
            std::string const where = root + ".poolChanges[" + std::to_string(i) + "]";
            checkKeys(e, where, keysOf("poolChanges[]"));
            PoolChange c;
            if (!e.contains("stream")) fail(where, "needs a stream");
            c.stream = idOf(e["stream"], where + ".stream");
            auto const img = std::find_if(s.images.begin(), s.images.end(),
                                          [&](ImageStreamCfg const& i) { return i.id == c.stream; });
            if (img == s.images.end()) fail(where + ".stream", "is not an image stream of the scenario");
            // The library changes only a pool's maximum; any other stream would run as if the
            // change were not there.
            if (img->source != Source::Pool) {
                fail(where + ".stream", std::string("is a ") + sourceName(img->source) +
                                            " stream: only a pool stream's maximum can be changed");
            }
            c.atFrame = static_cast<uint32_t>(integer(e, "atFrame", where, 0, 0, kMaxFrames));
            c.maxBuffers = static_cast<int>(integer(e, "maxBuffers", where, 1, 1, kMaxBuffers));
            s.poolChanges.push_back(c);
        }
    }
    if (auto props = j.find("properties"); props != j.end()) {
        if (!props->is_object()) fail(root + ".properties", "must be an object of property: integer");
        for (auto it = props->begin(); it != props->end(); ++it) {
            std::string const where = root + ".properties";
            int64_t const v = integer(*props, it.key().c_str(), where, 0, INT32_MIN, INT32_MAX);
            if (v < 0 && it.key() == kAcquireTimeoutProperty) {
                fail(where + "." + it.key(), "a time-out of milliseconds must be 0 or more");
            }
            s.properties.emplace_back(it.key(), static_cast<int>(v));
        }
    }
    return s;
}

}  // namespace

std::map<std::string, std::set<std::string>> const& scenarioKeys() {
    static std::map<std::string, std::set<std::string>> const keys{
        {"scenario", {"name", "frames", "fps", "inFlightDepth", "resultBatches", "destroyEvery",
                      "noTimestampEvery", "recyclable", "images", "metas", "sharedGroups", "selector",
                      "poolChanges", "properties", "_from_dump"}},
        {"images[]", {"name", "id", "source", "blob", "width", "height", "maxBuffers", "minBuffers",
                      "keep", "triggerAtFrame"}},
        {"metas[]", {"name", "id", "app", "keep"}},
        {"selector", {"everyFrames", "keepNewest", "holdSelections", "returnKept", "cloneEvery"}},
        {"poolChanges[]", {"stream", "atFrame", "maxBuffers"}},
        {"pipelines file", {"name", "frames", "pipelines"}},
    };
    return keys;
}

Scenario parseScenario(std::string const& jsonText) { return parseObject(parseJson(jsonText), "scenario"); }

std::vector<Scenario> parseScenarios(std::string const& jsonText) {
    json const j = parseJson(jsonText);
    if (!j.is_object() || !j.contains("pipelines")) return {parseObject(j, "scenario")};
    std::string const root = "scenario";
    checkKeys(j, root, keysOf("pipelines file"));
    auto const& list = j["pipelines"];
    if (!list.is_array() || list.empty() || list.size() > 8) {
        fail(root + ".pipelines", "must be an array of 1 to 8 pipelines");
    }
    std::string const name = text(j, "name", root, "pipelines");
    std::vector<Scenario> out;
    std::map<std::string, size_t> names;  // heaps are counted by name: a name is one pipeline's
    std::map<int64_t, size_t> ids;
    for (size_t i = 0; i < list.size(); ++i) {
        std::string const where = root + ".pipelines[" + std::to_string(i) + "]";
        Scenario s = parseObject(list[i], where);
        if (!list[i].contains("name")) s.name = name + "-" + std::to_string(i);
        if (j.contains("frames")) s.frames = static_cast<uint32_t>(integer(j, "frames", root, 0, 1, kMaxFrames));
        for (size_t k = 0; k < s.images.size(); ++k) {
            std::string const at = where + ".images[" + std::to_string(k) + "]";
            auto const& c = s.images[k];
            if (!names.emplace(c.name, i).second && names[c.name] != i) {
                fail(at + ".name", "\"" + c.name + "\" is a stream of pipeline " + std::to_string(names[c.name]) +
                                       " too: stream names must differ across pipelines");
            }
            if (!ids.emplace(c.id, i).second && ids[c.id] != i) {
                fail(at + ".id", "stream id " + std::to_string(c.id) + " is used by pipeline " +
                                     std::to_string(ids[c.id]) + " too: ids must differ across pipelines");
            }
        }
        out.push_back(std::move(s));
    }
    return out;
}

std::vector<std::string> starvationWarnings(Scenario const& s, int acquireTimeoutMs, uint32_t inFlightFrames) {
    struct Pool {
        std::string name;
        std::vector<ImageStreamCfg const*> members;
        size_t max = 0;
    };
    auto byId = [&](int64_t id) -> ImageStreamCfg const* {
        for (auto const& c : s.images)
            if (c.id == id && c.source == Source::Pool) return &c;
        return nullptr;
    };
    std::vector<Pool> pools;
    std::set<int64_t> placed;
    for (auto const& g : s.sharedGroups) {
        Pool p;
        for (int64_t id : g) {
            ImageStreamCfg const* c = byId(id);
            if (c != nullptr && placed.insert(id).second) p.members.push_back(c);
        }
        if (!p.members.empty()) pools.push_back(std::move(p));
    }
    for (auto const& c : s.images) {
        if (c.source == Source::Pool && placed.insert(c.id).second) pools.push_back({"", {&c}, 0});
    }
    uint64_t const held = uint64_t{s.selector.keepNewest} * s.selector.holdSelections;
    std::vector<std::string> out;
    for (auto& p : pools) {
        size_t kept = 0;
        std::string names;
        for (auto const* c : p.members) {
            p.max = std::max(p.max, c->maxBuffers);  // a shared pool takes its largest member's maximum
            kept += c->keep;
            names += (names.empty() ? "" : ", ");
            names += printable(c->name);
        }
        uint64_t const inFlight = uint64_t{inFlightFrames} * p.members.size();
        uint64_t const need = inFlight + held * kept;
        auto warn = [&](size_t max, std::string const& when) {
            if (max >= need) return;
            double const worstSeconds =
                static_cast<double>(s.frames) * p.members.size() * acquireTimeoutMs / 1000.0;
            char line[512];
            std::snprintf(line, sizeof line,
                          "this scenario starves stream%s %s%s: its pool has %zu buffer%s and needs %llu (%llu "
                          "in flight, %llu held by the selector); each starved request waits up to %d ms, "
                          "at worst %.3g s over %u frames",
                          p.members.size() > 1 ? "s" : "", names.c_str(), when.c_str(), max, max == 1 ? "" : "s",
                          static_cast<unsigned long long>(need), static_cast<unsigned long long>(inFlight),
                          static_cast<unsigned long long>(held * kept), acquireTimeoutMs, worstSeconds, s.frames);
            out.emplace_back(line);
        };
        warn(p.max, "");
        for (auto const& c : s.poolChanges) {
            bool const ours = std::any_of(p.members.begin(), p.members.end(),
                                          [&](ImageStreamCfg const* m) { return m->id == c.stream; });
            if (ours && c.atFrame < s.frames) {
                warn(static_cast<size_t>(c.maxBuffers), " from frame " + std::to_string(c.atFrame));
            }
        }
    }
    return out;
}

std::vector<Scenario> loadScenarios(std::string const& path) {
    std::ifstream in(path);
    if (!in) throw ScenarioError(path + ": cannot be read");
    std::stringstream ss;
    ss << in.rdbuf();
    try {
        return parseScenarios(ss.str());
    } catch (ScenarioError const& e) {
        throw ScenarioError(path + ": " + e.what());
    }
}

std::string defaultScenarioJson() { return kDefaultScenario; }

}  // namespace fbmsim
