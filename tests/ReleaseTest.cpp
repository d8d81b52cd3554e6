// Ready-list release (a starving pool fed by history sets) and the state dump.
#include <condition_variable>
#include <latch>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

#include <cstdarg>
#include <future>
#include <mutex>
#include <set>

#include "FramePathSupport.h"

namespace fbmtest {
namespace {

class ReleaseTest : public FramePathTest {
protected:
    void SetUp() override {
        FramePathTest::SetUp();
        configure();
    }
    void roomForKeptFrames(int n) {
        ASSERT_EQ(mManager->updateBufferPoolMaxBufCount(kPreview, n), 0);
        ASSERT_TRUE(poolsFilled({{kPreview, n}}));
    }
};

TEST_F(ReleaseTest, StarvingPoolIsFedByTheOldestRecyclableSet) {
    host::setULogSwitches(2, 0, 1);
    keptFrame(1, 200);
    keptFrame(2, 100);  // older
    EXPECT_EQ(mManager->readyFrames(), (std::vector<uint32_t>{2, 1}));
    // Both heaps are kept: the request releases frame 2 and takes its heap, without waiting.
    auto [err, sb] = request(kPreview, 3);
    ASSERT_EQ(err, 0);
    EXPECT_EQ(mManager->readyFrames(), std::vector<uint32_t>{1});
    EXPECT_EQ(mManager->readyCounters()[kPreview], 1);
    EXPECT_EQ(androidCount("retry(#"), 0u);
    // The released set's buffer is gone, not kept by the list node saved for the next frames.
    EXPECT_EQ(host::StreamBufferFactory::imageAlive(), 2);  // the request's and frame 1's
    releaseEverythingAndCheck({&sb});
}

TEST_F(ReleaseTest, NonRecyclableSetsAreNeverReleasedToFeedAPool) {
    host::setULogSwitches(2, 0, 1);
    keptFrame(1, 100, kPreview, false);
    keptFrame(2, 200, kPreview, false);
    auto [err, sb] = request(kPreview, 3);
    EXPECT_EQ(err, -EBUSY);  // after the 200 ms acquire time-out
    EXPECT_FALSE(sb);
    EXPECT_EQ(mManager->readyFrames(), (std::vector<uint32_t>{1, 2}));
    EXPECT_GE(androidCount("[tryReleaseHistoryBufferSets] stream(0x1) getOneHistoryBufferSetLocked failed! "
                           "mReadyList(#2)"),
              1u);
    releaseEverythingAndCheck();
}

TEST_F(ReleaseTest, StarvingPoolSkipsOlderSetsItCannotUse) {
    host::setULogSwitches(2, 0, 1);
    roomForKeptFrames(3);
    keptFrame(1, 100, kPreview, false);  // oldest: not recyclable
    keptFrame(2, 150, kFullA);           // recyclable, but none of the pool's images
    keptFrame(3, 200, kPreview);
    auto [e1, a] = request(kPreview, 4);  // the third heap
    ASSERT_EQ(e1, 0);
    auto [e2, b] = request(kPreview, 5);  // starving: frame 3 is the one to release
    ASSERT_EQ(e2, 0);
    EXPECT_EQ(mManager->readyFrames(), (std::vector<uint32_t>{1, 2}));
    EXPECT_EQ(mManager->readyCounters()[kPreview], 1);
    releaseEverythingAndCheck({&a, &b});
}

TEST_F(ReleaseTest, CountRulesOfASingleStreamPool) {
    host::setULogSwitches(5, 0x207000, 1);
    roomForKeptFrames(8);
    for (uint32_t f = 1; f <= 8; ++f) keptFrame(f, 100 * f);
    host::LogCapture::clear();
    mManager->tryReleaseHistoryBufferSets(kPreview, 0, true);
    EXPECT_EQ(androidCount("[tryReleaseHistoryBufferSets] stream(0x1), bad try release count(0)"), 1u);
    mManager->tryReleaseHistoryBufferSets(kPreview, -2, true);
    EXPECT_EQ(mManager->readyFrames().size(), 8u);

    // Three sets released, oldest first; a batch of up to 4 still goes on to the failure step.
    mManager->tryReleaseHistoryBufferSets(kPreview, 3, true);
    EXPECT_EQ(mManager->readyFrames(), (std::vector<uint32_t>{4, 5, 6, 7, 8}));
    EXPECT_EQ(host::StreamBufferFactory::imageAlive(), 5);
    EXPECT_EQ(androidCount("stream(0x1), release bufferHeap count(3), release bufferSet count(3)"), 1u);
    EXPECT_EQ(androidCount("[tryReleaseHistoryBufferSets] stream(0x1): no {1 } in ReadyList"), 1u);
    EXPECT_GE(androidCount("InUse(Heap#"), 1u);  // the pools were dumped to the log

    // Five sets released and five asked for: returns early, no failure step.
    host::LogCapture::clear();
    mManager->tryReleaseHistoryBufferSets(kPreview, 5, true);
    EXPECT_TRUE(mManager->readyFrames().empty());
    EXPECT_EQ(androidCount("in ReadyList"), 0u);
    EXPECT_EQ(mManager->readyCounters()[kPreview], 0);
    releaseEverythingAndCheck();
}

TEST_F(ReleaseTest, ASetWithTwoImagesOfASharedPoolCountsForTwo) {
    int four = 4;
    ASSERT_EQ(mManager->updateBufferPoolMaxBufCount(kFullA, four), 0);
    ASSERT_TRUE(poolsFilled({{kFullA, 4}}));
    for (uint32_t f = 1; f <= 2; ++f) {
        track(f, {kFullA, kFullB});
        auto [e1, a] = request(kFullA, f);
        auto [e2, b] = request(kFullB, f);
        ASSERT_EQ(e1 | e2, 0);
        Result r{.timestamp = f, .images = {a, b}};
        returnResult(f, r);
        a->releaseToOwner();
        b->releaseToOwner();
    }
    EXPECT_EQ(mManager->readyCounters()[kFullA], 4);
    mManager->tryReleaseHistoryBufferSets(kFullB, 2, false);
    EXPECT_EQ(mManager->readyFrames(), std::vector<uint32_t>{2});
    EXPECT_EQ(mManager->readyCounters()[kFullA], 2);
    releaseEverythingAndCheck();
}

// Where kept metadata is destroyed: inline for up to 4 sets, on the worker above that.
class MetaDestroyWatch {
public:
    MetaDestroyWatch() {
        host::StreamBufferFactory::setMetaDestroyHook([this](char const*) {
            std::lock_guard<std::mutex> lk(mLock);
            mTids.push_back(static_cast<long>(syscall(SYS_gettid)));
            mCond.notify_all();
        });
    }
    ~MetaDestroyWatch() { host::StreamBufferFactory::setMetaDestroyHook(nullptr); }
    std::vector<long> waitFor(size_t n) {
        std::unique_lock<std::mutex> lk(mLock);
        mCond.wait_for(lk, std::chrono::seconds(10), [&] { return mTids.size() >= n; });
        return mTids;
    }

private:
    std::mutex mLock;
    std::condition_variable mCond;
    std::vector<long> mTids;
};

TEST_F(ReleaseTest, LargeBatchesHandTheirMetadataToTheWorker) {
    roomForKeptFrames(8);
    long const self = static_cast<long>(syscall(SYS_gettid));
    auto release = [&](int sets) {  // the threads the sets' metadata (two each) ended on
        MetaDestroyWatch watch;
        mManager->tryReleaseHistoryBufferSets(kPreview, sets, false);
        auto tids = watch.waitFor(2 * sets);
        EXPECT_EQ(tids.size(), 2u * sets);
        return tids;
    };
    for (uint32_t f = 1; f <= 4; ++f) keptFrame(f, f);
    for (long t : release(4)) EXPECT_EQ(t, self);
    for (uint32_t f = 1; f <= 5; ++f) keptFrame(10 + f, f);
    for (long t : release(5)) EXPECT_NE(t, self);
    releaseEverythingAndCheck();
}

TEST_F(ReleaseTest, ReleaseGoesAheadWhileASelectorHoldsTheSelectionLock) {
    host::setULogSwitches(2, 0, 1);
    std::latch selecting(1), released(1);
    std::thread selector([&] {
        auto sets = mManager->beginSelect();  // takes nothing: the list is empty
        selecting.count_down();
        released.wait();
        mManager->endSelect();
    });
    selecting.wait();
    keptFrame(1, 100);
    mManager->tryReleaseHistoryBufferSets(kPreview, 1, false);
    EXPECT_EQ(androidCount("[tryReleaseHistoryBufferSets] try_lock_for mInSelectLock timeout (10ms). Check "
                           "the critical section between beginSelect() and endSelect()"),
              1u);
    EXPECT_TRUE(mManager->readyFrames().empty());
    released.count_down();
    selector.join();
    releaseEverythingAndCheck();
}

TEST_F(ReleaseTest, DumpShowsTheFramesAndTheCounters) {
    keptFrame(1, 100);
    track(2, {kPreview}, {kHalMeta});
    host::StringPrinter printer;
    mManager->dumpState(printer);
    auto lines = printer.lines();
    auto at = [&](std::string const& heading) {
        return std::find(lines.begin(), lines.end(), heading) - lines.begin();
    };
    ASSERT_LT(at("<InFlightList>"), at("<ReadyList>"));
    EXPECT_LT(at("<image streams>"), at("<image buffer pool>"));
    EXPECT_EQ(lines[at("<InFlightList>") + 1], "    [R1002 F2]TS:0 #2 left {} {} {}");
    EXPECT_EQ(lines[at("<ReadyList>") + 1], "    [R1001 F1]TS:100 { (0x1) } { (0x100) } { (0x101) }");
    EXPECT_EQ(lines[at("<ReadyList>") + 2], "mReadyStreamCounters: 1(1) ");
    EXPECT_TRUE(printer.contains("    [IMAGE-HAL-POOL    ]0x1:preview 640x480"));
    EXPECT_TRUE(printer.contains("    ( 2 3 )"));
    releaseEverythingAndCheck();
}

// A printer that is a pipe to a slow reader: it holds each heading line until let go.
class BlockingPrinter : public NSCam::IPrinter {
public:
    void printLine(char const* line) override {
        std::unique_lock<std::mutex> lk(mLock);
        mLines.emplace_back(line);
        mCond.notify_all();
        if (line[0] == '<') mCond.wait(lk, [&] { return mLetGo.count(line) != 0; });
    }
    void printFormatLine(char const* format, ...) override {
        char buf[1024];
        va_list args;
        va_start(args, format);
        std::vsnprintf(buf, sizeof buf, format, args);
        va_end(args);
        printLine(buf);
    }
    bool heldAt(std::string const& heading) {
        std::unique_lock<std::mutex> lk(mLock);
        return mCond.wait_for(lk, std::chrono::seconds(10), [&] { return !mLines.empty() && mLines.back() == heading; });
    }
    void letGo(std::string const& heading) {
        std::lock_guard<std::mutex> lk(mLock);
        mLetGo.insert(heading);
        mCond.notify_all();
    }
    std::vector<std::string> lines() {
        std::lock_guard<std::mutex> lk(mLock);
        return mLines;
    }

private:
    std::mutex mLock;
    std::condition_variable mCond;
    std::set<std::string> mLetGo;
    std::vector<std::string> mLines;
};

TEST_F(ReleaseTest, FramesFlowWhileADumpWaitsOnItsPrinter) {
    keptFrame(1, 100);
    track(2, {kPreview}, {kHalMeta});
    BlockingPrinter printer;
    std::thread dumper([&] { mManager->dumpBufferState(printer); });
    auto withinTenSeconds = [](auto&& work) {
        return std::async(std::launch::async, work).wait_for(std::chrono::seconds(10)) ==
               std::future_status::ready;
    };
    ASSERT_TRUE(printer.heldAt("<InFlightList>"));
    EXPECT_TRUE(withinTenSeconds([&] {
        keptFrame(3, 300);
        Result r;
        r.destroyed = true;
        returnResult(2, r);
    }));
    printer.letGo("<InFlightList>");
    ASSERT_TRUE(printer.heldAt("<ReadyList>"));
    EXPECT_TRUE(withinTenSeconds([&] {
        keptFrame(4, 400, kFullA);
        auto sets = mManager->beginSelect();
        EXPECT_EQ(sets.size(), 3u);
        for (auto& set : sets) mManager->returnUnselectedSet({set, true});
        mManager->endSelect();
    }));
    printer.letGo("<ReadyList>");
    dumper.join();
    auto const lines = printer.lines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[1], "    [R1002 F2]TS:0 #2 left {} {} {}");  // the list as the dump found it
    EXPECT_EQ(lines[2], "<ReadyList>");
    releaseEverythingAndCheck();
}

TEST_F(ReleaseTest, DumpGivesUpOnABusyLockAndGoesOn) {
    keptFrame(1, 100);
    std::latch held(1), done(1);
    std::thread holder([&] {
        mManager->mInFlightLock.lock();
        held.count_down();
        done.wait();
        mManager->mInFlightLock.unlock();
    });
    held.wait();
    host::StringPrinter printer;
    mManager->dumpBufferState(printer);  // waits its 500 ms for the in-flight list, no longer
    done.count_down();
    holder.join();
    auto lines = printer.lines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0], "Timeout waiting for mInFlightLock");
    EXPECT_EQ(lines[1], "<ReadyList>");
    releaseEverythingAndCheck();
}

}  // namespace
}  // namespace fbmtest
