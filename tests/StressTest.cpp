// Everything at once: requesters on every kind of stream, result returners, a selector, a dumper
// through the debuggee registry and pool control, with pools that starve and are fed by the
// release path. Bounded in frames and time; a watchdog turns a deadlock into a failure that shows
// the state dump. At the end nothing may be lost and the ready counters must agree with the list.
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <latch>
#include <random>
#include <thread>

#include "FramePathSupport.h"

namespace fbmtest {
namespace {

class NullPrinter : public NSCam::IPrinter {
public:
    void printLine(char const*) override { ++lines; }
    void printFormatLine(char const*, ...) override { ++lines; }
    std::atomic<uint64_t> lines{0};
};

class StressTest : public FramePathTest {
protected:
    void SetUp() override {
        FramePathTest::SetUp();
        host::setProperty("vendor.debug.camera.pipeline.fbm.acquire.timeout", 50);
        // preview: 2 heaps; the shared full-size pool: 3; both starve
        // Only the manager's own requests for heaps are kept, to count them.
        host::setULogSwitches(5, 0x207000, 8);
        host::setProperty("vendor.debug.camera.log.pipeline.fbm", 2);
        remakeManager("stress");
        configure();
    }
    void TearDown() override {
        host::LogCapture::setCapturing(true);
        FramePathTest::TearDown();
    }

    void requester(uint64_t seed);
    void resulter();
    void selector(uint64_t seed);
    bool running() const { return !mStop.load(); }

    uint32_t const kFrames = std::getenv("FBM_STRESS_FRAMES") ? std::atoi(std::getenv("FBM_STRESS_FRAMES")) : 4000;
    std::atomic<uint32_t> mNextFrame{1};
    std::atomic<bool> mStop{false};
    std::atomic<bool> mDeferredOn{false};
    std::atomic<uint64_t> mRequests{0}, mTimeouts{0}, mResults{0}, mSelections{0}, mClones{0},
        mDumps{0}, mPoolOps{0};
    std::mutex mQueueLock;
    std::condition_variable mQueueCond;
    std::deque<std::pair<uint32_t, Result>> mQueue;  // frame number, result batch
    int mRequestersLeft = 0;
};

void StressTest::requester(uint64_t seed) {
    std::mt19937_64 rng(seed);
    for (uint32_t f = mNextFrame++; f <= kFrames && running(); f = mNextFrame++) {
        std::vector<StreamId_T> streams{kPreview, kFullA, kFullB, kRuntime, kHalProv, kJpeg};
        if (mDeferredOn) streams.push_back(kDeferred);
        std::set<StreamId_T> kept;
        for (StreamId_T id : {kPreview, kFullA, kFullB, kDeferred}) {
            if (std::count(streams.begin(), streams.end(), id) && rng() % 2) kept.insert(id);
        }
        bool const recyclable = rng() % 8 != 0;
        track(f, kept, {kHalMeta}, {kAppMeta}, recyclable);
        Result a, b;
        (rng() % 2 ? a : b).timestamp = rng() % 16 == 0 ? 0 : int64_t(f) * 1000 + int64_t(rng() % 3000);
        bool failedKept = false;
        for (StreamId_T id : streams) {
            auto [err, sb] = request(id, f);
            ++mRequests;
            if (err == -EBUSY) ++mTimeouts;
            if (!sb) {
                failedKept |= kept.count(id) != 0;
                continue;
            }
            Result& to = rng() % 2 ? a : b;
            to.images.push_back(sb);
            to.toRelease.push_back(sb);
        }
        (rng() % 2 ? a : b).halMeta.push_back(makeMeta(mHalMetaInfo, f));
        (rng() % 2 ? a : b).appMeta.push_back(makeMeta(mAppMetaInfo, f));
        b.destroyed = failedKept || rng() % 32 == 0;
        std::lock_guard<std::mutex> lk(mQueueLock);
        mQueue.emplace_back(f, std::move(a));
        mQueue.emplace_back(f, std::move(b));
        mQueueCond.notify_all();
    }
    std::lock_guard<std::mutex> lk(mQueueLock);
    --mRequestersLeft;
    mQueueCond.notify_all();
}

void StressTest::resulter() {
    for (;;) {
        std::pair<uint32_t, Result> batch;
        {
            std::unique_lock<std::mutex> lk(mQueueLock);
            mQueueCond.wait(lk, [&] { return !mQueue.empty() || mRequestersLeft == 0; });
            if (mQueue.empty()) return;
            batch = std::move(mQueue.front());
            mQueue.pop_front();
        }
        returnResult(batch.first, batch.second);
        ++mResults;
    }
}

void StressTest::selector(uint64_t seed) {
    std::mt19937_64 rng(seed);
    std::vector<IHistoryBufferProvider::HistoryBufferSet> held;
    while (running()) {
        auto sets = mManager->beginSelect();
        ++mSelections;
        for (auto& h : held) mManager->returnUnselectedSet({h, false});
        held.clear();
        for (auto& s : sets) {
            switch (rng() % 4) {
                case 0: held.push_back(std::move(s)); break;
                case 1: mManager->returnUnselectedSet({s, false}); break;
                default: mManager->returnUnselectedSet({s, true}); break;
            }
        }
        if (!held.empty() && rng() % 3 == 0) {
            held.push_back(mManager->cloneHBS(held.front()));
            ++mClones;
        }
        mManager->endSelect();
        std::this_thread::yield();
    }
    auto sets = mManager->beginSelect();
    for (auto& h : held) mManager->returnUnselectedSet({h, false});
    for (auto& s : sets) mManager->returnUnselectedSet({s, true});
    mManager->endSelect();
}

TEST_F(StressTest, ConcurrentFramesSelectionDumpsAndPoolControlLoseNothing) {
    auto watchdog = std::make_unique<Watchdog>(std::chrono::seconds(120), [&] {
        host::StringPrinter printer;  // the dump only tries the frame locks: it cannot hang here
        mManager->dumpState(printer);
        return "stress: no progress for 120 s, state dump:\n" + printer.text();
    });

    mRequestersLeft = 2;
    std::vector<std::thread> threads;
    for (uint64_t i = 0; i < 2; ++i) threads.emplace_back([this, i] { requester(100 + i); });
    std::vector<std::thread> resulters;
    for (int i = 0; i < 2; ++i) resulters.emplace_back([this] { resulter(); });
    threads.emplace_back([this] { selector(7); });
    NullPrinter sink;
    threads.emplace_back([&] {  // the registry's thread
        std::mutex m;
        std::unique_lock<std::mutex> lk(m);
        while (running()) {
            host::DebuggeeRegistry::debugAll(&sink);
            mManager->peekInflightsReqNo();
            ++mDumps;
            std::condition_variable().wait_for(lk, std::chrono::milliseconds(2));  // pacing only
        }
    });
    threads.emplace_back([&] {  // pool control
        std::mt19937_64 rng(11);
        std::mutex m;
        std::unique_lock<std::mutex> lk(m);
        while (running()) {
            int max = 3 + static_cast<int>(rng() % 3);
            mManager->updateBufferPoolMaxBufCount(kFullA, max);
            int got = 0, allocated = 0;
            mManager->getBufferPoolMaxBufCount(kFullB, got, allocated);
            if (!mDeferredOn && mNextFrame > kFrames / 4) {
                mManager->triggerBufferPool(kDeferred);
                mDeferredOn = true;
            }
            ++mPoolOps;
            std::condition_variable().wait_for(lk, std::chrono::milliseconds(3));  // pacing only
        }
    });

    threads[0].join();
    threads[1].join();
    for (auto& t : resulters) t.join();
    mStop = true;
    for (size_t i = 2; i < threads.size(); ++i) threads[i].join();
    watchdog.reset();

    EXPECT_TRUE(mManager->peekInflights().empty());
    {   // the per-pool counters agree with the ready list, in one snapshot
        auto const state = mManager->takeState();
        std::map<StreamId_T, int32_t> expected;
        for (auto const& set : state.ready)
            for (StreamId_T id : set.halImage) ++expected[*mManager->getPoolStreams(id).begin()];
        for (auto const& [key, n] : state.readyCounters) EXPECT_EQ(n, expected[key]) << "pool " << key;
    }
    std::cout << "stress: " << kFrames << " frames, " << mRequests << " requests (" << mTimeouts
              << " timed out), " << mResults << " result batches, " << mSelections << " selections, "
              << mClones << " clones, " << mDumps << " dumps, " << mPoolOps << " pool operations\n";
    RecordProperty("requests", static_cast<int>(mRequests));
    size_t const feeds = ulogCount("try release count(");
    std::cout << "stress: " << feeds << " requests for heaps from starving pools\n";
    EXPECT_GT(feeds, 0u);
    host::LogCapture::clear();
    releaseEverythingAndCheck();
    mProcessor.reset();
    mProvider.reset();
    mManager.reset();
    EXPECT_TRUE(waitHeaps([](int64_t, int64_t alive) { return alive == 0; }));
}

// The members of a deferred sharing group triggered from as many threads at once, or the first
// member's trigger racing pool control and a dump: the group's one heap pool is sized once, never
// holds more heaps than the group's maximum (3), and the manager's destruction ends.
TEST_F(StressTest, DeferredGroupTriggeredFromManyThreadsIsSizedOnce) {
    TearDown();  // this test makes a manager per round
    host::LogCapture::setCapturing(false);
    host::setULogSwitches(3, 0x207000, 1);  // dumps on: they read what the sizing writes
    int round = 0;
    auto watchdog = std::make_unique<Watchdog>(std::chrono::seconds(120), [&] {
        return "deferred group: round " + std::to_string(round) + " hung";
    });
    for (; round < 60; ++round) {
        bool const withControl = round % 4 >= 2;
        IFrameBufferManager::ConfigureStreams cfg;
        cfg.sharedGroups = std::make_shared<std::vector<std::set<StreamId_T>>>(1);
        for (StreamId_T id = 0x40; id < (round % 2 ? 0x42u : 0x43u); ++id) {
            auto info = imageInfo({.id = id, .name = "m", .max = id == 0x41 ? 2u : 3u, .min = 1, .deferred = true});
            cfg.imageStreams.push_back({info, eHAL_IMAGE_POOL, nullptr});
            cfg.sharedGroups->front().insert(id);
        }
        auto manager = makeManager("deferred-group");
        manager->beginConfigure();
        ASSERT_EQ(manager->configureStreams(cfg), 0);
        manager->endConfigure();
        host::HeapFactory::reset();
        std::vector<std::function<void()>> jobs;
        for (StreamId_T id : cfg.sharedGroups->front()) {
            if (!withControl || id == 0x40) jobs.push_back([&manager, id] { EXPECT_EQ(manager->triggerBufferPool(id), 0); });
        }
        if (withControl) {
            jobs.push_back([&manager] {
                int two = 2;
                manager->updateBufferPoolMaxBufCount(0x40, two);
            });
            jobs.push_back([&manager] {
                NullPrinter printer;
                manager->dumpBufferPools(printer);
            });
        }
        std::latch start(static_cast<ptrdiff_t>(jobs.size()));
        std::vector<std::thread> threads;
        for (auto& job : jobs) threads.emplace_back([&start, &job] { start.arrive_and_wait(), job(); });
        for (auto& t : threads) t.join();
        for (StreamId_T id : cfg.sharedGroups->front()) EXPECT_EQ(manager->triggerBufferPool(id), 0);
        // Settled: every member reads one pool, holding as many heaps as its target.
        int max = -1, allocated = -1;
        ASSERT_TRUE(waitHeaps([&](int64_t, int64_t alive) {
            manager->getBufferPoolMaxBufCount(0x41, max, allocated);
            return max > 0 && allocated == max && alive == max;
        })) << "round " << round;
        EXPECT_LE(host::HeapFactory::created(), 3) << "round " << round << ": heaps made past the group's maximum";
        manager.reset();
        ASSERT_TRUE(waitHeaps([](int64_t, int64_t alive) { return alive == 0; })) << "round " << round;
    }
}

}  // namespace
}  // namespace fbmtest
