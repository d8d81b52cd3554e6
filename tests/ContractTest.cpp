// The edges of the contract: a mode switch with history kept, a selector's broken set, a group
// that could not share, and careless calls. Nothing lost, nothing blocked, a clear answer.
#include <future>

#include "FramePathSupport.h"

namespace fbmtest {
namespace {

using namespace std::chrono_literals;

class ContractTest : public FramePathTest {
protected:
    int configureImages(std::vector<IFrameBufferManager::AddImageStream> images,
                        std::vector<std::set<StreamId_T>> groups = {}) {
        IFrameBufferManager::ConfigureStreams cfg;
        cfg.sharedGroups = std::make_shared<std::vector<std::set<StreamId_T>>>(std::move(groups));
        cfg.imageStreams = std::move(images);
        mManager->beginConfigure();
        int const err = mManager->configureStreams(cfg);
        mManager->endConfigure();
        return err;
    }
    void selectAndGiveBack(bool keep) {
        auto sets = mManager->beginSelect();
        for (auto& s : sets) mManager->returnUnselectedSet({s, keep});
        mManager->endSelect();
    }
};

TEST_F(ContractTest, AReplacedPoolRetiresWithoutMakingAFrameThreadWaitForItsWorker) {
    // The old pool's worker is held inside its third allocation until the test lets it go.
    std::mutex m;
    std::condition_variable cv;
    bool inside = false, go = false;
    std::atomic<int> creates{0};
    host::HeapFactory::setRecordCalls(true);
    host::setULogSwitches(3, 0x207000, 9);  // the pool's end line is an info line
    host::HeapFactory::setCreateHook([&] {
        if (++creates != 3) return;
        std::unique_lock<std::mutex> lk(m);
        inside = true;
        cv.notify_all();
        cv.wait(lk, [&] { return go; });
    });
    auto letGo = [&] {
        std::lock_guard<std::mutex> lk(m);
        go = true;
        cv.notify_all();
    };
    mInfos[kPreview] = imageInfo({.id = kPreview, .name = "old", .max = 7, .min = 1});
    ASSERT_EQ(configureImages({{mInfos[kPreview], eHAL_IMAGE_POOL, nullptr}}), 0);
    {
        std::unique_lock<std::mutex> lk(m);
        ASSERT_TRUE(cv.wait_for(lk, 10s, [&] { return inside; }));
    }
    keptFrame(1, 100);  // the history holds one old heap; the other is idle

    // The mode switch: the same stream, a new pool. The old one frees its idle heap at once.
    mInfos[kPreview] = imageInfo({.id = kPreview, .name = "new", .max = 2, .min = 1});
    ASSERT_EQ(configureImages({{mInfos[kPreview], eHAL_IMAGE_POOL, nullptr}}), 0);
    EXPECT_EQ(host::HeapFactory::memory()["old"].heaps, 1);

    // The selector lets the old set go while the old worker is still allocating.
    auto release = std::async(std::launch::async, [&] { selectAndGiveBack(false); });
    bool const prompt = release.wait_for(10s) == std::future_status::ready;
    letGo();
    release.get();
    EXPECT_TRUE(prompt) << "the last old buffer's release waited for the old pool's worker";
    EXPECT_EQ(host::HeapFactory::memory()["old"].heaps, 0);  // freed as it came back
    // The worker ends with the heap it was making, and has made no other since the switch.
    ASSERT_TRUE(waitForLine("Pool(old-"));
    auto calls = host::HeapFactory::calls();
    EXPECT_EQ(std::count_if(calls.begin(), calls.end(), [](auto const& c) { return c.heapName == "old"; }), 3);
    EXPECT_TRUE(waitHeaps([](int64_t, int64_t alive) { return alive == 2; }));  // the new pool's
}

TEST_F(ContractTest, ASetGivenBackWithoutSomeOfItsBuffersKeepsWhatIsLeftAndDumpsFromAnyThread) {
    configure();
    keptFrame(1, 100);
    keptFrame(2, 200);
    auto sets = mManager->beginSelect();
    releaseBuffer(sets.front().halImage[0]);  // the selector let one buffer go itself,
    for (auto& b : sets.back().halImage) releaseBuffer(b);  // and every buffer of the other set
    for (auto& b : sets.back().halMeta) releaseBuffer(b);
    for (auto& b : sets.back().appMeta) releaseBuffer(b);
    for (auto& s : sets) mManager->returnUnselectedSet({s, true});
    mManager->endSelect();

    host::StringPrinter printer;  // a system dump, from the registry's thread
    std::thread([&] { host::DebuggeeRegistry::debugAll(&printer, {}); }).join();
    EXPECT_TRUE(printer.contains("    [R1001 F1]TS:100 {} { (0x100) } { (0x101) }"));
    EXPECT_FALSE(printer.contains("F2]"));  // nothing left: not kept
    EXPECT_EQ(mManager->readyCounters()[kPreview], 0);
    releaseEverythingAndCheck();
}

TEST_F(ContractTest, ASetGivenBackKeptTwiceIsReadyOnce) {
    configure();
    keptFrame(1, 100);
    auto sets = mManager->beginSelect();
    auto clone = mManager->cloneHBS(sets.front());  // buffers of its own
    auto copy = sets.front();                       // the same buffers
    mManager->returnUnselectedSet({sets.front(), true});
    mManager->returnUnselectedSet({clone, true});
    mManager->returnUnselectedSet({copy, true});
    mManager->endSelect();
    EXPECT_EQ(mManager->readyFrames(), (std::vector<uint32_t>{1}));
    EXPECT_EQ(mManager->readyCounters()[kPreview], 1);
    EXPECT_EQ(androidCount("[returnUnselectedSet] [R1001 F1] already in ReadyList: released"), 2u);
    auto const pools = mManager->takeState().pools;  // the ready set's heap is still out
    EXPECT_EQ(std::find_if(pools.begin(), pools.end(), [](auto const& p) { return p.name == "preview"; })->inUse, 1);
    releaseEverythingAndCheck();  // the clone's buffers went, the kept set's stayed
}

TEST_F(ContractTest, AGroupThatCouldNotShareIsFedPoolByPool) {
    // Grouped, but of other sizes: a pool each, the small one of a single heap.
    mInfos[0x10] = imageInfo({.id = 0x10, .name = "small", .max = 1, .min = 1});
    mInfos[0x11] = imageInfo({.id = 0x11, .name = "large", .w = 1280, .h = 960, .max = 3, .min = 3});
    ASSERT_EQ(configureImages({{mInfos[0x10], eHAL_IMAGE_POOL, nullptr}, {mInfos[0x11], eHAL_IMAGE_POOL, nullptr}},
                              {{0x10, 0x11}}),
              0);
    ASSERT_TRUE(poolsFilled({{0x10, 1}, {0x11, 3}}));
    for (uint32_t f = 1; f <= 3; ++f) keptFrame(f, 100 * f, 0x11);
    keptFrame(4, 400, 0x10);
    EXPECT_EQ(mManager->readyCounters(), (std::map<StreamId_T, int32_t>{{0x10, 1}, {0x11, 3}}));

    auto [err, sb] = request(0x10, 5);  // starving: only frame 4 holds a heap of its pool
    EXPECT_EQ(err, 0);
    EXPECT_EQ(mManager->readyFrames(), (std::vector<uint32_t>{1, 2, 3}));
    releaseEverythingAndCheck({&sb});
}

TEST_F(ContractTest, CarelessCallsGetAClearAnswerAndLoseNothing) {
    configure();
    // A request with nothing to hand its buffer to takes nothing.
    EXPECT_EQ(mProvider->requestStreamBuffer(nullptr, {1, 1, mInfos[kPreview]}), -EINVAL);
    EXPECT_EQ(androidCount("[requestStreamBuffer] [requestNo:1 frameNo:1] empty callback"), 1u);

    // A batch that brings a tracked stream twice: kept once, and the frame completes.
    auto [e1, a] = request(kPreview, 2);
    auto [e2, b] = request(kPreview, 3);
    ASSERT_EQ(e1 | e2, 0);
    track(2, {kPreview}, {kHalMeta});
    Result r{.timestamp = 200, .images = {a, a, b}, .halMeta = {makeMeta(mHalMetaInfo, 1), makeMeta(mHalMetaInfo, 2)}};
    returnResult(2, r);
    EXPECT_EQ(r.images, (std::vector<SbPtr>{a, b}));
    EXPECT_EQ(mManager->readyFrames(), (std::vector<uint32_t>{2}));
    EXPECT_EQ(androidCount("returned again: left in the caller's list"), 3u);

    // A negative maximum changes nothing.
    int max = -1, got = 0, allocated = 0;
    EXPECT_EQ(mManager->updateBufferPoolMaxBufCount(kPreview, max), -EINVAL);
    EXPECT_EQ(mManager->getBufferPoolMaxBufCount(kPreview, got, allocated), 0);
    EXPECT_EQ(got, 2);
    EXPECT_EQ(androidCount("[updateBufferPoolMaxBufCount] stream(0x1) bad maxBufCount = -1"), 1u);

    // POOL streams that can never serve end the configuration; two streams of one id are noted.
    EXPECT_EQ(configureImages({{imageInfo({.id = 0x20, .name = "none", .max = 0, .min = 0}), eHAL_IMAGE_POOL, nullptr}}),
              -EINVAL);
    EXPECT_EQ(configureImages({{imageInfo({.id = 0x21, .name = "flat", .h = 0}), eHAL_IMAGE_POOL, nullptr}}), -EINVAL);
    EXPECT_EQ(androidCount("a POOL stream that can never serve"), 2u);
    EXPECT_FALSE(mManager->queryConfigImageStream(0x20) || mManager->queryConfigImageStream(0x21));
    auto twin = imageInfo({.id = 0x22, .name = "twin", .max = 1, .min = 0});
    EXPECT_EQ(configureImages({{twin, eHAL_IMAGE_RUNTIME, nullptr}, {twin, eHAL_IMAGE_RUNTIME, nullptr}}), 0);
    host::StringPrinter printer;
    mManager->dumpConfigStreams(printer);
    EXPECT_TRUE(printer.contains("WARNING [configureImageStreams] two image streams with streamId:0x22"));
    EXPECT_FALSE(printer.contains("two image streams with streamId:0x1"));  // distinct ones are not

    // A selection that waits a second for another says which frames that one took, once.
    auto sets = mManager->beginSelect();
    std::thread second([&] { selectAndGiveBack(true); });
    EXPECT_TRUE(waitForLine("[beginSelect] waited 1 s for the selection of frames { 2 } to end"));
    for (auto& s : sets) mManager->returnUnselectedSet({s, true});
    mManager->endSelect();
    second.join();
    EXPECT_EQ(androidCount("waited 1 s for the selection"), 1u);
    r.images.clear();
    releaseEverythingAndCheck({&a, &b});
}

}  // namespace
}  // namespace fbmtest
