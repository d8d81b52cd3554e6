#pragma once
// What the benchmarks share: a counting allocator and a small lock-free queue both sides of the
// pipelined cases use, so that only the pools differ.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <thread>

namespace fbmbench {

// Heap allocations made by the whole process since start (operator new is counted).
uint64_t allocations();

// Single producer, single consumer ring.
template <class T, size_t N>
class SpscRing {
public:
    bool push(T v) {
        size_t const h = mHead.load(std::memory_order_relaxed);
        if (h - mTail.load(std::memory_order_acquire) == N) return false;
        mSlots[h % N] = std::move(v);
        mHead.store(h + 1, std::memory_order_release);
        return true;
    }
    bool pop(T& v) {
        size_t const t = mTail.load(std::memory_order_relaxed);
        if (mHead.load(std::memory_order_acquire) == t) return false;
        v = std::move(mSlots[t % N]);
        mTail.store(t + 1, std::memory_order_release);
        return true;
    }
    void pushWait(T v) {
        while (!push(v)) std::this_thread::yield();
    }

private:
    T mSlots[N];
    alignas(64) std::atomic<size_t> mHead{0};
    alignas(64) std::atomic<size_t> mTail{0};
};

}  // namespace fbmbench
