// The metadata free worker: buffers handed over are destroyed on its thread, a pass takes all
// that is pending, and within a pass the last handed over goes first.
#include <condition_variable>
#include <latch>
#include <sys/syscall.h>
#include <unistd.h>

#include "TestSupport.h"

namespace fbmtest {
namespace {

class MetaWorkerTest : public PlatformTest {
protected:
    void TearDown() override {
        host::StreamBufferFactory::setMetaDestroyHook(nullptr);
        PlatformTest::TearDown();
    }
    std::mutex mLock;
    std::condition_variable mCond;
    std::vector<std::string> mDestroyed;  // names, in destruction order
    std::vector<long> mThreads;
};

TEST_F(MetaWorkerTest, HandOversDuringAPassGoInTheNextPassLastFirst) {
    auto info = metaInfo(0x100, "m");
    std::vector<MetaPtr> first{makeMeta(info)};
    std::string const blocker = first[0]->bufferName();
    std::latch inPass(1), letGo(1);
    host::StreamBufferFactory::setMetaDestroyHook([&](char const* name) {
        if (name == blocker) {  // hold the worker inside its first pass
            inPass.count_down();
            letGo.wait();
        }
        std::lock_guard<std::mutex> lk(mLock);
        mDestroyed.emplace_back(name);
        mThreads.push_back(static_cast<long>(syscall(SYS_gettid)));
        mCond.notify_all();
    });

    // The process's worker: a local one could meet, at its destruction, the wake-up the worker
    // deliberately may miss then (it waits for the next hand-over; at unload there is none).
    FreeMetaObject& worker = gFreeMetaObject;
    worker.freeBufferVec(first);
    EXPECT_TRUE(first.empty());
    inPass.wait();
    std::vector<MetaPtr> b{makeMeta(info), makeMeta(info)}, d{makeMeta(info)};
    std::vector<std::string> const names{b[0]->bufferName(), b[1]->bufferName(), d[0]->bufferName()};
    worker.freeBufferVec(b);
    worker.freeBufferVec(d);
    worker.freeBufferVec(b);  // an empty hand-over only wakes the worker
    EXPECT_TRUE(b.empty() && d.empty());
    EXPECT_EQ(host::StreamBufferFactory::metaAlive(), 4);  // pending until the next pass
    letGo.count_down();

    std::unique_lock<std::mutex> lk(mLock);
    ASSERT_TRUE(mCond.wait_for(lk, std::chrono::seconds(10), [&] { return mDestroyed.size() == 4; }));
    EXPECT_EQ(mDestroyed, (std::vector<std::string>{blocker, names[2], names[1], names[0]}));
    long const self = static_cast<long>(syscall(SYS_gettid));
    for (long t : mThreads) {
        EXPECT_NE(t, self);
        EXPECT_EQ(t, mThreads[0]);
    }
}

TEST_F(MetaWorkerTest, ReleaseBufferOfEachKind) {
    auto info = metaInfo(0x100, "m");
    MetaPtr meta = makeMeta(info);
    releaseBuffer(meta);
    EXPECT_FALSE(meta);
    EXPECT_EQ(host::StreamBufferFactory::metaAlive(), 0);

    int64_t const calls = host::StreamBufferFactory::releaseToOwnerCalls();
    auto heap = nivo::IImageBufferHeapFactory::create("t", "h", {}, false);
    SbPtr image = Utils::makeHalImageStreamBuffer({imageInfo({}), heap, nullptr, nullptr});
    releaseBuffer(image);
    EXPECT_FALSE(image);
    EXPECT_EQ(host::StreamBufferFactory::releaseToOwnerCalls(), calls + 1);
}

}  // namespace
}  // namespace fbmtest
