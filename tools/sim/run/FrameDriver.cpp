// The frame driver: configuration, the frames (tracking, requests, pool changes and triggers)
// and the run from start to end.
#include "SimulationImpl.h"

#include <sys/resource.h>

#include <algorithm>
#include <thread>

namespace fbmsim::detail {

namespace {

// How often the calling thread has given up its core to wait (voluntary context switches).
long sleepsOfThisThread() {
    rusage u{};
    getrusage(RUSAGE_THREAD, &u);
    return u.ru_nvcsw;
}

}  // namespace

StreamAttribute attributeOf(Source s) {
    switch (s) {
        case Source::Pool: return eHAL_IMAGE_POOL;
        case Source::Runtime: return eHAL_IMAGE_RUNTIME;
        case Source::HalProvider: return eHAL_IMAGE_PROVIDER;
        case Source::AppProvider: return eAPP_IMAGE_PROVIDER;
    }
    return eBUFFER_SOURCE_USER;
}

nivo::IImageBufferAllocator::ImgParam paramOf(IImageStreamInfo const& info) {
    nivo::IImageBufferAllocator::ImgParam p;
    p.imgFormat = info.imageFormat();
    p.imgSize = info.imageSize();
    BufPlanes const& planes = info.planeLayout();
    for (size_t i = 0; i < std::min<size_t>(planes.count, 3); ++i) p.bufSizesInBytes[i] = planes.planes[i].sizeInBytes;
    return p;
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

bool Simulation::configure() {
    for (auto const& [key, value] : mSc.properties) host::setProperty(key, value);
    for (auto const& [key, value] : mOpt.props) host::setProperty(key, value);  // the command line wins
    createFrameBufferManager(&mManager, ("fbm-sim:" + mSc.name).c_str());
    if (!mManager) return false;
    mState = stateOf(mManager);
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
    for (auto const& s : mState->takeState().streams) {
        if (!s.pool.empty() && bufferSourceOf(s.attribute) == eBUFFER_SOURCE_POOL) {
            mPoolNames.insert(s.pool);
        }
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
    bool changed = false;
    for (auto const& c : mSc.poolChanges) {
        if (c.atFrame != f) continue;
        int max = c.maxBuffers;
        mManager->updateBufferPoolMaxBufCount(c.stream, max);
        changed = true;
    }
    if (triggered || changed) settlePoolsIfSynchronous();
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
        long const slept = sleepsOfThisThread();
        auto const t0 = Clock::now();
        int const err = mProvider->requestStreamBuffer([&got](SbPtr const& sb) { got = sb; }, req);
        auto const ns = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - t0).count();
        mR.latency[img.cfg.source].add(static_cast<uint64_t>(ns));
        st.latency.add(static_cast<uint64_t>(ns));
        // A pool still filling makes its first requests wait for its worker: those of its first
        // frames are the warm-up, not a shortage.
        uint32_t const since = img.cfg.triggerAtFrame ? *img.cfg.triggerAtFrame : 0;
        // Only a request that slept counts: one that a loaded machine kept from a core as long
        // says nothing about the pool.
        if (ns >= 10'000'000 && f >= since + mR.warmupFrames && sleepsOfThisThread() != slept) ++st.slowWaits;
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

void Simulation::end() {
    mForgotten.reset();  // dropped without releaseToOwner: its producer keeps tracking it
    mProvider.reset();
    mProcessor.reset();
    mState.reset();  // it shares the manager's ownership
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
        if (std::find(mOpt.dumpAt.begin(), mOpt.dumpAt.end(), f) != mOpt.dumpAt.end()) {
            std::thread([this] { dumpState(); }).join();  // the results of this frame still flow
        }
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

}  // namespace fbmsim::detail
