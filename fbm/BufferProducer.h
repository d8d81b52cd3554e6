#pragma once
// The pool of image stream buffers of one pooled image stream.
//
// It wraps heaps of a BufferHeapPool (shared by the producers of a pool-shared group) into HAL
// image stream buffers, and tracks which stream buffers use which heap: a heap goes back to the
// heap pool only when the last stream buffer over it is released (several may share one, shareSB).
// When no heap is to be had it waits in 10 ms slices up to the caller's time-out, woken by any heap
// that becomes available in the heap pool, and, when the heap pool says so, asks the manager
// through mReleaseCallback to release kept buffers.
//
// Ownership: made only through std::make_shared (it hands shared handles of itself to the stream
// buffers it makes, which keep it alive until released); it holds its heap pool.
//
// Locks: mHeapPoolLock (heap pool handle, mInitialized) before mMapLock (counts and the
// records of heaps in use), nested only while the pool is first sized (initProducer). A group
// member's mHeapPoolLock is held while it takes its group's first producer's (groupHeapPool);
// never the other way. The release callback is called with no lock held: it may release buffers,
// re-entering releaseToPool of this or another producer on the same thread.
//
// Requests and releases reach the heap pool through mRequestPool, read without a lock: the heap
// pool is set by configuration calls (construction, initProducer) on the configuring thread,
// which must not overlap a request on this producer.
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <vexlor/StreamBuffer.h>
#include <vexlor/ThreadAnnotations.h>

#include "BufferHeapPool.h"

namespace NSCam::v3::pipeline {

class BufferProducer : public IImageStreamBufferPool,
                       public std::enable_shared_from_this<BufferProducer> {
public:
    // (stream id, heaps wanted back, log flag). Must not be empty.
    using ReleaseCallback = std::function<void(int64_t, int32_t, bool)>;
    using SbPtr = std::shared_ptr<IImageStreamBuffer>;
    using HeapPtr = std::shared_ptr<nivo::IImageBufferHeap>;

    // A non-empty `sharedProducer` gives this producer that producer's heap pool.
    BufferProducer(std::string name, std::shared_ptr<IImageStreamInfo> info,
                   ReleaseCallback const& releaseCallback,
                   std::shared_ptr<BufferProducer> const& sharedProducer);
    ~BufferProducer() override;

    // IImageStreamBufferPool. poolName and dumpPool need a heap pool. initPool and commitPool
    // return -1: set-up goes through initProducer.
    char const* poolName() const override;
    void dumpPool() const override;
    int32_t initPool(char const* name, size_t maxNumberOfBuffers,
                     size_t minNumberOfInitialCommittedBuffers) override;
    void uninitPool(char const* name) override;
    int32_t commitPool(char const* name) override;
    // 0 and a buffer; -22 no heap pool; -16 no heap within `timeoutNs`; -12 buffer not made.
    int32_t acquireFromPool(char const* name, SbPtr& out, int64_t timeoutNs) override
        EXCLUDES(mHeapPoolLock, mMapLock);
    // Called by a buffer released to its owner. 0, or -22 without a heap pool. Fatal for a buffer
    // this producer does not track.
    int32_t releaseToPool(char const* name, SbPtr buffer) override EXCLUDES(mHeapPoolLock, mMapLock);

    // Sizes the pool (creating a heap pool with `allocator` if there is none). Effective once.
    int32_t initProducer(size_t max, size_t min, HeapAllocator&& allocator)
        EXCLUDES(mHeapPoolLock, mMapLock);
    int32_t setMaxBufferCount(int32_t& count) EXCLUDES(mMapLock);
    int32_t getMaxBuffer(int32_t& out) const EXCLUDES(mHeapPoolLock);
    int32_t getAllocatedBuffer(int32_t& out) const EXCLUDES(mHeapPoolLock);
    // A second stream buffer over the heap of `source` (one of ours), or empty.
    SbPtr shareSB(SbPtr const& source) EXCLUDES(mMapLock);
    // Gives every tracked heap back and forgets every buffer (they stay alive, untracked).
    void clear() EXCLUDES(mHeapPoolLock, mMapLock);
    std::string toString() const;
    void dump() const EXCLUDES(mHeapPoolLock, mMapLock);
    // Empty until the pool is first sized (a deferred stream's until its trigger).
    std::shared_ptr<BufferHeapPool> heapPool() const EXCLUDES(mHeapPoolLock);

private:
    int32_t allocatePoolBuffersLocked(HeapAllocator& allocator) REQUIRES(mHeapPoolLock);
    // The heap pool of the group this producer comes first in, made with `allocator` if there is
    // none yet (a deferred group's first trigger).
    std::shared_ptr<BufferHeapPool> groupHeapPool(HeapAllocator& allocator) EXCLUDES(mHeapPoolLock);
    // Gives a heap nobody uses any more back to the heap pool (which wakes its waiters).
    int32_t returnHeapToPool(HeapPtr&& heap);
    void setHeapPoolLocked(std::shared_ptr<BufferHeapPool> pool) REQUIRES(mHeapPoolLock);
    // Tracks `sb` over the heap of record `index`; false when `sb` is already tracked.
    bool trackLocked(SbPtr const& sb, uint32_t index, size_t& refCnt) REQUIRES(mMapLock);
    // A record for `heap`, a spare one if there is one.
    uint32_t newRecordLocked(HeapPtr&& heap) REQUIRES(mMapLock);

    // A heap in use and the stream buffers over it (their number is its "ref_cnt"). A record
    // without a heap is spare: records, and the capacity of their vectors, are reused.
    struct HeapRecord {
        HeapPtr heap;
        std::vector<SbPtr> sbs;
    };
    // The record of each tracked stream buffer, by its address: open addressing with linear
    // probing and deletion by backward shift, so a steady flow neither allocates nor leaves
    // tombstones behind.
    class SbIndex {
    public:
        bool insert(void const* sb, uint32_t record);  // false when already there
        int64_t find(void const* sb) const;            // the record, or -1
        int64_t erase(void const* sb);                 // the record it had, or -1
        size_t size() const { return mCount; }
        void clear();

    private:
        struct Slot {
            void const* sb = nullptr;
            uint32_t record = 0;
        };
        static constexpr size_t kNone = ~size_t{0};
        size_t home(void const* sb) const;
        size_t slotOf(void const* sb) const;  // its slot, or kNone
        void grow();
        std::vector<Slot> mSlots;  // a power of two, at most half full
        size_t mCount = 0;
    };

    int32_t mLogLevel;
    std::string mName;
    mutable Mutex mHeapPoolLock ACQUIRED_BEFORE(mMapLock);
    std::shared_ptr<IImageStreamInfo> mStreamInfo;
    // Written by construction and initProducer (configuring thread, under the lock), always
    // with mRequestPool.
    std::shared_ptr<BufferHeapPool> mHeapPool GUARDED_BY(mHeapPoolLock);
    std::atomic<BufferHeapPool*> mRequestPool{nullptr};  // mHeapPool's, kept alive by it
    bool mInitialized GUARDED_BY(mHeapPoolLock) = false;
    mutable Mutex mMapLock;
    size_t mMaxBufferCount GUARDED_BY(mMapLock) = 0;
    size_t mMinInitBufferCount GUARDED_BY(mMapLock) = 0;
    // The heaps in use, as many records as the most heaps ever in use at once; printed in address
    // order by the dump, which sorts a copy.
    std::vector<HeapRecord> mRecords GUARDED_BY(mMapLock);
    std::vector<uint32_t> mSpareRecords GUARDED_BY(mMapLock);
    SbIndex mSbIndex GUARDED_BY(mMapLock);
    ReleaseCallback mReleaseCallback;
    // The first producer of this one's pool-shared group (empty for the first and for a stream of
    // its own): where a deferred group's one heap pool is made.
    std::shared_ptr<BufferProducer> const mGroupFirst;
};

}  // namespace NSCam::v3::pipeline
