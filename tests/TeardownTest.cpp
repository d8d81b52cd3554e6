// The manager ends with frames still in flight and sets still on the ready list: everything it
// kept goes back, and with the last handles every producer, heap pool and heap ends too.
#include "FramePathSupport.h"

namespace fbmtest {
namespace {

using TeardownTest = FramePathTest;

TEST_F(TeardownTest, KeptBuffersOfUnfinishedFramesAndReadySetsDoNotOutliveTheManager) {
    configure();
    keptFrame(1, 100);                  // on the ready list
    track(2, {kPreview}, {kHalMeta});   // in flight, its image kept, its metadata outstanding
    auto [err, sb] = request(kPreview, 2);
    ASSERT_EQ(err, 0);
    Result r{.timestamp = 200, .images = {sb}};
    returnResult(2, r);
    sb->releaseToOwner();
    sb.reset();
    EXPECT_EQ(mManager->readyFrames(), std::vector<uint32_t>{1});
    EXPECT_EQ(mManager->peekInflights().size(), 1u);

    mProcessor.reset();
    mProvider.reset();
    mManager.reset();
    EXPECT_TRUE(waitHeaps([](int64_t, int64_t alive) { return alive == 0; }));
    EXPECT_EQ(host::StreamBufferFactory::imageAlive(), 0);
}

}  // namespace
}  // namespace fbmtest
