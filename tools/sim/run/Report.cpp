// The report: samples over the run, the state dump, memory by heap name, and the printed report.
#include "SimulationImpl.h"

#include <mutex>

namespace fbmsim::detail {

double residentMb() {
    long pages = 0, resident = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
        std::fclose(f);
    }
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

void Simulation::sample(uint32_t f) {
    SeriesRow row;
    row.frame = f;
    row.seconds = std::chrono::duration<double>(Clock::now() - mStart).count();
    auto const state = mState->takeState();
    row.readyList = state.ready.size();
    row.residentMb = residentMb();
    row.heapBytes = host::HeapFactory::totalMemory().bytes;
    for (auto const& p : state.pools) {
        if (mPoolNames.count(p.name) != 0) row.pools[p.name] = {p.allocated, p.inUse};
    }
    mR.series.push_back(std::move(row));
}

void Simulation::dumpState() {
    // What a system dump with "--state" prints: the usual text, then the state section (the pools
    // themselves dump to the log, where --logcat shows them).
    host::StringPrinter printer;
    mManager->dumpState(printer);
    auto const state = mState->takeState();
    printFrameBufferManagerState(&printer, &state);
    for (auto const& l : printer.lines()) mDumpOut << l << "\n";
}

void Simulation::gatherMemory() {
    std::map<std::string, int64_t> inUse;
    for (auto const& row : mR.series)
        for (auto const& [name, v] : row.pools) inUse[name] = std::max(inUse[name], v.second);
    auto byId = [&](int64_t id) -> ImageStreamCfg const* {
        for (auto const& c : mSc.images)
            if (c.id == id) return &c;
        return nullptr;
    };
    for (auto const& [name, m] : host::HeapFactory::memory()) {
        if (m.peakHeaps == 0) continue;
        PoolMemory pm;
        pm.heapName = name;
        pm.heapBytes = m.peakBytes / m.peakHeaps;
        pm.peakHeaps = m.peakHeaps;
        pm.peakBytes = m.peakBytes;
        pm.peakInUse = inUse.count(name) ? inUse[name] : m.peakHeaps;
        std::vector<ImageStreamCfg const*> members;
        if (name.rfind("shared-", 0) == 0) {  // shared-<id>-<id>...: a sharing group's pool
            for (size_t at = name.find('-'); at != std::string::npos; at = name.find('-', at + 1)) {
                if (auto const* c = byId(std::strtoll(name.c_str() + at + 1, nullptr, 0))) members.push_back(c);
            }
        } else {
            for (auto const& c : mSc.images)
                if (c.name == name) members.push_back(&c);
        }
        if (members.empty()) continue;  // not this pipeline's
        for (auto const* c : members) {
            pm.streams.push_back(c->name);
            if (c->source == Source::Pool) pm.maxBuffers = std::max<int64_t>(pm.maxBuffers, c->maxBuffers);
        }
        Source const src = members.front()->source;
        pm.kind = src == Source::Pool ? "POOL" : src == Source::Runtime ? "RUNTIME" : "PROVIDER";
        mR.memory.push_back(std::move(pm));
    }
    mR.peakBytes = host::HeapFactory::totalMemory().peakBytes;
}

std::string Simulation::heapsInUse() const {
    // Every heap of this pipeline waits in its pool: nothing is tracked by a producer.
    std::string problems;
    for (auto const& m : mR.memory) {
        auto const o = host::HeapFactory::occupancyOf(m.heapName);
        if (o.idle != o.alive) {
            problems += " heaps of '" + m.heapName + "' still in use: " + std::to_string(o.alive - o.idle) + ";";
        }
    }
    return problems;
}

}  // namespace fbmsim::detail

namespace fbmsim {

using NSCam::v3::pipeline::toHexString;

void printReport(RunReport const& r, std::ostream& out) {
    char line[256];
    auto print = [&](char const* fmt, auto... args) {
        std::snprintf(line, sizeof line, fmt, args...);
        out << line;
    };
    print("fbm-sim: scenario \"%s\", %u frames at %g fps, seed %llu, %d result thread%s\n",
          r.scenario.c_str(), r.frames, r.fps, static_cast<unsigned long long>(r.seed), r.resultThreads,
          r.resultThreads == 1 ? "" : "s");
    print("\nframes      completed %llu, destroyed %llu, released without timestamp %llu, kept nothing %llu\n",
          (unsigned long long)r.completed, (unsigned long long)r.destroyed,
          (unsigned long long)r.noTimestamp, (unsigned long long)r.untracked);
    print("\n%-8s %-12s %-13s %9s %9s %9s %9s\n", "stream", "name", "source", "requests", "buffers",
          "failures", "time-outs");
    for (auto const& s : r.streams) {
        print("%-8s %-12s %-13s %9llu %9llu %9llu %9llu\n", toHexString(s.id).c_str(), s.name.c_str(),
              sourceName(s.source), (unsigned long long)s.requests, (unsigned long long)s.buffers,
              (unsigned long long)s.failures, (unsigned long long)s.timeouts);
    }
    print("\nrun-time allocations %llu, acquire time-outs %llu\n", (unsigned long long)r.runtimeAllocations,
          (unsigned long long)r.acquireTimeouts);
    print("history sets: %llu selections took %llu sets; kept for processing %llu, returned kept %llu, "
          "released by the selector %llu,\n              released after processing %llu, cloned %llu, "
          "released under pressure %llu\n",
          (unsigned long long)r.selections, (unsigned long long)r.selected,
          (unsigned long long)r.keptForProcessing, (unsigned long long)r.returnedKept,
          (unsigned long long)r.releasedBySelector, (unsigned long long)r.processedReleased,
          (unsigned long long)r.cloned, (unsigned long long)r.releasedUnderPressure);
    print("\n%-14s %10s %10s %10s %10s\n", "request (us)", "count", "median", "p99", "max");
    for (auto const& [source, h] : r.latency) {
        print("%-14s %10llu %10.1f %10.1f %10.1f\n", sourceName(source), (unsigned long long)h.count(),
              h.quantile(0.5) / 1000.0, h.quantile(0.99) / 1000.0, h.max() / 1000.0);
    }
    double const reached = r.seconds > 0 ? r.frames / r.seconds : 0.0;
    print("\n%.0f frames/s (%u frames in %.2f s)\n", reached, r.frames, r.seconds);
    if (r.realtime && reached < 0.95 * r.fps) {
        print("realtime: paced at %g fps but reached %.3g fps: this host cannot keep up with the frame rate\n",
              r.fps, reached);
    }
    if (r.series.size() >= 2) {
        // Steady state: from a tenth of the run on, after the pools have grown to their size.
        auto const& early = r.series[r.series.size() / 10];
        auto const& late = r.series[r.series.size() - 2];
        print("memory: resident %.1f MB at frame %u, %.1f MB at frame %u, peak %.1f MB\n", early.residentMb,
              early.frame, late.residentMb, late.frame, r.peakResidentMb);
    }
    printMemory(r, out);
    print("leak check: %s\n", r.leakText.c_str());
}

std::string bytesText(int64_t bytes) {
    char buf[32];
    double const b = static_cast<double>(bytes);
    if (bytes >= (int64_t{1} << 30)) std::snprintf(buf, sizeof buf, "%.2f GiB", b / (1 << 30));
    else if (bytes >= (1 << 20)) std::snprintf(buf, sizeof buf, "%.1f MiB", b / (1 << 20));
    else if (bytes >= (1 << 10)) std::snprintf(buf, sizeof buf, "%.1f KiB", b / (1 << 10));
    else std::snprintf(buf, sizeof buf, "%lld B", static_cast<long long>(bytes));
    return buf;
}

void printMemory(RunReport const& r, std::ostream& out) {
    if (r.memory.empty()) return;
    char line[512];
    auto print = [&](char const* fmt, auto... args) {
        std::snprintf(line, sizeof line, fmt, args...);
        out << line;
    };
    print("\n%-16s %-9s %-20s %10s %4s %7s %9s %11s\n", "heaps of", "kind", "streams", "heap size", "max",
          "in use", "allocated", "peak bytes");
    int64_t sum = 0;
    for (auto const& m : r.memory) {
        std::string streams;
        for (auto const& st : m.streams) streams += (streams.empty() ? "" : ",") + st;
        std::string const max = m.maxBuffers ? std::to_string(m.maxBuffers) : "-";
        print("%-16s %-9s %-20s %10s %4s %7lld %9lld %11s\n", m.heapName.c_str(), m.kind.c_str(), streams.c_str(),
              bytesText(m.heapBytes).c_str(), max.c_str(), static_cast<long long>(m.peakInUse),
              static_cast<long long>(m.peakHeaps), bytesText(m.peakBytes).c_str());
        sum += m.peakBytes;
    }
    print("%-16s %-9s %-20s %10s %4s %7s %9s %11s\n", "pipeline", "", r.peakBytesIsSum ? "sum of peaks" : "all at once",
          "", "", "", "", bytesText(r.peakBytes).c_str());
    if (sum != r.peakBytes && !r.peakBytesIsSum) print("(the peaks of each add up to %s; they did not all fall at once)\n", bytesText(sum).c_str());
}

}  // namespace fbmsim
