#include "Scenario.h"

#include <fstream>
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
    if (j.is_number_integer()) return j.get<int64_t>();
    if (j.is_string()) {
        std::string const s = j.get<std::string>();
        try {
            size_t used = 0;
            int64_t v = std::stoll(s, &used, 0);
            if (used == s.size()) return v;
        } catch (std::exception const&) {
        }
    }
    fail(where, "must be a stream id (an integer or a string such as \"0x1a\")");
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

template <class T>
T positive(json const& j, char const* key, std::string const& where, T fallback, T min = 1) {
    T v = get<T>(j, key, where, fallback);
    if (v < min) fail(where + "." + key, "must be at least " + std::to_string(min));
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

char const* sourceName(Source s) {
    switch (s) {
        case Source::Pool: return "POOL";
        case Source::Runtime: return "RUNTIME";
        case Source::HalProvider: return "HAL PROVIDER";
        case Source::AppProvider: return "APP PROVIDER";
    }
    return "?";
}

Scenario parseScenario(std::string const& text) {
    json j;
    try {
        j = json::parse(text);
    } catch (json::parse_error const& e) {
        throw ScenarioError(std::string("not valid JSON: ") + e.what());
    }
    std::string const root = "scenario";
    checkKeys(j, root, {"name", "frames", "fps", "inFlightDepth", "resultBatches", "destroyEvery",
                        "noTimestampEvery", "recyclable", "images", "metas", "sharedGroups",
                        "selector", "poolChanges", "properties"});
    Scenario s;
    s.name = get<std::string>(j, "name", root, s.name);
    s.frames = positive<uint32_t>(j, "frames", root, s.frames);
    s.fps = get<double>(j, "fps", root, s.fps);
    if (!(s.fps > 0)) fail(root + ".fps", "must be above 0");
    s.inFlightDepth = positive<uint32_t>(j, "inFlightDepth", root, s.inFlightDepth);
    s.resultBatches = positive<uint32_t>(j, "resultBatches", root, s.resultBatches);
    s.destroyEvery = get<uint32_t>(j, "destroyEvery", root, 0);
    s.noTimestampEvery = get<uint32_t>(j, "noTimestampEvery", root, 0);
    s.recyclable = get<bool>(j, "recyclable", root, true);

    std::set<int64_t> ids;
    auto claim = [&](int64_t id, std::string const& where) {
        if (!ids.insert(id).second) fail(where + ".id", "stream id " + std::to_string(id) + " is used twice");
    };
    auto images = j.find("images");
    if (images == j.end() || !images->is_array() || images->empty()) {
        fail(root + ".images", "must be a non-empty array of image streams");
    }
    for (size_t i = 0; i < images->size(); ++i) {
        json const& e = (*images)[i];
        std::string const where = root + ".images[" + std::to_string(i) + "]";
        checkKeys(e, where, {"name", "id", "source", "blob", "width", "height", "maxBuffers",
                             "minBuffers", "keep", "triggerAtFrame"});
        ImageStreamCfg c;
        if (!e.contains("name") || !e.contains("id")) fail(where, "needs a name and an id");
        c.name = get<std::string>(e, "name", where, "");
        c.id = idOf(e["id"], where + ".id");
        claim(c.id, where);
        c.source = sourceOf(get<std::string>(e, "source", where, "pool"), where + ".source");
        c.blob = get<bool>(e, "blob", where, false);
        c.width = positive<int32_t>(e, "width", where, 640);
        c.height = positive<int32_t>(e, "height", where, 480);
        c.maxBuffers = get<size_t>(e, "maxBuffers", where, 4);
        c.minBuffers = get<size_t>(e, "minBuffers", where, 1);
        if (c.minBuffers > c.maxBuffers) fail(where, "minBuffers is above maxBuffers");
        c.keep = get<bool>(e, "keep", where, false);
        if (e.contains("triggerAtFrame")) {
            if (c.source != Source::Pool) fail(where + ".triggerAtFrame", "only a pool can be deferred");
            c.triggerAtFrame = get<uint32_t>(e, "triggerAtFrame", where, 0);
        }
        s.images.push_back(c);
    }
    if (auto metas = j.find("metas"); metas != j.end()) {
        if (!metas->is_array()) fail(root + ".metas", "must be an array");
        for (size_t i = 0; i < metas->size(); ++i) {
            json const& e = (*metas)[i];
            std::string const where = root + ".metas[" + std::to_string(i) + "]";
            checkKeys(e, where, {"name", "id", "app", "keep"});
            if (!e.contains("name") || !e.contains("id")) fail(where, "needs a name and an id");
            MetaStreamCfg c;
            c.name = get<std::string>(e, "name", where, "");
            c.id = idOf(e["id"], where + ".id");
            claim(c.id, where);
            c.app = get<bool>(e, "app", where, false);
            c.keep = get<bool>(e, "keep", where, true);
            s.metas.push_back(c);
        }
    }
    auto imageIds = [&] {
        std::set<int64_t> out;
        for (auto const& c : s.images) out.insert(c.id);
        return out;
    }();
    if (auto groups = j.find("sharedGroups"); groups != j.end()) {
        if (!groups->is_array()) fail(root + ".sharedGroups", "must be an array of arrays of stream ids");
        for (size_t g = 0; g < groups->size(); ++g) {
            std::string const where = root + ".sharedGroups[" + std::to_string(g) + "]";
            if (!(*groups)[g].is_array()) fail(where, "must be an array of stream ids");
            std::vector<int64_t> group;
            for (size_t k = 0; k < (*groups)[g].size(); ++k) {
                group.push_back(idOf((*groups)[g][k], where + "[" + std::to_string(k) + "]"));
            }
            s.sharedGroups.push_back(group);
        }
    }
    if (auto sel = j.find("selector"); sel != j.end()) {
        std::string const where = root + ".selector";
        checkKeys(*sel, where, {"everyFrames", "keepNewest", "holdSelections", "returnKept", "cloneEvery"});
        s.selector.everyFrames = positive<uint32_t>(*sel, "everyFrames", where, s.selector.everyFrames);
        s.selector.keepNewest = get<uint32_t>(*sel, "keepNewest", where, s.selector.keepNewest);
        s.selector.holdSelections = positive<uint32_t>(*sel, "holdSelections", where, s.selector.holdSelections);
        s.selector.returnKept = get<double>(*sel, "returnKept", where, s.selector.returnKept);
        if (s.selector.returnKept < 0 || s.selector.returnKept > 1) {
            fail(where + ".returnKept", "must be a probability between 0 and 1");
        }
        s.selector.cloneEvery = get<uint32_t>(*sel, "cloneEvery", where, s.selector.cloneEvery);
    }
    if (auto changes = j.find("poolChanges"); changes != j.end()) {
        if (!changes->is_array()) fail(root + ".poolChanges", "must be an array");
        for (size_t i = 0; i < changes->size(); ++i) {
            json const& e = (*changes)[i];
            std::string const where = root + ".poolChanges[" + std::to_string(i) + "]";
            checkKeys(e, where, {"stream", "atFrame", "maxBuffers"});
            PoolChange c;
            if (!e.contains("stream")) fail(where, "needs a stream");
            c.stream = idOf(e["stream"], where + ".stream");
            if (imageIds.count(c.stream) == 0) fail(where + ".stream", "is not an image stream of the scenario");
            c.atFrame = get<uint32_t>(e, "atFrame", where, 0);
            c.maxBuffers = positive<int>(e, "maxBuffers", where, 1);
            s.poolChanges.push_back(c);
        }
    }
    if (auto props = j.find("properties"); props != j.end()) {
        if (!props->is_object()) fail(root + ".properties", "must be an object of property: integer");
        for (auto it = props->begin(); it != props->end(); ++it) {
            if (!it->is_number_integer()) fail(root + ".properties." + it.key(), "must be an integer");
            s.properties.emplace_back(it.key(), it->get<int>());
        }
    }
    return s;
}

Scenario loadScenario(std::string const& path) {
    std::ifstream in(path);
    if (!in) throw ScenarioError(path + ": cannot be read");
    std::stringstream ss;
    ss << in.rdbuf();
    try {
        return parseScenario(ss.str());
    } catch (ScenarioError const& e) {
        throw ScenarioError(path + ": " + e.what());
    }
}

std::string defaultScenarioJson() { return kDefaultScenario; }

}  // namespace fbmsim
