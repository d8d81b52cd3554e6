// Host stand-ins of the system tracer and of system properties.
#include <cutils/trace.h>
#include <vexlor/Clock.h>
#include <vexlor/HostSeams.h>
#include <vexlor/Properties.h>

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>

namespace {

std::atomic<uint64_t> gEnabledTags{0};
struct Trace {
    std::mutex lock;
    std::vector<vexlor::host::TraceEvent> events;
    std::function<void(vexlor::host::TraceEvent const&)> sink;
    void add(vexlor::host::TraceEvent&& e) {
        if (sink) sink(e);
        else events.push_back(std::move(e));
    }
};
Trace& trace() {
    static Trace* t = new Trace;
    return *t;
}
int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
uint64_t tid() { return static_cast<uint64_t>(syscall(SYS_gettid)); }

struct Props {
    std::mutex lock;
    std::map<std::string, int32_t> values;
    bool seeded = false;
};
Props& props() {
    static Props* p = new Props;
    return *p;
}
void seedLocked(Props& p) {
    if (p.seeded) return;
    p.seeded = true;
    char const* env = std::getenv("VEXLOR_PROPERTIES");
    if (env == nullptr) return;
    std::stringstream ss(env);
    std::string item;
    while (std::getline(ss, item, ',')) {
        auto eq = item.find('=');
        if (eq == std::string::npos) continue;
        char* end = nullptr;
        long v = std::strtol(item.c_str() + eq + 1, &end, 0);
        if (end && *end == '\0') p.values[item.substr(0, eq)] = static_cast<int32_t>(v);
    }
}

}  // namespace

extern "C" uint64_t atrace_get_enabled_tags() { return gEnabledTags.load(std::memory_order_relaxed); }

extern "C" void atrace_begin_body(const char* name) {
    auto& t = trace();
    std::lock_guard<std::mutex> lk(t.lock);
    t.add({true, name ? name : "", tid(), nowNs()});
}

extern "C" void atrace_end_body() {
    auto& t = trace();
    std::lock_guard<std::mutex> lk(t.lock);
    t.add({false, "", tid(), nowNs()});
}

extern "C" void atrace_int64_body(const char* name, int64_t value) {
    auto& t = trace();
    std::lock_guard<std::mutex> lk(t.lock);
    t.add({false, name ? name : "", tid(), nowNs(), true, value});
}

extern "C" void atrace_int_body(const char* name, int32_t value) { atrace_int64_body(name, value); }

namespace {
std::atomic<int64_t> gWallClockStepNs{0};
}  // namespace

extern "C" int64_t vexlor_wall_clock_step_ns() { return gWallClockStepNs.load(std::memory_order_relaxed); }

namespace NSCam::Utils::Properties {

int32_t property_get_int32(char const* key, int32_t defaultValue) {
    auto& p = props();
    std::lock_guard<std::mutex> lk(p.lock);
    seedLocked(p);
    auto it = p.values.find(key ? key : "");
    return it == p.values.end() ? defaultValue : it->second;
}

}  // namespace NSCam::Utils::Properties

namespace vexlor::host {

void setProperty(std::string const& key, int32_t value) {
    auto& p = props();
    std::lock_guard<std::mutex> lk(p.lock);
    seedLocked(p);
    p.values[key] = value;
}
void clearProperties() {
    auto& p = props();
    std::lock_guard<std::mutex> lk(p.lock);
    p.seeded = true;
    p.values.clear();
}

void stepWallClock(std::chrono::nanoseconds step) { gWallClockStepNs += step.count(); }
void resetWallClock() { gWallClockStepNs = 0; }

void TraceRecorder::setEnabledTags(uint64_t tags) { gEnabledTags = tags; }
std::vector<TraceEvent> TraceRecorder::events() {
    auto& t = trace();
    std::lock_guard<std::mutex> lk(t.lock);
    return t.events;
}
void TraceRecorder::clear() {
    auto& t = trace();
    std::lock_guard<std::mutex> lk(t.lock);
    t.events.clear();
}
void TraceRecorder::setSink(std::function<void(TraceEvent const&)> sink) {
    auto& t = trace();
    std::lock_guard<std::mutex> lk(t.lock);
    t.sink = std::move(sink);
}
size_t TraceRecorder::countBegins(std::string const& name) {
    size_t n = 0;
    for (auto const& e : events()) n += e.begin && e.name == name;
    return n;
}
std::vector<TraceEvent> TraceRecorder::counters(std::string const& name) {
    std::vector<TraceEvent> out;
    for (auto const& e : events()) {
        if (e.counter && e.name == name) out.push_back(e);
    }
    return out;
}

}  // namespace vexlor::host
