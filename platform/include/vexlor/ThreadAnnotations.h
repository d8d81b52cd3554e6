#pragma once
// Annotated wrappers of the standard mutexes. libstdc++'s mutexes carry no capability, so Clang's
// -Wthread-safety checks nothing on them; these thin wrappers let the compiler check that a member
// marked GUARDED_BY is only touched with its lock held and that `_l`/`Locked` functions are only
// called with theirs. With GCC the macros expand to nothing and the wrappers cost nothing.
#include <chrono>
#include <condition_variable>
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

namespace NSCam {

class CAPABILITY("mutex") Mutex {
public:
    void lock() ACQUIRE() { mMutex.lock(); }
    void unlock() RELEASE() { mMutex.unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return mMutex.try_lock(); }
    std::mutex& native() { return mMutex; }

private:
    std::mutex mMutex;
};

#if defined(__SANITIZE_THREAD__)
#define FBM_TSAN_TIMED_MUTEX 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define FBM_TSAN_TIMED_MUTEX 1
#endif
#endif

class CAPABILITY("mutex") TimedMutex {
public:
#if !defined(FBM_TSAN_TIMED_MUTEX)
    void lock() ACQUIRE() { mMutex.lock(); }
    void unlock() RELEASE() { mMutex.unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return mMutex.try_lock(); }
    template <class Rep, class Period>
    bool try_lock_for(std::chrono::duration<Rep, Period> const& d) TRY_ACQUIRE(true) {
        return mMutex.try_lock_for(d);
    }

private:
    std::timed_mutex mMutex;
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

// Scoped lock of a Mutex; exposes the std::unique_lock so a condition variable can wait on it.
class SCOPED_CAPABILITY MutexLocker {
public:
    explicit MutexLocker(Mutex& m) ACQUIRE(m) : mLock(m.native()) {}
    ~MutexLocker() RELEASE() {}
    std::unique_lock<std::mutex>& std() { return mLock; }

private:
    std::unique_lock<std::mutex> mLock;
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
