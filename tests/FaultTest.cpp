// Faults of the platform underneath: each gives the documented code, and nothing is lost.
#include "FramePathSupport.h"

namespace fbmtest {
namespace {

class FaultTest : public FramePathTest {
protected:
    void expectNothingLostAtTheEnd(std::initializer_list<SbPtr*> held = {}) {
        releaseEverythingAndCheck(held);
        mProcessor.reset();
        mProvider.reset();
        mManager.reset();
        EXPECT_TRUE(waitHeaps([](int64_t, int64_t alive) { return alive == 0; }));
        EXPECT_EQ(host::StreamBufferFactory::metaAlive(), 0);
    }
};

TEST_F(FaultTest, HeapAllocationFailingForAWhileIsRetriedUntilThePoolsFill) {
    host::HeapFactory::failNext(25);
    configure();  // waits for every pool to fill
    EXPECT_EQ(androidCount("[operator()] do_construct allocate buffer failed"), 25u);
    keptFrame(1, 100);
    expectNothingLostAtTheEnd();
}

TEST_F(FaultTest, StreamBufferNotMadeFromAPoolCallsBackWithNothingAndKeepsTheHeap) {
    configure();
    host::StreamBufferFactory::failNextImage(1);
    std::vector<SbPtr> answers;
    EXPECT_EQ(mProvider->requestStreamBuffer([&](SbPtr const& sb) { answers.push_back(sb); }, {1, 1, mInfos[kPreview]}),
              -ENOMEM);
    EXPECT_EQ(answers, std::vector<SbPtr>{nullptr});
    // The heap went back to its pool: both heaps serve the next frame at once.
    auto [e1, a] = request(kPreview, 2);
    auto [e2, b] = request(kPreview, 2);
    ASSERT_EQ(e1 | e2, 0);
    expectNothingLostAtTheEnd({&a, &b});
}

TEST_F(FaultTest, MetadataCopyNotMadeIsSkippedAndTheFrameStillCompletes) {
    host::setULogSwitches(2, 0, 1);
    configure();
    track(1, {}, {kHalMeta}, {kAppMeta});
    Result r{.timestamp = 10, .halMeta = {makeMeta(mHalMetaInfo)}, .appMeta = {makeMeta(mAppMetaInfo)}};
    host::StreamBufferFactory::failNextMeta(1);  // the copy of the HAL metadata
    returnResult(1, r);
    EXPECT_EQ(androidCount("[addCopiedMeta] Fail to copy meta (0x100)"), 1u);
    auto sets = mManager->beginSelect();
    ASSERT_EQ(sets.size(), 1u);
    EXPECT_TRUE(sets.front().halMeta.empty());
    EXPECT_EQ(sets.front().appMeta.size(), 1u);
    mManager->returnUnselectedSet({sets.front(), false});
    mManager->endSelect();
    expectNothingLostAtTheEnd();
}


// A kept image or a cloned set whose stream buffer cannot be made keeps nothing for it: no abort,
// the frame completes, and the heap goes back to its pool with the pipeline's own buffer.
TEST_F(FaultTest, KeptOrClonedImageNotMadeKeepsNothingAndLosesNoHeap) {
    configure();
    track(1, {kPreview}, {kHalMeta});
    auto [err, sb] = request(kPreview, 1);
    ASSERT_EQ(err, 0);
    host::StreamBufferFactory::failNextImage(1);
    Result r{.timestamp = 10, .images = {sb}, .halMeta = {makeMeta(mHalMetaInfo)}};
    returnResult(1, r);
    EXPECT_EQ(androidCount("[shareSB] cannot new HalImageStreamBuffer"), 1u);
    sb->releaseToOwner();
    sb.reset();
    auto sets = mManager->beginSelect();
    ASSERT_EQ(sets.size(), 1u);  // completed, with its metadata and without the image
    EXPECT_TRUE(sets.front().halImage.empty());
    EXPECT_EQ(sets.front().halMeta.size(), 1u);
    for (auto& s : sets) mManager->returnUnselectedSet({s, false});
    mManager->endSelect();
    EXPECT_EQ(mManager->readyCounters()[kPreview], 0);
    {
        // Both heaps are in the pool: two requests are served at once.
        auto [e1, a] = request(kPreview, 2);
        auto [e2, b] = request(kPreview, 2);
        ASSERT_EQ(e1 | e2, 0);
        a->releaseToOwner();
        b->releaseToOwner();
    }

    keptFrame(3, 30);
    sets = mManager->beginSelect();
    ASSERT_EQ(sets.size(), 1u);
    ASSERT_EQ(sets.front().halImage.size(), 1u);
    host::StreamBufferFactory::failNextImage(1);
    IHistoryBufferProvider::HistoryBufferSet clone = mManager->cloneHBS(sets.front());
    EXPECT_TRUE(clone.halImage.empty());
    EXPECT_EQ(clone.halMeta.size(), 1u);
    IHistoryBufferProvider::HistoryBufferSet second = mManager->cloneHBS(sets.front());  // the factory works again
    EXPECT_EQ(second.halImage.size(), 1u);
    for (auto& s : sets) mManager->returnUnselectedSet({s, false});
    mManager->returnUnselectedSet({second, false});
    mManager->returnUnselectedSet({clone, false});
    mManager->endSelect();
    expectNothingLostAtTheEnd();
}

// A kept metadata is copied from its source while read-locked, and the lock is let go before the
// platform wraps the copy: a producer waiting to write the source is not held up by that.
// A sharing group's one allocation info cannot be made: the camera stack is broken, a fatal stop.
TEST_F(FaultTest, ASharedAllocationInfoNotMadeIsFatal) {
    for (auto fail : {&host::StreamInfoFactory::failNextBuilder, &host::StreamInfoFactory::failNextBuild}) {
        EXPECT_DEATH(
            {
                fail(1);
                mManager->configureStreams(standardConfig());
            },
            "\\[evaluateSharedAllocStreamInfo:line-[0-9]+\\] Never happen\\.\\.\\.");
    }
}

TEST_F(FaultTest, KeptMetadataIsCopiedUnderTheReadLockAndWrappedAfterIt) {
    configure();
    track(1, {}, {kHalMeta});
    auto source = makeMeta(mHalMetaInfo, 42);
    NSCam::IMetadata const* sourceMeta = source->tryReadLockMeta("test");
    source->unlockMeta("test", const_cast<NSCam::IMetadata*>(sourceMeta));
    int made = 0;
    host::StreamBufferFactory::setMetaCreateHook([&](NSCam::IMetadata const* meta) {
        ++made;
        EXPECT_NE(meta, sourceMeta);  // a copy, not the source
        NSCam::IMetadata* w = source->tryWriteLockMeta("test");
        EXPECT_NE(w, nullptr) << "the source is still locked while its copy is wrapped";
        if (w) source->unlockMeta("test", w);
    });
    Result r{.timestamp = 10, .halMeta = {source}};
    returnResult(1, r);
    host::StreamBufferFactory::setMetaCreateHook(nullptr);
    EXPECT_EQ(made, 1);
    auto sets = mManager->beginSelect();
    ASSERT_EQ(sets.size(), 1u);
    ASSERT_EQ(sets.front().halMeta.size(), 1u);
    EXPECT_EQ(metaValue(sets.front().halMeta[0]), 42);
    mManager->returnUnselectedSet({sets.front(), false});
    mManager->endSelect();
    source.reset();
    r.halMeta.clear();
    expectNothingLostAtTheEnd();
}

}  // namespace
}  // namespace fbmtest
