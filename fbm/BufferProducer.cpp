#define LOG_TAG "vexlor-fbm_producer"
#define LOG_SRC_PATH "pipeline/pipeline/fbm/BufferProducer"

#include "BufferProducer.h"

#include <chrono>
#include <cstdio>
#include <sstream>
#include <vector>

#include <fbm/StreamAttribute.h>
#include <vexlor/Clock.h>
#include <vexlor/LogScheme.h>
#include <vexlor/Properties.h>
#include <vexlor/Trace.h>

namespace NSCam::v3::pipeline {

namespace {

constexpr auto kWaitSlice = std::chrono::milliseconds(10);

// The time-out is measured on the monotonic clock: a step of the time of day while a request
// waits must neither stretch the wait nor cut it short.
int64_t elapsedUs() { return NSCam::Utils::Clock::monotonicNs() / 1000; }

}  // namespace

BufferProducer::BufferProducer(std::string name, std::shared_ptr<IImageStreamInfo> info,
                               ReleaseCallback const& releaseCallback,
                               std::shared_ptr<BufferProducer> const& sharedProducer)
    : mLogLevel(NSCam::Utils::Properties::property_get_int32(
          "vendor.debug.camera.log.pipeline.fbm.producer", 0)),
      mName(std::move(name)),
      mStreamInfo(std::move(info)),
      mReleaseCallback(releaseCallback),
      mGroupFirst(sharedProducer) {
    if (sharedProducer) {
        auto pool = sharedProducer->heapPool();
        LockGuard<Mutex> lk(mHeapPoolLock);
        mHeapPool = std::move(pool);
    }
}

BufferProducer::~BufferProducer() { clear(); }

std::shared_ptr<BufferHeapPool> BufferProducer::heapPool() const {
    LockGuard<Mutex> lk(mHeapPoolLock);
    return mHeapPool;
}

// Unlocked, as they are cheap forwarding calls; the heap pool is set before the producer serves.
char const* BufferProducer::poolName() const NO_THREAD_SAFETY_ANALYSIS {
    return mHeapPool ? mHeapPool->poolName() : "";
}

void BufferProducer::dumpPool() const NO_THREAD_SAFETY_ANALYSIS {
    if (mHeapPool) mHeapPool->dumpPool();
}

int32_t BufferProducer::initPool(char const*, size_t, size_t) { return -1; }
void BufferProducer::uninitPool(char const*) {}
int32_t BufferProducer::commitPool(char const*) { return -1; }

int32_t BufferProducer::initProducer(size_t max, size_t min, HeapAllocator&& allocator) {
    std::string traceName;
    if (NSCam::Utils::cameraTraceOn()) traceName = "initProducer-" + mName;
    NSCam::Utils::ScopedTrace trace(traceName.c_str());
    {
        LockGuard<Mutex> lk(mMapLock);
        mMaxBufferCount = max;
    }
    {
        LockGuard<Mutex> lk(mMapLock);
        mMinInitBufferCount = min;
    }
    LockGuard<Mutex> lk(mHeapPoolLock);
    if (mInitialized) {
        MY_LOGD("%s: already inited", toString().c_str());
        return 0;
    }
    int32_t const err = allocatePoolBuffersLocked(allocator);
    if (err == 0) mInitialized = true;
    return err;
}

int32_t BufferProducer::allocatePoolBuffersLocked(HeapAllocator& allocator) {
    CAM_TRACE_NAME("allocatePoolBuffersLocked");
    // A deferred group's heap pool is made at the first trigger of any member, by the group's
    // first producer, and every member draws from it.
    if (!mHeapPool && mGroupFirst) mHeapPool = mGroupFirst->groupHeapPool(allocator);
    if (!mHeapPool) {
        if (!allocator) {
            MY_LOGE("%s: cannot get allocator", toString().c_str());
            return -EINVAL;
        }
        mHeapPool = std::make_shared<BufferHeapPool>(mName, allocator);
    }
    size_t max, min;
    {
        LockGuard<Mutex> lk(mMapLock);
        max = mMaxBufferCount;
        min = mMinInitBufferCount;
    }
    int32_t const err =
        mHeapPool->allocateBuffers(mStreamInfo->streamName(), mStreamInfo->streamId(), max, min);
    if (err != 0) {
        MY_LOGE("Producer(%p) cannot allocate buffer from pool(%p)", this, mHeapPool.get());
        return err;
    }
    return 0;
}

std::shared_ptr<BufferHeapPool> BufferProducer::groupHeapPool(HeapAllocator& allocator) {
    LockGuard<Mutex> lk(mHeapPoolLock);
    if (!mHeapPool && allocator) mHeapPool = std::make_shared<BufferHeapPool>(mName, allocator);
    return mHeapPool;
}

void BufferProducer::setMinInitBufferCount(size_t count) {
    LockGuard<Mutex> lk(mMapLock);
    mMinInitBufferCount = count;
}

int32_t BufferProducer::setMaxBufferCount(int32_t& count) {
    auto pool = heapPool();
    LockGuard<Mutex> lk(mMapLock);
    int32_t const err = pool ? pool->updateMaxBuffer(count) : 0;
    mMaxBufferCount = static_cast<size_t>(static_cast<int64_t>(count));
    return err;
}

int32_t BufferProducer::getMaxBuffer(int32_t& out) const {
    LockGuard<Mutex> lk(mHeapPoolLock);
    return mHeapPool ? mHeapPool->getMaxBuffer(out) : 0;
}

int32_t BufferProducer::getAllocatedBuffer(int32_t& out) const {
    LockGuard<Mutex> lk(mHeapPoolLock);
    return mHeapPool ? mHeapPool->getAllocatedBuffer(out) : 0;
}

int32_t BufferProducer::setBufferHeapPool(std::shared_ptr<BufferHeapPool> const& pool) {
    bool idle;
    {
        LockGuard<Mutex> lk(mMapLock);
        idle = mSbToHeap.empty() && mHeapToSbs.empty();
    }
    if (idle) {
        std::shared_ptr<BufferHeapPool> old;  // dropped after unlocking: it joins its worker
        LockGuard<Mutex> lk(mHeapPoolLock);
        old = std::move(mHeapPool);
        mHeapPool = pool;
        mInitialized = false;
        return 0;
    }
    MY_LOGE("%s: previous pool still in-use)", toString().c_str());
    dump();
    return -EINVAL;
}

int32_t BufferProducer::acquireFromPool(char const* /*name*/, SbPtr& out, int64_t timeoutNs) {
    auto pool = heapPool();
    if (!pool) {
        MY_LOGE("%s: Pool is null", toString().c_str());
        return -EINVAL;
    }
    char const* const streamName = mStreamInfo->streamName();
    HeapPtr heap;
    int retry = 1;
    // The clock is read only once the first try has failed: the fast path needs no time.
    int64_t startUs = -1;
    for (;;) {
        // Any heap that becomes available in the pool after this (made by its worker, or given
        // back through any producer of the pool) ends the wait below at once.
        uint64_t const heapsBefore = pool->availableSeq();
        if (!pool->isPoolWaitForRelease() && pool->acquireFromPool(streamName, heap) == 0) break;
        int64_t const nowUs = elapsedUs();
        if (startUs < 0) startUs = nowUs;
        if ((nowUs - startUs) * 1000 > timeoutNs) {
            MY_LOGW("%s: cannot acquire from pool after timeout(%ld ns).", toString().c_str(),
                    static_cast<long>(timeoutNs));
            return -EBUSY;
        }
        int32_t needRelease = 0;
        if (pool->isPoolNeedRelease(needRelease)) {
            if (needRelease >= 1) {
                MY_LOGD("release more than one buffer to available: needReleaseBufferNumber(%d)",
                        needRelease);
            }
            // Logged once every tenth retry after the first 30, or always at a raised level.
            bool const logFlag = mLogLevel > 0 || (retry >= 31 && retry % 10 == 0);
            ++needRelease;
            mReleaseCallback(mStreamInfo->streamId(), needRelease, logFlag);
            // Regardless of a pending decrease: the callback has just made room.
            if (pool->acquireFromPool(streamName, heap) == 0) {
                MY_LOGD_IF(mLogLevel >= 1, "%s: acquire buffer after notify", toString().c_str());
                break;
            }
        }
        if (!pool->waitForHeap(heapsBefore, kWaitSlice)) {  // only a slice that ran out counts
            MY_LOGD_IF(mLogLevel >= 1, "%s: retry(#%d) every 10ms", toString().c_str(), retry);
            ++retry;
        }
    }

    SbPtr sb;
    {
        Utils::MakeHalImageStreamBuffer arg{mStreamInfo, heap, shared_from_this(), nullptr};
        sb = Utils::makeHalImageStreamBuffer(arg);
    }
    out = sb;
    if (!sb) {
        MY_LOGE("cannot new HalImageStreamBuffer. Something wrong...");
        // Nothing holds the heap now: back to its pool, or every such failure would shrink the
        // pool by one heap until teardown.
        returnHeapToPool(std::move(heap));
        return -ENOMEM;
    }
    void const* const rawSb = sb.get();
    void const* const rawHeap = heap.get();
    size_t refCnt;
    {
        LockGuard<Mutex> lk(mMapLock);
        if (!trackLocked(std::move(sb), std::move(heap), refCnt)) {
            MY_FATAL("SB(%p) already exist, leak happend... Heap(%p)", rawSb, rawHeap);
        }
    }
    MY_LOGD_IF(mLogLevel >= 2, "acquire - buffer:%p pHeap:%p (ref_cnt:%zu)", rawSb, rawHeap, refCnt);
    if (mLogLevel > 2) {
        MY_LOGI("dump current in-use heaps and stream buffers");
        dump();
    }
    return 0;
}

template <class Node>
void BufferProducer::keepNode(std::vector<Node>& cache, Node&& node) {
    constexpr size_t kKept = 16;
    if (cache.size() < kKept) cache.push_back(std::move(node));
}

bool BufferProducer::trackLocked(SbPtr sb, HeapPtr heap, size_t& refCnt) {
    if (mFreeSbNodes.empty()) {
        auto r = mSbToHeap.emplace(sb, heap);
        if (!r.second) return false;
    } else {
        auto node = std::move(mFreeSbNodes.back());
        mFreeSbNodes.pop_back();
        node.key() = sb;
        node.mapped() = heap;
        auto r = mSbToHeap.insert(std::move(node));
        if (!r.inserted) return false;
    }
    auto heapIt = mHeapToSbs.find(heap);
    if (heapIt == mHeapToSbs.end()) {
        if (mFreeHeapNodes.empty()) {
            heapIt = mHeapToSbs.emplace(std::move(heap), std::set<SbPtr>()).first;
        } else {
            auto node = std::move(mFreeHeapNodes.back());
            mFreeHeapNodes.pop_back();
            node.key() = std::move(heap);
            heapIt = mHeapToSbs.insert(std::move(node)).position;
        }
    }
    if (mFreeSetNodes.empty()) {
        heapIt->second.insert(std::move(sb));
    } else {
        auto node = std::move(mFreeSetNodes.back());
        mFreeSetNodes.pop_back();
        node.value() = std::move(sb);
        heapIt->second.insert(std::move(node));
    }
    refCnt = heapIt->second.size();
    return true;
}

int32_t BufferProducer::releaseToPool(char const* /*name*/, SbPtr buffer) {
    HeapPtr heap;
    size_t refCnt;
    {
        LockGuard<Mutex> lk(mMapLock);
        auto it = mSbToHeap.find(buffer);
        if (it == mSbToHeap.end()) {
            MY_FATAL("%s: SB(%p) not found!", toString().c_str(), buffer.get());
        }
        auto sbNode = mSbToHeap.extract(it);
        heap = std::move(sbNode.mapped());
        sbNode.key().reset();  // the caller still holds the buffer
        keepNode(mFreeSbNodes, std::move(sbNode));
        auto hit = mHeapToSbs.find(heap);
        if (hit == mHeapToSbs.end()) {
            MY_FATAL("%s: Heap(%p) not found!", toString().c_str(), heap.get());
        }
        if (auto setNode = hit->second.extract(buffer)) {
            setNode.value().reset();
            keepNode(mFreeSetNodes, std::move(setNode));
        }
        refCnt = hit->second.size();
        if (refCnt == 0) {
            auto heapNode = mHeapToSbs.extract(hit);
            heapNode.key().reset();  // `heap` still holds it
            keepNode(mFreeHeapNodes, std::move(heapNode));
        }
    }
    uint32_t const status = buffer->statusOf();
    MY_LOGD_IF((status & 1) || mLogLevel >= 2, "release - SB:%p status:%#x Heap:%p (ref_cnt:%zu)",
               buffer.get(), status, heap.get(), refCnt);
    if (mLogLevel > 2) {
        MY_LOGI("dump current in-use heaps and stream buffers");
        dump();
    }
    if (refCnt > 0) return 0;  // another stream buffer still uses the heap

    return returnHeapToPool(std::move(heap));
}

int32_t BufferProducer::returnHeapToPool(HeapPtr heap) {
    LockGuard<Mutex> lk(mHeapPoolLock);
    if (!mHeapPool) {
        MY_LOGE_AS("releaseToPool", "%s: Pool is null", toString().c_str());
        return -EINVAL;
    }
    mHeapPool->releaseToPool(mStreamInfo->streamName(), std::move(heap));  // wakes its waiters
    return 0;
}

BufferProducer::SbPtr BufferProducer::shareSB(SbPtr const& source) {
    SbPtr sb;
    HeapPtr heap;
    size_t refCnt;
    {
        LockGuard<Mutex> lk(mMapLock);
        auto it = mSbToHeap.find(source);
        if (it == mSbToHeap.end()) {
            auto info = source ? source->streamInfoOf() : nullptr;
            MY_LOGE("%s: SB(%p:%s) not in here.", toString().c_str(), source.get(),
                    info ? info->streamName() : "");
            return nullptr;
        }
        heap = it->second;
        sb = Utils::makeHalImageStreamBuffer({mStreamInfo, heap, shared_from_this(), nullptr});
        if (!trackLocked(sb, heap, refCnt)) {
            MY_FATAL("SB(%p) already exist, leak happend... Heap(%p)", sb.get(), heap.get());
        }
        MY_LOGD_IF(mLogLevel >= 2, "%s: Heap(%p) sourceSb(%p) targetSb(%p) (ref_cnt:%zu)",
                   toString().c_str(), heap.get(), source.get(), sb.get(), refCnt);
    }
    if (mLogLevel >= 3) {
        MY_LOGI("dump current in-use heaps and stream buffers");
        dump();
    }
    return sb;
}

void BufferProducer::clear() {
    std::map<HeapPtr, std::set<SbPtr>> heapToSbs;
    std::map<SbPtr, HeapPtr> sbToHeap;
    {
        LockGuard<Mutex> lk(mMapLock);
        heapToSbs.swap(mHeapToSbs);
        sbToHeap.swap(mSbToHeap);
    }
    // Heaps go back lowest address first; the buffers are let go outside the lock.
    for (auto& [heap, sbs] : heapToSbs) {
        if (sbs.empty()) continue;
        LockGuard<Mutex> lk(mHeapPoolLock);
        if (mHeapPool) mHeapPool->releaseToPool(mStreamInfo->streamName(), HeapPtr(heap));
    }
}

std::string BufferProducer::toString() const {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%p", static_cast<void const*>(this));
    return std::string("Producer(") + buf + " " + toHexString(mStreamInfo->streamId()).c_str() +
           " " + mStreamInfo->streamName() + ")" + " Pool(" + mName + ")";
}

void BufferProducer::dump() const {
    if (NSCam::Utils::ULog::ulogInfoOn()) {
        std::ostringstream oss;
        size_t heaps, sbs;
        {
            LockGuard<Mutex> lk(mMapLock);
            for (auto const& [heap, set] : mHeapToSbs) {
                oss << "(" << static_cast<void const*>(heap.get()) << "){";
                for (auto const& sb : set) oss << static_cast<void const*>(sb.get()) << ".";
                oss << "}#" << set.size() << "; ";
            }
            heaps = mHeapToSbs.size();
            sbs = mSbToHeap.size();
        }
        MY_LOGI("%s InUse(Heap#%zu){Sb#%zu}: %s", toString().c_str(), heaps, sbs, oss.str().c_str());
    }
    auto pool = heapPool();
    if (pool) pool->dumpPool();
}

}  // namespace NSCam::v3::pipeline
