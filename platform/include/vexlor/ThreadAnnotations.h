#pragma once
// Annotated wrappers of the standard mutexes. libstdc++'s mutexes carry no capability, so Clang's
// -Wthread-safety checks nothing on them; these thin wrappers let the compiler check that a member
// marked GUARDED_BY is only touched with its lock held and that `_l`/`Locked` functions are only
// called with theirs. With GCC the macros expand to nothing and the wrappers cost nothing.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <limits>
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

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <ctime>

#if defined(FBM_TSAN)
#include <sanitizer/tsan_interface.h>
#endif

namespace NSCam {

namespace detail {
inline long futex(std::atomic<uint32_t>* word, int op, uint32_t value, timespec const* timeout = nullptr) {
    return ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), op | FUTEX_PRIVATE_FLAG, value, timeout,
                     nullptr, 0);
}
inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield" ::: "memory");
#else
#error "no spin hint for this architecture"
#endif
}

// The thread sanitizer does not see futexes. These tell it what the locks below do, so that it
// checks the locks that ship: between a pre and a post call it ignores the lock's own atomics, and
// at the post call it records the acquisition or release. Empty without the sanitizer.
namespace tsan {
#if defined(FBM_TSAN)
inline constexpr unsigned kTry = __tsan_mutex_try_lock;
inline constexpr unsigned kTryFailed = __tsan_mutex_try_lock_failed;
inline void create(void* m) { __tsan_mutex_create(m, __tsan_mutex_not_static); }
inline void destroy(void* m) { __tsan_mutex_destroy(m, __tsan_mutex_not_static); }
inline void preLock(void* m, unsigned flags) { __tsan_mutex_pre_lock(m, flags); }
inline void postLock(void* m, unsigned flags) { __tsan_mutex_post_lock(m, flags, 0); }
inline void preUnlock(void* m) { __tsan_mutex_pre_unlock(m, 0); }
inline void postUnlock(void* m) { __tsan_mutex_post_unlock(m, 0); }
inline void preSignal(void* c) { __tsan_mutex_pre_signal(c, 0); }
inline void postSignal(void* c) { __tsan_mutex_post_signal(c, 0); }
#else
inline constexpr unsigned kTry = 0;
inline constexpr unsigned kTryFailed = 0;
inline void create(void*) {}
inline void destroy(void*) {}
inline void preLock(void*, unsigned) {}
inline void postLock(void*, unsigned) {}
inline void preUnlock(void*) {}
inline void postUnlock(void*) {}
inline void preSignal(void*) {}
inline void postSignal(void*) {}
#endif
}  // namespace tsan

// A duration in nanoseconds, 0 for a negative one and saturated at the largest count: a caller's
// "forever" (hours::max()) must wait, not overflow into no time at all.
template <class Rep, class Period>
int64_t saturatedNs(std::chrono::duration<Rep, Period> const& d) {
    using LongNs = std::chrono::duration<long double, std::nano>;
    long double const ns = std::chrono::duration_cast<LongNs>(d).count();
    if (!(ns > 0)) return 0;
    if (ns >= static_cast<long double>(std::numeric_limits<int64_t>::max())) {
        return std::numeric_limits<int64_t>::max();
    }
    return static_cast<int64_t>(ns);
}
// Now plus `d` on the steady clock, saturated at the clock's end.
template <class Rep, class Period>
std::chrono::steady_clock::time_point deadlineAfter(std::chrono::duration<Rep, Period> const& d) {
    auto const now = std::chrono::steady_clock::now();
    auto const room = std::chrono::duration_cast<std::chrono::nanoseconds>(
                          std::chrono::steady_clock::time_point::max() - now)
                          .count();
    int64_t const ns = saturatedNs(d);
    if (ns >= room) return std::chrono::steady_clock::time_point::max();
    return now + std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::nanoseconds(ns));
}
}  // namespace detail

// The locks of the frame path are held for a few dozen instructions and taken a dozen times per
// buffer: an inline lock that spins briefly before sleeping on a futex costs a fraction of a
// pthread mutex, uncontended and contended. The same code runs under the thread sanitizer,
// annotated, so the sanitizer checks the lock that ships.
class CAPABILITY("mutex") Mutex {
public:
    Mutex() noexcept { detail::tsan::create(this); }
    ~Mutex() { detail::tsan::destroy(this); }
    Mutex(Mutex const&) = delete;
    Mutex& operator=(Mutex const&) = delete;

    void lock() ACQUIRE() {
        detail::tsan::preLock(this, 0);
        uint32_t expected = 0;
        if (!mState.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed)) {
            lockSlow();
        }
        detail::tsan::postLock(this, 0);
    }
    void unlock() RELEASE() {
        detail::tsan::preUnlock(this);
        if (mState.exchange(0, std::memory_order_release) == 2) detail::futex(&mState, FUTEX_WAKE, 1);
        detail::tsan::postUnlock(this);
    }
    bool try_lock() TRY_ACQUIRE(true) {
        detail::tsan::preLock(this, detail::tsan::kTry);
        bool const locked = tryLockOnce();
        detail::tsan::postLock(this, locked ? detail::tsan::kTry : detail::tsan::kTry | detail::tsan::kTryFailed);
        return locked;
    }

    // Tries for at most `d`; false when the time ran out.
    template <class Rep, class Period>
    bool try_lock_for(std::chrono::duration<Rep, Period> const& d) TRY_ACQUIRE(true) {
        detail::tsan::preLock(this, detail::tsan::kTry);
        bool const locked = tryLockOnce() || lockUntil(detail::deadlineAfter(d));
        detail::tsan::postLock(this, locked ? detail::tsan::kTry : detail::tsan::kTry | detail::tsan::kTryFailed);
        return locked;
    }

private:
    friend class Condition;
    // States: 0 free, 1 held, 2 held and somebody may sleep on it.
    bool tryLockOnce() {
        uint32_t expected = 0;
        return mState.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed);
    }
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
    bool lockUntil(std::chrono::steady_clock::time_point deadline) {
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
    std::atomic<uint32_t> mState{0};
};

// A condition variable for Mutex. Waits are single waits (a wake-up may be spurious); notify
// costs one load when nobody waits. A notifier that holds the mutex cannot be missed by a waiter
// that tested its state under the same mutex.
class Condition {
public:
    void wait(Mutex& m) REQUIRES(m) { waitImpl(m, nullptr); }
    // False when the time ran out.
    template <class Rep, class Period>
    bool waitFor(Mutex& m, std::chrono::duration<Rep, Period> const& d) REQUIRES(m) {
        int64_t const ns = detail::saturatedNs(d);
        timespec const ts{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
        return waitImpl(m, &ts);
    }
    void notifyOne() { notify(1); }
    void notifyAll() { notify(INT_MAX); }

private:
    // The mutex is let go and taken again through its annotated operations: to the sanitizer a
    // wait is an unlock and a lock, and the state it guards is ordered by the mutex alone.
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
        detail::tsan::preSignal(this);
        if (mWaiters.load(std::memory_order_seq_cst) != 0) {
            mSeq.fetch_add(1, std::memory_order_seq_cst);
            detail::futex(&mSeq, FUTEX_WAKE, static_cast<uint32_t>(n));
        }
        detail::tsan::postSignal(this);
    }
    std::atomic<uint32_t> mSeq{0};
    std::atomic<uint32_t> mWaiters{0};
};

// A Mutex that can also be tried for a while (dumps and the release path do).
class CAPABILITY("mutex") TimedMutex {
public:
    void lock() ACQUIRE() { mMutex.lock(); }
    void unlock() RELEASE() { mMutex.unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return mMutex.try_lock(); }
    template <class Rep, class Period>
    bool try_lock_for(std::chrono::duration<Rep, Period> const& d) TRY_ACQUIRE(true) {
        return mMutex.try_lock_for(d);
    }

private:
    Mutex mMutex;
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

// A lock tried for at most a while, and let go at the end of the scope (or at unlock()) when it
// was taken. Whether it was is known only at run time, which the analysis cannot follow: code
// that holds it this way says so in a comment.
template <class M>
class ScopedTryLock {
public:
    template <class Rep, class Period>
    ScopedTryLock(M& m, std::chrono::duration<Rep, Period> const& d) NO_THREAD_SAFETY_ANALYSIS
        : mM(m), mOwns(m.try_lock_for(d)) {}
    ~ScopedTryLock() { unlock(); }
    bool owns() const { return mOwns; }
    void unlock() NO_THREAD_SAFETY_ANALYSIS {
        if (mOwns) mM.unlock();
        mOwns = false;
    }
    ScopedTryLock(ScopedTryLock const&) = delete;
    ScopedTryLock& operator=(ScopedTryLock const&) = delete;

private:
    M& mM;
    bool mOwns;
};

}  // namespace NSCam
