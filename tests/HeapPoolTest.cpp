#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <latch>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <vexlor/Clock.h>

#include "BufferHeapPool.h"
#include "TestSupport.h"

namespace fbmtest {
namespace {

using HeapPtr = std::shared_ptr<nivo::IImageBufferHeap>;

class HeapPoolTest : public PlatformTest {
protected:
    void SetUp() override {
        PlatformTest::SetUp();
        host::setULogSwitches(5, 0x207000, 1);
        mAllocator = [] {
            return nivo::IImageBufferHeapFactory::create("fbm", "heap", {}, false);
        };
    }
    // A pool, and with `filled` its first `filled` heaps made (as many as its maximum and minimum).
    std::unique_ptr<BufferHeapPool> makePool(char const* name = "pool", int32_t filled = 0) {
        auto pool = std::make_unique<BufferHeapPool>(name, mAllocator);
        EXPECT_TRUE(filled == 0 || (pool->allocateBuffers("s", 1, filled, filled) == 0 && settled(*pool, filled)));
        return pool;
    }
    // Waits until the pool holds `n` heaps and the factory agrees.
    static bool settled(BufferHeapPool& pool, int32_t n) {
        return waitHeaps([&](int64_t, int64_t alive) {
            int32_t allocated = 0;
            pool.getAllocatedBuffer(allocated);
            return allocated == n && alive == n;
        });
    }
    // A number of the pool's dump line, such as available(#N) or future(#N). The worker may
    // still be logging its own lines, so the dump line is looked for, not taken as the last.
    static int dumpedCount(BufferHeapPool& pool, std::string const& field) {
        host::LogCapture::clear();
        pool.dumpPool();
        for (auto const& line : host::LogCapture::androidLines()) {
            if (line.text.find("] Pool(") == std::string::npos) continue;
            auto const at = line.text.find(field + "(#");
            if (at != std::string::npos) return std::atoi(line.text.c_str() + at + field.size() + 2);
        }
        return -1;
    }
    static int availableCount(BufferHeapPool& pool) { return dumpedCount(pool, "available"); }
    static int futureCount(BufferHeapPool& pool) { return dumpedCount(pool, "future"); }
    // A pool whose `n` heaps are all handed out: they come back through `out`.
    std::unique_ptr<BufferHeapPool> exhaustedPool(int32_t n, std::vector<HeapPtr>& out) {
        auto pool = makePool("pool", n);
        out.resize(n);
        for (auto& h : out) EXPECT_EQ(pool->acquireFromPool("c", h), 0);
        return pool;
    }
    HeapAllocator mAllocator;
};

TEST_F(HeapPoolTest, FirstTargetIsCapped) {
    struct Case {
        int64_t id;
        size_t max;
        int32_t target;
    };
    for (Case c : {Case{0x0001000000000005, 10, 4}, Case{0x0002000000000005, 10, 7},
                   Case{0x0101000000000005, 10, 4}, Case{5, 10, 7}, Case{0x0001000000000005, 2, 2},
                   Case{5, 2, 2}}) {
        auto pool = makePool();
        EXPECT_EQ(pool->allocateBuffers("s", c.id, c.max, 1), 0);
        int32_t max = -1;
        pool->getMaxBuffer(max);
        EXPECT_EQ(max, c.target) << std::hex << c.id;
        EXPECT_TRUE(settled(*pool, c.target));
    }
    EXPECT_EQ(androidCount("[allocateBuffers] [s] max(4) min(1)"), 2u);
}

TEST_F(HeapPoolTest, AllocateBuffersIsEffectiveOnce) {
    auto pool = makePool();
    EXPECT_EQ(pool->allocateBuffers("s", 1, 1, 3), -EINVAL);
    EXPECT_EQ(androidCount("[allocateBuffers] [s] min(3) > max(1) (allocateBuffers){#"), 1u);
    ASSERT_EQ(pool->allocateBuffers("s", 1, 3, 1), 0);
    ASSERT_TRUE(settled(*pool, 3));
    EXPECT_EQ(pool->allocateBuffers("s", 1, 6, 1), 0);
    EXPECT_EQ(androidCount("max(6) min(1)"), 1u);  // logged unchanged, nothing started
    int32_t max = 0;
    pool->getMaxBuffer(max);
    EXPECT_EQ(max, 3);
    EXPECT_EQ(futureCount(*pool), 1);
}

TEST_F(HeapPoolTest, HeapsComeOutInTheOrderTheyBecameAvailable) {
    auto pool = makePool();
    HeapPtr none;
    EXPECT_EQ(pool->acquireFromPool("c", none), -ETIMEDOUT);  // empty: at once
    EXPECT_EQ(none, nullptr);

    ASSERT_EQ(pool->allocateBuffers("s", 1, 3, 3), 0);
    ASSERT_TRUE(settled(*pool, 3));
    HeapPtr a, b, c;
    ASSERT_EQ(pool->acquireFromPool("c", a), 0);
    ASSERT_EQ(pool->acquireFromPool("c", b), 0);
    ASSERT_EQ(pool->acquireFromPool("c", c), 0);
    EXPECT_EQ(pool->acquireFromPool("c", none), -ETIMEDOUT);
    HeapPtr b2 = b, a2 = a;
    EXPECT_EQ(pool->releaseToPool("c", std::move(b2)), 0);
    EXPECT_EQ(pool->releaseToPool("c", std::move(a2)), 0);
    HeapPtr first, second;
    ASSERT_EQ(pool->acquireFromPool("c", first), 0);
    ASSERT_EQ(pool->acquireFromPool("c", second), 0);
    EXPECT_EQ(first, b);
    EXPECT_EQ(second, a);
}

TEST_F(HeapPoolTest, ReturningAnUnknownHeapOrTwiceIsRefused) {
    auto pool = makePool("pool", 1);
    HeapPtr stranger = nivo::IImageBufferHeapFactory::create("t", "t", {}, false);
    HeapPtr copy = stranger;
    EXPECT_EQ(pool->releaseToPool("c", std::move(copy)), -EINVAL);
    EXPECT_EQ(copy, stranger);  // the heap stays with the caller
    HeapPtr h;
    ASSERT_EQ(pool->acquireFromPool("c", h), 0);
    HeapPtr again = h;
    EXPECT_EQ(pool->releaseToPool("c", std::move(h)), 0);
    EXPECT_EQ(pool->releaseToPool("c", std::move(again)), -EINVAL);
    EXPECT_EQ(androidCount("[returnBufferToPool_l] [c] fail to return buffer. available(#1) inUse(#0)"),
              2u);
}

TEST_F(HeapPoolTest, LoweringTheMaximumShedsAvailableHeapsOldestFirst) {
    auto pool = makePool("pool", 7);
    std::vector<HeapPtr> inUse(3);
    for (auto& h : inUse) ASSERT_EQ(pool->acquireFromPool("c", h), 0);
    std::vector<nivo::IImageBufferHeap*> remaining;  // the 4th and later, in list order
    {
        std::vector<HeapPtr> probe(4);
        for (auto& h : probe) ASSERT_EQ(pool->acquireFromPool("c", h), 0);
        for (auto& h : probe) {
            remaining.push_back(h.get());
            ASSERT_EQ(pool->releaseToPool("c", std::move(h)), 0);
        }
    }
    int32_t five = 5;
    EXPECT_EQ(pool->updateMaxBuffer(five), 0);
    EXPECT_TRUE(pool->isPoolWaitForRelease());
    EXPECT_EQ(androidCount("current config max(#7), target config max(#5), current max(#7), need "
                           "decrease(#2)"),
              1u);
    ASSERT_TRUE(settled(*pool, 5));
    EXPECT_EQ(availableCount(*pool), 2);
    // The two that were available longest are gone: the rest come out in order.
    HeapPtr x, y;
    ASSERT_EQ(pool->acquireFromPool("c", x), 0);
    ASSERT_EQ(pool->acquireFromPool("c", y), 0);
    EXPECT_EQ(x.get(), remaining[2]);
    EXPECT_EQ(y.get(), remaining[3]);
}

TEST_F(HeapPoolTest, PendingDecreaseIsConsumedByTheFirstNeedReleaseQuestion) {
    host::setProperty("vendor.debug.camera.log.pipeline.fbm.pool", 1);  // each step has its line
    std::vector<HeapPtr> all;
    auto pool = exhaustedPool(7, all);
    EXPECT_EQ(androidCount("[getBufferFromPool_l] [c] available(#"), 7u);

    int32_t five = 5;
    pool->updateMaxBuffer(five);
    EXPECT_TRUE(pool->isPoolWaitForRelease());
    int32_t needRelease = 0;
    EXPECT_TRUE(pool->isPoolNeedRelease(needRelease));
    EXPECT_EQ(needRelease, 2);
    for (char const* text : {"[pool] set mNeedDecreaseMaxBuffer = 2",
                             "[isPoolWaitForRelease] [pool] mNeedDecreaseMaxBuffer = 2",
                             "[pool] reset mNeedDecreaseMaxBuffer = 2 -> 0"})
        EXPECT_EQ(androidCount(text), 1u) << text;
    EXPECT_FALSE(pool->isPoolWaitForRelease());
    needRelease = -1;
    EXPECT_TRUE(pool->isPoolNeedRelease(needRelease));  // nothing available
    EXPECT_EQ(needRelease, -1);                          // nothing asked: left as the caller set it

    pool->updateMaxBuffer(five);  // 7 made: pending again
    int32_t seven = 7;            // as many as made, or more, leaves it as it is
    pool->updateMaxBuffer(seven);
    EXPECT_TRUE(pool->isPoolWaitForRelease());
    int32_t nine = 9;
    pool->updateMaxBuffer(nine);
    EXPECT_TRUE(pool->isPoolWaitForRelease());
    for (auto& h : all) ASSERT_EQ(pool->releaseToPool("c", std::move(h)), 0);
    EXPECT_EQ(androidCount("[returnBufferToPool_l] [c] successfully return buffer. available(#"), 7u);
    EXPECT_TRUE(settled(*pool, 9));

    // A decrease of one with heaps to spare still says room is needed, and asks for none back
    // (the worker may have shed one heap by then: eight are left either way).
    int32_t eight = 8;
    pool->updateMaxBuffer(eight);
    needRelease = 0;
    EXPECT_TRUE(pool->isPoolNeedRelease(needRelease));
    EXPECT_EQ(needRelease, 0);
}

TEST_F(HeapPoolTest, WorkerWaitsForInUseHeapsToComeBackBeforeFreeingThem) {
    host::setProperty("vendor.debug.camera.log.pipeline.fbm.pool", 1);  // a line per pass of the worker
    std::vector<HeapPtr> all;
    auto pool = exhaustedPool(7, all);
    host::LogCapture::clear();
    int32_t five = 5;
    pool->updateMaxBuffer(five);

    auto giveBack = [&](size_t i, int64_t aliveAfter) {
        nivo::IImageBufferHeap* raw = all[i].get();
        ASSERT_EQ(pool->releaseToPool("c", std::move(all[i])), 0);
        EXPECT_TRUE(waitHeaps([&](int64_t, int64_t alive) { return alive == aliveAfter; })) << raw;
    };
    EXPECT_EQ(host::HeapFactory::alive(), 7);
    giveBack(0, 6);  // freed by the waiting worker
    giveBack(1, 5);  // and the next one too
    giveBack(2, 5);  // now the pool is at its target: this one stays available
    // It sleeps between the changes it is woken for: a pass per change, never a spin, and no
    // heap made past the target.
    EXPECT_LE(androidCount("updateBufferCount: current max("), 8u) << host::LogCapture::androidLines().size();
    EXPECT_EQ(host::HeapFactory::created(), 7);
    EXPECT_EQ(availableCount(*pool), 1);
    for (size_t i = 3; i < all.size(); ++i) ASSERT_EQ(pool->releaseToPool("c", std::move(all[i])), 0);
}

TEST_F(HeapPoolTest, ASecondUpdateWakesTheSameWorker) {
    auto pool = makePool();
    ASSERT_EQ(pool->allocateBuffers("s", 1, 2, 1), 0);
    ASSERT_TRUE(settled(*pool, 2));
    EXPECT_EQ(pool->updateBufferCount(5), 0);
    ASSERT_TRUE(settled(*pool, 5));
    EXPECT_EQ(pool->updateBufferCount(1), 0);
    ASSERT_TRUE(settled(*pool, 1));
    EXPECT_EQ(androidCount("[updateBufferCount] notify existed updateBufferCount thread: pool(pool)"), 2u);
    EXPECT_EQ(androidCount("[operator()] updateBufferCount thread + : pool(pool)"), 1u);
    EXPECT_EQ(futureCount(*pool), 1);
    host::LogCapture::clear();
    EXPECT_EQ(pool->updateBufferCount(1), 0);  // the count it has: a pass, and no heap made
    ASSERT_TRUE(waitForLine("updateBufferCount: [pool] done (1)"));
    EXPECT_EQ(host::HeapFactory::created(), 5);
}

TEST_F(HeapPoolTest, FailingAllocatorIsRetriedAfterGrowingPausesUntilItSucceeds) {
    std::mutex m;
    std::vector<int64_t> triesNs;
    host::HeapFactory::setCreateHook([&] {
        std::lock_guard<std::mutex> lk(m);
        triesNs.push_back(NSCam::Utils::Clock::monotonicNs());
        if (triesNs.size() == 6) host::HeapFactory::failNext(0);  // the sixth try succeeds
    });
    host::HeapFactory::failNext(-1);
    auto pool = makePool("pool", 2);
    EXPECT_EQ(androidCount("[operator()] do_construct allocate buffer failed (operator()){#"), 5u);
    std::lock_guard<std::mutex> lk(m);
    ASSERT_EQ(triesNs.size(), 7u);
    for (size_t i = 1; i < 6; ++i) {  // pauses of at least 1, 2, 4, 8 and 16 ms
        EXPECT_GE(triesNs[i] - triesNs[i - 1], (1'000'000 << (i - 1))) << i;
    }
}

TEST_F(HeapPoolTest, ATargetRaisedAsTheWorkerGoesToShedIsHeld) {
    host::setProperty("vendor.debug.camera.log.pipeline.fbm.pool", 1);
    std::vector<HeapPtr> all;
    auto pool = exhaustedPool(3, all);
    ASSERT_TRUE(waitForLine("updateBufferCount: [pool] done (3)"));
    host::LogCapture::clear();
    // The worker stops once it has read the lowered target, before it waits for a heap to shed;
    // the target is raised then: no heap comes back to wake it, so it must see the raise itself.
    std::atomic<bool> fired{false};
    std::latch reached(1), raised(1);
    host::LogCapture::setLineHook([&](std::string const& line) {
        if (line.find("updateBufferCount: current max(3) target(1)") == std::string::npos || fired.exchange(true)) return;
        reached.count_down();
        raised.wait();
    });
    int32_t one = 1, three = 3;
    pool->updateMaxBuffer(one);
    reached.wait();
    pool->updateMaxBuffer(three);
    raised.count_down();
    EXPECT_TRUE(waitForLine("updateBufferCount: [pool] done (3)"));  // nothing shed
    for (auto& h : all) ASSERT_EQ(pool->releaseToPool("c", std::move(h)), 0);
    EXPECT_EQ(availableCount(*pool), 3);
    EXPECT_EQ(host::HeapFactory::created(), 3);
}

TEST_F(HeapPoolTest, DestructionStopsTheWorkerAndListsHeapsStillOut) {
    HeapPtr out1, out2;
    int64_t aliveAtLine = -1;  // the available heap is freed before the line is written
    host::LogCapture::setLineHook([&](std::string const& line) {
        if (line.find("not return to pool") != std::string::npos) aliveAtLine = host::HeapFactory::alive();
    });
    {
        auto pool = makePool("gone", 3);
        ASSERT_EQ(pool->acquireFromPool("c", out1), 0);
        ASSERT_EQ(pool->acquireFromPool("c", out2), 0);
        host::LogCapture::clear();
    }
    EXPECT_EQ(androidCount("[operator()] updateBufferCount thread - : pool(gone)"), 1u);
    std::ostringstream heaps;
    heaps << static_cast<void*>(out1.get()) << "; " << static_cast<void*>(out2.get()) << "; ";
    auto lines = host::LogCapture::androidLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines.back().text.find("inUse(#0) not return to pool. " + heaps.str()), std::string::npos)
        << lines.back().text;
    EXPECT_EQ(host::HeapFactory::alive(), 2);  // the available one was freed; ours live on
    EXPECT_EQ(aliveAtLine, 2);
    out1.reset();
    out2.reset();
    EXPECT_EQ(host::HeapFactory::alive(), 0);
}

// Whether its worker waits for a heap to come back or pauses before retrying a failing allocator,
// destroying a pool ends the worker at once.
TEST_F(HeapPoolTest, DestroyingAPoolEndsAWaitingOrRetryingWorker) {
    host::setProperty("vendor.debug.camera.log.pipeline.fbm.pool", 1);
    std::atomic<pid_t> workerTid{0};
    host::LogCapture::setLineHook([&](std::string const& line) {
        if (line.find("current max(1) target(0)") != std::string::npos)
            workerTid = static_cast<pid_t>(::syscall(SYS_gettid));
    });
    HeapPtr out;
    {
        Watchdog dog(std::chrono::seconds(20), [] { return "a pool's worker waiting for a heap outlived it"; });
        auto pool = makePool("pool", 1);
        ASSERT_EQ(pool->acquireFromPool("c", out), 0);
        pool->updateBufferCount(0);
        while (workerTid == 0 || !threadSleeps(workerTid)) std::this_thread::yield();  // waits for the heap
    }
    host::LogCapture::setLineHook(nullptr);
    host::HeapFactory::failNext(-1);
    {
        auto pool = makePool();
        ASSERT_EQ(pool->allocateBuffers("s", 1, 2, 2), 0);
        ASSERT_TRUE(waitForLine("do_construct allocate buffer failed"));
    }
    EXPECT_EQ(androidCount("updateBufferCount thread - "), 2u);
}

// The worker, done with a target, parks unless told to exit. A destructor that sets the exit
// flag and wakes nobody (the worker is not waiting yet) just before the worker parks must still
// end it: the worker reads the flag under the lock it parks with.
TEST_F(HeapPoolTest, DestroyingAPoolAsItsWorkerGoesToParkEndsIt) {
    auto pool = makePool();
    std::mutex m;
    std::condition_variable cv;
    bool held = false, go = false;
    host::LogCapture::setLineHook([&](std::string const& line) {
        if (line.find("updateBufferCount: [pool] done") == std::string::npos) return;
        std::unique_lock<std::mutex> lk(m);
        held = true;  // the worker stops here, on its way to park
        cv.notify_all();
        cv.wait(lk, [&] { return go; });
    });
    ASSERT_EQ(pool->allocateBuffers("s", 1, 1, 1), 0);
    {
        std::unique_lock<std::mutex> lk(m);
        ASSERT_TRUE(cv.wait_for(lk, std::chrono::seconds(10), [&] { return held; }));
    }
    std::atomic<pid_t> destroyerTid{0};
    std::thread destroyer([&] {
        destroyerTid = static_cast<pid_t>(::syscall(SYS_gettid));
        pool.reset();  // sets the flag, wakes nobody, then waits for the worker to end
    });
    {
        Watchdog dog(std::chrono::seconds(20), [] { return "the destroying thread never blocked"; });
        while (destroyerTid == 0 || !threadSleeps(destroyerTid)) std::this_thread::yield();
    }
    {
        std::lock_guard<std::mutex> lk(m);
        go = true;
    }
    cv.notify_all();
    {
        Watchdog dog(std::chrono::seconds(20), [] {
            return "DestroyingAPoolAsItsWorkerGoesToParkEndsIt: the pool's worker parked after its "
                   "destructor had set the exit flag; the destructor waits for it for ever";
        });
        destroyer.join();
    }
    host::LogCapture::setLineHook(nullptr);
    EXPECT_EQ(androidCount("updateBufferCount thread - "), 1u);
}

}  // namespace
}  // namespace fbmtest
