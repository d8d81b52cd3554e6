// The library loaded, used and unloaded again and again, as a camera provider process does: every
// unload must join the metadata worker, whatever the worker was doing, and really unload.
#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <cstdio>

#include "TestSupport.h"

namespace fbmtest {
namespace {

using CreateFn = void (*)(std::shared_ptr<IFrameBufferManager>*, char const*);
constexpr StreamId_T kImage = 0x1, kHalMeta = 0x100, kAppMeta = 0x101;
constexpr int kKept = 8;

// One cycle of use: frames keeping an image and both metadata, then a lowered pool maximum makes
// the next request release more than four sets at once, which hands their metadata to the loaded
// library's worker.
class Cycle {
public:
    explicit Cycle(CreateFn create) {
        create(&mManager, "unload");
        mImage = imageInfo({.id = kImage, .name = "img", .w = 64, .h = 32, .max = kKept, .min = kKept});
        mHalMeta = metaInfo(kHalMeta, "halMeta");
        mAppMeta = metaInfo(kAppMeta, "appMeta");
    }
    void run() {
        IFrameBufferManager::ConfigureStreams cfg;
        cfg.imageStreams = {{mImage, eHAL_IMAGE_POOL, nullptr}};
        cfg.metaStreams = {{mHalMeta, eHAL_META}, {mAppMeta, eAPP_META}};
        mManager->beginConfigure();
        ASSERT_EQ(mManager->configureStreams(cfg), 0);
        ASSERT_EQ(mManager->endConfigure(), 0);
        // The pool's first heaps (7, the first target's cap) are all made before the frames, so
        // that what the frames keep, and so what the lowered maximum releases, never depends on
        // how far its worker got.
        ASSERT_TRUE(host::HeapFactory::waitFor(
            [&](int64_t, int64_t) {
                int max = 0, allocated = 0;
                mManager->getBufferPoolMaxBufCount(kImage, max, allocated);
                return allocated == 7;
            },
            std::chrono::seconds(10)));
        auto provider = mManager->getPipelineFrameBufferProvider();
        auto processor = mManager->getPipelineFrameResultProcessor();
        for (uint32_t f = 1; f <= kKept; ++f) {
            auto p = std::make_shared<TrackFrameResultParams>(
                TrackFrameResultParams{{kImage}, {kHalMeta}, {kAppMeta}, true});
            ASSERT_EQ(mManager->trackFrameResult({f, f, p}), 0);
            SbPtr sb;
            ASSERT_EQ(provider->requestStreamBuffer([&](SbPtr const& b) { sb = b; }, {f, f, mImage}), 0);
            ASSERT_TRUE(sb);
            std::vector<SbPtr> images{sb}, none;
            std::vector<MetaPtr> hal{makeMeta(mHalMeta, f)}, app{makeMeta(mAppMeta, f)};
            processor->returnResult({f, f, f, false, &none, &images, &hal, &app});
            sb->releaseToOwner();
        }
        int max = 2;
        ASSERT_EQ(mManager->updateBufferPoolMaxBufCount(kImage, max), 0);
        SbPtr sb;
        uint32_t const f = kKept + 1;
        provider->requestStreamBuffer([&](SbPtr const& b) { sb = b; }, {f, f, mImage});
        if (sb) sb->releaseToOwner();
    }

private:
    std::shared_ptr<IFrameBufferManager> mManager;
    std::shared_ptr<IImageStreamInfo> mImage;
    std::shared_ptr<IMetaStreamInfo> mHalMeta, mAppMeta;
};

using UnloadTest = PlatformTest;

TEST_F(UnloadTest, LoadUseUnloadManyTimes) {
    constexpr int kCycles = 500;
    auto const budget = std::chrono::seconds(60);  // sanitizers and emulation are far slower
    host::setProperty("vendor.debug.camera.pipeline.fbm.acquire.timeout", 100);
    host::LogCapture::setCapturing(false);
    host::setProperty("vendor.debug.camera.log.pipeline.fbm", 2);  // names each set released
    host::setULogSwitches(5, 0x207000, 1);  // debug lines of the library to the Android sink
    // A set whose metadata goes to the worker is released by releaseBufferSets, one by one by
    // releaseOneBufferSet; the process's own worker never ends during the test.
    std::atomic<int> workersEnded{0}, setsToWorker{0};
    host::LogCapture::setLineHook([&](std::string const& text) {
        if (text.find("FreeMetaObject: thread -") != std::string::npos) ++workersEnded;
        if (text.find("[releaseBufferSets] release [R") != std::string::npos) ++setsToWorker;
    });
    // Cleared before the counters it writes go out of scope, however the test ends.
    struct ClearHook {
        ~ClearHook() { host::LogCapture::setLineHook(nullptr); }
    } clearHook;

    // A hang is reported as such, with the cycle it happened in, instead of a bare time-out.
    std::atomic<int> cycle{0};
    auto watchdog = std::make_unique<Watchdog>(budget + std::chrono::seconds(60), [&] {
        return "unload: no progress in cycle " + std::to_string(cycle.load());
    });

    auto const start = std::chrono::steady_clock::now();
    int handedOver = 0;
    for (; cycle < kCycles && std::chrono::steady_clock::now() - start < budget; ++cycle) {
        void* lib = dlopen(FBM_SHARED_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(lib, nullptr) << dlerror();
        auto create = reinterpret_cast<CreateFn>(dlsym(lib, "createFrameBufferManager"));
        ASSERT_NE(create, nullptr);  // exported with C linkage; the internals are not
        ASSERT_EQ(dlsym(lib, "_ZN5NSCam2v38pipeline15gFreeMetaObjectE"), nullptr);
        int const before = setsToWorker;
        {
            Cycle c(create);
            c.run();
            if (HasFatalFailure()) break;
        }
        handedOver += setsToWorker - before > 4;
        ASSERT_EQ(dlclose(lib), 0);
        ASSERT_EQ(dlopen(FBM_SHARED_LIBRARY_PATH, RTLD_NOW | RTLD_NOLOAD), nullptr)
            << "still loaded after cycle " << cycle;
        ASSERT_EQ(workersEnded.load(), cycle + 1);  // joined at this unload
    }
    watchdog.reset();
    int const cycles = cycle;
    std::printf("unload: %d load/use/unload cycles in %.1f s, metadata handed to the worker in %d\n",
                cycles,
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(),
                handedOver);
    EXPECT_GE(cycles, 50);
    EXPECT_EQ(workersEnded.load(), cycles);
    EXPECT_EQ(handedOver, cycles);
    EXPECT_EQ(host::StreamBufferFactory::metaAlive(), 0);
    EXPECT_EQ(host::StreamBufferFactory::imageAlive(), 0);
    EXPECT_TRUE(waitHeaps([](int64_t, int64_t alive) { return alive == 0; }));
}

}  // namespace
}  // namespace fbmtest
