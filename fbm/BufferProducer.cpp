#define LOG_TAG "vexlor-fbm_producer"
#define LOG_SRC_PATH "pipeline/pipeline/fbm/BufferProducer"

#include "BufferProducer.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
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
        setHeapPoolLocked(std::move(pool));
    }
}

BufferProducer::~BufferProducer() { clear(); }

std::shared_ptr<BufferHeapPool> BufferProducer::heapPool() const {
    LockGuard<Mutex> lk(mHeapPoolLock);
    return mHeapPool;
}

void BufferProducer::setHeapPoolLocked(std::shared_ptr<BufferHeapPool> pool) {
    mRequestPool.store(pool.get(), std::memory_order_release);
    mHeapPool = std::move(pool);
}

// Unlocked, as they are cheap forwarding calls; the heap pool is set before the producer serves.
char const* BufferProducer::poolName() const {
    BufferHeapPool const* pool = mRequestPool.load(std::memory_order_acquire);
    return pool ? pool->poolName() : "";
}

void BufferProducer::dumpPool() const {
    if (BufferHeapPool const* pool = mRequestPool.load(std::memory_order_acquire)) pool->dumpPool();
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
    if (!mHeapPool && mGroupFirst) setHeapPoolLocked(mGroupFirst->groupHeapPool(allocator));
    if (!mHeapPool) {
        if (!allocator) {
            MY_LOGE("%s: cannot get allocator", toString().c_str());
            return -EINVAL;
        }
        setHeapPoolLocked(std::make_shared<BufferHeapPool>(mName, allocator));
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
    if (!mHeapPool && allocator) setHeapPoolLocked(std::make_shared<BufferHeapPool>(mName, allocator));
    return mHeapPool;
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

int32_t BufferProducer::acquireFromPool(char const* /*name*/, SbPtr& out, int64_t timeoutNs) {
    BufferHeapPool* const pool = mRequestPool.load(std::memory_order_acquire);
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
            pool->noteTimeout();
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

    // The handles move into the factory's arguments and the heap back out: a copy costs an atomic.
    SbPtr sb;
    {
        Utils::MakeHalImageStreamBuffer arg{mStreamInfo, std::move(heap), shared_from_this(), nullptr};
        sb = Utils::makeHalImageStreamBuffer(arg);
        heap = std::move(arg.heap);
    }
    if (!sb) {
        out = nullptr;
        MY_LOGE("cannot new HalImageStreamBuffer. Something wrong...");
        // Nothing holds the heap now: back to its pool, or every such failure would shrink the
        // pool by one heap until teardown.
        returnHeapToPool(std::move(heap));
        return -ENOMEM;
    }
    void const* const rawHeap = heap.get();
    size_t refCnt;
    {
        LockGuard<Mutex> lk(mMapLock);
        uint32_t const index = newRecordLocked(std::move(heap));
        if (!trackLocked(sb, index, refCnt)) {
            MY_FATAL("SB(%p) already exist, leak happend... Heap(%p)", sb.get(), rawHeap);
        }
    }
    MY_LOGD_IF(mLogLevel >= 2, "acquire - buffer:%p pHeap:%p (ref_cnt:%zu)", sb.get(), rawHeap, refCnt);
    if (mLogLevel > 2) {
        MY_LOGI("dump current in-use heaps and stream buffers");
        dump();
    }
    out = std::move(sb);
    return 0;
}

uint32_t BufferProducer::newRecordLocked(HeapPtr&& heap) {
    uint32_t index;
    if (mSpareRecords.empty()) {
        index = static_cast<uint32_t>(mRecords.size());
        mRecords.emplace_back();
    } else {
        index = mSpareRecords.back();
        mSpareRecords.pop_back();
    }
    mRecords[index].heap = std::move(heap);
    return index;
}

bool BufferProducer::trackLocked(SbPtr const& sb, uint32_t index, size_t& refCnt) {
    if (!mSbIndex.insert(sb.get(), index)) return false;
    auto& sbs = mRecords[index].sbs;
    sbs.push_back(sb);
    refCnt = sbs.size();
    return true;
}

int32_t BufferProducer::releaseToPool(char const* /*name*/, SbPtr buffer) {
    HeapPtr heap;
    void const* rawHeap;
    SbPtr tracked;  // the producer's handle, let go after unlocking
    size_t refCnt;
    {
        LockGuard<Mutex> lk(mMapLock);
        int64_t const index = mSbIndex.erase(buffer.get());
        if (index < 0) {
            MY_FATAL("%s: SB(%p) not found!", toString().c_str(), buffer.get());
        }
        HeapRecord& record = mRecords[static_cast<size_t>(index)];
        rawHeap = record.heap.get();
        if (!record.heap) {
            MY_FATAL("%s: Heap(%p) not found!", toString().c_str(), rawHeap);
        }
        auto& sbs = record.sbs;
        for (auto& sb : sbs) {
            if (sb == buffer) {
                tracked = std::move(sb);
                sb = std::move(sbs.back());  // the order within a record does not matter
                sbs.pop_back();
                break;
            }
        }
        refCnt = sbs.size();
        if (refCnt == 0) {
            heap = std::move(record.heap);
            mSpareRecords.push_back(static_cast<uint32_t>(index));
        }
    }
    uint32_t const status = buffer->statusOf();
    MY_LOGD_IF((status & 1) || mLogLevel >= 2, "release - SB:%p status:%#x Heap:%p (ref_cnt:%zu)",
               buffer.get(), status, rawHeap, refCnt);
    if (mLogLevel > 2) {
        MY_LOGI("dump current in-use heaps and stream buffers");
        dump();
    }
    if (refCnt > 0) return 0;  // another stream buffer still uses the heap

    return returnHeapToPool(std::move(heap));
}

inline int32_t BufferProducer::returnHeapToPool(HeapPtr&& heap) {
    BufferHeapPool* const pool = mRequestPool.load(std::memory_order_acquire);
    if (!pool) {
        MY_LOGE_AS("releaseToPool", "%s: Pool is null", toString().c_str());
        return -EINVAL;
    }
    pool->releaseToPool(mStreamInfo->streamName(), std::move(heap));  // wakes its waiters
    return 0;
}

BufferProducer::SbPtr BufferProducer::shareSB(SbPtr const& source) {
    SbPtr sb;
    size_t refCnt;
    {
        LockGuard<Mutex> lk(mMapLock);
        int64_t const index = mSbIndex.find(source.get());
        if (index < 0) {
            auto info = source ? source->streamInfoOf() : nullptr;
            MY_LOGE("%s: SB(%p:%s) not in here.", toString().c_str(), source.get(),
                    info ? info->streamName() : "");
            return nullptr;
        }
        HeapRecord& record = mRecords[static_cast<size_t>(index)];
        sb = Utils::makeHalImageStreamBuffer({mStreamInfo, record.heap, shared_from_this(), nullptr});
        if (!sb) {
            // Nothing is tracked: the heap stays with the buffers already over it, and goes back
            // to the heap pool with the last of them.
            MY_LOGE("cannot new HalImageStreamBuffer. Something wrong...");
            return nullptr;
        }
        if (!trackLocked(sb, static_cast<uint32_t>(index), refCnt)) {
            MY_FATAL("SB(%p) already exist, leak happend... Heap(%p)", sb.get(), record.heap.get());
        }
        MY_LOGD_IF(mLogLevel >= 2, "%s: Heap(%p) sourceSb(%p) targetSb(%p) (ref_cnt:%zu)",
                   toString().c_str(), record.heap.get(), source.get(), sb.get(), refCnt);
    }
    if (mLogLevel >= 3) {
        MY_LOGI("dump current in-use heaps and stream buffers");
        dump();
    }
    return sb;
}

void BufferProducer::clear() {
    std::vector<HeapRecord> records;
    {
        LockGuard<Mutex> lk(mMapLock);
        records.swap(mRecords);
        mSpareRecords.clear();
        mSbIndex.clear();
    }
    // Heaps go back lowest address first; the buffers are let go outside the lock.
    std::sort(records.begin(), records.end(), [](HeapRecord const& a, HeapRecord const& b) {
        return std::less<>()(a.heap.get(), b.heap.get());
    });
    BufferHeapPool* const pool = mRequestPool.load(std::memory_order_acquire);
    for (auto& record : records) {
        if (record.heap && pool) pool->releaseToPool(mStreamInfo->streamName(), std::move(record.heap));
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
        // Copied out as addresses and sorted here, so the hot path keeps no order.
        std::vector<std::pair<void const*, std::vector<void const*>>> heaps;
        size_t sbs;
        {
            LockGuard<Mutex> lk(mMapLock);
            for (auto const& record : mRecords) {
                if (!record.heap) continue;
                heaps.emplace_back(record.heap.get(), std::vector<void const*>());
                for (auto const& sb : record.sbs) heaps.back().second.push_back(sb.get());
            }
            sbs = mSbIndex.size();
        }
        std::sort(heaps.begin(), heaps.end(), [](auto const& a, auto const& b) {
            return std::less<>()(a.first, b.first);
        });
        std::ostringstream oss;
        for (auto& [heap, set] : heaps) {
            std::sort(set.begin(), set.end(), std::less<>());
            oss << "(" << heap << "){";
            for (void const* sb : set) oss << sb << ".";
            oss << "}#" << set.size() << "; ";
        }
        MY_LOGI("%s InUse(Heap#%zu){Sb#%zu}: %s", toString().c_str(), heaps.size(), sbs, oss.str().c_str());
    }
    // Under the lock that sizing holds: a dump racing a deferred pool's first trigger sees no
    // pool or a sized one.
    if (auto pool = heapPool()) pool->dumpPool();
}

// ---- the index of stream buffers ---------------------------------------------------------------

size_t BufferProducer::SbIndex::home(void const* sb) const {
    // Fibonacci hashing: the high bits of the product spread addresses that differ only in
    // their low, allocation-aligned bits.
    uint64_t const h = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(sb)) * 0x9E3779B97F4A7C15ull;
    return static_cast<size_t>(h >> 32) & (mSlots.size() - 1);
}

bool BufferProducer::SbIndex::insert(void const* sb, uint32_t record) {
    if ((mCount + 1) * 2 > mSlots.size()) grow();
    size_t const mask = mSlots.size() - 1;
    for (size_t i = home(sb);; i = (i + 1) & mask) {
        if (mSlots[i].sb == sb) return false;
        if (mSlots[i].sb == nullptr) {
            mSlots[i] = {sb, record};
            ++mCount;
            return true;
        }
    }
}

size_t BufferProducer::SbIndex::slotOf(void const* sb) const {
    if (mSlots.empty() || sb == nullptr) return kNone;
    size_t const mask = mSlots.size() - 1;
    for (size_t i = home(sb);; i = (i + 1) & mask) {
        if (mSlots[i].sb == sb) return i;
        if (mSlots[i].sb == nullptr) return kNone;
    }
}

int64_t BufferProducer::SbIndex::find(void const* sb) const {
    size_t const i = slotOf(sb);
    if (i == kNone) return -1;
    return mSlots[i].record;
}

int64_t BufferProducer::SbIndex::erase(void const* sb) {
    size_t i = slotOf(sb);
    if (i == kNone) return -1;
    size_t const mask = mSlots.size() - 1;
    uint32_t const record = mSlots[i].record;
    // Shifts back every later entry of the run that may sit in the freed slot, so that each
    // stays reachable from its home without a tombstone.
    for (size_t j = (i + 1) & mask; mSlots[j].sb != nullptr; j = (j + 1) & mask) {
        size_t const k = home(mSlots[j].sb);
        bool const between = i <= j ? (i < k && k <= j) : (i < k || k <= j);
        if (!between) {
            mSlots[i] = mSlots[j];
            i = j;
        }
    }
    mSlots[i] = Slot();
    --mCount;
    return record;
}

void BufferProducer::SbIndex::clear() {
    std::fill(mSlots.begin(), mSlots.end(), Slot());
    mCount = 0;
}

void BufferProducer::SbIndex::grow() {
    std::vector<Slot> old(std::max<size_t>(16, mSlots.size() * 2));
    old.swap(mSlots);
    mCount = 0;
    for (Slot const& slot : old) {
        if (slot.sb != nullptr) insert(slot.sb, slot.record);
    }
}

}  // namespace NSCam::v3::pipeline
