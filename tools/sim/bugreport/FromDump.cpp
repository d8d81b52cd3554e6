// from-dump: the manager's dumps read back out of a bug report, and the scenarios they describe.
#include "FromDump.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <regex>
#include <sstream>

#include <CLI/CLI.hpp>

#include "Scenario.h"

namespace fbmsim {

namespace {

constexpr size_t kMaxLine = 64 * 1024;  // longer lines are other output, or a cut dump line
constexpr int kExitUsage = 2;

[[noreturn]] void fail(size_t line, std::string const& what) {
    throw DumpError("line " + std::to_string(line) + ": " + what);
}

// A line of at most kMaxLine bytes, without its line end (LF or CR LF); `tooLong` when the rest
// was skipped. False at the end of the input.
bool readLine(std::istream& in, std::string& line, bool& tooLong) {
    static thread_local std::vector<char> buf(kMaxLine + 1);
    in.getline(buf.data(), static_cast<std::streamsize>(buf.size()));
    auto n = static_cast<size_t>(in.gcount());
    tooLong = false;
    if (in.bad() || (n == 0 && in.eof())) return false;
    if (in.fail() && !in.eof()) {  // no line end within the buffer
        tooLong = true;
        in.clear();
        // Binary data is refused on its first bytes, not after reading it all.
        if (std::memchr(buf.data(), '\0', n) == nullptr) in.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    } else if (!in.eof()) {
        --n;  // the line end, counted but not stored
    }
    line.assign(buf.data(), n);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return true;
}

// The stream ids of one "{ (0x1)  (0x2) }" of a set line.
std::vector<std::string> idsIn(std::string const& text) {
    static std::regex const id(R"(\((0x[0-9a-fA-F]+)\))");
    std::vector<std::string> out;
    for (auto it = std::sregex_iterator(text.begin(), text.end(), id); it != std::sregex_iterator(); ++it) {
        out.push_back((*it)[1]);
    }
    return out;
}

enum class Section { None, Images, Metas, Groups, Other, InFlight, Ready, State };

}  // namespace

std::map<std::string, int64_t> ManagerDump::heldByProcessing() const {
    std::map<std::string, std::string> poolOfStream(poolOf.begin(), poolOf.end());
    std::map<std::string, int64_t> held;
    for (auto const& [name, pool] : pools) held[name] = pool.inUse;
    for (auto const* sets : {&ready, &inFlight}) {
        for (auto const& set : *sets) {
            for (auto const& id : set.images) {
                auto const p = poolOfStream.find(id);
                if (p != poolOfStream.end() && held.count(p->second) != 0) --held[p->second];
            }
        }
    }
    for (auto it = held.begin(); it != held.end();) it = it->second > 0 ? std::next(it) : held.erase(it);
    return held;
}

int64_t ManagerDump::newestFrame() const {
    int64_t newest = -1;
    for (auto const* sets : {&ready, &inFlight})
        for (auto const& set : *sets) newest = std::max(newest, static_cast<int64_t>(set.frame));
    return newest;
}

namespace {

// The log lines a report holds besides the dumps: the producers' time-outs, and the frame numbers
// and times of the manager's lines (logcat's "MM-DD HH:MM:SS.mmm" first).
class LogReader {
public:
    explicit LogReader(ReportLog* log) : mLog(log) {}
    void read(std::string const& line, size_t n) {
        static std::regex const timeout(
            R"(\[acquireFromPool\] Producer\(\S+ (0x[0-9a-fA-F]+) .*cannot acquire from pool after timeout\((\d+) ns\))");
        static std::regex const frameNo(R"(\[requestNo:\d+ frameNo:(\d+)\])");
        static std::regex const when(R"(^(\d\d)-(\d\d) (\d\d):(\d\d):(\d\d\.\d+) )");
        if (mLog == nullptr) return;
        std::smatch m;
        if (line.find("cannot acquire from pool after timeout") != std::string::npos &&
            std::regex_search(line, m, timeout)) {
            ++mLog->timeouts[m[1]];
            mLog->timeoutNs = number(m[2], n);
        }
        if (line.find("frameNo:") == std::string::npos || !std::regex_search(line, m, frameNo)) return;
        int64_t const frame = number(m[1], n);
        if (mLog->firstFrame < 0 || frame < mLog->firstFrame) mLog->firstFrame = frame;
        mLog->lastFrame = std::max(mLog->lastFrame, frame);
        if (!std::regex_search(line, m, when)) return;
        double const seconds = ((std::stoi(m[2]) * 24 + std::stoi(m[3])) * 60 + std::stoi(m[4])) * 60.0 + std::stod(m[5]);
        if (mFirst.first < 0) mFirst = {frame, seconds};
        if (frame > mFirst.first && seconds > mFirst.second) {
            mLog->fps = static_cast<double>(frame - mFirst.first) / (seconds - mFirst.second);
        }
    }

private:
    static int64_t number(std::string const& text, size_t n) {
        int64_t v = 0;
        auto const r = std::from_chars(text.data(), text.data() + text.size(), v);
        if (r.ec != std::errc()) fail(n, "a number out of range: " + text);
        return v;
    }
    ReportLog* mLog;
    std::pair<int64_t, double> mFirst{-1, 0.0};  // the first timed line's frame and time
};

}  // namespace

namespace {

using State = NSCam::v3::pipeline::FrameBufferManagerState;

template <class T>
T numberOf(std::string const& text, size_t n, int base = 10) {
    T v{};
    char const* begin = text.data();
    if (base == 16 && text.rfind("0x", 0) == 0) begin += 2;
    auto const r = std::from_chars(begin, text.data() + text.size(), v, base);
    if (r.ec != std::errc() || r.ptr != text.data() + text.size()) fail(n, "not a number, or out of range: " + text);
    return v;
}

std::vector<NSCam::v3::pipeline::StreamId_T> idListOf(std::string const& text, size_t n) {
    std::vector<NSCam::v3::pipeline::StreamId_T> ids;
    std::istringstream parts(text);
    for (std::string id; std::getline(parts, id, ',');) ids.push_back(numberOf<int64_t>(id, n, 16));
    return ids;
}

// One line of a "--state" section into `state`; false when it is none of its lines. A line that
// starts as one but does not parse whole is a cut dump: an error that says so.
bool readStateLine(std::string const& line, size_t n, State& state) {
    static std::regex const pool(
        R"(    pool (.*) streams=(\S*) heapBytes=(-?\d+) max=(-?\d+) allocated=(-?\d+) available=(-?\d+) inUse=(-?\d+) )"
        R"(waiting=(-?\d+) served=(\d+) timeouts=(\d+) slicesWaited=(\d+) releasedUnderPressure=(\d+) peakInUse=(-?\d+)$)");
    static std::regex const stream(R"(    stream (0x[0-9a-f]+) attribute=(0x[0-9a-f]+) pool=(.*) name=(.*)$)");
    static std::regex const set(
        R"(    (inFlight|ready) F(\d+) R(\d+) timestamp=(-?\d+) remaining=(\d+) halImage=(\S*) halMeta=(\S*) appMeta=(\S*)$)");
    static std::regex const kind(R"(    (pool|stream|inFlight|ready|readyCounters|config)\b)");
    std::smatch m;
    if (!std::regex_search(line, m, kind)) return false;
    std::string const what = m[1];
    auto const cut = [&] { fail(n, "a state line that does not parse whole (a cut dump?): " + line); };
    if (what == "pool") {
        if (!std::regex_search(line, m, pool)) cut();
        State::Pool p;
        p.name = m[1];
        p.streams = idListOf(m[2], n);
        p.heapBytes = numberOf<int64_t>(m[3], n);
        p.max = numberOf<int32_t>(m[4], n);
        p.allocated = numberOf<int32_t>(m[5], n);
        p.available = numberOf<int32_t>(m[6], n);
        p.inUse = numberOf<int32_t>(m[7], n);
        p.waiting = numberOf<int32_t>(m[8], n);
        p.served = numberOf<uint64_t>(m[9], n);
        p.timeouts = numberOf<uint64_t>(m[10], n);
        p.slicesWaited = numberOf<uint64_t>(m[11], n);
        p.releasedUnderPressure = numberOf<uint64_t>(m[12], n);
        p.peakInUse = numberOf<int32_t>(m[13], n);
        state.pools.push_back(std::move(p));
    } else if (what == "stream") {
        if (!std::regex_search(line, m, stream)) cut();
        state.streams.push_back({numberOf<int64_t>(m[1], n, 16), m[4], numberOf<uint32_t>(m[2], n, 16), m[3]});
    } else if (what == "inFlight" || what == "ready") {
        if (!std::regex_search(line, m, set)) cut();
        State::Set s;
        s.frameNo = numberOf<uint32_t>(m[2], n);
        s.requestNo = numberOf<uint32_t>(m[3], n);
        s.timestamp = numberOf<int64_t>(m[4], n);
        s.remaining = numberOf<size_t>(m[5], n);
        s.halImage = idListOf(m[6], n);
        s.halMeta = idListOf(m[7], n);
        s.appMeta = idListOf(m[8], n);
        (what == "ready" ? state.ready : state.inFlight).push_back(std::move(s));
    } else if (what == "readyCounters") {
        std::istringstream entries(line.substr(static_cast<size_t>(m.position(0) + m.length(0))));
        for (std::string entry; entries >> entry;) {
            auto const eq = entry.find('=');
            if (eq == std::string::npos) cut();
            state.readyCounters[numberOf<int64_t>(entry.substr(0, eq), n, 16)] =
                numberOf<int32_t>(entry.substr(eq + 1), n);
        }
    } else {
        state.configLines.push_back(line.substr(static_cast<size_t>(m.position(0) + m.length(0)) + 1));
    }
    return true;
}

// The heading "<state> name=... acquireTimeoutMs=N inFlight=N|busy ready=N|busy".
void readStateHeading(std::string const& line, size_t n, State& state) {
    static std::regex const heading(R"(<state> name=(.*) acquireTimeoutMs=(-?\d+) inFlight=(\d+|busy) ready=(\d+|busy)$)");
    std::smatch m;
    if (!std::regex_search(line, m, heading)) fail(n, "a state heading that does not parse whole (a cut dump?): " + line);
    state = State{};
    state.name = m[1];
    state.acquireTimeoutMs = numberOf<int32_t>(m[2], n);
    state.inFlightTaken = m[3] != "busy";
    state.readyTaken = m[4] != "busy";
}

// The pools of a dump with a state section are the state's: the heap pools made (sized), and
// which stream draws from which.
void poolsFromState(ManagerDump& d) {
    d.pools.clear();
    d.poolOf.clear();
    for (auto const& p : d.state.pools) {
        if (p.max > 0 || p.allocated > 0) d.pools[p.name] = {p.allocated, p.available, p.inUse};
    }
    for (auto const& s : d.state.streams) {
        char id[32];
        std::snprintf(id, sizeof id, "%#llx", static_cast<unsigned long long>(s.id));
        if (!s.pool.empty()) d.poolOf.emplace_back(id, s.pool);
    }
}

}  // namespace

std::vector<ManagerDump> readDumps(std::istream& in, ReportLog* log) {
    // Found anywhere in a line: whatever prefix logcat or a system dump put before it.
    static std::regex const image(
        R"(\[IMAGE-(HAL|APP)-(USER|POOL|RUNTIME|PROVIDER|\?) *\](0x[0-9a-fA-F]+):(.*) (\d+)x(\d+) fmt:(0x[0-9a-fA-F]+) planes:(\d+) max:(\d+) min:(\d+)( deferred)?$)");
    static std::regex const meta(R"(\[META -(HAL|APP)-\w*\?? *\](0x[0-9a-fA-F]+):(.*) meta$)");
    static std::regex const group(R"(\(((?: [0-9a-fA-F]+)+) \)$)");
    static std::regex const set(
        R"(\[R\d+ F(\d+)\]TS:(\d+) (?:#\d+ left )?\{([^}]*)\} \{([^}]*)\} \{([^}]*)\}$)");
    // The start of a stream line of ours (an attribute, then an id): such a line that does not
    // parse whole is a cut line, not other output.
    static std::regex const streamStart(R"(\[(IMAGE|META )-(HAL|APP)-\w*\?? *\]0x)");
    static std::regex const producer(R"(\[dump\] Producer\(\S+ (0x[0-9a-fA-F]+) .*\) Pool\((.*)\) InUse\()");
    static std::regex const pool(
        R"(\[dumpPool\] Pool\((.*)-0x[0-9a-fA-F]+\) logLevel\(.*max\(#(\d+)\).*available\(#(\d+)\).*inUse\(#(\d+)\))");

    std::vector<ManagerDump> dumps;
    LogReader logReader(log);
    Section section = Section::None;
    std::string line;
    bool tooLong = false;
    size_t n = 0;
    std::smatch m;
    while (readLine(in, line, tooLong)) {
        ++n;
        if (line.find('\0') != std::string::npos) fail(n, "binary data (a NUL byte): not a text dump");
        bool const inTable = section == Section::Images || section == Section::Metas;
        if (tooLong) {
            if (inTable) fail(n, "a line longer than " + std::to_string(kMaxLine) + " bytes inside a stream table");
            continue;
        }
        logReader.read(line, n);
        if (line.find("<image streams>") != std::string::npos) {
            if (section == Section::State) poolsFromState(dumps.back());
            if (section == Section::Images) {
                fail(n, "a new dump starts inside the stream table of the dump of line " +
                            std::to_string(dumps.back().line) + ": that dump is cut");
            }
            dumps.emplace_back();
            dumps.back().line = n;
            section = Section::Images;
            continue;
        }
        if (dumps.empty()) continue;  // other services' output before the first dump
        ManagerDump& d = dumps.back();
        if (line.find("<state> ") != std::string::npos) {
            readStateHeading(line, n, d.state);
            d.hasState = true;
            section = Section::State;
            continue;
        }
        if (section == Section::State) {
            if (readStateLine(line, n, d.state)) continue;
            section = Section::None;  // the section ends at the first line that is none of its
            poolsFromState(d);
        }
        if (line.find('<') != std::string::npos) {
            Section next = section;
            if (line.find("<meta streams>") != std::string::npos) next = Section::Metas;
            else if (line.find("<pool-shared streams>") != std::string::npos) next = Section::Groups;
            else if (line.find("<config messages>") != std::string::npos) next = Section::Other;
            else if (line.find("<image buffer pool>") != std::string::npos) next = Section::Other;
            else if (line.find("<InFlightList>") != std::string::npos) next = Section::InFlight;
            else if (line.find("<ReadyList>") != std::string::npos) next = Section::Ready;
            if (next != section) {
                if (section == Section::Images && next != Section::Metas) {
                    fail(n, "the stream table of the dump of line " + std::to_string(d.line) + " is cut: no <meta streams>");
                }
                section = next;
                continue;
            }
        }
        if (line.find("mReadyStreamCounters:") != std::string::npos) {
            section = Section::None;
            continue;
        }
        // The pools dump themselves to the log: which stream draws from which heap pool, and
        // which heap pools exist (a deferred pool exists once triggered).
        // (A dump with a state section takes its pools from there.)
        if (!d.hasState && line.find("[dump] Producer(") != std::string::npos && std::regex_search(line, m, producer)) {
            d.poolOf.emplace_back(m[1], m[2]);
            continue;
        }
        if (!d.hasState && line.find("[dumpPool] Pool(") != std::string::npos && std::regex_search(line, m, pool)) {
            auto const count = [](std::string const& text) { return std::strtoll(text.c_str(), nullptr, 10); };
            d.pools[m[1]] = {count(m[2]), count(m[3]), count(m[4])};
            continue;
        }
        switch (section) {
            case Section::Images:
                if (line.find("[IMAGE-") == std::string::npos && line.find("[META -") == std::string::npos) break;
                if (!std::regex_search(line, streamStart)) break;
                if (!std::regex_search(line, m, image)) fail(n, "an image stream line that does not parse: " + line);
                d.images.push_back({n, m[1] == "APP", m[2], m[3], m[4], m[7], m[5], m[6], m[8], m[9], m[10],
                                    m[11].matched});
                break;
            case Section::Metas:
                if (line.find("[META -") == std::string::npos && line.find("[IMAGE-") == std::string::npos) break;
                if (!std::regex_search(line, streamStart)) break;
                if (!std::regex_search(line, m, meta)) fail(n, "a meta stream line that does not parse: " + line);
                d.metas.push_back({n, m[1] == "APP", m[2], m[3]});
                break;
            case Section::Groups:
                if (std::regex_search(line, m, group)) {
                    std::vector<std::string> ids;
                    std::istringstream words(m[1]);
                    for (std::string w; words >> w;) ids.push_back("0x" + w);
                    d.groups.push_back(std::move(ids));
                }
                break;
            case Section::InFlight:
            case Section::Ready:
                if (line.find("]TS:") != std::string::npos && !std::regex_search(line, m, set)) {
                    // A set line that ends early: the dump was cut mid-line (a full buffer, a
                    // truncated report). Its set is not read, and the reader is told.
                    d.cut.push_back("line " + std::to_string(n) + ": a set line cut short, not read: " + line);
                } else if (line.find("]TS:") != std::string::npos) {
                    ManagerDump::Set s;
                    auto const number = [&](std::string const& text, uint64_t& out) {
                        auto const r = std::from_chars(text.data(), text.data() + text.size(), out);
                        if (r.ec != std::errc()) fail(n, "a number out of range: " + text);
                    };
                    number(m[1], s.frame);
                    number(m[2], s.timestamp);
                    s.images = idsIn(m[3]);
                    s.metas = idsIn(m[4]);
                    for (auto& id : idsIn(m[5])) s.metas.push_back(id);
                    (section == Section::Ready ? d.ready : d.inFlight).push_back(std::move(s));
                }
                break;
            default:
                break;
        }
    }
    if (section == Section::State) poolsFromState(dumps.back());
    if (in.bad()) throw DumpError("cannot be read to its end");
    if (dumps.empty()) throw DumpError("no frame buffer manager dump in it (no \"<image streams>\" line)");
    if (section == Section::Images) {
        fail(n, "the input ends inside the stream table of the dump of line " + std::to_string(dumps.back().line));
    }
    return dumps;
}

namespace {

// A decimal field of a stream line, within [min, max].
int64_t field(ManagerDump::Image const& s, std::string const& what, std::string const& text, int64_t min, int64_t max) {
    int64_t v = 0;
    auto const r = std::from_chars(text.data(), text.data() + text.size(), v);
    if (r.ec != std::errc() || v < min || v > max) {
        fail(s.line, s.id + ":" + s.name + ": " + what + " " + text + " is out of range (" + std::to_string(min) +
                         " to " + std::to_string(max) + " in a scenario)");
    }
    return v;
}

void checkId(size_t line, std::string const& id) {
    int64_t v = 0;
    auto const r = std::from_chars(id.data() + 2, id.data() + id.size(), v, 16);
    if (r.ec != std::errc() || r.ptr != id.data() + id.size() || v < 0) fail(line, "stream id " + id + " is out of range");
}

void checkName(size_t line, std::string const& id, std::string const& name) {
    if (name.empty() || name.size() > 256) fail(line, "stream " + id + ": a name of 1 to 256 bytes is needed");
}

}  // namespace

nlohmann::ordered_json scenarioOf(ManagerDump const& d, std::string const& name, ReportLog const* log) {
    using json = nlohmann::ordered_json;
    std::vector<std::string> guessed;
    std::set<std::string> keptImages, keptMetas;
    for (auto const* sets : {&d.ready, &d.inFlight}) {
        for (auto const& s : *sets) {
            keptImages.insert(s.images.begin(), s.images.end());
            keptMetas.insert(s.metas.begin(), s.metas.end());
        }
    }
    // Heaps in use that no listed set holds are held by processing: the streams of those pools
    // are kept by their frames, and the selector holds as many sets as the fullest pool shows.
    std::map<std::string, std::string> poolOf(d.poolOf.begin(), d.poolOf.end());
    std::set<std::string> const listedImages = keptImages;
    std::string heldWhy;
    int64_t heldSets = 0;
    for (auto const& [pool, heaps] : d.heldByProcessing()) {
        std::vector<std::string> members, kept;
        for (auto const& [id, p] : d.poolOf)
            if (p == pool && std::find(members.begin(), members.end(), id) == members.end()) members.push_back(id);
        for (auto const& id : members)
            if (keptImages.count(id) != 0) kept.push_back(id);
        if (kept.empty()) kept = members;
        if (kept.empty()) continue;
        keptImages.insert(kept.begin(), kept.end());
        auto const sets = (heaps + static_cast<int64_t>(kept.size()) - 1) / static_cast<int64_t>(kept.size());
        if (sets > heldSets) {
            heldSets = sets;
            heldWhy = "pool " + pool + " has " + std::to_string(heaps) + " heap" + (heaps == 1 ? "" : "s") +
                      " in use that no ready or in-flight set holds";
        }
    }
    if (d.ready.empty() && d.inFlight.empty() && heldSets == 0) {
        guessed.push_back("no set was in the dump: no stream is kept");
    }
    for (auto const& cut : d.cut) guessed.push_back("the dump is cut: " + cut);

    json s;
    s["name"] = name;
    s["_from_dump"] = "";  // written last, read first: what was guessed, before the values
    // The frame rate from the timestamps of the sets: nanoseconds between frame numbers.
    std::vector<ManagerDump::Set const*> timed;
    for (auto const* sets : {&d.ready, &d.inFlight})
        for (auto const& set : *sets)
            if (set.timestamp > 0) timed.push_back(&set);
    auto const [lo, hi] = std::minmax_element(timed.begin(), timed.end(),
                                              [](auto a, auto b) { return a->frame < b->frame; });
    double fps = 0;
    if (!timed.empty() && (*hi)->frame > (*lo)->frame && (*hi)->timestamp > (*lo)->timestamp) {
        fps = 1e9 * static_cast<double>((*hi)->frame - (*lo)->frame) /
              static_cast<double>((*hi)->timestamp - (*lo)->timestamp);
    }
    char const* fpsFrom = "";
    if ((fps < kMinFps || fps > kMaxFps) && log != nullptr && log->fps >= kMinFps && log->fps <= kMaxFps) {
        fps = log->fps;
        fpsFrom = "the frame rate from the log lines' frame numbers and times; ";
    }
    if (fps >= kMinFps && fps <= kMaxFps) {
        if (*fpsFrom != 0) guessed.push_back(std::string(fpsFrom, std::strlen(fpsFrom) - 2));
        char text[32];
        std::snprintf(text, sizeof text, "%.6g", fps);
        s["fps"] = std::stod(text);
    } else {
        guessed.push_back("the frame rate (fewer than two timed sets): 30 fps");
    }

    if (log != nullptr && log->timeoutNs >= 0) {
        s["properties"] = {{kAcquireTimeoutProperty, (log->timeoutNs + 500000) / 1000000}};
    }
    for (auto const& img : d.images) {
        checkId(img.line, img.id);
        checkName(img.line, img.id, img.name);
        json j;
        j["name"] = img.name;
        j["id"] = img.id;
        if (img.source == "POOL") j["source"] = "pool";
        else if (img.source == "RUNTIME") j["source"] = "runtime";
        else if (img.source == "PROVIDER") j["source"] = img.app ? "app-provider" : "hal-provider";
        else fail(img.line, img.id + ":" + img.name + " takes buffers from " + img.source + ", which the simulator cannot drive");
        int64_t const planes = field(img, "planes", img.planes, 1, 3);
        if (img.format == "0x21" && planes == 1) {
            j["blob"] = true;
        } else if (img.format != "0x32315659" || planes != 2) {
            fail(img.line, img.id + ":" + img.name + ": format " + img.format + " with " + img.planes +
                               " planes is not one the simulator makes (0x32315659 with 2, or blob 0x21 with 1)");
        }
        int64_t const w = field(img, "width", img.width, 1, kMaxBufferBytes);
        int64_t const h = field(img, "height", img.height, 1, kMaxBufferBytes);
        if (w * h > kMaxBufferBytes) fail(img.line, img.id + ":" + img.name + ": width x height is above 1 GiB");
        j["width"] = w;
        j["height"] = h;
        int64_t const max = field(img, "max", img.max, 1, kMaxBuffers);
        j["maxBuffers"] = max;
        j["minBuffers"] = field(img, "min", img.min, 0, max);
        if (keptImages.count(img.id) != 0) j["keep"] = true;
        if (img.deferred) {
            if (img.source != "POOL") fail(img.line, img.id + ":" + img.name + ": only a pool can be deferred");
            auto const p = poolOf.find(img.id);
            bool const made = p != poolOf.end() && d.pools.count(p->second) != 0;
            j["triggerAtFrame"] = made ? 0 : kMaxFrames;
            guessed.push_back("when deferred pool " + img.name + " was triggered: " +
                              (made ? "at frame 0 (the dump shows it made)" : "never (the dump shows no heap pool of it)"));
        }
        s["images"].push_back(j);
    }
    for (auto const& m : d.metas) {
        checkId(m.line, m.id);
        checkName(m.line, m.id, m.name);
        s["metas"].push_back({{"name", m.name}, {"id", m.id}, {"app", m.app}, {"keep", keptMetas.count(m.id) != 0}});
    }
    if (!d.groups.empty()) s["sharedGroups"] = d.groups;
    // The selector takes the ready list every `everyFrames` frames, as many as the dump's ready
    // list held, and holds what processing held. When the listed sets hold a pool's image, the
    // sets it does not hold are all given back kept, so the ready list stays as full as the pools
    // allow (a starving pool takes the oldest); sets of metadata alone could only pile up, and
    // are released.
    bool const poolKept = std::any_of(d.images.begin(), d.images.end(), [&](auto const& img) {
        return img.source == "POOL" && listedImages.count(img.id) != 0;
    });
    uint64_t const everyFrames = std::max<size_t>(1, d.ready.size());
    double const returnKept = poolKept ? 1.0 : 0.0;
    if (heldSets > 0) {
        s["selector"] = {{"everyFrames", everyFrames}, {"keepNewest", 1}, {"holdSelections", heldSets},
                         {"returnKept", 0.0}, {"cloneEvery", 0}};
        guessed.push_back("processing: the selector holds " + std::to_string(heldSets) + " set" +
                          (heldSets == 1 ? "" : "s") + ", the newest of each selection for " +
                          std::to_string(heldSets) + " selection" + (heldSets == 1 ? "" : "s") + ", releases the others and clones none, as " + heldWhy);
    } else {
        s["selector"] = {{"everyFrames", everyFrames}, {"keepNewest", 0}, {"returnKept", returnKept}};
        guessed.push_back("how long the selector holds a set: it holds none (every heap in use is in a listed "
                          "set), and gives back kept every set with a pool's image");
    }
    std::string const timeout = log != nullptr && log->timeoutNs >= 0 ? "" : " and the acquire time-out";
    guessed.push_back("the frames in flight, result batches, destroyed frames, the providers' latency" + timeout +
                      ": the simulator's defaults");
    guessed.push_back("pool changes made during the recorded run are not in a dump: none here, so counts may "
                      "differ from the recorded run's");
    std::string note = "rebuilt by fbm-sim from-dump from the dump at line " + std::to_string(d.line) + "; guessed: ";
    for (size_t i = 0; i < guessed.size(); ++i) note += (i ? "; " : "") + guessed[i];
    note += "; recorded: ";
    if (log == nullptr || log->frames() == 0) {
        note += "no log line with a frame number";
    } else {
        note += "frames " + std::to_string(log->firstFrame) + " to " + std::to_string(log->lastFrame) + " in the log";
        for (auto const& img : d.images) {
            auto const t = log->timeouts.find(img.id);
            if (t != log->timeouts.end()) note += ", " + std::to_string(t->second) + " acquire time-outs of " + img.name;
        }
    }
    s["_from_dump"] = note;
    return s;
}

nlohmann::ordered_json scenarioOfDumps(std::vector<ManagerDump> const& dumps, size_t pick, ReportLog const* log) {
    if (pick != 0 || dumps.size() == 1) {
        size_t const i = pick != 0 ? pick - 1 : 0;
        return scenarioOf(dumps[i], "from-dump-" + std::to_string(i + 1), log);
    }
    // Pipelines of one run need ids and names of their own.
    nlohmann::ordered_json out;
    std::map<std::string, size_t> ids, names;
    out["name"] = "from-dump";
    for (size_t i = 0; i < dumps.size(); ++i) {
        for (auto const& img : dumps[i].images) {
            for (auto* seen : {&ids, &names}) {
                auto const& key = seen == &ids ? img.id : img.name;
                auto const [it, fresh] = seen->emplace(key, i + 1);
                if (!fresh && it->second != i + 1) {
                    throw DumpError("managers " + std::to_string(it->second) + " and " + std::to_string(i + 1) +
                                    " both have stream " + key + ", which one run cannot hold: rebuild each with --pick N");
                }
            }
        }
        out["pipelines"].push_back(scenarioOf(dumps[i], "from-dump-" + std::to_string(i + 1), log));
    }
    return out;
}

int fromDumpMain(int argc, char** argv) {
    CLI::App app{"fbm-sim from-dump: rebuilds a scenario from the manager's state dumps in a bug report "
                 "(logcat or a system dump); writes it as JSON. Exit status: 0, or 2 for bad input."};
    std::string file, outFile, pickText;
    app.add_option("FILE", file, "the text holding the dumps, or - for standard input")->required();
    app.add_option("-o,--output", outFile, "write the scenario to FILE instead of standard output")->type_name("FILE");
    app.add_option("--pick", pickText, "of several managers, rebuild only the N-th (from 1)")->type_name("N");
    auto usage = [](std::string const& message) {
        std::cerr << "fbm-sim from-dump: " << message << "\n";
        return kExitUsage;
    };
    try {
        app.parse(argc, argv);
    } catch (CLI::CallForHelp const&) {
        std::cout << app.help();
        return 0;
    } catch (CLI::ParseError const& e) {
        return usage(e.what());
    }
    if (file.empty()) return usage("FILE: the file name is empty");
    if (app.count("-o") != 0 && outFile.empty()) return usage("-o: the file name is empty");

    std::vector<ManagerDump> dumps;
    ReportLog log;
    std::string const source = file == "-" ? "standard input" : file;
    try {
        std::ifstream f;
        if (file != "-") {
            f.open(file, std::ios::binary);
            if (!f) return usage(source + ": cannot be read");
        }
        dumps = readDumps(file == "-" ? std::cin : f, &log);
    } catch (DumpError const& e) {
        return usage(source + ": " + e.what());
    }
    size_t pick = 0;
    if (!pickText.empty()) {
        auto const r = std::from_chars(pickText.data(), pickText.data() + pickText.size(), pick);
        if (r.ec != std::errc() || r.ptr != pickText.data() + pickText.size() || pick < 1 || pick > dumps.size()) {
            return usage("--pick " + pickText + ": must be from 1 to " + std::to_string(dumps.size()) +
                         ", the managers found");
        }
    }
    std::cerr << "fbm-sim from-dump: " << source << ": " << dumps.size() << " manager" << (dumps.size() == 1 ? "" : "s")
              << " found\n";
    for (size_t i = 0; i < dumps.size(); ++i) {
        std::cerr << "  " << i + 1 << ". from-dump-" << i + 1 << " at line " << dumps[i].line << ": "
                  << dumps[i].images.size() << " image streams, " << dumps[i].metas.size() << " meta streams, "
                  << dumps[i].ready.size() << " ready sets" << (dumps[i].cut.empty() ? "" : ", cut") << "\n";
        for (auto const& cut : dumps[i].cut) std::cerr << "     the dump is cut: " << cut << "\n";
    }

    nlohmann::ordered_json out;
    try {
        out = scenarioOfDumps(dumps, pick, &log);
    } catch (DumpError const& e) {
        return usage(source + ": " + e.what());
    }
    std::string const text = out.dump(2) + "\n";
    // The scenario must be one the simulator runs: checked here rather than found out later.
    try {
        parseScenarios(text);
    } catch (ScenarioError const& e) {
        return usage(source + ": the rebuilt scenario is refused: " + e.what());
    }
    if (outFile.empty()) {
        std::cout << text << std::flush;
        return std::cout ? 0 : 1;
    }
    std::ofstream o(outFile, std::ios::binary | std::ios::trunc);
    o << text;
    o.close();
    if (!o) return usage("-o " + outFile + ": cannot be written");
    std::cerr << "fbm-sim from-dump: wrote " << outFile << "\n";
    return 0;
}

}  // namespace fbmsim
