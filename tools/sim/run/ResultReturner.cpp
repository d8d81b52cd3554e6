// The result returners: each frame's results in batches, from threads of their own, and the
// pipeline's own buffers let go.
#include "SimulationImpl.h"

namespace fbmsim::detail {

void Simulation::dispatch(Batch&& b) {
    if (mWorkers.empty()) {
        processBatch(b);
        return;
    }
    auto& w = *mWorkers[mDispatchRng() % mWorkers.size()];
    {
        std::lock_guard<std::mutex> lk(w.lock);
        w.queue.push_back(std::move(b));
    }
    w.cond.notify_one();
}

void Simulation::processBatch(Batch& b) {
    IPipelineFrameHalResultProcessor::ReturnResult r;
    r.requestNo = b.frameNo;
    r.frameNo = b.frameNo;
    r.timestamp = b.timestamp;
    r.isFrameDestroyed = b.destroyed;
    r.halImage = &b.images;
    r.halImageToRelease = &b.toRelease;
    r.halMeta = &b.halMeta;
    r.appMeta = &b.appMeta;
    mProcessor->returnResult(r);
    b.images.clear();
    if (b.batchesLeft->fetch_sub(1) == 1) {
        std::lock_guard<std::mutex> lk(mFlightLock);
        --mInFlight;
        mFlightCond.notify_all();
    }
}

void Simulation::workerLoop(Worker& w, uint64_t seed) {
    std::mt19937_64 rng(seed);
    for (;;) {
        Batch b;
        {
            std::unique_lock<std::mutex> lk(w.lock);
            w.cond.wait(lk, [&] { return w.stop || !w.queue.empty(); });
            if (w.queue.empty()) return;
            b = std::move(w.queue.front());
            w.queue.pop_front();
        }
        // Jitter: results of a real pipeline arrive unevenly.
        if (mOpt.realtime) {
            std::this_thread::sleep_for(std::chrono::microseconds(rng() % 2000));
        } else {
            for (uint64_t i = rng() % 4; i > 0; --i) std::this_thread::yield();
        }
        processBatch(b);
    }
}

}  // namespace fbmsim::detail
