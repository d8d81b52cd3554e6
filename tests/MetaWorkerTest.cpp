// The metadata free worker: buffers handed over are destroyed on its thread, a pass takes all
// that is pending, and within a pass the last handed over goes first.
#include <atomic>
#include <condition_variable>
#include <latch>
#include <thread>
#include <sys/syscall.h>
#include <unistd.h>

#include "TestSupport.h"

namespace fbmtest {
namespace {

class MetaWorkerTest : public PlatformTest {
protected:
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

    FreeMetaObject& worker = gFreeMetaObject;  // the process's own, as the manager uses it
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
    // The hook runs just before a buffer is counted out: the next test must not see it alive.
    lk.unlock();
    while (host::StreamBufferFactory::metaAlive() != 0) std::this_thread::yield();
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

// Where a worker is when it is destroyed.
enum class Point { JustBuilt, BeforeItsWait, Waiting, InAPass, WithBuffersPending };

struct Round {
    std::atomic<long> workerTid{0};     // learnt from the worker's first line
    std::atomic<long> destroyerTid{0};
    std::atomic<bool> reached{false};   // the worker is at the point
    std::atomic<bool> destroying{false};
    std::atomic<int> ended{0};          // "thread -" lines of the worker
    std::mutex lock;
    std::vector<long> destroyedOn;      // per metadata buffer destroyed, guarded by lock

    bool onWorker() const { return workerTid == static_cast<long>(syscall(SYS_gettid)); }
    void arrive() {
        reached = true;
        reached.notify_all();
    }
};

// Destroys the worker. A destructor that does not return is a hang at unload or exit: the test
// aborts naming the point, instead of sitting until its time-out.
void destroyWorker(std::unique_ptr<FreeMetaObject>& worker, Round& round, char const* point) {
    Watchdog watchdog(std::chrono::seconds(30), [point] {
        return std::string("metadata worker destroyed ") + point + ": not joined after 30 s";
    });
    round.destroyerTid = static_cast<long>(syscall(SYS_gettid));
    round.destroying = true;
    round.destroying.notify_all();
    worker.reset();
}

// As the process-wide worker at exit: a pipeline thread that hands buffers over after the
// static destructor ran frees them itself.
TEST_F(MetaWorkerTest, AHandOverAfterTheWorkerEndedIsFreedOnTheCallersThread) {
    alignas(FreeMetaObject) unsigned char storage[sizeof(FreeMetaObject)];
    auto* worker = new (storage) FreeMetaObject;
    worker->~FreeMetaObject();
    host::StreamBufferFactory::setMetaDestroyHook([&](char const*) {
        std::lock_guard<std::mutex> lk(mLock);
        mThreads.push_back(static_cast<long>(syscall(SYS_gettid)));
    });
    auto info = metaInfo(0x100, "late");
    std::vector<MetaPtr> late{makeMeta(info), makeMeta(info)};
    worker->freeBufferVec(late);
    EXPECT_TRUE(late.empty());
    EXPECT_EQ(host::StreamBufferFactory::metaAlive(), 0);
    std::lock_guard<std::mutex> lk(mLock);
    EXPECT_EQ(mThreads, (std::vector<long>(2, static_cast<long>(syscall(SYS_gettid)))));
}

TEST_F(MetaWorkerTest, DestroyedAtEveryPointOfItsLoopItStops) {
    host::LogCapture::setCapturing(false);
    host::setULogSwitches(5, 0x207000, 1);  // the worker's debug lines mark where it is
    auto info = metaInfo(0x100, "m");
    constexpr int kRounds = 100;
    std::pair<Point, char const*> const points[] = {
        {Point::JustBuilt, "just built"},
        {Point::BeforeItsWait, "between its emptiness test and its wait"},
        {Point::Waiting, "while waiting"},
        {Point::InAPass, "in a pass"},
        {Point::WithBuffersPending, "with buffers pending"},
    };
    // The process's own worker may print its first lines late on a loaded machine: learn its
    // thread from a pass it runs, and let its lines go by.
    std::atomic<long> processWorker{0};
    host::LogCapture::setLineHook([&](std::string const& text) {
        if (text.find("FreeMetaObject: free -") == std::string::npos) return;  // after the pass
        processWorker = static_cast<long>(syscall(SYS_gettid));
        processWorker.notify_all();
    });
    std::vector<MetaPtr> one{makeMeta(info)};
    gFreeMetaObject.freeBufferVec(one);
    processWorker.wait(0);

    for (auto const& [point, what] : points) {
        SCOPED_TRACE(what);
        for (int i = 0; i < kRounds; ++i) {
            Round round;
            host::LogCapture::setLineHook([&round, &processWorker, point = point](std::string const& text) {
                if (static_cast<long>(syscall(SYS_gettid)) == processWorker) return;
                if (text.find("FreeMetaObject: thread +") != std::string::npos) {
                    round.workerTid = static_cast<long>(syscall(SYS_gettid));
                    return;
                }
                if (!round.onWorker()) return;
                if (text.find("FreeMetaObject: thread -") != std::string::npos) ++round.ended;
                if (text.find("FreeMetaObject: wait +") == std::string::npos) return;
                if (point == Point::Waiting) round.arrive();
                if (point == Point::BeforeItsWait) {  // hold it there until destruction begins
                    round.arrive();
                    round.destroying.wait(false);
                }
            });
            host::StreamBufferFactory::setMetaDestroyHook([&round, point = point](char const*) {
                long const tid = static_cast<long>(syscall(SYS_gettid));
                {
                    std::lock_guard<std::mutex> lk(round.lock);
                    round.destroyedOn.push_back(tid);
                }
                if (round.onWorker() && (point == Point::InAPass || point == Point::WithBuffersPending) &&
                    !round.reached) {  // hold the first pass until destruction begins
                    round.arrive();
                    round.destroying.wait(false);
                }
            });

            auto worker = std::make_unique<FreeMetaObject>();
            std::vector<MetaPtr> first{makeMeta(info)}, later{makeMeta(info), makeMeta(info)};
            if (point == Point::InAPass || point == Point::WithBuffersPending) worker->freeBufferVec(first);
            if (point != Point::JustBuilt) round.reached.wait(false);
            if (point == Point::WithBuffersPending) worker->freeBufferVec(later);
            destroyWorker(worker, round, what);
            host::LogCapture::setLineHook(nullptr);
            host::StreamBufferFactory::setMetaDestroyHook(nullptr);

            EXPECT_EQ(round.ended.load(), 1);
            EXPECT_EQ(host::StreamBufferFactory::metaAlive(), static_cast<int64_t>(first.size() + later.size()));
            first.clear();
            later.clear();
            if (point == Point::InAPass) {  // the begun pass completed on the worker
                EXPECT_EQ(round.destroyedOn, std::vector<long>{round.workerTid});
            }
            if (point == Point::WithBuffersPending) {
                // The begun pass completes on the worker; what was handed over meanwhile goes in
                // one more pass if the worker saw it before the flag, else on the destroying thread.
                ASSERT_EQ(round.destroyedOn.size(), 3u);
                EXPECT_EQ(round.destroyedOn[0], round.workerTid);
                EXPECT_EQ(round.destroyedOn[1], round.destroyedOn[2]);
                EXPECT_TRUE(round.destroyedOn[1] == round.workerTid || round.destroyedOn[1] == round.destroyerTid);
            }
            if (HasFailure()) return;
        }
    }
}

}  // namespace
}  // namespace fbmtest
