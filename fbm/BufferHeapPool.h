#pragma once
// A pool of allocated image buffer heaps that one or more BufferProducers draw from.
//
// It never blocks a caller: acquireFromPool hands out the heap that has been available longest or
// returns -110 at once; waiting is the producer's business. Heaps are made and freed by one
// background worker per pool, which drives the pool towards a target count one heap per pass.
//
// Locks, outermost first:
//   mSizingLock    the first sizing and the worker's launch: every producer of a pool-shared group
//                  may size it, from any thread (a deferred group's members are triggered apart).
//   mListLock      guards both lists, which every acquire and release changes together.
//   mCountLock     guards the target and the pending decrease; never held with mListLock.
//   mHeapWaitLock  the wait for a heap (waitForHeap); taken alone, or innermost.
// A producer calls in with its mMapLock held (updateMaxBuffer, releaseToPool), so every lock here
// comes after it.
//
// Ownership: an available heap is held by the pool; an acquired one by the caller, its handle
// moved out (the in-use list keeps only its address, for the dump and to know it when it comes
// back); releaseToPool moves it in again.
//
// Retirement: a pool whose streams a new configuration replaced is retired: its worker makes no
// more heaps and ends, its idle heaps are freed, and a heap that comes back is freed at once. A
// retired worker that is still inside the allocator holds the pool (when a shared handle owns
// it) until it ends, so the last buffer let go on a frame thread never joins it: the pool then
// ends on the worker's own thread.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <thread>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include <fbm/IFrameBufferManagerState.h>
#include <vexlor/ImageBufferHeap.h>
#include <vexlor/ThreadAnnotations.h>

namespace NSCam::v3::pipeline {

// Makes one heap; an empty handle means the allocation failed.
using HeapAllocator = std::function<std::shared_ptr<nivo::IImageBufferHeap>()>;

class BufferHeapPool : public std::enable_shared_from_this<BufferHeapPool> {
public:
    using HeapPtr = std::shared_ptr<nivo::IImageBufferHeap>;

    BufferHeapPool(std::string name, HeapAllocator& allocator);
    // Stops the worker (waits for it, unless this is the worker's own thread), then releases
    // every heap.
    ~BufferHeapPool();
    BufferHeapPool(BufferHeapPool const&) = delete;
    BufferHeapPool& operator=(BufferHeapPool const&) = delete;

    // First sizing, effective once: starts the worker towards min(max, 4 or 7). -22 if min > max.
    int32_t allocateBuffers(char const* streamName, int64_t streamId, size_t max, size_t min)
        EXCLUDES(mSizingLock);
    // 0 and the heap, or -110 when none is available (out untouched).
    int32_t acquireFromPool(char const* callerName, HeapPtr& out) EXCLUDES(mListLock);
    // 0, or -22 when the heap is not in use from this pool (it stays with the caller).
    int32_t releaseToPool(char const* callerName, HeapPtr&& heap) EXCLUDES(mListLock);
    // Sets the target count and starts or wakes the worker. Always 0.
    int32_t updateBufferCount(int32_t count) EXCLUDES(mSizingLock, mCountLock);
    // Changes the target; records how many heaps must be shed when it drops below the count made.
    int32_t updateMaxBuffer(int32_t& newMax) EXCLUDES(mSizingLock, mCountLock);
    int32_t getMaxBuffer(int32_t& out) const EXCLUDES(mCountLock);
    int32_t getAllocatedBuffer(int32_t& out) const;
    // No more heaps: see Retirement above. Never waits for the worker. Effective once.
    void retire() EXCLUDES(mSizingLock, mListLock, mCountLock);
    // A lowered maximum is pending: the available heaps are about to be freed. Asked before every
    // acquire: the usual answer, no, takes no lock.
    bool isPoolWaitForRelease() const EXCLUDES(mCountLock) {
        if (mLogLevel < 1 && !mDecreasePending.load(std::memory_order_acquire)) return false;
        return isPoolWaitForReleaseLocked();
    }
    // Whether the producer must make room; consumes the pending decrease. needRelease gets the
    // number of in-use heaps that must come back, when that is above 0.
    bool isPoolNeedRelease(int32_t& needRelease) EXCLUDES(mCountLock, mListLock);
    void dumpPool() const EXCLUDES(mSizingLock, mListLock);
    // Its counts into the manager's state of it, each read under the lock that writes it (one
    // lock at a time); the name, streams and sizes are the manager's to fill.
    void countsInto(FrameBufferManagerState::Pool& pool) const EXCLUDES(mCountLock, mListLock, mHeapWaitLock);
    // A request through one of its producers ran out of its time-out.
    void noteTimeout() EXCLUDES(mListLock);
    char const* poolName() const { return mPoolName.c_str(); }

    // Waiting for a heap, for the producers above. availableSeq() counts the heaps that became
    // available so far (made by the worker or given back through any producer); read it before
    // trying acquireFromPool, and waitForHeap(seen, slice) returns true at once if it moved since,
    // else waits for the next one at most `slice`: true when one came and woke it, false when the
    // slice ran out (a heap that came without waking it still cost the slice, and counts as one;
    // a spurious wake-up of the wait does not end it).
    uint64_t availableSeq() const { return mAvailableSeq.load(std::memory_order_acquire); }
    bool waitForHeap(uint64_t seen, std::chrono::nanoseconds slice) EXCLUDES(mHeapWaitLock);

private:
    // A heap of the pool: its handle while available, only its address while in use.
    struct Slot {
        HeapPtr heap;
        nivo::IImageBufferHeap const* address;
    };
    int32_t getBufferFromPool_l(char const* callerName, HeapPtr& out) REQUIRES(mListLock);
    int32_t returnBufferToPool_l(char const* callerName, HeapPtr& heap) REQUIRES(mListLock);
    // After a return that logs, or to a retired pool (which frees the heap just returned).
    void returnedSlowly_l(char const* callerName) REQUIRES(mListLock);
    bool isPoolWaitForReleaseLocked() const EXCLUDES(mCountLock);  // takes it
    int32_t updateBufferCountLocked(int32_t count) REQUIRES(mSizingLock) EXCLUDES(mCountLock);
    void workerLoop();
    // The worker ends at destruction or retirement.
    bool ending() const { return mExit.load() || mRetired.load(); }
    // A heap was put on mAvailableBuf: wakes whoever waits for one (no pool lock needed).
    void heapAvailable() EXCLUDES(mHeapWaitLock);

    int32_t mLogLevel;
    std::string mPoolName;
    HeapAllocator mAllocator;
    mutable Mutex mSizingLock ACQUIRED_BEFORE(mListLock, mCountLock);
    mutable Mutex mListLock;
    std::list<Slot> mAvailableBuf GUARDED_BY(mListLock);  // out at the front, in at the back
    std::list<Slot> mInUseBuf GUARDED_BY(mListLock);      // in acquisition order
    // Returns that log or free (a raised log level, retirement) take a second step: one test.
    bool mReturnSlowly GUARDED_BY(mListLock);
    // Counts since the pool was made, kept under the lock their events already hold.
    uint64_t mMade GUARDED_BY(mListLock) = 0;  // heaps the worker made
    size_t mPeakInUse GUARDED_BY(mListLock) = 0;
    uint64_t mTimeouts GUARDED_BY(mListLock) = 0;
    bool mInitialized GUARDED_BY(mSizingLock) = false;
    std::atomic<bool> mExit{false};
    // Set under mListLock (returned heaps are then freed) and mCountLock (the worker's waits).
    std::atomic<bool> mRetired{false};
    // available + in use; raised by the worker only, lowered by the worker, or by whoever frees a
    // heap of a retired pool
    std::atomic<int32_t> mAllocatedCount{0};
    int32_t mMinInitBuffer GUARDED_BY(mSizingLock) = 0;
    int32_t mTargetMaxBuffer GUARDED_BY(mCountLock) = 0;
    int32_t mNeedDecreaseMaxBuffer GUARDED_BY(mCountLock) = 0;
    // Counts target changes (written under mCountLock): the worker's wait for a heap to shed
    // tests it under mListLock, which updateBufferCount takes to wake that wait.
    std::atomic<uint32_t> mTargetSeq{0};
    // Whether a decrease is pending, written with mNeedDecreaseMaxBuffer: the acquire path asks
    // on every buffer and need not take mCountLock for the usual answer, no.
    std::atomic<bool> mDecreasePending{false};
    // The worker: at most one, launched by the first updateBufferCount of any producer. A thread
    // rather than an asynchronous task, so that a retired pool may end on it (detached then).
    std::thread mWorker GUARDED_BY(mSizingLock);
    // Held by a retired pool's running worker, dropped as its last act (guarded by mCountLock).
    std::shared_ptr<BufferHeapPool> mWorkerHold GUARDED_BY(mCountLock);
    Condition mAvailableCond;  // a heap came back to mAvailableBuf; with mListLock
    mutable Mutex mCountLock;
    Condition mUpdateCond;  // the target changed, or exit; with mCountLock
    // Requests waiting for a heap of this pool, whichever producer they came through. The count
    // is raised before a waiter reads mAvailableSeq and read after a notifier raised the
    // sequence, so a notifier that sees no waiter needs no lock.
    std::atomic<uint64_t> mAvailableSeq{0};
    std::atomic<int32_t> mHeapWaiters{0};
    mutable Mutex mHeapWaitLock;  // innermost: nothing is taken while it is held
    Condition mHeapWaitCond;  // a heap became available; with mHeapWaitLock
    uint64_t mSlicesWaited GUARDED_BY(mHeapWaitLock) = 0;  // waits that ran their slice out
};

}  // namespace NSCam::v3::pipeline
