#pragma once
// A configured manager and a small pipeline around it, for the frame-path tests.
#include <atomic>
#include <thread>

#include "TestSupport.h"

namespace fbmtest {

// A provider of the pipeline: a buffer over a new heap per request.
class TestProvider : public IStreamBufferProvider {
public:
    int requestStreamBuffer(ImageStreamBufferCallback const& callback, Request const& request) override {
        ++calls;
        lastTimeout = request.timeoutNs;
        lastRequestNo = request.requestNo;
        if (answerLater) {  // keeps the callable, as a provider that answers on its own thread
            kept = callback;
            keptRequest = request;
            return 0;
        }
        if (failWith != 0) {
            callback(nullptr);
            return failWith;
        }
        auto heap = nivo::IImageBufferHeapFactory::create("provider", request.pStreamInfo->streamName(), {}, false);
        callback(Utils::makeHalImageStreamBuffer({infoOfBuffers ? infoOfBuffers : request.pStreamInfo, heap, nullptr, nullptr}));
        return 0;
    }
    std::atomic<int> calls{0};
    std::atomic<int64_t> lastTimeout{0};
    std::atomic<uint32_t> lastRequestNo{0};
    std::atomic<int> failWith{0};
    // Answers the kept request from a thread of its own, after the request has returned.
    void answerKeptRequest() {
        std::thread([this] {
            auto heap = nivo::IImageBufferHeapFactory::create("provider", keptRequest.pStreamInfo->streamName(), {}, false);
            kept(Utils::makeHalImageStreamBuffer({infoOfBuffers ? infoOfBuffers : keptRequest.pStreamInfo, heap, nullptr, nullptr}));
            kept = nullptr;
        }).join();
    }
    bool answerLater = false;
    std::shared_ptr<IImageStreamInfo> infoOfBuffers;  // the info its buffers carry; the request's when empty
    ImageStreamBufferCallback kept;
    Request keptRequest;
};

// Stream ids of the standard configuration.
inline constexpr StreamId_T kPreview = 0x1;     // POOL, own pool of 2
inline constexpr StreamId_T kFullA = 0x2;       // POOL, shares one pool with kFullB
inline constexpr StreamId_T kFullB = 0x3;
inline constexpr StreamId_T kRuntime = 0x4;     // RUNTIME
inline constexpr StreamId_T kHalProv = 0x5;     // HAL PROVIDER
inline constexpr StreamId_T kJpeg = 0x6;        // APP PROVIDER, blob
inline constexpr StreamId_T kDeferred = 0x7;    // POOL, allocated on trigger
inline constexpr StreamId_T kHalMeta = 0x100;
inline constexpr StreamId_T kAppMeta = 0x101;

class FramePathTest : public PlatformTest {
protected:
    void SetUp() override {
        PlatformTest::SetUp();
        host::setProperty("vendor.debug.camera.pipeline.fbm.acquire.timeout", 200);
        remakeManager("frame-path");
        mInfos[kPreview] = imageInfo({.id = kPreview, .name = "preview", .max = 2, .min = 2});
        mInfos[kFullA] = imageInfo({.id = kFullA, .name = "fullA", .w = 1280, .h = 960, .max = 3, .min = 1});
        mInfos[kFullB] = imageInfo({.id = kFullB, .name = "fullB", .w = 1280, .h = 960, .max = 2, .min = 2});
        mInfos[kRuntime] = imageInfo({.id = kRuntime, .name = "runtime", .max = 1, .min = 0});
        mInfos[kHalProv] = imageInfo({.id = kHalProv, .name = "halProv"});
        mInfos[kJpeg] = imageInfo({.id = kJpeg, .name = "jpeg", .format = kBlobFormat, .w = 4096, .h = 1});
        mInfos[kDeferred] = imageInfo({.id = kDeferred, .name = "deferred", .max = 2, .min = 1, .deferred = true});
        mHalMetaInfo = metaInfo(kHalMeta, "halMeta");
        mAppMetaInfo = metaInfo(kAppMeta, "appMeta");
    }
    // A new manager (a test may set the properties it reads at construction first).
    void remakeManager(char const* name) {
        mManager = makeManager(name);
        mProcessor = mManager->getPipelineFrameResultProcessor();
        mProvider = mManager->getPipelineFrameBufferProvider();
    }
    void TearDown() override {
        mProcessor.reset();
        mProvider.reset();
        mManager.reset();
        PlatformTest::TearDown();
    }

    IFrameBufferManager::ConfigureStreams standardConfig() {
        IFrameBufferManager::ConfigureStreams cfg;
        cfg.sharedGroups = std::make_shared<std::vector<std::set<StreamId_T>>>(
            std::vector<std::set<StreamId_T>>{{kFullA, kFullB}});
        cfg.imageStreams = {
            {mInfos[kPreview], eHAL_IMAGE_POOL, nullptr},
            {mInfos[kFullA], eHAL_IMAGE_POOL, nullptr},
            {mInfos[kFullB], eHAL_IMAGE_POOL, nullptr},
            {mInfos[kRuntime], eHAL_IMAGE_RUNTIME, nullptr},
            {mInfos[kHalProv], eHAL_IMAGE_PROVIDER, mHalProvider},
            {mInfos[kJpeg], eAPP_IMAGE_PROVIDER, mAppProvider},
            {mInfos[kDeferred], eHAL_IMAGE_POOL, nullptr},
        };
        cfg.metaStreams = {{mHalMetaInfo, eHAL_META}, {mAppMetaInfo, eAPP_META}};
        return cfg;
    }
    // Configures and waits until every non-deferred pool holds its first heaps.
    // The value of entry 1 of a metadata buffer (-1 when it has none).
    static int64_t metaValue(MetaPtr const& m) {
        auto* md = m->tryReadLockMeta("t");
        int64_t v = -1;
        if (md) md->get(1, v);
        if (md) m->unlockMeta("t", md);
        return v;
    }
    void configure() {
        mManager->beginConfigure();
        ASSERT_EQ(mManager->configureStreams(standardConfig()), 0);
        ASSERT_EQ(mManager->endConfigure(), 0);
        ASSERT_TRUE(poolsFilled({{kPreview, 2}, {kFullA, 3}, {kRuntime, 1}}));
    }
    bool poolsFilled(std::map<StreamId_T, int> const& want) {
        return waitHeaps([&](int64_t, int64_t) {
            for (auto const& [id, n] : want) {
                int max = 0, allocated = 0;
                mManager->getBufferPoolMaxBufCount(id, max, allocated);
                if (allocated != n) return false;
            }
            return true;
        });
    }

    // One request; the callback's buffer is returned together with the result.
    std::pair<int, SbPtr> request(StreamId_T id, uint32_t frameNo,
                                  std::shared_ptr<IImageStreamInfo> info = nullptr) {
        SbPtr got;
        int calls = 0;
        IPipelineFrameStreamBufferProvider::RequestStreamBuffer req{frameNo + 1000, frameNo,
                                                                    info ? info : mInfos[id]};
        int const err = mProvider->requestStreamBuffer(
            [&](SbPtr const& sb) {
                got = sb;
                ++calls;
            },
            req);
        EXPECT_LE(calls, 1);
        return {err, got};
    }
    void track(uint32_t frameNo, std::set<StreamId_T> images, std::set<StreamId_T> halMeta = {},
               std::set<StreamId_T> appMeta = {}, bool recyclable = true) {
        auto p = std::make_shared<TrackFrameResultParams>(
            TrackFrameResultParams{std::move(images), std::move(halMeta), std::move(appMeta), recyclable});
        EXPECT_EQ(mManager->trackFrameResult({frameNo, frameNo + 1000, p}), 0);
    }
    struct Result {
        int64_t timestamp = 0;
        bool destroyed = false;
        std::vector<SbPtr> images{};  // {}: a designated initialiser may leave any of them out
        std::vector<SbPtr> toRelease{};
        std::vector<MetaPtr> halMeta{};
        std::vector<MetaPtr> appMeta{};
    };
    void returnResult(uint32_t frameNo, Result& r) {
        mProcessor->returnResult(
            {frameNo + 1000, frameNo, r.timestamp, r.destroyed, &r.toRelease, &r.images, &r.halMeta, &r.appMeta});
    }
    // A whole frame keeping one image of `id` and both metadata streams, recyclable.
    void keptFrame(uint32_t frameNo, int64_t timestamp, StreamId_T id = kPreview, bool recyclable = true) {
        track(frameNo, {id}, {kHalMeta}, {kAppMeta}, recyclable);
        auto [err, sb] = request(id, frameNo);
        ASSERT_EQ(err, 0);
        Result r;
        r.timestamp = timestamp;
        r.images = {sb};
        r.halMeta = {makeMeta(mHalMetaInfo, frameNo)};
        r.appMeta = {makeMeta(mAppMetaInfo, frameNo)};
        returnResult(frameNo, r);
        sb->releaseToOwner();  // the pipeline is done with its own buffer
    }
    // Every buffer let go: the pipeline's own (`held`, released to their owners and dropped), and
    // every set, selected and released; then no producer may track a stream buffer (its dump
    // line is the only place that shows it), no stream buffer may live on, and every heap must
    // be back in its heap pool.
    void releaseEverythingAndCheck(std::initializer_list<SbPtr*> held = {}) {
        for (SbPtr* sb : held) {
            (*sb)->releaseToOwner();
            sb->reset();
        }
        auto sets = mManager->beginSelect();
        for (auto& s : sets) mManager->returnUnselectedSet({s, false});
        mManager->endSelect();
        host::setULogSwitches(3, 0x207000, 1);
        host::LogCapture::clear();
        host::StringPrinter printer;
        mManager->dumpBufferPools(printer);
        for (auto const& l : host::LogCapture::androidLines()) {
            if (l.text.find("[dump]") != std::string::npos) {
                EXPECT_NE(l.text.find("InUse(Heap#0){Sb#0}"), std::string::npos) << l.text;
            }
        }
        EXPECT_EQ(host::StreamBufferFactory::imageAlive(), 0);
        for (auto const& pool : mManager->takeState().pools) EXPECT_EQ(pool.inUse, 0) << pool.name;
    }

    std::shared_ptr<TestManager> mManager;
    std::shared_ptr<IPipelineFrameHalResultProcessor> mProcessor;
    std::shared_ptr<IPipelineFrameStreamBufferProvider> mProvider;
    std::map<StreamId_T, std::shared_ptr<IImageStreamInfo>> mInfos;
    std::shared_ptr<IMetaStreamInfo> mHalMetaInfo, mAppMetaInfo;
    std::shared_ptr<TestProvider> mHalProvider = std::make_shared<TestProvider>();
    std::shared_ptr<TestProvider> mAppProvider = std::make_shared<TestProvider>();
};

}  // namespace fbmtest
