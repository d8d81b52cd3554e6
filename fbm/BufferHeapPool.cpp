#define LOG_TAG "vexlor-fbm_pool"
#define LOG_SRC_PATH "pipeline/pipeline/fbm/BufferHeapPool"

#include "BufferHeapPool.h"

#include <sys/prctl.h>

#include <algorithm>
#include <chrono>
#include <sstream>

#include <vexlor/LogScheme.h>
#include <vexlor/Properties.h>
#include <vexlor/Trace.h>

namespace NSCam::v3::pipeline {

namespace {
constexpr int32_t kFirstTargetCapSpecial = 4;
constexpr int32_t kFirstTargetCap = 7;
constexpr int64_t kSpecialIdMask = 0x00FFFF0000000000;
constexpr int64_t kSpecialIdValue = 0x0001000000000000;
constexpr auto kAllocRetryFirst = std::chrono::milliseconds(1);
constexpr auto kAllocRetryLast = std::chrono::milliseconds(100);
}  // namespace

BufferHeapPool::BufferHeapPool(std::string name, HeapAllocator& allocator)
    : mLogLevel(NSCam::Utils::Properties::property_get_int32(
          "vendor.debug.camera.log.pipeline.fbm.pool", 0)),
      mPoolName(std::move(name)),
      mAllocator(allocator),
      mReturnSlowly(mLogLevel >= 1) {}

BufferHeapPool::~BufferHeapPool() {
    // Each wake-up is sent under the lock its waiter tests mExit with, so it cannot be missed, and
    // to every waiter: whatever sleeps there is joined below.
    mExit = true;
    {
        LockGuard<Mutex> lk(mListLock);
        mAvailableCond.notifyAll();
    }
    {
        LockGuard<Mutex> lk(mCountLock);
        mUpdateCond.notifyAll();
    }
    std::thread worker;
    {
        LockGuard<Mutex> lk(mSizingLock);
        worker.swap(mWorker);
    }
    if (worker.joinable()) {
        // A retired pool's last holder may be its own worker, which ends right after this.
        if (worker.get_id() == std::this_thread::get_id()) worker.detach();
        else worker.join();
    }
    std::list<Slot> available;  // its heaps are let go outside the lock
    std::ostringstream oss;
    {
        LockGuard<Mutex> lk(mListLock);
        available.swap(mAvailableBuf);
        // The heaps still out are their holders' now; only their addresses are here.
        for (auto const& slot : mInUseBuf) oss << static_cast<void const*>(slot.address) << "; ";
        mInUseBuf.clear();
    }
    available.clear();
    // The count is the list's after it was drained, so always 0, with the heaps still out after
    // it: the line readers of earlier versions know.
    MY_LOGI("Pool(%s-%p) inUse(#%zu) not return to pool. %s", mPoolName.c_str(), this, size_t{0},
            oss.str().c_str());
}

int32_t BufferHeapPool::allocateBuffers(char const* streamName, int64_t streamId, size_t max,
                                        size_t min) {
    CAM_TRACE_NAME("allocateBuffers");
    if (min > max) {
        MY_LOGE("[%s] min(%zu) > max(%zu)", streamName, min, max);
        return -EINVAL;
    }
    size_t logged = max;
    {
        // Every member of a pool-shared group may get here first, on its own thread.
        LockGuard<Mutex> lk(mSizingLock);
        if (!mInitialized) {
            // The first sizing is capped whatever the maximum; the pool grows later only through
            // updateMaxBuffer.
            int32_t const cap = ((streamId & kSpecialIdMask) == kSpecialIdValue)
                                    ? kFirstTargetCapSpecial
                                    : kFirstTargetCap;
            int32_t const target = static_cast<int32_t>(std::min<size_t>(max, cap));
            // A worker already started by a change of the maximum counts the heaps it made:
            // zeroing its count would make it allocate past its target.
            if (!mWorker.joinable()) mAllocatedCount.store(0);
            mMinInitBuffer = static_cast<int32_t>(min);
            updateBufferCountLocked(target);
            mInitialized = true;
            logged = static_cast<size_t>(target);
        }
    }
    MY_LOGD("[%s] max(%zu) min(%zu)", streamName, logged, min);
    return 0;
}

int32_t BufferHeapPool::acquireFromPool(char const* callerName, HeapPtr& out) {
    MY_LOGD_IF(mLogLevel >= 1, "[%s]", callerName);
    LockGuard<Mutex> lk(mListLock);
    return getBufferFromPool_l(callerName, out);
}

inline int32_t BufferHeapPool::getBufferFromPool_l(char const* callerName, HeapPtr& out) {
    MY_LOGD_IF(mLogLevel >= 1, "[%s] available(#%zu) inUse(#%zu)", callerName,
               mAvailableBuf.size(), mInUseBuf.size());
    if (mAvailableBuf.empty()) return -ETIMEDOUT;
    mInUseBuf.splice(mInUseBuf.end(), mAvailableBuf, mAvailableBuf.begin());
    mPeakInUse = std::max(mPeakInUse, mInUseBuf.size());
    out = std::move(mInUseBuf.back().heap);
    return 0;
}

int32_t BufferHeapPool::releaseToPool(char const* callerName, HeapPtr&& heap) {
    MY_LOGD_IF(mLogLevel >= 1, "[%s]", callerName);
    LockGuard<Mutex> lk(mListLock);
    return returnBufferToPool_l(callerName, heap);
}

inline int32_t BufferHeapPool::returnBufferToPool_l(char const* callerName, HeapPtr& heap) {
    auto it = mInUseBuf.begin();
    for (; it != mInUseBuf.end(); ++it) {
        if (it->address == heap.get()) break;
    }
    if (it == mInUseBuf.end()) {
        MY_LOGE("[%s] fail to return buffer. available(#%zu) inUse(#%zu) buffer(%p)", callerName,
                mAvailableBuf.size(), mInUseBuf.size(), heap.get());
        return -EINVAL;
    }
    it->heap = std::move(heap);  // given back: only a refused heap stays with the caller
    mAvailableBuf.splice(mAvailableBuf.end(), mInUseBuf, it);
    mAvailableCond.notifyOne();
    heapAvailable();
    if (mReturnSlowly) returnedSlowly_l(callerName);
    return 0;
}

void BufferHeapPool::returnedSlowly_l(char const* callerName) {
    if (mRetired.load(std::memory_order_relaxed)) {
        // Freed at once, under the lock: only old buffers still come back to a retired pool.
        HeapPtr const freed = std::move(mAvailableBuf.back().heap);
        mAvailableBuf.pop_back();
        --mAllocatedCount;
        return;
    }
    MY_LOGD_IF_AS(mLogLevel >= 1, "returnBufferToPool_l",
                  "[%s] successfully return buffer. available(#%zu) inUse(#%zu) buffer(%p)",
                  callerName, mAvailableBuf.size(), mInUseBuf.size(),
                  static_cast<void const*>(mAvailableBuf.back().address));
}

void BufferHeapPool::heapAvailable() {
    mAvailableSeq.fetch_add(1, std::memory_order_seq_cst);
    if (mHeapWaiters.load(std::memory_order_seq_cst) == 0) return;
    LockGuard<Mutex> lk(mHeapWaitLock);
    mHeapWaitCond.notifyAll();
}

bool BufferHeapPool::waitForHeap(uint64_t seen, std::chrono::nanoseconds slice) {
    auto const deadline = detail::deadlineAfter(slice);
    LockGuard<Mutex> lk(mHeapWaitLock);
    mHeapWaiters.fetch_add(1, std::memory_order_seq_cst);
    bool woken = true;
    while (mAvailableSeq.load(std::memory_order_seq_cst) == seen) {
        auto const left = deadline - std::chrono::steady_clock::now();
        if (left <= std::chrono::nanoseconds::zero()) {
            woken = false;
            ++mSlicesWaited;
            break;
        }
        woken = mHeapWaitCond.waitFor(mHeapWaitLock, left);
    }
    mHeapWaiters.fetch_sub(1, std::memory_order_relaxed);
    return woken;
}

int32_t BufferHeapPool::updateBufferCount(int32_t count) {
    LockGuard<Mutex> lk(mSizingLock);
    return updateBufferCountLocked(count);
}

int32_t BufferHeapPool::updateBufferCountLocked(int32_t count) {
    CAM_TRACE_NAME("updateBufferCount");
    {
        LockGuard<Mutex> lk(mCountLock);
        mTargetMaxBuffer = count;
        mTargetSeq.fetch_add(1);
    }
    if (mRetired) return 0;  // its worker has ended or is ending: it makes nothing more
    if (!mWorker.joinable()) {
        mWorker = std::thread([this] {
            workerLoop();
            std::shared_ptr<BufferHeapPool> hold;
            {
                LockGuard<Mutex> lk(mCountLock);
                hold = std::move(mWorkerHold);
            }
            // `hold` may be the pool's last handle: it then ends here, and nothing of it is
            // touched after.
        });
    } else {
        MY_LOGD_AS("updateBufferCount", "notify existed updateBufferCount thread: pool(%s)",
                   mPoolName.c_str());
        mUpdateCond.notifyOne();
        // A worker waiting to shed a heap looks at the new target too.
        LockGuard<Mutex> lk(mListLock);
        mAvailableCond.notifyOne();
    }
    return 0;
}

// The resizing worker: one heap per pass, allocator called with no lock held, available heaps
// freed oldest first. Its waits are single waits without a predicate loop: each is skipped when
// what it waits for has already happened (tested under the lock the notifier takes), and any
// other wake-up just runs one more pass, which re-reads the target.
void BufferHeapPool::workerLoop() {
    char const* const fn = "operator()";
    MY_LOGD_AS(fn, "updateBufferCount thread + : pool(%s)", mPoolName.c_str());
    ::prctl(PR_SET_NAME, "updateBufferCount", 0, 0, 0);
    // A failing allocator is tried again after a pause that doubles up to a limit, so memory
    // pressure costs one line per try instead of a core; a success starts over.
    auto backOff = std::chrono::milliseconds(0);
    uint32_t targetSeq = 0;  // the target changes seen so far
    auto readTarget = [this, &targetSeq] {
        LockGuard<Mutex> lk(mCountLock);
        targetSeq = mTargetSeq.load(std::memory_order_relaxed);
        return mTargetMaxBuffer;
    };
    int32_t target = readTarget();
    while (!ending()) {
        MY_LOGD_IF_AS(mLogLevel >= 1, fn, "updateBufferCount: current max(%d) target(%d)",
                      mAllocatedCount.load(), target);
        if (mAllocatedCount < target) {
            HeapPtr heap = mAllocator();
            if (heap) {
                backOff = std::chrono::milliseconds(0);
                nivo::IImageBufferHeap const* const address = heap.get();
                LockGuard<Mutex> lk(mListLock);
                if (mRetired) continue;  // made too late: let go, and the loop ends
                mAvailableBuf.push_back({std::move(heap), address});
                ++mMade;
                // Announced before the lock goes: a request that took this heap and waits for
                // another must not be woken by this one's late news.
                heapAvailable();
                ++mAllocatedCount;
            } else {
                MY_LOGE_AS(fn, "do_construct allocate buffer failed");
                backOff = std::clamp(backOff * 2, kAllocRetryFirst, kAllocRetryLast);
                {
                    LockGuard<Mutex> lk(mCountLock);
                    if (!ending()) mUpdateCond.waitFor(mCountLock, backOff);  // exit ends it at once
                }
                target = readTarget();
                continue;
            }
        }
        if (mAllocatedCount > target) {
            {
                LockGuard<Mutex> lk(mListLock);
                // Also woken by a new target (tested here under the lock it is signalled with).
                if (mAvailableBuf.empty() && !ending() && mTargetSeq.load() == targetSeq) {
                    mAvailableCond.wait(mListLock);
                }
            }
            // The target may have been raised during the wait: a heap freed against the old one
            // would only be made again.
            target = readTarget();
            HeapPtr freed;  // let go outside the lock
            if (mAllocatedCount > target) {
                LockGuard<Mutex> lk(mListLock);
                if (!mAvailableBuf.empty()) {
                    freed = std::move(mAvailableBuf.front().heap);
                    mAvailableBuf.pop_front();
                    --mAllocatedCount;
                }
            }
        }
        if (mAllocatedCount == target) {
            MY_LOGD_AS(fn, "updateBufferCount: [%s] done (%d)", mPoolName.c_str(), target);
            LockGuard<Mutex> lk(mCountLock);
            MY_LOGD_AS(fn, "wait +");
            if (mTargetMaxBuffer == target && !ending()) mUpdateCond.wait(mCountLock);
            MY_LOGD_AS(fn, "wait -");
        }
        target = readTarget();
    }
    MY_LOGD_AS(fn, "updateBufferCount thread - : pool(%s)", mPoolName.c_str());
}

void BufferHeapPool::retire() {
    LockGuard<Mutex> sizing(mSizingLock);
    if (mRetired) return;
    {
        // A worker inside the allocator must not be joined by whoever drops the pool last: it
        // holds the pool until it ends (nothing to hold for a pool no shared handle owns).
        LockGuard<Mutex> lk(mCountLock);
        mRetired = true;
        if (mWorker.joinable()) mWorkerHold = weak_from_this().lock();
        mUpdateCond.notifyAll();
    }
    std::list<Slot> idle;  // freed outside the lock
    {
        LockGuard<Mutex> lk(mListLock);
        idle.swap(mAvailableBuf);
        mAllocatedCount -= static_cast<int32_t>(idle.size());
        mReturnSlowly = true;
        mAvailableCond.notifyAll();
    }
    MY_LOGD("[%s] retired: freed(#%zu) inUse(#%d)", mPoolName.c_str(), idle.size(),
            mAllocatedCount.load());
}

int32_t BufferHeapPool::updateMaxBuffer(int32_t& newMax) {
    int32_t const current = mAllocatedCount.load();
    int32_t oldTarget;
    int32_t needDecrease = 0;
    {
        LockGuard<Mutex> lk(mCountLock);
        oldTarget = mTargetMaxBuffer;
        if (current > newMax) {
            mNeedDecreaseMaxBuffer = current - newMax;
            mDecreasePending.store(mNeedDecreaseMaxBuffer > 0, std::memory_order_release);
            needDecrease = mNeedDecreaseMaxBuffer;
            MY_LOGD_IF(mLogLevel >= 1, "[%s] set mNeedDecreaseMaxBuffer = %d", mPoolName.c_str(),
                       mNeedDecreaseMaxBuffer);
        }
        // Otherwise a pending decrease is left as it is: heaps in use still have to come back
        // before the worker can shed down to the new target.
    }
    MY_LOGI("[%s] buffer pool number : current config max(#%d), target config max(#%d), current "
            "max(#%d), need decrease(#%d)",
            mPoolName.c_str(), oldTarget, newMax, current, needDecrease);
    updateBufferCount(newMax);
    return 0;
}

int32_t BufferHeapPool::getMaxBuffer(int32_t& out) const {
    LockGuard<Mutex> lk(mCountLock);
    out = mTargetMaxBuffer;
    return 0;
}

int32_t BufferHeapPool::getAllocatedBuffer(int32_t& out) const {
    out = mAllocatedCount.load();
    return 0;
}

bool BufferHeapPool::isPoolWaitForReleaseLocked() const {
    char const* const fn = "isPoolWaitForRelease";
    LockGuard<Mutex> lk(mCountLock);
    MY_LOGD_IF_AS(mLogLevel >= 1, fn, "[%s] mNeedDecreaseMaxBuffer = %d", mPoolName.c_str(),
                  mNeedDecreaseMaxBuffer);
    return mNeedDecreaseMaxBuffer > 0;
}

bool BufferHeapPool::isPoolNeedRelease(int32_t& needRelease) {
    size_t available, inUse;
    {
        LockGuard<Mutex> lk(mListLock);
        available = mAvailableBuf.size();
        inUse = mInUseBuf.size();
    }
    int32_t need;
    {
        LockGuard<Mutex> lk(mCountLock);
        need = mNeedDecreaseMaxBuffer;
        if (static_cast<int64_t>(available) < need) {
            needRelease = need - static_cast<int32_t>(available);
        }
        // The pending decrease is consumed by this call; the worker carries it out through the
        // target count.
        mNeedDecreaseMaxBuffer = 0;
        mDecreasePending.store(false, std::memory_order_release);
        MY_LOGD_IF(mLogLevel >= 1, "[%s] reset mNeedDecreaseMaxBuffer = %d -> %d",
                   mPoolName.c_str(), need, 0);
    }
    if (need < 1) {
        MY_LOGD_IF(mLogLevel >= 2, "Pool(%s-%p) available(#%zu) inUse(#%zu)", mPoolName.c_str(),
                   this, available, inUse);
        return available == 0;
    }
    MY_LOGD("Pool(%s-%p) available(#%zu) inUse(#%zu) need decrease(%d) need release(%d)",
            mPoolName.c_str(), this, available, inUse, need, needRelease);
    return true;
}

void BufferHeapPool::countsInto(FrameBufferManagerState::Pool& s) const {
    getMaxBuffer(s.max);
    s.allocated = mAllocatedCount.load();
    s.waiting = mHeapWaiters.load();
    {
        LockGuard<Mutex> lk(mListLock);
        s.available = static_cast<int32_t>(mAvailableBuf.size());
        s.inUse = static_cast<int32_t>(mInUseBuf.size());
        s.peakInUse = static_cast<int32_t>(mPeakInUse);
        // Every heap that became available was made or given back, and every one handed out is
        // still out or was given back: so the acquire path counts nothing of its own.
        s.served = mAvailableSeq.load() - mMade + mInUseBuf.size();
        s.timeouts = mTimeouts;
    }
    LockGuard<Mutex> lk(mHeapWaitLock);
    s.slicesWaited = mSlicesWaited;
}

void BufferHeapPool::noteTimeout() {
    LockGuard<Mutex> lk(mListLock);
    ++mTimeouts;
}

void BufferHeapPool::dumpPool() const {
    if (!NSCam::Utils::ULog::ulogInfoOn()) return;
    size_t futures;
    int32_t minInit;
    {
        LockGuard<Mutex> lk(mSizingLock);  // another member's first sizing may be writing them
        futures = mWorker.joinable() ? 1 : 0;
        minInit = mMinInitBuffer;
    }
    std::ostringstream oss;
    oss << "Pool(" << mPoolName << "-" << static_cast<void const*>(this) << ") "
        << "logLevel(" << mLogLevel << ") "
        << "future(#" << futures << ") "
        << "max(#" << mAllocatedCount.load() << ") "
        << "min(#" << minInit << ") ";
    {
        LockGuard<Mutex> lk(mListLock);
        oss << "available(#" << mAvailableBuf.size() << "): ";
        for (auto const& s : mAvailableBuf) oss << static_cast<void const*>(s.address) << "; ";
        oss << "inUse(#" << mInUseBuf.size() << "): ";
        for (auto const& s : mInUseBuf) oss << static_cast<void const*>(s.address) << "; ";
    }
    MY_LOGI("%s", oss.str().c_str());
}

}  // namespace NSCam::v3::pipeline
