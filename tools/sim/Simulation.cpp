#include "Simulation.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <fstream>
#include <list>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include <cutils/trace.h>
#include <fbm/IFrameBufferManager.h>
#include <vexlor/HostSeams.h>
#include <vexlor/ULog.h>

namespace fbmsim {
namespace {

using namespace NSCam::v3;
using namespace NSCam::v3::pipeline;
namespace host = vexlor::host;
using SbPtr = std::shared_ptr<IImageStreamBuffer>;
using MetaPtr = std::shared_ptr<IMetaStreamBuffer>;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kYuvFormat = 0x32315659;
constexpr uint32_t kBlobFormat = 0x21;

double residentMb() {
    long pages = 0, resident = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
        std::fclose(f);
    }
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

std::shared_ptr<IImageStreamInfo> makeInfo(ImageStreamCfg const& c) {
    Utils::ImageStreamInfoParams p;
    p.name = c.name;
    p.id = c.id;
    p.size = {c.width, c.height};
    p.maxBufNum = c.maxBuffers;
    p.minInitBufNum = c.minBuffers;
    p.deferred = c.triggerAtFrame.has_value();
    if (c.blob) {
        p.format = kBlobFormat;
        size_t const bytes = static_cast<size_t>(c.width) * c.height;
        p.planes.count = 1;
        p.planes.planes[0] = {bytes, bytes};
    } else {
        p.format = kYuvFormat;
        size_t const luma = static_cast<size_t>(c.width) * c.height;
        p.planes.count = 2;
        p.planes.planes[0] = {luma, static_cast<size_t>(c.width)};
        p.planes.planes[1] = {luma / 2, static_cast<size_t>(c.width)};
    }
    return Utils::makeImageStreamInfo(p);
}

StreamAttribute attributeOf(Source s) {
    switch (s) {
        case Source::Pool: return eHAL_IMAGE_POOL;
        case Source::Runtime: return eHAL_IMAGE_RUNTIME;
        case Source::HalProvider: return eHAL_IMAGE_PROVIDER;
        case Source::AppProvider: return eAPP_IMAGE_PROVIDER;
    }
    return eBUFFER_SOURCE_USER;
}

// What a provider allocates for a stream: its format and its planes.
nivo::IImageBufferAllocator::ImgParam paramOf(IImageStreamInfo const& info) {
    nivo::IImageBufferAllocator::ImgParam p;
    p.imgFormat = info.imageFormat();
    p.imgSize = info.imageSize();
    BufPlanes const& planes = info.planeLayout();
    for (size_t i = 0; i < std::min<size_t>(planes.count, 3); ++i) p.bufSizesInBytes[i] = planes.planes[i].sizeInBytes;
    return p;
}

// A provider of the simulated pipeline: a buffer over a fresh heap per request.
class SimProvider : public IStreamBufferProvider {
public:
    int requestStreamBuffer(ImageStreamBufferCallback const& callback, Request const& request) override {
        auto heap = nivo::IImageBufferHeapFactory::create("sim-provider", request.pStreamInfo->streamName(),
                                                          paramOf(*request.pStreamInfo), false);
        callback(Utils::makeHalImageStreamBuffer({request.pStreamInfo, heap, nullptr, nullptr}));
        return 0;
    }
};

struct Batch {
    uint32_t frameNo = 0;
    int64_t timestamp = 0;
    bool destroyed = false;
    std::vector<SbPtr> images;
    std::vector<SbPtr> toRelease;
    std::vector<MetaPtr> halMeta;
    std::vector<MetaPtr> appMeta;
    std::shared_ptr<std::atomic<int>> batchesLeft;  // of the frame
};

class Simulation {
public:
    Simulation(Scenario const& sc, Options const& opt, std::ostream& dumpOut)
        : mSc(sc), mOpt(opt), mDumpOut(dumpOut), mRng(opt.seed) {}

    // Configures, runs every frame and lets the selector go of everything; false when the
    // configuration failed. Then heapsInUse() while every pipeline's buffers are back, and end().
    bool run();
    std::string heapsInUse() const;
    void end();
    RunReport& report() { return mR; }

private:
    struct Image {
        ImageStreamCfg cfg;
        std::shared_ptr<IImageStreamInfo> info;
        bool active = true;
        size_t report = 0;  // index into the report's streams
    };
    struct Meta {
        MetaStreamCfg cfg;
        std::shared_ptr<IMetaStreamInfo> info;
    };
    struct Held {
        IHistoryBufferProvider::HistoryBufferSet set;
        uint32_t age = 0;
    };
    struct Worker {
        std::mutex lock;
        std::condition_variable cond;
        std::deque<Batch> queue;
        bool stop = false;
        std::thread thread;
    };

    bool configure();
    // With synchronous results, waits until every active pool holds the heaps its worker is
    // making: a request that finds a pool still filling may release history sets early, and how
    // often that happens would depend on the machine rather than on the seed.
    void settlePoolsIfSynchronous();
    void frame(uint32_t f);
    void dispatch(Batch&& b);
    void processBatch(Batch& b);
    void workerLoop(Worker& w, uint64_t seed);
    void selectorLoop();
    void selectOnce(bool final);
    void sample(uint32_t f);
    size_t readyListLength();
    void dumpState();
    void gatherMemory();
    void progress(uint32_t f, bool done);

    Scenario mSc;
    Options mOpt;
    std::ostream& mDumpOut;
    std::mt19937_64 mRng;  // the requesting thread's
    RunReport mR;
    std::shared_ptr<IFrameBufferManager> mManager;
    std::shared_ptr<IPipelineFrameStreamBufferProvider> mProvider;
    std::shared_ptr<IPipelineFrameHalResultProcessor> mProcessor;
    std::shared_ptr<SimProvider> mStreamProvider = std::make_shared<SimProvider>();
    std::vector<Image> mImages;
    std::vector<Meta> mMetas;
    std::set<std::string> mPoolNames;  // heap names of the pools (streams' or groups' allocations)
    SbPtr mForgotten;                  // --inject-leak
    std::vector<std::unique_ptr<Worker>> mWorkers;
    std::mt19937_64 mDispatchRng{0};

    std::mutex mFlightLock;
    std::condition_variable mFlightCond;
    uint32_t mInFlight = 0;

    std::mutex mSelLock;
    std::condition_variable mSelCond;
    uint32_t mSelPending = 0;
    bool mSelStop = false;
    std::thread mSelector;
    std::mt19937_64 mSelRng{0};
    std::list<Held> mHeld;  // selector thread only
    std::atomic<uint64_t> mReadyJoins{0};

    Clock::time_point mStart;
    uint32_t mSampleEvery = 1;
    int mLastPercent = -1;
    Clock::time_point mNextProgressLine;
};

bool Simulation::configure() {
    for (auto const& [key, value] : mSc.properties) host::setProperty(key, value);
    for (auto const& [key, value] : mOpt.props) host::setProperty(key, value);  // the command line wins
    createFrameBufferManager(&mManager, ("fbm-sim:" + mSc.name).c_str());
    if (!mManager) return false;
    mProvider = mManager->getPipelineFrameBufferProvider();
    mProcessor = mManager->getPipelineFrameResultProcessor();

    IFrameBufferManager::ConfigureStreams cfg;
    cfg.sharedGroups = std::make_shared<std::vector<std::set<StreamId_T>>>();
    for (auto const& g : mSc.sharedGroups) cfg.sharedGroups->emplace_back(g.begin(), g.end());
    for (auto const& c : mSc.images) {
        Image img{c, makeInfo(c), !c.triggerAtFrame.has_value(), mR.streams.size()};
        StreamReport st;
        st.name = c.name;
        st.id = c.id;
        st.source = c.source;
        st.maxBuffers = c.maxBuffers;
        mR.streams.push_back(std::move(st));
        bool const provided = c.source == Source::HalProvider || c.source == Source::AppProvider;
        cfg.imageStreams.push_back({img.info, attributeOf(c.source),
                                    provided ? std::static_pointer_cast<IStreamBufferProvider>(mStreamProvider)
                                             : nullptr});
        mImages.push_back(std::move(img));
    }
    for (auto const& c : mSc.metas) {
        Meta m{c, Utils::makeMetaStreamInfo(c.name, c.id)};
        cfg.metaStreams.push_back({m.info, c.app ? eAPP_META : eHAL_META});
        mMetas.push_back(std::move(m));
    }
    mManager->beginConfigure();
    int const err = mManager->configureStreams(cfg);
    mManager->endConfigure();
    for (auto const& info : mManager->getPoolStreamInfo()) {
        std::string name = info->streamName();
        for (auto const& g : mSc.sharedGroups) {
            if (g.size() < 2 || std::find(g.begin(), g.end(), info->streamId()) == g.end()) continue;
            name = "shared";
            for (int64_t id : std::set<int64_t>(g.begin(), g.end())) name += "-" + toHexString(id);
        }
        auto const& c = *std::find_if(mSc.images.begin(), mSc.images.end(),
                                      [&](ImageStreamCfg const& i) { return i.id == info->streamId(); });
        if (c.source == Source::Pool) mPoolNames.insert(name);
    }
    return err == 0;
}

void Simulation::settlePoolsIfSynchronous() {
    if (mOpt.resultThreads != 0) return;
    host::HeapFactory::waitFor([&](int64_t, int64_t) {
        for (auto const& img : mImages) {
            if (!img.active || img.cfg.source != Source::Pool) continue;
            int max = 0, allocated = 0;
            mManager->getBufferPoolMaxBufCount(img.cfg.id, max, allocated);
            if (allocated < max) return false;
        }
        return true;
    });
}

void Simulation::frame(uint32_t f) {
    // Pool control planned for this frame.
    bool triggered = false;
    for (auto& img : mImages) {
        if (img.cfg.triggerAtFrame && *img.cfg.triggerAtFrame == f) {
            mManager->triggerBufferPool(img.cfg.id);
            img.active = true;
            triggered = true;
        }
    }
    if (triggered) settlePoolsIfSynchronous();
    for (auto const& c : mSc.poolChanges) {
        if (c.atFrame != f) continue;
        int max = c.maxBuffers;
        mManager->updateBufferPoolMaxBufCount(c.stream, max);
    }
    {
        std::unique_lock<std::mutex> lk(mFlightLock);
        mFlightCond.wait(lk, [&] { return mInFlight < mSc.inFlightDepth; });
        ++mInFlight;
    }

    std::uniform_int_distribution<uint32_t> any;
    bool const destroy = mSc.destroyEvery != 0 && any(mRng) % mSc.destroyEvery == 0;
    bool const noTimestamp = !destroy && mSc.noTimestampEvery != 0 && any(mRng) % mSc.noTimestampEvery == 0;

    auto params = std::make_shared<TrackFrameResultParams>();
    params->isRecyclable = mSc.recyclable;
    for (auto const& img : mImages)
        if (img.active && img.cfg.keep) params->halImage.insert(img.cfg.id);
    for (auto const& m : mMetas) {
        if (!m.cfg.keep) continue;
        (m.cfg.app ? params->appMeta : params->halMeta).insert(m.cfg.id);
    }
    size_t const tracked = params->halImage.size() + params->halMeta.size() + params->appMeta.size();
    mManager->trackFrameResult({f, f, params});

    uint32_t const B = mSc.resultBatches;
    std::vector<Batch> batches(B);
    auto left = std::make_shared<std::atomic<int>>(static_cast<int>(B));
    int64_t const ts = static_cast<int64_t>((f + 1) * (1e9 / mSc.fps));
    for (auto& b : batches) {
        b.frameNo = f;
        b.batchesLeft = left;
    }
    if (!noTimestamp) batches[any(mRng) % B].timestamp = ts;
    bool withheld = false;  // a destroyed frame leaves one tracked buffer outstanding
    bool failedTracked = false;  // a kept stream got no buffer: the pipeline destroys the frame
    auto want = [&](bool isTracked) { return !(destroy && isTracked && !withheld && (withheld = true)); };

    for (auto& img : mImages) {
        if (!img.active) continue;
        auto& st = mR.streams[img.report];
        SbPtr got;
        IPipelineFrameStreamBufferProvider::RequestStreamBuffer req{f, f, img.info};
        auto const t0 = Clock::now();
        int const err = mProvider->requestStreamBuffer([&got](SbPtr const& sb) { got = sb; }, req);
        auto const ns = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - t0).count();
        mR.latency[img.cfg.source].add(static_cast<uint64_t>(ns));
        st.latency.add(static_cast<uint64_t>(ns));
        // A pool still filling makes its first requests wait for its worker: those of its first
        // frames are the warm-up, not a shortage.
        uint32_t const since = img.cfg.triggerAtFrame ? *img.cfg.triggerAtFrame : 0;
        if (ns >= 10'000'000 && f >= since + mR.warmupFrames) ++st.slowWaits;
        ++st.requests;
        if (err == -EBUSY) {
            ++st.timeouts;
            ++mR.acquireTimeouts;
        }
        if (!got) {
            ++st.failures;
            failedTracked |= img.cfg.keep;
            continue;
        }
        ++st.buffers;
        if (img.cfg.source == Source::Runtime) ++mR.runtimeAllocations;
        if (mOpt.injectLeak && !mForgotten && img.cfg.source == Source::Pool) {
            mForgotten = got;  // never given back
            continue;
        }
        Batch& b = batches[any(mRng) % B];
        if (want(img.cfg.keep)) b.images.push_back(got);
        b.toRelease.push_back(std::move(got));  // the pipeline is done with its own buffer
    }
    for (auto const& m : mMetas) {
        NSCam::IMetadata md;
        md.update(1, f);
        MetaPtr meta = Utils::makeHalMetaStreamBuffer({m.info, &md});
        if (!meta || !want(m.cfg.keep)) continue;
        Batch& b = batches[any(mRng) % B];
        (m.cfg.app ? b.appMeta : b.halMeta).push_back(std::move(meta));
    }
    if ((destroy || failedTracked) && tracked > 0) batches.back().destroyed = true;

    if (tracked == 0) {
        ++mR.untracked;
    } else if (batches.back().destroyed) {
        ++mR.destroyed;
    } else if (noTimestamp) {
        ++mR.noTimestamp;
    } else {
        ++mReadyJoins;
    }
    for (auto& b : batches) dispatch(std::move(b));
}

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

void Simulation::selectorLoop() {
    for (;;) {
        {
            std::unique_lock<std::mutex> lk(mSelLock);
            mSelCond.wait(lk, [&] { return mSelStop || mSelPending > 0; });
            if (mSelPending == 0) return;
            --mSelPending;
        }
        selectOnce(false);
    }
}

void Simulation::selectOnce(bool final) {
    auto const& cfg = mSc.selector;
    auto sets = mManager->beginSelect();
    ++mR.selections;
    mR.selected += sets.size();
    for (auto it = mHeld.begin(); it != mHeld.end();) {
        if (final || ++it->age >= cfg.holdSelections) {  // processing done
            mManager->returnUnselectedSet({it->set, false});
            ++mR.processedReleased;
            it = mHeld.erase(it);
        } else {
            ++it;
        }
    }
    size_t const n = sets.size();
    size_t const keepFrom = n - std::min<size_t>(n, cfg.keepNewest);
    size_t idx = 0;
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (auto& set : sets) {
        if (!final && idx++ >= keepFrom) {
            mHeld.push_back({std::move(set), 0});
            ++mR.keptForProcessing;
            continue;
        }
        bool const keep = !final && unit(mSelRng) < cfg.returnKept;
        mManager->returnUnselectedSet({set, keep});
        ++(keep ? mR.returnedKept : mR.releasedBySelector);
    }
    if (!final && cfg.cloneEvery != 0 && mR.selections % cfg.cloneEvery == 0 && !mHeld.empty()) {
        mHeld.push_back({mManager->cloneHBS(mHeld.back().set), 0});
        ++mR.cloned;
    }
    mManager->endSelect();
}

size_t Simulation::readyListLength() {
    host::StringPrinter printer;
    mManager->dumpBufferState(printer);
    size_t n = 0;
    bool inReady = false;
    for (auto const& l : printer.lines()) {
        if (l == "<ReadyList>") inReady = true;
        else if (inReady && l.rfind("    [R", 0) == 0) ++n;
    }
    return n;
}

void Simulation::sample(uint32_t f) {
    SeriesRow row;
    row.frame = f;
    row.seconds = std::chrono::duration<double>(Clock::now() - mStart).count();
    row.readyList = readyListLength();
    row.residentMb = residentMb();
    row.heapBytes = host::HeapFactory::totalMemory().bytes;
    for (auto const& [name, o] : host::HeapFactory::occupancy()) {
        if (mPoolNames.count(name) != 0) row.pools[name] = {o.alive, o.alive - o.idle};
    }
    mR.series.push_back(std::move(row));
}

void Simulation::dumpState() {
    // The pools dump themselves to the log: show those lines too, under their heading.
    using NSCam::Utils::ULog::ULogger;
    uint32_t const level = ULogger::sDetailsLevel, mask = ULogger::sNormalDetailsMask, mode = ULogger::sMode;
    host::LogCapture::setCapturing(true);
    host::LogCapture::clear();
    host::setULogSwitches(std::max<uint32_t>(level, 3), mask | 0x207000, mode | 1);
    host::StringPrinter printer;
    mManager->dumpState(printer);
    host::setULogSwitches(level, mask, mode);
    auto const logged = host::LogCapture::androidLines();
    host::LogCapture::setCapturing(false);
    for (auto const& l : printer.lines()) {
        mDumpOut << l << "\n";
        if (l != "<image buffer pool>") continue;
        for (auto const& a : logged) {
            if (a.text.rfind("[dump]", 0) == 0 || a.text.rfind("[dumpPool]", 0) == 0) mDumpOut << "    " << a.text << "\n";
        }
    }
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

void Simulation::end() {
    mForgotten.reset();  // dropped without releaseToOwner: its producer keeps tracking it
    mProvider.reset();
    mProcessor.reset();
    mManager.reset();
}

void Simulation::progress(uint32_t f, bool done) {
    if (mOpt.progressLines) {
        // A log keeps every line: one every few seconds says the run is alive and how far it is.
        auto const now = Clock::now();
        if (!done && now < mNextProgressLine) return;
        mNextProgressLine = now + std::chrono::seconds(5);
        std::fprintf(stderr, "fbm-sim: %s frame %u of %u (%d%%) after %.1f s, %llu acquire time-outs\n",
                     done ? "done:" : "at", f, mSc.frames, static_cast<int>(100.0 * f / mSc.frames),
                     std::chrono::duration<double>(now - mStart).count(),
                     static_cast<unsigned long long>(mR.acquireTimeouts));
        return;
    }
    if (!mOpt.progress) return;
    int const percent = static_cast<int>(100.0 * f / mSc.frames);
    if (percent == mLastPercent && !done) return;
    mLastPercent = percent;
    int const filled = percent * 30 / 100;
    std::fprintf(stderr, "\rfbm-sim [%.*s%*s] %3d%% %u/%u frames%s", filled,
                 "##############################", 30 - filled, "", percent, f, mSc.frames,
                 done ? "\n" : "");
    std::fflush(stderr);
}

bool Simulation::run() {
    mR.scenario = mSc.name;
    mR.frames = mSc.frames;
    mR.fps = mSc.fps;
    mR.seed = mOpt.seed;
    mR.resultThreads = mOpt.resultThreads;
    mR.realtime = mOpt.realtime;
    mDispatchRng.seed(mOpt.seed * 7919 + 1);
    mSelRng.seed(mOpt.seed * 104729 + 3);
    mR.warmupFrames = std::max<uint32_t>(10, mSc.frames / 20);
    if (!configure()) {
        mR.leakText = "configuration failed";
        return false;
    }
    settlePoolsIfSynchronous();
    for (int i = 0; i < mOpt.resultThreads; ++i) {
        mWorkers.push_back(std::make_unique<Worker>());
        auto* w = mWorkers.back().get();
        w->thread = std::thread([this, w, i] { workerLoop(*w, mOpt.seed + 1000 + i); });
    }
    if (!mWorkers.empty()) mSelector = std::thread([this] { selectorLoop(); });

    mSampleEvery = std::max<uint32_t>(1, mSc.frames / 400);
    mStart = Clock::now();
    mNextProgressLine = mStart + std::chrono::seconds(5);
    if (mOpt.progressLines) {
        std::fprintf(stderr, "fbm-sim: running %u frames of scenario \"%s\"\n", mSc.frames, mSc.name.c_str());
    }
    for (uint32_t f = 0; f < mSc.frames; ++f) {
        if (mOpt.realtime) std::this_thread::sleep_until(mStart + std::chrono::duration<double>(f / mSc.fps));
        frame(f);
        if ((f + 1) % mSc.selector.everyFrames == 0) {
            if (mWorkers.empty()) {
                selectOnce(false);
            } else {
                std::lock_guard<std::mutex> lk(mSelLock);
                ++mSelPending;
                mSelCond.notify_one();
            }
        }
        if (f % mSampleEvery == 0) sample(f);
        progress(f + 1, false);
        if (mOpt.stopAfterTimeouts != 0 && mR.acquireTimeouts >= mOpt.stopAfterTimeouts) {
            mR.frames = f + 1;  // enough seen: the rest would only wait out more time-outs
            mR.stoppedEarly = true;
            break;
        }
    }
    for (auto& w : mWorkers) {
        {
            std::lock_guard<std::mutex> lk(w->lock);
            w->stop = true;
        }
        w->cond.notify_one();
        w->thread.join();
    }
    if (mSelector.joinable()) {
        {
            std::lock_guard<std::mutex> lk(mSelLock);
            mSelStop = true;
        }
        mSelCond.notify_one();
        mSelector.join();
    }
    mR.seconds = std::chrono::duration<double>(Clock::now() - mStart).count();
    progress(mR.frames, true);
    sample(mR.frames);
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    // The kernel's high-water mark can lag a sample read from statm: the peak is whichever is more.
    mR.peakResidentMb = static_cast<double>(usage.ru_maxrss) / 1024.0;
    for (auto const& row : mR.series) mR.peakResidentMb = std::max(mR.peakResidentMb, row.residentMb);
    if (mOpt.dump) dumpState();
    selectOnce(true);  // the selector lets go of everything
    uint64_t const joins = mReadyJoins.load() + mR.returnedKept;
    mR.completed = mReadyJoins.load();
    mR.releasedUnderPressure = joins >= mR.selected ? joins - mR.selected : 0;
    gatherMemory();
    return true;
}

}  // namespace

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
