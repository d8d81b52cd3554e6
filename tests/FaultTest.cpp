// Faults of the platform underneath: each gives the documented code, and nothing is lost.
#include "FramePathSupport.h"

namespace fbmtest {
namespace {

class FaultTest : public FramePathTest {
protected:
    void expectNothingLostAtTheEnd() {
        releaseEverythingAndCheck();
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

TEST_F(FaultTest, StreamBufferNotMadeFromAPool) {
    configure();
    host::StreamBufferFactory::failNextImage(1);
    bool called = false;
    SbPtr got;
    int const err = mProvider->requestStreamBuffer(
        [&](SbPtr const& sb) {
            called = true;
            got = sb;
        },
        {1, 1, mInfos[kPreview]});
    EXPECT_EQ(err, -ENOMEM);
    EXPECT_TRUE(called);
    EXPECT_FALSE(got);
    // The heap stays counted as in use in its pool (deliberately); the other one still serves.
    auto [err2, sb] = request(kPreview, 2);
    EXPECT_EQ(err2, 0);
    sb->releaseToOwner();
    sb.reset();
    mProcessor.reset();
    mProvider.reset();
    mManager.reset();  // the pool frees the heap it still counted as in use
    EXPECT_TRUE(waitHeaps([](int64_t, int64_t alive) { return alive == 0; }));
}

TEST_F(FaultTest, ProvidersAndRunTimeAllocationFailing) {
    configure();
    mAppProvider->failWith = -EIO;
    EXPECT_EQ(request(kJpeg, 1).first, -EIO);
    mAppProvider->failWith = 0;
    host::HeapFactory::failNext(1);
    auto [err, sb] = request(kRuntime, 2);
    EXPECT_EQ(err, -EINVAL);
    EXPECT_FALSE(sb);
    expectNothingLostAtTheEnd();
}

TEST_F(FaultTest, MetadataCopyNotMadeIsSkippedAndTheFrameStillCompletes) {
    host::setULogSwitches(2, 0, 1);
    configure();
    track(1, {}, {kHalMeta}, {kAppMeta});
    Result r;
    r.timestamp = 10;
    r.halMeta = {makeMeta(mHalMetaInfo)};
    r.appMeta = {makeMeta(mAppMetaInfo)};
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

TEST_F(FaultTest, ProviderReportingSuccessWithoutABufferIsLoggedAndPassedOn) {
    class EmptyProvider : public IStreamBufferProvider {
        int requestStreamBuffer(ImageStreamBufferCallback const& cb, Request const&) override {
            cb(nullptr);
            return 0;
        }
    };
    ASSERT_EQ(mManager->addImageStream({mInfos[kHalProv], eHAL_IMAGE_PROVIDER, std::make_shared<EmptyProvider>()}), 0);
    auto [err, sb] = request(kHalProv, 1);
    EXPECT_EQ(err, 0);  // the source's own result, kept on purpose
    EXPECT_FALSE(sb);
    EXPECT_EQ(androidCount("[requestStreamBuffer] [requestNo:1001 frameNo:1] err:0(Success) "
                           "[IMAGE-HAL-PROVIDER]0x5:halProv"),
              1u);
}

}  // namespace
}  // namespace fbmtest
