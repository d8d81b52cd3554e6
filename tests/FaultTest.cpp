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

}  // namespace
}  // namespace fbmtest
