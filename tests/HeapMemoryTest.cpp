// Heaps of the host platform have the size of what they hold, counted per heap name, so a pipeline
// can say what memory its pools pin.
#include <cstdio>
#include <unistd.h>

#include "TestSupport.h"

namespace fbmtest {
namespace {

class HeapMemoryTest : public PlatformTest {
protected:
    void TearDown() override {
        host::HeapFactory::setRealMemory(false);
        PlatformTest::TearDown();
    }
};

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

long residentPages() {
    long size = 0, resident = 0;
    FILE* f = std::fopen("/proc/self/statm", "r");
    if (f == nullptr) return -1;
    if (std::fscanf(f, "%ld %ld", &size, &resident) != 2) resident = -1;
    std::fclose(f);
    return resident;
}

TEST_F(HeapMemoryTest, RealMemoryHeapsAreResidentFromCreation) {
    nivo::IImageBufferAllocator::ImgParam p;
    p.imgFormat = kBlobFormat;
    p.imgSize = {32 << 20, 1};
    ASSERT_EQ(host::HeapFactory::sizeOf(p), 32 << 20);
    long const pages = (32L << 20) / sysconf(_SC_PAGESIZE);

    long const before = residentPages();
    auto lazy = nivo::IImageBufferHeapFactory::create("test", "lazy", p, false);
    EXPECT_LT(residentPages() - before, pages / 2);  // a count, not memory

    host::HeapFactory::setRealMemory(true);
    long const beforeReal = residentPages();
    auto real = nivo::IImageBufferHeapFactory::create("test", "real", p, false);
    ASSERT_NE(real, nullptr);
    EXPECT_GE(residentPages() - beforeReal, pages);
    real.reset();
    EXPECT_LT(residentPages() - beforeReal, pages / 2);  // unmapped with the heap
}

}  // namespace
}  // namespace fbmtest
