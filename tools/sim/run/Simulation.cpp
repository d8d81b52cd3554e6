// Runs one pipeline or several at once, each a Simulation (SimulationImpl.h), and checks the
// process for lost buffers once all have ended.
#include "SimulationImpl.h"

namespace fbmsim {

using detail::Simulation;
namespace host = vexlor::host;

ProcessReport runSimulations(std::vector<Scenario> const& pipelines, Options const& options, std::ostream& dumpOut) {
    ProcessReport out;
    host::HeapFactory::resetPeaks();
    if (!options.traceFile.empty()) host::TraceRecorder::setEnabledTags(ATRACE_TAG_CAMERA);
    std::vector<std::unique_ptr<Simulation>> sims;
    std::vector<std::ostringstream> dumps(pipelines.size());
    for (size_t i = 0; i < pipelines.size(); ++i) {
        Options opt = options;
        opt.seed = options.seed + i;  // each camera its own frame plan
        if (i != 0) opt.progress = opt.progressLines = false;  // one progress output: the first pipeline's
        sims.push_back(std::make_unique<Simulation>(pipelines[i], opt, dumps[i]));
    }
    std::vector<char> configured(sims.size(), 0);
    if (sims.size() == 1) {
        configured[0] = sims[0]->run();
    } else {
        // Each pipeline on its own thread, all at once, as the cameras of one provider process.
        std::vector<std::thread> threads;
        for (size_t i = 0; i < sims.size(); ++i) threads.emplace_back([&, i] { configured[i] = sims[i]->run(); });
        for (auto& t : threads) t.join();
    }
    if (!options.traceFile.empty()) host::TraceRecorder::setEnabledTags(0);
    for (auto& d : dumps) dumpOut << d.str();

    // Every pipeline is done: nothing of any may be out now.
    std::vector<std::string> problems(sims.size());
    for (size_t i = 0; i < sims.size(); ++i) problems[i] = sims[i]->heapsInUse();
    std::string process;
    int64_t const images = host::StreamBufferFactory::imageAlive();
    if (images != 0) process += " image stream buffers alive: " + std::to_string(images) + ";";
    for (auto& sim : sims) sim->end();
    // Metadata of large releases is destroyed by the process's metadata worker: give it a moment.
    for (int i = 0; i < 2000 && host::StreamBufferFactory::metaAlive() != 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    int64_t const heaps = host::HeapFactory::alive();
    int64_t const metas = host::StreamBufferFactory::metaAlive();
    char const* const ended = sims.size() == 1 ? "the manager" : "every manager";
    if (heaps != 0) process += std::string(" heaps alive after ") + ended + " ended: " + std::to_string(heaps) + ";";
    if (metas != 0) process += " metadata buffers alive: " + std::to_string(metas) + ";";
    out.peakBytes = host::HeapFactory::totalMemory().peakBytes;
    out.leakFree = true;
    for (size_t i = 0; i < sims.size(); ++i) {
        RunReport r = std::move(sims[i]->report());
        if (configured[i]) {
            r.leakFree = problems[i].empty() && process.empty();
            r.leakText = r.leakFree ? std::string("OK: every heap back in its pool, no stream buffer tracked, 0 heaps, 0 "
                                                  "image and 0 metadata buffers alive after ") + ended + " ended"
                                    : "LOST:" + problems[i] + process;
        }
        if (sims.size() > 1) {
            // The process's peak is not one pipeline's: each gives the sum of its heaps' peaks.
            r.peakBytes = 0;
            for (auto const& m : r.memory) r.peakBytes += m.peakBytes;
            r.peakBytesIsSum = true;
        }
        out.leakFree &= r.leakFree;
        out.pipelines.push_back(std::move(r));
    }
    return out;
}

RunReport runSimulation(Scenario const& scenario, Options const& options, std::ostream& dumpOut) {
    return runSimulations({scenario}, options, dumpOut).pipelines.front();
}

}  // namespace fbmsim
