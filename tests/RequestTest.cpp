// Pool set-up, buffer requests for every source, and pool control, through the public interfaces.
#include <array>
#include <future>

#include "FramePathSupport.h"

namespace fbmtest {
namespace {

using RequestTest = FramePathTest;

TEST_F(RequestTest, EverySourceServesAFrameAndEveryBufferComesBack) {
    host::HeapFactory::setRecordCalls(true);
    configure();
    std::vector<SbPtr> frame;
    for (StreamId_T id : {kPreview, kFullA, kFullB, kRuntime, kHalProv, kJpeg}) {
        auto [err, sb] = request(id, 1);
        ASSERT_EQ(err, 0) << id;
        ASSERT_TRUE(sb) << id;
        EXPECT_EQ(sb->streamInfoOf().get(), mInfos[id].get());
        frame.push_back(sb);
    }
    EXPECT_EQ(mHalProvider->calls, 1);
    EXPECT_EQ(mHalProvider->lastTimeout, -1);
    EXPECT_EQ(mHalProvider->lastRequestNo, 1001u);
    EXPECT_EQ(mAppProvider->calls, 1);
    for (auto const& c : host::HeapFactory::calls()) EXPECT_FALSE(c.flag) << c.heapName;  // pools and run time
    for (auto& sb : frame) sb->releaseToOwner();
    frame.clear();
    releaseEverythingAndCheck();
}

TEST_F(RequestTest, PooledBufferTakesTheRequestsInfoOrFallsBackOnALayoutChange) {
    host::setULogSwitches(5, 0x207000, 1);
    configure();
    // Same layout, another info object (stray values in a plane it does not have): still from
    // the pool, and the buffer carries that info.
    Utils::ImageStreamInfoParams again;
    again.name = "preview-again";
    again.id = kPreview;
    again.format = kYuvFormat;
    again.size = {640, 480};
    again.planes = mInfos[kPreview]->planeLayout();
    again.planes.planes[2] = {99, 7};
    auto same = Utils::makeImageStreamInfo(again);
    auto [err1, pooled] = request(kPreview, 1, same);
    ASSERT_EQ(err1, 0);
    EXPECT_EQ(pooled->streamInfoOf().get(), same.get());
    int max = 0, allocated = 0;
    // Another row stride of the second plane alone: allocated on the spot, the pool untouched.
    Utils::ImageStreamInfoParams p;
    p.name = "preview-wide";
    p.id = kPreview;
    p.format = kYuvFormat;
    p.size = {640, 480};
    p.planes.count = 2;
    p.planes.planes[0] = {640 * 480, 640};
    p.planes.planes[1] = {640 * 240, 704};
    auto wide = Utils::makeImageStreamInfo(p);
    int64_t const created = host::HeapFactory::created();
    auto [err2, runtime] = request(kPreview, 1, wide);
    ASSERT_EQ(err2, 0);
    EXPECT_EQ(host::HeapFactory::created(), created + 1);
    EXPECT_EQ(androidCount("[requestStreamBuffer] [requestNo:1001 frameNo:1] POOL -> RUNTIME due to "
                           "alloc layout change"),
              1u);
    EXPECT_EQ(runtime->streamInfoOf().get(), wide.get());
    // Another format alone, with the pool's planes: not the pool's layout either.
    auto nv21 = imageInfo({.id = kPreview, .name = "preview-nv21", .format = 0x11, .max = 2, .min = 2});
    auto [err5, other] = request(kPreview, 1, nv21);
    ASSERT_EQ(err5, 0);
    EXPECT_EQ(host::HeapFactory::created(), created + 2);
    EXPECT_EQ(androidCount("POOL -> RUNTIME due to alloc layout change"), 2u);
    mManager->getBufferPoolMaxBufCount(kPreview, max, allocated);
    EXPECT_EQ(allocated, 2);

    // A HAL provider stream falls back too; an APP provider stream never does.
    auto halWide = imageInfo({.id = kHalProv, .name = "halProv", .w = 320, .h = 240});
    auto [err3, b3] = request(kHalProv, 2, halWide);
    EXPECT_EQ(err3, 0);
    EXPECT_EQ(mHalProvider->calls, 0);
    EXPECT_EQ(androidCount("PROVIDER -> RUNTIME due to alloc layout change"), 1u);
    auto jpegBig = imageInfo({.id = kJpeg, .name = "jpeg", .format = kBlobFormat, .w = 8192, .h = 1});
    auto [err4, b4] = request(kJpeg, 2, jpegBig);
    EXPECT_EQ(err4, 0);
    EXPECT_EQ(mAppProvider->calls, 1);
    releaseEverythingAndCheck({&pooled, &runtime, &other, &b3, &b4});
}

TEST_F(RequestTest, ErrorsOfEachSource) {
    configure();
    // Not configured, or no stream at all.
    auto stranger = imageInfo({.id = 0x99, .name = "stranger"});
    EXPECT_EQ(request(0x99, 1, stranger).first, -EINVAL);
    EXPECT_EQ(mProvider->requestStreamBuffer([](SbPtr const&) {}, {5, 6, nullptr}), -EINVAL);
    EXPECT_EQ(androidCount("[requestStreamBuffer] [requestNo:5 frameNo:6] no stream info"), 1u);
    // Provider failure: its code, and the error line.
    mHalProvider->failWith = -ENODEV;
    auto [err, sb] = request(kHalProv, 1);
    EXPECT_EQ(err, -ENODEV);
    EXPECT_FALSE(sb);
    EXPECT_EQ(androidCount("[requestStreamBuffer] [requestNo:1001 frameNo:1] err:-19(No such device) "
                           "[IMAGE-HAL-PROVIDER]0x5:halProv"),
              1u);
    // Run-time allocation failure.
    host::HeapFactory::failNext(1);
    host::StreamBufferFactory::failNextImage(1);
    EXPECT_EQ(request(kRuntime, 2).first, -EINVAL);
    EXPECT_EQ(androidCount("[allocateHalImageStreamBufferRuntime] <REQUEST> 0x4:runtime"), 1u);
    // A pool that stays empty: the pool's code after the acquire time-out (200 ms here), and the
    // callback still gets called, with nothing.
    host::StreamBufferFactory::failNextImage(0);
    auto [e1, a] = request(kPreview, 3);
    auto [e2, b] = request(kPreview, 3);
    ASSERT_EQ(e1 | e2, 0);
    auto [e3, none] = request(kPreview, 3);
    EXPECT_EQ(e3, -EBUSY);
    EXPECT_FALSE(none);
    EXPECT_EQ(androidCount("cannot acquire from pool after timeout(200000000 ns)."), 1u);
    a->releaseToOwner();
    b->releaseToOwner();
}

TEST_F(RequestTest, AProviderMayAnswerAfterTheRequestReturned) {
    configure();
    mHalProvider->infoOfBuffers = mInfos[kHalProv];
    auto requestInfo = imageInfo({.id = kHalProv, .name = "halProv"});  // same layout, new object
    {
        // An answer during the call: the buffer carries the request's info once the call returns.
        auto [err, early] = request(kHalProv, 1, requestInfo);
        ASSERT_EQ(err, 0);
        EXPECT_EQ(early->streamInfoOf().get(), requestInfo.get());
        early->releaseToOwner();
    }
    EXPECT_EQ(androidCount("err:0(Success)"), 0u);  // an answer in time is no error
    mHalProvider->answerLater = true;
    std::promise<SbPtr> answered;
    {
        std::array<char, 256> big;  // a capture that std::function keeps on the heap
        big.fill('x');
        int const err = mProvider->requestStreamBuffer(
            [big, &answered](SbPtr const& sb) {
                EXPECT_EQ(big[255], 'x');
                answered.set_value(sb);
            },
            {1001, 1, requestInfo});
        EXPECT_EQ(err, 0);
    }
    // Reported at once without a buffer, as a provider that succeeds with none.
    EXPECT_EQ(androidCount("[requestStreamBuffer] [requestNo:1001 frameNo:1] err:0(Success)"), 1u);
    mHalProvider->answerKeptRequest();
    auto sb = answered.get_future().get();
    ASSERT_TRUE(sb);
    EXPECT_EQ(sb->streamInfoOf().get(), requestInfo.get());  // finished by the late answer
    sb->releaseToOwner();
}

TEST_F(RequestTest, UnsupportedAttributeIsRefused) {
    ASSERT_EQ(mManager->addImageStream({imageInfo({.id = 0x30, .name = "user"}), eBUFFER_SOURCE_USER, nullptr}), 0);
    auto [err, sb] = request(0x30, 1, imageInfo({.id = 0x30, .name = "user"}));
    EXPECT_EQ(err, -EINVAL);
    EXPECT_EQ(androidCount("Unsupported attribute:[IMAGE-HAL-USER    ] for 0x30:user"), 1u);
}

TEST_F(RequestTest, RequestsAreTraced) {
    configure();
    host::TraceRecorder::setEnabledTags(ATRACE_TAG_CAMERA);
    auto [err, sb] = request(kPreview, 7);
    ASSERT_EQ(err, 0);
    EXPECT_EQ(host::TraceRecorder::countBegins("POOL requestStreamBuffer preview|request:1007 frame:7"), 1u);
    sb->releaseToOwner();
    // A request whose info has no name is traced by its source alone.
    auto [err2, sb2] = request(kPreview, 8, imageInfo({.id = kPreview, .name = "", .max = 2, .min = 2}));
    ASSERT_EQ(err2, 0);
    EXPECT_EQ(host::TraceRecorder::countBegins("POOL"), 1u);
    sb2->releaseToOwner();
}

TEST_F(RequestTest, SharedGroupHasOneDerivedAllocation) {
    host::HeapFactory::setRecordCalls(true);
    configure();
    std::map<std::string, int> heapsByName;
    for (auto const& c : host::HeapFactory::calls()) heapsByName[c.heapName]++;
    EXPECT_EQ(heapsByName["shared-0x2-0x3"], 3);  // one pool: the larger maximum, capped at 7
    EXPECT_EQ(heapsByName["fullA"] + heapsByName["fullB"], 0);
    auto a = mManager->queryConfigImageStream(kFullA);
    auto b = mManager->queryConfigImageStream(kFullB);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->allocInfo, b->allocInfo);
    EXPECT_EQ(a->allocInfo->streamId(), -1);
    EXPECT_EQ(a->allocInfo->maxBufNum(), 3u);
    EXPECT_EQ(a->allocInfo->minInitBufNum(), 2u);
    EXPECT_STREQ(a->pPool->poolName(), b->pPool->poolName());
    // Three heaps serve both streams.
    std::vector<SbPtr> out;
    for (StreamId_T id : {kFullA, kFullB, kFullA}) {
        auto [err, sb] = request(id, 1);
        ASSERT_EQ(err, 0);
        out.push_back(sb);
    }
    auto pools = mManager->getPoolStreamInfo();
    EXPECT_EQ(pools.size(), 5u);  // preview, fullA, fullB, runtime, deferred
    for (auto& sb : out) sb->releaseToOwner();
}

TEST_F(RequestTest, GroupsThatCannotShareAreSetUpOneByOne) {
    host::HeapFactory::setRecordCalls(true);
    IFrameBufferManager::ConfigureStreams cfg;
    cfg.sharedGroups = std::make_shared<std::vector<std::set<StreamId_T>>>(
        std::vector<std::set<StreamId_T>>{{0x10, 0x11, 0x12}, {0x20, 0x21}, {0x30, 0x31}, {0x40}, {0x50, 0x51, 0x52}});
    cfg.imageStreams = {
        {imageInfo({.id = 0x10, .name = "a", .max = 1, .min = 1}), eHAL_IMAGE_POOL, nullptr},
        {imageInfo({.id = 0x11, .name = "b", .max = 1, .min = 1}), eHAL_IMAGE_RUNTIME, nullptr},
        {imageInfo({.id = 0x12, .name = "c", .max = 1, .min = 1, .secure = 1}), eHAL_IMAGE_POOL, nullptr},
        // Blobs of different sizes share; the larger layout wins.
        {imageInfo({.id = 0x20, .name = "j1", .format = kBlobFormat, .w = 100, .h = 1, .max = 1, .min = 1}), eHAL_IMAGE_POOL, nullptr},
        {imageInfo({.id = 0x21, .name = "j2", .format = kBlobFormat, .w = 300, .h = 1, .max = 1, .min = 1}), eHAL_IMAGE_POOL, nullptr},
        {imageInfo({.id = 0x30, .name = "y1", .w = 64, .h = 64, .max = 1, .min = 1}), eHAL_IMAGE_POOL, nullptr},
        {imageInfo({.id = 0x31, .name = "y2", .w = 32, .h = 32, .max = 1, .min = 1}), eHAL_IMAGE_POOL, nullptr},
        {imageInfo({.id = 0x40, .name = "alone", .max = 1, .min = 1}), eHAL_IMAGE_POOL, nullptr},
        // Three that can share: one pool for the three.
        {imageInfo({.id = 0x50, .name = "t1", .max = 2, .min = 1}), eHAL_IMAGE_POOL, nullptr},
        {imageInfo({.id = 0x51, .name = "t2", .max = 1, .min = 1}), eHAL_IMAGE_POOL, nullptr},
        // t3 splits its planes otherwise, with the same total as t1: a tie, which the first member wins.
        {imageInfo({.id = 0x52, .name = "t3", .max = 2, .min = 1, .luma = 640 * 480 * 5 / 4}), eHAL_IMAGE_POOL, nullptr},
    };
    mManager->beginConfigure();
    ASSERT_EQ(mManager->configureStreams(cfg), 0);
    mManager->endConfigure();
    ASSERT_TRUE(poolsFilled({{0x10, 1}, {0x11, 1}, {0x12, 1}, {0x20, 1}, {0x30, 1}, {0x31, 1}, {0x40, 1},
                             {0x50, 2}, {0x51, 2}, {0x52, 2}}));
    auto heaps = host::HeapFactory::memory();
    EXPECT_EQ(heaps["shared-0x50-0x51-0x52"].heaps, 2);  // the three draw from one pool
    EXPECT_EQ(mManager->queryConfigImageStream(0x52)->allocInfo->planeLayout()[1].sizeInBytes, 640u * 480 / 2);
    EXPECT_EQ(heaps["y1"].heaps, 1);
    EXPECT_EQ(heaps["y2"].heaps, 1);
    // A pool's streams are those of a heap pool made: a group that could not share is none.
    EXPECT_EQ(mManager->getPoolStreams(0x31), (std::set<StreamId_T>{0x31}));
    EXPECT_EQ(mManager->getPoolStreams(0x10), (std::set<StreamId_T>{0x10}));
    EXPECT_EQ(mManager->getPoolStreams(0x21), (std::set<StreamId_T>{0x20, 0x21}));
    EXPECT_EQ(mManager->getPoolStreams(0x51), (std::set<StreamId_T>{0x50, 0x51, 0x52}));
    {
        // Members that cannot share keep a pool each: y1's only heap out, y2 is served at once.
        auto [e1, y1] = request(0x30, 1, mManager->queryConfigImageStream(0x30)->info);
        auto [e2, y2] = request(0x31, 1, mManager->queryConfigImageStream(0x31)->info);
        auto [e3, c] = request(0x12, 1, mManager->queryConfigImageStream(0x12)->info);
        EXPECT_EQ(e1 | e2 | e3, 0);
        EXPECT_EQ(host::HeapFactory::memory()["y2"].heaps, 1);
        for (SbPtr* sb : {&y1, &y2, &c})
            if (*sb) (*sb)->releaseToOwner();
    }

    host::StringPrinter printer;
    mManager->dumpConfigStreams(printer);
    EXPECT_TRUE(printer.contains(
        "    WARNING [configureImageStreams] 'b': pool-shared but not BUFFER_SOURCE_POOL - "
        "attribute:[IMAGE-HAL-RUNTIME ]"));
    EXPECT_TRUE(printer.contains("    ERROR [evaluateSharedAllocStreamInfo] Different SecureInfo: [1|2] "
                                 "'0x12:c 640x480 fmt:0x32315659 planes:2 max:1 min:1' != '0x10:a 640x480"));
    EXPECT_TRUE(printer.contains("    ERROR [evaluateSharedAllocStreamInfo] Different ImgSize & Non-BLOB: "
                                 "[1|2] '0x31:y2 32x32"));
    EXPECT_EQ(mManager->queryConfigImageStream(0x10)->allocInfo->streamId(), 0x10);  // own pool
    auto j = mManager->queryConfigImageStream(0x20)->allocInfo;
    EXPECT_STREQ(j->streamName(), "shared-0x20-0x21");
    EXPECT_EQ(j->planeLayout()[0].sizeInBytes, 300u);
    EXPECT_EQ(mManager->queryConfigImageStream(0x40)->allocInfo->streamId(), 0x40);

    std::map<std::string, nivo::IImageBufferAllocator::ImgParam> params;
    for (auto const& c : host::HeapFactory::calls()) params[c.heapName] = c.param;
    auto const& blob = params["shared-0x20-0x21"];
    EXPECT_EQ(blob.imgFormat, kBlobFormat);
    EXPECT_EQ(blob.imgSize.w, 300);
    EXPECT_EQ(blob.imgSize.h, 1);
    EXPECT_EQ(blob.bufSizesInBytes[0], 0u);
    EXPECT_EQ(blob.usage, 0x08C20000u);
    EXPECT_TRUE(blob.flag1 && !blob.flag0);
    EXPECT_EQ(blob.trailing, 1u);
    auto const& yuv = params["y1"];
    EXPECT_EQ(yuv.imgSize.w, 64);
    EXPECT_EQ(yuv.bufSizesInBytes[0], 64u * 64);
    EXPECT_EQ(yuv.bufStridesInBytes[1], 64u);
    EXPECT_EQ(yuv.bufSizesInBytes[2], 0u);
    for (auto const& c : host::HeapFactory::calls()) EXPECT_EQ(c.caller, "fbm");
}

TEST_F(RequestTest, DeferredPoolIsAllocatedOnTrigger) {
    configure();
    int max = -1, allocated = -1;
    EXPECT_EQ(mManager->getBufferPoolMaxBufCount(kDeferred, max, allocated), 0);
    EXPECT_EQ(allocated, -1);  // no heap pool yet: nothing to read
    EXPECT_EQ(mManager->triggerBufferPool(kPreview), 0);   // not deferred
    EXPECT_EQ(mManager->triggerBufferPool(kHalProv), 0);   // no pool
    EXPECT_EQ(mManager->triggerBufferPool(0x99), 0);       // unknown
    EXPECT_EQ(mManager->triggerBufferPool(kDeferred), 0);
    ASSERT_TRUE(poolsFilled({{kDeferred, 2}}));
    int64_t const created = host::HeapFactory::created();
    EXPECT_EQ(mManager->triggerBufferPool(kDeferred), 0);  // "already inited"
    EXPECT_EQ(host::HeapFactory::created(), created);
    auto [err, sb] = request(kDeferred, 1);
    ASSERT_EQ(err, 0);
    releaseEverythingAndCheck({&sb});
}

// A deferred group triggered member by member, in either order, while the first triggered member's
// buffers are out: one heap pool serves both, and what the first holds goes back to it.
TEST_F(RequestTest, ADeferredGroupTriggeredMemberByMemberKeepsOnePool) {
    for (bool firstMemberFirst : {true, false}) {
        SCOPED_TRACE(firstMemberFirst ? "first member first" : "second member first");
        remakeManager("deferred");
        host::HeapFactory::reset();
        host::LogCapture::clear();
        auto a = imageInfo({.id = 0x20, .name = "a", .max = 3, .min = 1, .deferred = true});
        auto b = imageInfo({.id = 0x21, .name = "b", .max = 2, .min = 1, .deferred = true});
        IFrameBufferManager::ConfigureStreams cfg;
        cfg.sharedGroups = std::make_shared<std::vector<std::set<StreamId_T>>>(
            std::vector<std::set<StreamId_T>>{{0x20, 0x21}});
        cfg.imageStreams = {{a, eHAL_IMAGE_POOL, nullptr}, {b, eHAL_IMAGE_POOL, nullptr}};
        mManager->beginConfigure();
        ASSERT_EQ(mManager->configureStreams(cfg), 0);
        ASSERT_EQ(mManager->endConfigure(), 0);
        EXPECT_EQ(host::HeapFactory::alive(), 0);  // nothing before the first trigger
        StreamId_T const first = firstMemberFirst ? 0x20 : 0x21;
        StreamId_T const second = firstMemberFirst ? 0x21 : 0x20;
        auto infoOf = [&](StreamId_T id) { return id == 0x20 ? a : b; };
        ASSERT_EQ(mManager->triggerBufferPool(first), 0);
        ASSERT_TRUE(poolsFilled({{first, 3}}));
        std::vector<SbPtr> held;
        for (int i = 0; i < 2; ++i) {
            auto [err, sb] = request(first, 1, infoOf(first));
            ASSERT_EQ(err, 0);
            held.push_back(sb);
        }
        ASSERT_EQ(mManager->triggerBufferPool(second), 0);
        ASSERT_TRUE(poolsFilled({{0x20, 3}, {0x21, 3}}));
        auto [err, last] = request(second, 2, infoOf(second));  // the pool's third heap
        ASSERT_EQ(err, 0);
        held.push_back(last);
        EXPECT_EQ(host::HeapFactory::created(), 3);
        EXPECT_EQ(host::HeapFactory::memory()["shared-0x20-0x21"].heaps, 3);
        for (auto& sb : held) sb->releaseToOwner();
        held.clear();
        EXPECT_EQ(androidCount("fail to return buffer"), 0u);
        // All three heaps are available to either member again.
        for (StreamId_T id : {second, first, second}) {
            auto [e, sb] = request(id, 3, infoOf(id));
            ASSERT_EQ(e, 0);
            held.push_back(sb);
        }
        for (auto& sb : held) sb->releaseToOwner();
        EXPECT_EQ(host::HeapFactory::created(), 3);
    }
}

TEST_F(RequestTest, PoolMaximumIsReadAndChanged) {
    host::setULogSwitches(2, 0, 1);
    configure();
    int max = -1, allocated = -1;
    EXPECT_EQ(mManager->getBufferPoolMaxBufCount(0x99, max, allocated), 0);
    EXPECT_EQ(max, -1);  // untouched for a stream without a pool
    EXPECT_EQ(allocated, -1);
    ASSERT_EQ(mManager->getBufferPoolMaxBufCount(kPreview, max, allocated), 0);
    EXPECT_EQ(max, 2);
    EXPECT_EQ(androidCount(" failed!"), 0u);  // reading them is no error
    int same = 2;
    EXPECT_EQ(mManager->updateBufferPoolMaxBufCount(kPreview, same), 0);
    EXPECT_EQ(androidCount("has already been set to maxBufCount = 2"), 1u);
    int four = 4;
    EXPECT_EQ(mManager->updateBufferPoolMaxBufCount(kPreview, four), 0);
    ASSERT_TRUE(poolsFilled({{kPreview, 4}}));
    // Through one stream of a shared group, the whole group's pool changes.
    int five = 5;
    EXPECT_EQ(mManager->updateBufferPoolMaxBufCount(kFullB, five), 0);
    ASSERT_TRUE(poolsFilled({{kFullA, 5}, {kFullB, 5}}));
    int zero = 0;
    EXPECT_EQ(mManager->updateBufferPoolMaxBufCount(kHalProv, zero), 0);
    EXPECT_EQ(mManager->updateBufferPoolMaxBufCount(0x99, zero), 0);  // unknown: nothing to change
}

}  // namespace
}  // namespace fbmtest
