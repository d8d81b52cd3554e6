#pragma once
// A test hook the stand-ins call from any thread (log lines, heap creation, metadata buffers
// destroyed). Replacing or clearing it returns only once no call of the old hook is still running
// on another thread, so a test may let what its hook captured go out of scope right after.
#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

namespace vexlor::host::detail {

// Calls of any hook running on this thread: replacing a hook from inside one must not wait for
// itself.
inline int& hookDepth() {
    thread_local int depth = 0;
    return depth;
}

template <class F>
class HookSlot {
public:
    void set(F hook) {
        std::shared_ptr<F> old;
        {
            std::lock_guard<std::mutex> lk(mLock);
            old = std::move(mHook);
            if (hook) mHook = std::make_shared<F>(std::move(hook));
            mSet.store(static_cast<bool>(mHook), std::memory_order_release);
        }
        // No new call can take the old hook now; the ones under way hold a copy of the handle.
        if (old && hookDepth() == 0) {
            while (old.use_count() > 1) std::this_thread::yield();
        }
    }
    bool isSet() const { return mSet.load(std::memory_order_acquire); }
    template <class... Args>
    void operator()(Args&&... args) {
        if (!isSet()) return;  // no lock while no test has set one
        std::shared_ptr<F> hook;
        {
            std::lock_guard<std::mutex> lk(mLock);
            hook = mHook;
        }
        if (!hook) return;
        struct Depth {
            Depth() { ++hookDepth(); }
            ~Depth() { --hookDepth(); }
        } depth;
        (*hook)(std::forward<Args>(args)...);
    }

private:
    std::mutex mLock;
    std::shared_ptr<F> mHook;
    std::atomic<bool> mSet{false};
};

}  // namespace vexlor::host::detail
