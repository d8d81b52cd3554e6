// The three lock primitives of the library under contention, as the frame path uses them. The
// counters are plain integers: only the locks order them, so a lock that lets two holders in, or a
// sanitizer that cannot see the lock, shows here. Every wait is bounded; a lost wake-up is counted
// as a time-out, never a hang.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <latch>
#include <mutex>
#include <thread>
#include <vector>

#include <vexlor/ThreadAnnotations.h>

namespace fbmtest {
namespace {

using namespace NSCam;  // the locks under test
using namespace std::chrono_literals;

constexpr int kThreads = 4;
constexpr int kRounds = 20000;

void hammer(Mutex& m, long& counter, int threads, int rounds) {
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([&, t] {
            for (int i = 0; i < rounds; ++i) {
                switch ((i + t) % 3) {
                    case 0: {
                        LockGuard<Mutex> lk(m);
                        ++counter;
                        break;
                    }
                    case 1:
                        while (!m.try_lock()) std::this_thread::yield();
                        ++counter;
                        m.unlock();
                        break;
                    default:
                        while (!m.try_lock_for(1ms)) {
                        }
                        ++counter;
                        m.unlock();
                        break;
                }
            }
        });
    }
    for (auto& th : pool) th.join();
}

// TimedMutex is a Mutex underneath: the one lock is hammered.
TEST(LockTortureTest, MutexLetsOneHolderInAtATime) {
    Mutex m;
    long counter = 0;
    hammer(m, counter, kThreads, kRounds);
    LockGuard<Mutex> lk(m);
    EXPECT_EQ(counter, long{kThreads} * kRounds);
}

TEST(LockTortureTest, TriedLocksTimeOutWhileHeldAndSucceedOnceLetGo) {
    TimedMutex tm;
    Mutex m;
    std::latch held(1), tried(1), done(1);
    std::thread holder([&] {
        tm.lock();
        m.lock();
        held.count_down();
        tried.wait();
        m.unlock();
        tm.unlock();
        done.count_down();
    });
    held.wait();
    EXPECT_FALSE(tm.try_lock());
    EXPECT_FALSE(m.try_lock());
    auto const start = std::chrono::steady_clock::now();
    EXPECT_FALSE(tm.try_lock_for(20ms));
    EXPECT_FALSE(m.try_lock_for(20ms));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 40ms);  // each waited out its time
    EXPECT_FALSE(tm.try_lock_for(0ms));
    EXPECT_FALSE(m.try_lock_for(-5ms));
    tried.count_down();
    // Let go while this thread may already sleep in the timed acquisition: it must be woken.
    EXPECT_TRUE(tm.try_lock_for(30s));
    EXPECT_TRUE(m.try_lock_for(30s));
    done.wait();
    m.unlock();
    tm.unlock();
    holder.join();
    EXPECT_TRUE(m.try_lock());
    m.unlock();
}

TEST(LockTortureTest, ConditionNotifiedWithoutWaitersAndWaitForTimesOut) {
    Mutex m;
    Condition c;
    c.notifyOne();  // nobody waits: nothing happens, and nothing is remembered
    c.notifyAll();
    LockGuard<Mutex> lk(m);
    auto const start = std::chrono::steady_clock::now();
    bool woken = c.waitFor(m, 20ms);
    // A spurious wake-up is allowed; it must come back holding the mutex either way.
    if (!woken) {
        EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
    }
    EXPECT_FALSE(m.try_lock());
}

// "Forever" spelt as the largest duration waits: the conversion to nanoseconds saturates. Each
// waiter is checked to be still waiting a while after it started, then let go.
TEST(LockTortureTest, HugeDurationsWaitInsteadOfOverflowing) {
    Mutex m;
    TimedMutex tm;
    m.lock();
    tm.lock();
    auto tryM = std::async(std::launch::async, [&] {
        bool const got = m.try_lock_for(std::chrono::hours::max());
        if (got) m.unlock();
        return got;
    });
    auto tryTm = std::async(std::launch::async, [&] {
        bool const got = tm.try_lock_for(std::chrono::nanoseconds::max());
        if (got) tm.unlock();
        return got;
    });
    Mutex cm;
    Condition cond;
    bool go = false;
    bool anyTimedOut = false;
    auto waiter = std::async(std::launch::async, [&] {
        LockGuard<Mutex> lk(cm);
        while (!go) anyTimedOut |= !cond.waitFor(cm, std::chrono::hours::max());
    });
    EXPECT_EQ(tryM.wait_for(100ms), std::future_status::timeout);
    EXPECT_EQ(tryTm.wait_for(1ms), std::future_status::timeout);
    EXPECT_EQ(waiter.wait_for(1ms), std::future_status::timeout);
    m.unlock();
    tm.unlock();
    {
        LockGuard<Mutex> lk(cm);
        go = true;
        cond.notifyAll();
    }
    EXPECT_TRUE(tryM.get());
    EXPECT_TRUE(tryTm.get());
    waiter.get();
    EXPECT_FALSE(anyTimedOut);
}

// Ping-pong of a turn between threads: each waits, with the state tested under the mutex, for its
// turn and hands it on. A wake-up lost between the test and the sleep would stall a thread for the
// whole bound and is counted.
TEST(LockTortureTest, ConditionLosesNoWakeUpWhenStateChangesUnderTheMutex) {
    constexpr int kPlayers = 3;
    constexpr int kTurns = 6000;
    Mutex m;
    Condition c;
    int turn = 0;       // guarded by m
    long passes = 0;    // guarded by m
    std::atomic<int> timeouts{0};
    std::vector<std::thread> players;
    for (int p = 0; p < kPlayers; ++p) {
        players.emplace_back([&, p] {
            for (int i = 0; i < kTurns; ++i) {
                LockGuard<Mutex> lk(m);
                while (turn != p) {
                    if (!c.waitFor(m, 10s)) ++timeouts;
                }
                ++passes;
                turn = (turn + 1) % kPlayers;
                c.notifyAll();  // under the mutex, as the heap pool's worker does
            }
        });
    }
    for (auto& t : players) t.join();
    LockGuard<Mutex> lk(m);
    EXPECT_EQ(passes, long{kPlayers} * kTurns);
    EXPECT_EQ(timeouts.load(), 0);
}

// A producer hands items to consumers with notifyOne after releasing the mutex, as the heap pool
// does: every item is taken once and no consumer sleeps through one.
TEST(LockTortureTest, NotifyOneAfterUnlockHandsEveryItemOver) {
    constexpr int kItems = 20000;
    Mutex m;
    Condition c;
    int queued = 0;   // guarded by m
    int taken = 0;    // guarded by m
    bool closed = false;
    std::atomic<int> timeouts{0};
    std::vector<std::thread> consumers;
    for (int i = 0; i < 2; ++i) {
        consumers.emplace_back([&] {
            LockGuard<Mutex> lk(m);
            for (;;) {
                while (queued == 0 && !closed) {
                    if (!c.waitFor(m, 10s)) ++timeouts;
                }
                if (queued == 0) return;
                --queued;
                ++taken;
            }
        });
    }
    for (int i = 0; i < kItems; ++i) {
        {
            LockGuard<Mutex> lk(m);
            ++queued;
        }
        c.notifyOne();
    }
    {
        LockGuard<Mutex> lk(m);
        closed = true;
    }
    c.notifyAll();
    for (auto& t : consumers) t.join();
    LockGuard<Mutex> lk(m);
    EXPECT_EQ(taken, kItems);
    EXPECT_EQ(timeouts.load(), 0);
}

#if defined(FBM_TSAN)
// The sanitizer sees these locks for what they are: two taken in both orders is reported.
TEST(LockTortureTest, ThreadSanitizerSeesTheLocks) {
    EXPECT_DEATH(
        {
            Mutex a;
            TimedMutex b;
            {
                LockGuard<Mutex> la(a);
                LockGuard<TimedMutex> lb(b);
            }
            LockGuard<TimedMutex> lb(b);
            LockGuard<Mutex> la(a);
        },
        "lock-order-inversion");
}
#endif

}  // namespace
}  // namespace fbmtest
