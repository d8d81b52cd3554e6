#include <atomic>
#include <latch>
#include <mutex>
#include <thread>

#include "BufferProducer.h"
#include "TestSupport.h"

namespace fbmtest {
namespace {

struct CallbackCall {
    int64_t streamId;
    int32_t count;
    bool logFlag;
};

class ProducerTest : public PlatformTest {
protected:
    void SetUp() override {
        PlatformTest::SetUp();
        host::setULogSwitches(5, 0x207000, 1);
        mInfo = imageInfo({.id = 0x10, .name = "preview", .max = 4, .min = 2});
    }
    // A producer over its own heap pool of `heaps` heaps, every heap allocated.
    std::shared_ptr<BufferProducer> makeProducer(int heaps) {
        auto producer = std::make_shared<BufferProducer>("preview-pool", mInfo, callback(), nullptr);
        EXPECT_EQ(producer->initProducer(heaps, 0, HeapAllocator(mAllocator)), 0);
        mHeapPool = producer->heapPool();
        EXPECT_TRUE(waitHeaps([&](int64_t, int64_t) {
            int32_t n = 0;
            producer->getAllocatedBuffer(n);
            return n == heaps;
        }));
        return producer;
    }
    BufferProducer::ReleaseCallback callback() {
        return [this](int64_t id, int32_t count, bool flag) {
            std::function<void()> hook;
            {
                std::lock_guard<std::mutex> lk(mLock);
                mCalls.push_back({id, count, flag});
                hook = mHook;
            }
            if (hook) hook();
        };
    }
    std::vector<CallbackCall> calls() {
        std::lock_guard<std::mutex> lk(mLock);
        return mCalls;
    }
    void onCallback(std::function<void()> hook) {
        std::lock_guard<std::mutex> lk(mLock);
        mHook = std::move(hook);
    }
    bool heapAvailable() {
        int32_t needRelease = 0;
        return !mHeapPool->isPoolNeedRelease(needRelease);
    }

    std::shared_ptr<IImageStreamInfo> mInfo;
    HeapAllocator mAllocator = [] { return nivo::IImageBufferHeapFactory::create("fbm", "h", {}, false); };
    std::shared_ptr<BufferHeapPool> mHeapPool;
    std::mutex mLock;
    std::vector<CallbackCall> mCalls;
    std::function<void()> mHook;
};

constexpr int64_t kLong = 5'000'000'000;  // 5 s: never reached by a test that passes

TEST_F(ProducerTest, BuffersCarryTheStreamAndReturnTheirHeap) {
    auto producer = makeProducer(1);
    SbPtr sb;
    ASSERT_EQ(producer->acquireFromPool("x", sb, kLong), 0);
    ASSERT_TRUE(sb);
    EXPECT_EQ(sb->streamInfoOf().get(), mInfo.get());
    EXPECT_FALSE(heapAvailable());
    sb->releaseToOwner();
    EXPECT_TRUE(heapAvailable());
    sb->releaseToOwner();  // a buffer goes back once only
    EXPECT_TRUE(heapAvailable());
    EXPECT_TRUE(calls().empty());
}

TEST_F(ProducerTest, ClearGivesEveryTrackedHeapBackLowestAddressFirst) {
    auto producer = makeProducer(3);
    SbPtr a, b, c;
    for (SbPtr* sb : {&a, &b, &c}) ASSERT_EQ(producer->acquireFromPool("x", *sb, kLong), 0);
    EXPECT_EQ(producer->releaseToPool("x", c), 0);  // its record stays, spare, with no heap
    SbPtr shared = producer->shareSB(a);
    ASSERT_TRUE(shared);
    producer->clear();  // the buffers live on, untracked
    EXPECT_EQ(androidCount("fail to return buffer"), 0u);
    EXPECT_FALSE(producer->shareSB(a));  // forgotten: nothing is shared from here any more
    std::shared_ptr<nivo::IImageBufferHeap> heaps[3];
    for (auto& heap : heaps) ASSERT_EQ(mHeapPool->acquireFromPool("t", heap), 0);
    EXPECT_LT(heaps[1].get(), heaps[2].get());  // c's first, then a's and b's by address
    for (auto& heap : heaps) mHeapPool->releaseToPool("t", std::move(heap));
}

TEST_F(ProducerTest, TimeoutZeroTriesOnceThenGivesUp) {
    auto producer = makeProducer(1);
    SbPtr held, none;
    ASSERT_EQ(producer->acquireFromPool("x", held, 0), 0);
    EXPECT_EQ(producer->acquireFromPool("x", none, 0), -EBUSY);
    EXPECT_FALSE(none);
    EXPECT_EQ(androidCount("cannot acquire from pool after timeout(0 ns)."), 1u);
    // Not yet past it at the first try: the exhausted pool asked for one heap back, once.
    ASSERT_EQ(calls().size(), 1u);
    EXPECT_EQ(calls()[0].streamId, 0x10);
    EXPECT_EQ(calls()[0].count, 1);
    held->releaseToOwner();
}

// Calls `action` on another thread once the heap pool has logged its n-th try of `stream` that
// found no heap and the requester that made it has gone to sleep: it then waits for a heap, and
// only a wake-up ends that wait before its slice runs out. Needs the pool's log level at 1; the
// action runs off the logging thread, which holds the pool's locks.
class OnNthEmptyTry {
public:
    OnNthEmptyTry(std::string stream, int n, std::function<void()> action)
        : mThread([this, action = std::move(action)] {
              mGo.wait();
              while (!threadSleeps(mRequester)) std::this_thread::yield();
              action();
          }) {
        host::LogCapture::setLineHook([this, stream = "[" + stream + "] available(#0)", n](std::string const& line) {
            if (line.find(stream) == std::string::npos || ++mSeen != n || mFired.exchange(true)) return;
            mRequester = static_cast<pid_t>(::syscall(SYS_gettid));
            mGo.count_down();
        });
    }
    ~OnNthEmptyTry() {
        host::LogCapture::setLineHook(nullptr);
        if (!mFired.exchange(true)) mGo.count_down();  // never reached: run it now (no thread 0 to wait for)
        mThread.join();
    }

private:
    pid_t mRequester = 0;  // written before mGo counts down, read after it
    std::atomic<int> mSeen{0};
    std::atomic<bool> mFired{false};
    std::latch mGo{1};
    std::thread mThread;
};

// A heap becoming available in the pool wakes a waiting request at once, whoever made it
// available: the pool's worker (the first heaps after configuration), or a sibling producer of a
// shared pool. Only a slice that ran out logs a retry; the check runs up to five times, so that a
// machine too loaded to hand a heap over within a slice cannot fail it, while a missing wake-up
// fails every time.
TEST_F(ProducerTest, AHeapMadeByTheWorkerOrGivenBackByASiblingWakesAWaitingRequest) {
    host::setProperty("vendor.debug.camera.log.pipeline.fbm.producer", 1);
    host::setProperty("vendor.debug.camera.log.pipeline.fbm.pool", 1);
    auto runWithoutRetry = [&](auto&& scenario) {
        for (int attempt = 0; attempt < 5; ++attempt) {
            host::LogCapture::clear();
            scenario();
            if (androidCount("every 10ms") == 0) return true;
        }
        return false;
    };

    EXPECT_TRUE(runWithoutRetry([&] {  // the worker is still making the pool's one heap
        std::latch allocate(1);
        HeapAllocator slow = [&] {
            allocate.wait();
            return mAllocator();
        };
        auto producer = std::make_shared<BufferProducer>("slow", mInfo, callback(), nullptr);
        OnNthEmptyTry trigger("preview", 2, [&] { allocate.count_down(); });
        ASSERT_EQ(producer->initProducer(1, 0, HeapAllocator(slow)), 0);
        SbPtr sb;
        ASSERT_EQ(producer->acquireFromPool("x", sb, kLong), 0);
        sb->releaseToOwner();
    }));

    auto siblingInfo = imageInfo({.id = 0x11, .name = "sibling", .max = 4, .min = 2});
    EXPECT_TRUE(runWithoutRetry([&] {  // the one heap is out through the sibling
        auto first = makeProducer(1);
        auto sibling = std::make_shared<BufferProducer>("preview-pool", siblingInfo, callback(), first);
        ASSERT_EQ(sibling->initProducer(1, 0, HeapAllocator(mAllocator)), 0);
        SbPtr held, sb;
        ASSERT_EQ(sibling->acquireFromPool("x", held, kLong), 0);
        {
            OnNthEmptyTry trigger("preview", 2, [&] { held->releaseToOwner(); });
            ASSERT_EQ(first->acquireFromPool("x", sb, kLong), 0);
        }
        sb->releaseToOwner();
    }));
}

TEST_F(ProducerTest, ATimeOfDayStepDoesNotEndAWait) {
    auto producer = makeProducer(1);
    SbPtr held;
    ASSERT_EQ(producer->acquireFromPool("x", held, kLong), 0);
    onCallback([&] {
        // First pass: the wait has started; the time of day jumps an hour ahead. Second pass: a
        // slice has run out and the time-out was checked again; the heap comes back.
        if (calls().size() == 1) host::stepWallClock(std::chrono::hours(1));
        if (calls().size() == 2) held->releaseToOwner();
    });
    SbPtr sb;
    EXPECT_EQ(producer->acquireFromPool("x", sb, kLong), 0);
    EXPECT_EQ(androidCount("cannot acquire from pool after timeout"), 0u);
    if (sb) sb->releaseToOwner();
}

TEST_F(ProducerTest, CallbackLogFlagEveryTenthRetryAfterThirty) {
    auto producer = makeProducer(1);
    SbPtr held;
    ASSERT_EQ(producer->acquireFromPool("x", held, kLong), 0);
    onCallback([&] {
        if (calls().size() == 41) held->releaseToOwner();  // let the 41st call end the wait
    });
    SbPtr sb;
    ASSERT_EQ(producer->acquireFromPool("x", sb, kLong), 0);
    auto c = calls();
    ASSERT_EQ(c.size(), 41u);
    for (size_t i = 0; i < c.size(); ++i) {
        int const retry = static_cast<int>(i) + 1;  // every wait ran out
        EXPECT_EQ(c[i].logFlag, retry == 40) << retry;
    }
    sb->releaseToOwner();
}

TEST_F(ProducerTest, PendingDecreaseAsksForMoreAndStillTakesAHeap) {
    auto producer = makeProducer(4);
    std::vector<SbPtr> held(4);
    for (auto& sb : held) ASSERT_EQ(producer->acquireFromPool("x", sb, kLong), 0);
    int32_t two = 2;
    ASSERT_EQ(producer->setMaxBufferCount(two), 0);  // 4 made, 2 wanted: a decrease of 2 pending
    onCallback([&] {
        // The manager releases three kept buffers: two go to the shrinking worker, one to us.
        for (int i = 0; i < 3; ++i) {
            if (held.back()) held.back()->releaseToOwner();
            held.pop_back();
        }
    });
    SbPtr sb;
    ASSERT_EQ(producer->acquireFromPool("x", sb, kLong), 0);
    auto c = calls();
    ASSERT_GE(c.size(), 1u);
    EXPECT_EQ(c[0].count, 3);  // needRelease 2, plus one
    EXPECT_FALSE(c[0].logFlag);
    EXPECT_EQ(androidCount("needReleaseBufferNumber(2)"), 1u);
    sb->releaseToOwner();
    held[0]->releaseToOwner();
    EXPECT_TRUE(waitHeaps([](int64_t, int64_t alive) { return alive == 2; }));
}

TEST_F(ProducerTest, SharedHeapGoesBackAfterTheLastBufferInAnyOrder) {
    host::setProperty("vendor.debug.camera.log.pipeline.fbm.producer", 3);
    auto producer = makeProducer(1);
    for (auto order : {std::array<int, 3>{0, 1, 2}, {2, 0, 1}, {1, 2, 0}}) {
        std::array<SbPtr, 3> sbs;
        ASSERT_EQ(producer->acquireFromPool("x", sbs[0], kLong), 0);
        sbs[1] = producer->shareSB(sbs[0]);
        sbs[2] = producer->shareSB(sbs[1]);  // sharing a shared one
        ASSERT_TRUE(sbs[1] && sbs[2]);
        EXPECT_NE(sbs[1], sbs[0]);
        EXPECT_EQ(sbs[2]->imageBufferHeap(), sbs[0]->imageBufferHeap());
        EXPECT_EQ(sbs[1]->streamInfoOf().get(), mInfo.get());
        sbs[order[0]]->releaseToOwner();
        sbs[order[1]]->releaseToOwner();
        EXPECT_FALSE(heapAvailable());
        sbs[order[2]]->releaseToOwner();
        EXPECT_TRUE(heapAvailable());
    }
    EXPECT_EQ(androidCount("(ref_cnt:3)"), 3u);  // one per second share
    // Level 3 dumps the producer after every acquire, share and release: 1 + 2 + 3 per order.
    EXPECT_EQ(androidCount("dump current in-use heaps and stream buffers"), 18u);
    EXPECT_EQ(androidCount("[dump] Producer("), 18u);
    // Level 2 logs each buffer and dumps nothing.
    host::setProperty("vendor.debug.camera.log.pipeline.fbm.producer", 2);
    host::LogCapture::clear();
    auto quieter = makeProducer(1);
    SbPtr sb;
    ASSERT_EQ(quieter->acquireFromPool("x", sb, kLong), 0);
    quieter->shareSB(sb)->releaseToOwner();
    sb->releaseToOwner();
    EXPECT_EQ(androidCount("(ref_cnt:"), 4u);
    EXPECT_EQ(androidCount("[dump] Producer("), 0u);
}

TEST_F(ProducerTest, SharingAForeignOrReleasedBufferGivesNothing) {
    auto producer = makeProducer(1);
    auto other = makeProducer(1);
    SbPtr mine, theirs;
    ASSERT_EQ(producer->acquireFromPool("x", mine, kLong), 0);
    ASSERT_EQ(other->acquireFromPool("x", theirs, kLong), 0);
    EXPECT_FALSE(producer->shareSB(theirs));
    mine->releaseToOwner();
    EXPECT_FALSE(producer->shareSB(mine));
    EXPECT_EQ(androidCount(":preview) not in here. (shareSB){#"), 2u);
    theirs->releaseToOwner();
}

TEST_F(ProducerTest, DumpListsEachHeapInUseWithItsBuffersInAddressOrder) {
    auto producer = makeProducer(1);
    SbPtr sb;
    ASSERT_EQ(producer->acquireFromPool("x", sb, kLong), 0);
    SbPtr const shared = producer->shareSB(sb);
    ASSERT_TRUE(shared);
    producer->dump();
    std::ostringstream out;
    out << "InUse(Heap#1){Sb#2}: (" << static_cast<void*>(sb->imageBufferHeap().get()) << "){"
        << static_cast<void*>(std::min(sb.get(), shared.get())) << "."
        << static_cast<void*>(std::max(sb.get(), shared.get())) << ".}#2; ";
    EXPECT_EQ(androidCount(out.str()), 1u);
    sb->releaseToOwner();
    shared->releaseToOwner();
}

TEST_F(ProducerTest, InitialisedOnceAndNeedsAnAllocatorOrAPool) {
    auto producer = makeProducer(2);
    int64_t const created = host::HeapFactory::created();
    EXPECT_EQ(producer->initProducer(5, 1, HeapAllocator(mAllocator)), 0);
    EXPECT_EQ(androidCount("[initProducer] Producer("), 1u);
    EXPECT_EQ(androidCount(" Pool(preview-pool): already inited"), 1u);
    EXPECT_EQ(host::HeapFactory::created(), created);

    auto bare = std::make_shared<BufferProducer>("bare", mInfo, callback(), nullptr);
    SbPtr sb;
    EXPECT_EQ(bare->acquireFromPool("x", sb, 0), -EINVAL);
    EXPECT_EQ(androidCount(" Pool(bare): Pool is null"), 1u);
    EXPECT_EQ(bare->initProducer(2, 1, HeapAllocator()), -EINVAL);
    EXPECT_EQ(androidCount(" Pool(bare): cannot get allocator"), 1u);
    int32_t max = -7;
    EXPECT_EQ(bare->getMaxBuffer(max), 0);
    EXPECT_EQ(max, -7);  // untouched without a heap pool
    EXPECT_EQ(bare->initPool("x", 1, 1), -1);
    EXPECT_EQ(bare->commitPool("x"), -1);
}

TEST_F(ProducerTest, SharedProducerSharesTheHeapPool) {
    auto first = makeProducer(2);
    auto second = std::make_shared<BufferProducer>("preview-pool", imageInfo({.id = 0x11, .name = "second"}),
                                                   callback(), first);
    EXPECT_EQ(second->initProducer(2, 0, HeapAllocator()), 0);  // no allocator needed
    SbPtr a, b, none;
    ASSERT_EQ(first->acquireFromPool("x", a, kLong), 0);
    ASSERT_EQ(second->acquireFromPool("x", b, kLong), 0);
    EXPECT_EQ(second->acquireFromPool("x", none, 0), -EBUSY);
    EXPECT_EQ(b->streamInfoOf()->streamId(), 0x11);
    a->releaseToOwner();
    b->releaseToOwner();
}

TEST_F(ProducerTest, BufferNotMadeGivesTheHeapBack) {
    auto producer = makeProducer(1);
    host::StreamBufferFactory::failNextImage(1);
    SbPtr sb;
    EXPECT_EQ(producer->acquireFromPool("x", sb, kLong), -ENOMEM);
    EXPECT_FALSE(sb);
    EXPECT_EQ(androidCount("cannot new HalImageStreamBuffer. Something wrong..."), 1u);
    EXPECT_TRUE(heapAvailable());
    ASSERT_EQ(producer->acquireFromPool("x", sb, 0), 0);  // the one heap serves the next request
    sb->releaseToOwner();
}

// A release of a buffer never handed out (here to a producer that has handed out none yet), or two
// owners of one heap, stop the process.
TEST_F(ProducerTest, TrackingFaultsAreFatal) {
    auto producer = makeProducer(2);
    auto stranger = Utils::makeHalImageStreamBuffer({mInfo, mAllocator(), nullptr, nullptr});
    EXPECT_DEATH(producer->releaseToPool("x", stranger),
                 "\\[releaseToPool:line-[0-9]+\\] Producer\\(0x[0-9a-f]+ 0x10 preview\\) "
                 "Pool\\(preview-pool\\): SB\\(0x[0-9a-f]+\\) not found!");
    SbPtr sb, again;
    ASSERT_EQ(producer->acquireFromPool("x", sb, kLong), 0);
    host::StreamBufferFactory::handOutAgain(sb);  // a platform that hands out a buffer twice
    EXPECT_DEATH(producer->acquireFromPool("x", again, kLong),
                 "SB\\(0x[0-9a-f]+\\) already exist, leak happend\\.\\.\\. Heap\\(0x[0-9a-f]+\\)");
    sb->releaseToOwner();
}

}  // namespace
}  // namespace fbmtest
