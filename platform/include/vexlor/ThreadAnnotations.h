#pragma once
// Annotated wrappers of the standard mutexes. libstdc++'s mutexes carry no capability, so Clang's
// -Wthread-safety checks nothing on them; these thin wrappers let the compiler check that a member
// marked GUARDED_BY is only touched with its lock held and that `_l`/`Locked` functions are only
// called with theirs. With GCC the macros expand to nothing and the wrappers cost nothing.
#include <chrono>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#if defined(__clang__)
#define FBM_TSA(x) __attribute__((x))
#else
#define FBM_TSA(x)
#endif

#ifndef CAPABILITY
#define CAPABILITY(x) FBM_TSA(capability(x))
#define SCOPED_CAPABILITY FBM_TSA(scoped_lockable)
#define GUARDED_BY(x) FBM_TSA(guarded_by(x))
#define PT_GUARDED_BY(x) FBM_TSA(pt_guarded_by(x))
#define ACQUIRED_AFTER(...) FBM_TSA(acquired_after(__VA_ARGS__))
#define ACQUIRED_BEFORE(...) FBM_TSA(acquired_before(__VA_ARGS__))
#define REQUIRES(...) FBM_TSA(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) FBM_TSA(acquire_capability(__VA_ARGS__))
#define RELEASE(...) FBM_TSA(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) FBM_TSA(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) FBM_TSA(locks_excluded(__VA_ARGS__))
#define RETURN_CAPABILITY(x) FBM_TSA(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS FBM_TSA(no_thread_safety_analysis)
#endif

#if defined(__SANITIZE_THREAD__)
#define FBM_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define FBM_TSAN 1
#endif
#endif

#if !defined(FBM_TSAN)
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <ctime>
#endif

namespace NSCam {

#if !defined(FBM_TSAN)
namespace detail {
inline long futex(std::atomic<uint32_t>* word, int op, uint32_t value, timespec const* timeout = nullptr) {
    return ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), op | FUTEX_PRIVATE_FLAG, value, timeout,
                     nullptr, 0);
}
inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
    asm volatile("yield");
#endif
}
}  // namespace detail
#endif

// The locks of the frame path are held for a few dozen instructions and taken a dozen times per
// buffer: an inline lock that spins briefly before sleeping on a futex costs a fraction of a
// pthread mutex, uncontended and contended. Under the thread sanitizer it is a std::mutex, which
// the sanitizer understands.
class CAPABILITY("mutex") Mutex {
public:
#if !defined(FBM_TSAN)
    void lock() ACQUIRE() {
        uint32_t expected = 0;
        if (!mState.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed)) {
            lockSlow();
        }
    }
    void unlock() RELEASE() {
        if (mState.exchange(0, std::memory_order_release) == 2) detail::futex(&mState, FUTEX_WAKE, 1);
    }
    bool try_lock() TRY_ACQUIRE(true) {
        uint32_t expected = 0;
        return mState.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed);
    }

    // Tries for at most `d`; false when the time ran out.
    template <class Rep, class Period>
    bool try_lock_for(std::chrono::duration<Rep, Period> const& d) TRY_ACQUIRE(true) {
        if (try_lock()) return true;
        auto const deadline = std::chrono::steady_clock::now() + d;
        while (mState.exchange(2, std::memory_order_acquire) != 0) {
            auto const left = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                  deadline - std::chrono::steady_clock::now())
                                  .count();
            if (left <= 0) return false;
            timespec const ts{static_cast<time_t>(left / 1000000000), static_cast<long>(left % 1000000000)};
            detail::futex(&mState, FUTEX_WAIT, 2, &ts);
        }
        return true;
    }

private:
    friend class Condition;
    // States: 0 free, 1 held, 2 held and somebody may sleep on it.
    void lockSlow() {
        for (int spin = 0; spin < 64; ++spin) {
            detail::cpuRelax();
            uint32_t expected = 0;
            if (mState.load(std::memory_order_relaxed) == 0 &&
                mState.compare_exchange_weak(expected, 1, std::memory_order_acquire, std::memory_order_relaxed)) {
                return;
            }
        }
        while (mState.exchange(2, std::memory_order_acquire) != 0) detail::futex(&mState, FUTEX_WAIT, 2);
    }
    std::atomic<uint32_t> mState{0};
#else
    void lock() ACQUIRE() { mMutex.lock(); }
    void unlock() RELEASE() { mMutex.unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return mMutex.try_lock(); }

private:
    friend class Condition;
    std::mutex mMutex;
#endif
};

// A condition variable for Mutex. Waits are single waits (a wake-up may be spurious); notify
// costs one load when nobody waits. A notifier that holds the mutex cannot be missed by a waiter
// that tested its state under the same mutex.
class Condition {
public:
#if !defined(FBM_TSAN)
    void wait(Mutex& m) REQUIRES(m) { waitImpl(m, nullptr); }
    // False when the time ran out.
    template <class Rep, class Period>
    bool waitFor(Mutex& m, std::chrono::duration<Rep, Period> const& d) REQUIRES(m) {
        auto const ns = std::chrono::duration_cast<std::chrono::nanoseconds>(d).count();
        timespec const ts{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
        return waitImpl(m, &ts);
    }
    void notifyOne() { notify(1); }
    void notifyAll() { notify(INT_MAX); }

private:
    bool waitImpl(Mutex& m, timespec const* timeout) NO_THREAD_SAFETY_ANALYSIS {
        uint32_t const seq = mSeq.load(std::memory_order_relaxed);
        mWaiters.fetch_add(1, std::memory_order_relaxed);
        m.unlock();
        long const r = detail::futex(&mSeq, FUTEX_WAIT, seq, timeout);
        bool const timedOut = r == -1 && errno == ETIMEDOUT;
        mWaiters.fetch_sub(1, std::memory_order_relaxed);
        m.lock();
        return !timedOut;
    }
    void notify(int n) {
        if (mWaiters.load(std::memory_order_seq_cst) == 0) return;
        mSeq.fetch_add(1, std::memory_order_seq_cst);
        detail::futex(&mSeq, FUTEX_WAKE, static_cast<uint32_t>(n));
    }
    std::atomic<uint32_t> mSeq{0};
    std::atomic<uint32_t> mWaiters{0};
#else
    void wait(Mutex& m) REQUIRES(m) {
        std::unique_lock<std::mutex> lk(m.mMutex, std::adopt_lock);
        mCond.wait(lk);
        lk.release();
    }
    template <class Rep, class Period>
    bool waitFor(Mutex& m, std::chrono::duration<Rep, Period> const& d) REQUIRES(m) {
        std::unique_lock<std::mutex> lk(m.mMutex, std::adopt_lock);
        bool const woken = mCond.wait_for(lk, d) == std::cv_status::no_timeout;
        lk.release();
        return woken;
    }
    void notifyOne() { mCond.notify_one(); }
    void notifyAll() { mCond.notify_all(); }

private:
    std::condition_variable mCond;
#endif
};

// A Mutex that can also be tried for a while (dumps and the release path do).
class CAPABILITY("mutex") TimedMutex {
public:
#if !defined(FBM_TSAN)
    void lock() ACQUIRE() { mMutex.lock(); }
    void unlock() RELEASE() { mMutex.unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return mMutex.try_lock(); }
    template <class Rep, class Period>
    bool try_lock_for(std::chrono::duration<Rep, Period> const& d) TRY_ACQUIRE(true) {
        return mMutex.try_lock_for(d);
    }

private:
    Mutex mMutex;
#else
    // The thread sanitizer does not see std::timed_mutex's timed acquisition
    // (pthread_mutex_clocklock): under it, a lock built of parts it does see.
    void lock() ACQUIRE() {
        std::unique_lock<std::mutex> lk(mMutex);
        mCond.wait(lk, [this] { return !mLocked; });
        mLocked = true;
    }
    void unlock() RELEASE() {
        {
            std::lock_guard<std::mutex> lk(mMutex);
            mLocked = false;
        }
        mCond.notify_one();
    }
    bool try_lock() TRY_ACQUIRE(true) {
        std::lock_guard<std::mutex> lk(mMutex);
        if (mLocked) return false;
        mLocked = true;
        return true;
    }
    template <class Rep, class Period>
    bool try_lock_for(std::chrono::duration<Rep, Period> const& d) TRY_ACQUIRE(true) {
        std::unique_lock<std::mutex> lk(mMutex);
        if (!mCond.wait_for(lk, d, [this] { return !mLocked; })) return false;
        mLocked = true;
        return true;
    }

private:
    std::mutex mMutex;
    std::condition_variable mCond;
    bool mLocked = false;
#endif
};

template <class M>
class SCOPED_CAPABILITY LockGuard {
public:
    explicit LockGuard(M& m) ACQUIRE(m) : mM(m) { mM.lock(); }
    ~LockGuard() RELEASE() { mM.unlock(); }
    LockGuard(LockGuard const&) = delete;
    LockGuard& operator=(LockGuard const&) = delete;

private:
    M& mM;
};

// Both locks at once with the standard deadlock-free two-lock acquisition (std::lock).
class SCOPED_CAPABILITY DualLocker {
public:
    DualLocker(Mutex& a, Mutex& b) ACQUIRE(a, b) : mA(a), mB(b) { std::lock(mA, mB); }
    ~DualLocker() RELEASE() {
        mA.unlock();
        mB.unlock();
    }

private:
    Mutex& mA;
    Mutex& mB;
};

}  // namespace NSCam
