// Heaps of the host platform have the size of what they hold, counted per heap name, so a pipeline
// can say what memory its pools pin.
#include "TestSupport.h"

namespace fbmtest {
namespace {

class HeapMemoryTest : public PlatformTest {};

std::shared_ptr<IImageStreamInfo> threePlanes(StreamId_T id, char const* name) {
    Utils::ImageStreamInfoParams p;
    p.name = name;
    p.id = id;
    p.format = kYuvFormat;
    p.size = {64, 32};
    p.planes.count = 3;
    p.planes.planes[0] = {2048, 64};
    p.planes.planes[1] = {512, 32};
    p.planes.planes[2] = {512, 32};
    p.maxBufNum = 2;
    p.minInitBufNum = 2;
    return Utils::makeImageStreamInfo(p);
}

TEST_F(HeapMemoryTest, PoolHeapsHaveTheSizeOfTheirPlanesOrBlob) {
    host::HeapFactory::resetPeaks();
    auto manager = makeManager();
    IFrameBufferManager::ConfigureStreams cfg;
    cfg.imageStreams.push_back({imageInfo({1, "planar", kYuvFormat, 640, 480, 2, 2}), eHAL_IMAGE_POOL, nullptr});
    cfg.imageStreams.push_back({imageInfo({2, "blob", kBlobFormat, 1000000, 1, 2, 2}), eHAL_IMAGE_POOL, nullptr});
    cfg.imageStreams.push_back({threePlanes(3, "planes3"), eHAL_IMAGE_POOL, nullptr});
    manager->beginConfigure();
    ASSERT_EQ(manager->configureStreams(cfg), 0);
    manager->endConfigure();
    ASSERT_TRUE(waitHeaps([](int64_t, int64_t alive) { return alive == 6; }));

    auto memory = host::HeapFactory::memory();
    int64_t const planar = 640 * 480 + 640 * 480 / 2, blob = 1000000, planes3 = 2048 + 512 + 512;
    for (auto const& [name, size] : {std::pair<std::string, int64_t>{"planar", planar}, {"blob", blob},
                                     {"planes3", planes3}}) {
        EXPECT_EQ(memory[name].heaps, 2) << name;
        EXPECT_EQ(memory[name].bytes, 2 * size) << name;
        EXPECT_EQ(memory[name].peakBytes, 2 * size) << name;
    }
    EXPECT_EQ(host::HeapFactory::totalMemory().bytes, 2 * (planar + blob + planes3));

    manager.reset();
    ASSERT_TRUE(waitHeaps([](int64_t, int64_t alive) { return alive == 0; }));
    memory = host::HeapFactory::memory();
    EXPECT_EQ(memory["planar"].bytes, 0);
    EXPECT_EQ(memory["planar"].peakHeaps, 2);  // peaks stay until they are reset
    EXPECT_EQ(host::HeapFactory::totalMemory().peakBytes, 2 * (planar + blob + planes3));
    host::HeapFactory::resetPeaks();
    EXPECT_TRUE(host::HeapFactory::memory().empty());
    EXPECT_EQ(host::HeapFactory::totalMemory().peakBytes, 0);
}

}  // namespace
}  // namespace fbmtest
