// Frame tracking, result return, kept buffers and selection.
#include <malloc.h>

#include <cstdlib>
#include <regex>

#include "FramePathSupport.h"

namespace fbmtest {
namespace {

class ResultsTest : public FramePathTest {
protected:
    void SetUp() override {
        FramePathTest::SetUp();
        configure();
    }
};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
extern "C" size_t __sanitizer_get_current_allocated_bytes();
size_t heapInUse() { return __sanitizer_get_current_allocated_bytes(); }
#else
size_t heapInUse() { return mallinfo2().uordblks; }
#endif

// A long steady flow through one pool, each frame kept and then released by a selector: the
// bookkeeping of heaps and buffers in use is reused, so the process's heap does not grow with it.
TEST_F(ResultsTest, ALongSteadyFlowKeepsMemoryFlat) {
    char const* scaled = std::getenv("FBM_STRESS_FRAMES");  // shorter under an emulator
    uint32_t const frames = scaled ? 25 * static_cast<uint32_t>(std::atoi(scaled)) : 100000;
    host::LogCapture::setCapturing(false);
    auto run = [&](uint32_t from, uint32_t to) {
        for (uint32_t f = from; f < to; ++f) {
            keptFrame(f, int64_t(f) * 10);
            auto sets = mManager->beginSelect();
            for (auto& set : sets) mManager->returnUnselectedSet({set, false});
            mManager->endSelect();
        }
    };
    run(1, 1001);  // every reusable record and node made
    size_t const before = heapInUse();
    run(1001, 1001 + frames);
    size_t const after = heapInUse();
    EXPECT_LT(after, before + 64 * 1024) << "heap in use grew from " << before << " to " << after
                                         << " bytes over " << frames << " frames";
    releaseEverythingAndCheck();
}

TEST_F(ResultsTest, KeptImageSharesTheHeapAndKeptMetadataIsACopy) {
    track(1, {kPreview}, {kHalMeta}, {kAppMeta});
    auto [err, sb] = request(kPreview, 1);
    ASSERT_EQ(err, 0);
    auto halMeta = makeMeta(mHalMetaInfo, 11);
    auto untracked = makeMeta(metaInfo(0x200, "other"), 0);
    Result r{.timestamp = 100,
             .images = {sb},
             .halMeta = {halMeta, untracked},
             .appMeta = {makeMeta(mAppMetaInfo, 12)}};
    returnResult(1, r);
    EXPECT_TRUE(r.images.empty());  // kept: moved out of the caller's list
    EXPECT_TRUE(r.halMeta.empty());
    EXPECT_TRUE(r.appMeta.empty());

    // The source changes after the call: the kept copy does not.
    auto* md = halMeta->tryWriteLockMeta("t");
    md->update(1, 99);
    halMeta->unlockMeta("t", md);
    // The pipeline lets its own buffer go: the kept one holds the heap.
    sb->releaseToOwner();

    auto sets = mManager->beginSelect();
    ASSERT_EQ(sets.size(), 1u);
    auto& set = sets.front();
    EXPECT_EQ(set.frameNo, 1u);
    EXPECT_EQ(set.requestNo, 1001u);
    EXPECT_EQ(set.timestamp, 100);
    EXPECT_TRUE(set.isRecyclable);
    ASSERT_EQ(set.halImage.size(), 1u);
    EXPECT_NE(set.halImage[0], sb);
    EXPECT_EQ(set.halImage[0]->imageBufferHeap(), sb->imageBufferHeap());
    ASSERT_EQ(set.halMeta.size(), 1u);
    EXPECT_NE(set.halMeta[0], halMeta);
    EXPECT_EQ(metaValue(set.halMeta[0]), 11);
    EXPECT_EQ(metaValue(set.appMeta[0]), 12);
    mManager->returnUnselectedSet({set, false});
    mManager->endSelect();
    sb.reset();
    releaseEverythingAndCheck();
}

// At the manager's level 2, each result is one line: what was kept (O) and let go (X), by name;
// a frame's other steps have a line each (the recyclable flag, a placeholder, an error line), and
// level 3 adds the selection and the frame's end.
TEST_F(ResultsTest, DebugLinesAtLevelsTwoAndThree) {
    for (int level : {2, 3}) {
        SCOPED_TRACE(level);
        host::setULogSwitches(5, 0x207000, 1);
        host::setProperty("vendor.debug.camera.log.pipeline.fbm", level);
        remakeManager("chatty");
        configure();
        host::LogCapture::clear();
        track(1, {kPreview}, {kHalMeta});
        auto [err, sb] = request(kPreview, 1);
        ASSERT_EQ(err, 0);
        Result r{.timestamp = 100, .images = {sb}, .toRelease = {sb}, .halMeta = {makeMeta(mHalMetaInfo, 1)},
                 .appMeta = {makeMeta(mAppMetaInfo, 1)}};  // appMeta not tracked: dropped
        sb.reset();
        returnResult(1, r);
        std::regex const line(R"(\[returnResult\] \[R1001 F1\]TS:100   preview#\d+\(O\)  halMeta#\d+\(O\)  preview#\d+\(X\)  appMeta#\d+\(X\)  => move to ReadyList)");
        size_t matched = 0;
        for (auto const& l : host::LogCapture::androidLines()) matched += std::regex_search(l.text, line);
        EXPECT_EQ(matched, 1u);
        auto sets = mManager->beginSelect();
        ASSERT_EQ(sets.size(), 1u);
        mManager->returnUnselectedSet({sets.front(), false});
        mManager->endSelect();
        mManager->tryReleaseHistoryBufferSets(kPreview, 1, false);
        mManager->enableFrameResultRecyclable(7, true);
        for (char const* text : {"] acquireFromPool (", "] track:", "] welcome back, ", "try release count(1) +",
                                 "[releaseOneBufferSet] release [R1001 F1]",
                                 "[enableFrameResultRecyclable] TODO - frameNo:7 forceToRecycle:1"})
            EXPECT_EQ(androidCount(text), 1u) << text;
        for (char const* text : {"erase frameNo=1 from mInFlightList", "in selection +",
                                 "try_lock_for mInSelectLock within timeout (10ms)"})
            EXPECT_EQ(androidCount(text), level == 3 ? 1u : 0u) << text;
        keptFrame(2, 0);
        EXPECT_EQ(androidCount(" => release bufferSet (TS: 0)"), 1u);  // no timestamp: never history
        releaseEverythingAndCheck();
    }
}

TEST_F(ResultsTest, FrameCompletesWhenTheLastTrackedBufferArrives) {
    track(1, {kPreview, kFullA}, {kHalMeta});
    auto [e1, a] = request(kPreview, 1);
    auto [e2, b] = request(kFullA, 1);
    ASSERT_EQ(e1 | e2, 0);
    Result first;
    first.timestamp = -5;  // never taken
    first.images = {a};
    returnResult(1, first);
    Result none;  // nothing tracked in it: only a timestamp
    none.timestamp = 300;
    returnResult(1, none);
    Result later;
    later.timestamp = 400;  // the first positive one stays
    later.images = {b};
    returnResult(1, later);
    EXPECT_EQ(mManager->peekInflights().size(), 1u);

    host::StringPrinter inflight;
    mManager->dumpBufferState(inflight);
    EXPECT_TRUE(inflight.contains("    [R1001 F1]TS:300 #1 left { (0x1)  (0x2) } {} {}"));

    Result last;
    last.halMeta = {makeMeta(mHalMetaInfo)};
    returnResult(1, last);
    EXPECT_TRUE(mManager->peekInflights().empty());
    auto sets = mManager->beginSelect();
    ASSERT_EQ(sets.size(), 1u);
    EXPECT_EQ(sets.front().timestamp, 300);
    for (auto& s : sets) mManager->returnUnselectedSet({s, true});
    mManager->endSelect();
    // One counter per pool: the shared group is counted under its smallest id.
    EXPECT_EQ(mManager->readyCounters(), (std::map<StreamId_T, int32_t>{{kPreview, 1}, {kFullA, 1}}));
    releaseEverythingAndCheck({&a, &b});
}

TEST_F(ResultsTest, ReadyListIsInTimestampOrderNewSetsBeforeEqualOnes) {
    int eight = 8;  // room for every kept image: nothing starves here
    ASSERT_EQ(mManager->updateBufferPoolMaxBufCount(kPreview, eight), 0);
    ASSERT_TRUE(poolsFilled({{kPreview, 8}}));
    keptFrame(1, 300);
    keptFrame(2, 100);
    keptFrame(3, 200);
    keptFrame(4, 200);  // in front of frame 3
    EXPECT_EQ(mManager->readyFrames(), (std::vector<uint32_t>{2, 4, 3, 1}));
    EXPECT_EQ(mManager->readyCounters()[kPreview], 4);
    releaseEverythingAndCheck();
}

// The manager reuses what it built for earlier frames: nothing of one frame shows in a later one,
// whether the earlier one was released for lack of a timestamp, selected, or fed to a pool.
TEST_F(ResultsTest, AFrameStartsCleanWhateverCameBeforeIt) {
    for (uint32_t f = 1; f <= 80; ++f) {  // more frames than sets are kept for reuse
        bool const recyclable = f % 5 != 0;
        bool const timestamped = f % 3 != 0;
        track(f, {kPreview}, {kHalMeta}, {}, recyclable);
        auto [err, sb] = request(kPreview, f);
        ASSERT_EQ(err, 0);
        Result r{.timestamp = timestamped ? 100 + f : 0, .images = {sb}, .halMeta = {makeMeta(mHalMetaInfo, f)}};
        returnResult(f, r);
        sb->releaseToOwner();
        sb.reset();

        auto sets = mManager->beginSelect();
        ASSERT_EQ(sets.size(), timestamped ? 1u : 0u) << "frame " << f;
        for (auto& set : sets) {
            EXPECT_EQ(set.frameNo, f);
            EXPECT_EQ(set.timestamp, 100 + f);
            EXPECT_EQ(set.isRecyclable, recyclable);
            EXPECT_EQ(set.halImage.size(), 1u);
            ASSERT_EQ(set.halMeta.size(), 1u);
            EXPECT_EQ(metaValue(set.halMeta[0]), f);
            EXPECT_TRUE(set.appMeta.empty());
            // Every other one goes back to the ready list, to be fed to the pool below.
            mManager->returnUnselectedSet({set, recyclable && f % 2 == 0});
        }
        mManager->endSelect();
        if (!mManager->readyFrames().empty()) mManager->tryReleaseHistoryBufferSets(kPreview, 1, false);
        EXPECT_TRUE(mManager->readyFrames().empty());
    }
    releaseEverythingAndCheck();
}

TEST_F(ResultsTest, DestroyedFrames) {
    host::setULogSwitches(2, 0, 1);
    // Destroyed with a buffer outstanding: released, never ready.
    track(1, {kPreview}, {kHalMeta});
    auto [err, sb] = request(kPreview, 1);
    ASSERT_EQ(err, 0);
    Result r{.timestamp = 100, .destroyed = true, .images = {sb}};
    returnResult(1, r);
    EXPECT_EQ(androidCount("[returnResult] [requestNo:1001 frameNo:1] isFrameDestroyed(1), but still have #1 left"),
              1u);
    EXPECT_TRUE(mManager->readyFrames().empty());
    // Destroyed with nothing outstanding and a timestamp: ready like any other.
    track(2, {}, {kHalMeta});
    Result done{.timestamp = 200, .destroyed = true, .halMeta = {makeMeta(mHalMetaInfo)}};
    returnResult(2, done);
    EXPECT_EQ(mManager->readyFrames(), std::vector<uint32_t>{2});
    releaseEverythingAndCheck({&sb});
}

TEST_F(ResultsTest, FrameWithoutTimestampIsReleasedAndOnlyTheUnrecyclableOneReported) {
    host::setULogSwitches(2, 0, 1);
    track(1, {}, {kHalMeta}, {}, true);
    track(2, {}, {kHalMeta}, {}, false);
    for (uint32_t f : {1u, 2u}) {
        Result r;
        r.halMeta = {makeMeta(mHalMetaInfo)};
        returnResult(f, r);
        // Only the second, not recyclable, is reported.
        EXPECT_EQ(androidCount("[returnResult] release un-recyclable frame! (due to error)"), f - 1);
    }
    EXPECT_TRUE(mManager->readyFrames().empty());
}

TEST_F(ResultsTest, UntrackedFrameReleasesWhatItGivesBackAndKeepsNothing) {
    int64_t const releases = host::StreamBufferFactory::releaseToOwnerCalls();
    auto [e1, keep] = request(kPreview, 9);
    auto [e2, drop] = request(kFullA, 9);
    ASSERT_EQ(e1 | e2, 0);
    Result r{.timestamp = 5, .images = {keep}, .toRelease = {drop, nullptr}, .halMeta = {makeMeta(mHalMetaInfo)}};
    drop.reset();
    returnResult(9, r);
    EXPECT_EQ(r.images.size(), 1u);  // offered images stay with the caller
    EXPECT_TRUE(r.toRelease.empty());
    EXPECT_TRUE(r.halMeta.empty());
    EXPECT_EQ(host::StreamBufferFactory::releaseToOwnerCalls(), releases + 1);
    EXPECT_TRUE(mManager->readyFrames().empty());
    r.images.clear();
    releaseEverythingAndCheck({&keep});
}

TEST_F(ResultsTest, NoStreamsToTrackAddsNothing) {
    EXPECT_EQ(mManager->trackFrameResult({1, 1, nullptr}), 0);
    track(2, {});
    EXPECT_TRUE(mManager->peekInflights().empty());
}

TEST_F(ResultsTest, SnapshotsReportTheOlderOfTwoSetsWithOneFrameNumber) {
    auto p1 = std::make_shared<TrackFrameResultParams>();
    p1->halMeta = {kHalMeta};
    auto p2 = std::make_shared<TrackFrameResultParams>(*p1);
    mManager->trackFrameResult({5, 50, p1});
    mManager->trackFrameResult({5, 51, p2});
    mManager->trackFrameResult({6, 60, p2});
    auto inflights = mManager->peekInflights();
    EXPECT_EQ(inflights.size(), 2u);
    EXPECT_EQ(inflights[5], p1);
    auto reqNos = mManager->peekInflightsReqNo();
    EXPECT_EQ(reqNos, (std::map<uint32_t, uint32_t>{{5, 50}, {6, 60}}));
}

TEST_F(ResultsTest, SelectionKeepsReleasesAndCounts) {
    keptFrame(1, 100);
    keptFrame(2, 200, kFullA);
    keptFrame(3, 300);
    auto sets = mManager->beginSelect();
    ASSERT_EQ(sets.size(), 3u);
    EXPECT_TRUE(mManager->readyFrames().empty());
    EXPECT_EQ(mManager->readyCounters(), (std::map<StreamId_T, int32_t>{{kPreview, 0}, {kFullA, 0}}));

    keptFrame(4, 200, kFullA);  // a frame completing during the selection joins the ready list
    auto it = sets.begin();
    auto& s1 = *it++;
    auto& s2 = *it++;
    auto& s3 = *it;
    mManager->returnUnselectedSet({s2, true});  // equal timestamp: behind frame 4
    EXPECT_TRUE(s2.halImage.empty());           // moved back to the manager
    mManager->returnUnselectedSet({s1, false});
    auto clone = mManager->cloneHBS(s3);
    mManager->endSelect();
    EXPECT_EQ(mManager->readyFrames(), (std::vector<uint32_t>{4, 2}));
    EXPECT_EQ(mManager->readyCounters(), (std::map<StreamId_T, int32_t>{{kPreview, 0}, {kFullA, 2}}));

    EXPECT_TRUE(clone.isRecyclable);
    EXPECT_EQ(clone.frameNo, 3u);
    ASSERT_EQ(clone.halImage.size(), 1u);
    EXPECT_NE(clone.halImage[0], s3.halImage[0]);
    EXPECT_EQ(clone.halImage[0]->imageBufferHeap(), s3.halImage[0]->imageBufferHeap());
    // Both metadata copied: buffers of their own.
    ASSERT_EQ(clone.halMeta.size(), 1u);
    ASSERT_EQ(clone.appMeta.size(), 1u);
    EXPECT_NE(clone.halMeta[0], s3.halMeta[0]);
    EXPECT_NE(clone.appMeta[0], s3.appMeta[0]);
    // The selector owns what it kept: it releases it.
    mManager->releaseOneBufferSet(s3);
    mManager->releaseOneBufferSet(clone);
    releaseEverythingAndCheck();
}

TEST_F(ResultsTest, CloneSkipsImagesOfStreamsWithoutAPool) {
    host::setULogSwitches(2, 0, 1);
    auto [err, runtime] = request(kRuntime, 1);
    ASSERT_EQ(err, 0);
    IHistoryBufferProvider::HistoryBufferSet source;
    source.frameNo = 1;
    source.isRecyclable = false;
    source.halImage = {runtime};
    auto clone = mManager->cloneHBS(source);
    EXPECT_TRUE(clone.isRecyclable);
    EXPECT_TRUE(clone.halImage.empty());
    EXPECT_EQ(androidCount("[addSharedImage] Fail to share image (0x4:runtime, attribute:[IMAGE-HAL-RUNTIME ]) "),
              1u);
    // Kept from a result, such an image is not shared either: no ready counter counts it.
    keptFrame(2, 200, kRuntime);
    for (auto const& [key, n] : mManager->readyCounters()) EXPECT_EQ(n, 0) << key;
}

TEST_F(ResultsTest, ACloneSharesEachImageAndCopiesEachMetadataInOrder) {
    auto [e1, a] = request(kPreview, 1);
    auto [e2, b] = request(kFullA, 1);
    ASSERT_EQ(e1 | e2, 0);
    IHistoryBufferProvider::HistoryBufferSet source;
    source.halImage = {a, b};
    source.halMeta = {makeMeta(mHalMetaInfo, 11), makeMeta(mHalMetaInfo, 12)};
    auto clone = mManager->cloneHBS(source);
    ASSERT_EQ(clone.halImage.size(), 2u);
    EXPECT_EQ(clone.halImage[0]->imageBufferHeap(), a->imageBufferHeap());
    EXPECT_EQ(clone.halImage[1]->imageBufferHeap(), b->imageBufferHeap());
    EXPECT_NE(clone.halImage[0], a);  // new stream buffers; the sources are left as they were
    ASSERT_EQ(clone.halMeta.size(), 2u);
    EXPECT_EQ((std::vector<int64_t>{metaValue(clone.halMeta[0]), metaValue(clone.halMeta[1])}),
              (std::vector<int64_t>{11, 12}));
    source.halImage.clear();
    releaseEverythingAndCheck({&a, &b, &clone.halImage[0], &clone.halImage[1]});
}

TEST_F(ResultsTest, MetadataThatCannotBeLockedIsFatal) {
    track(1, {}, {kHalMeta});
    EXPECT_DEATH(
        {
            host::StreamBufferFactory::failNextMetaLock(1);
            Result r;
            r.halMeta = {makeMeta(mHalMetaInfo)};
            returnResult(1, r);
        },
        "\\[addCopiedMeta:line-[0-9]+\\] fail to lock metaSB\\(0x100\\)");
}

}  // namespace
}  // namespace fbmtest
