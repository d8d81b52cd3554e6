// Counts every heap allocation of the benchmark process (for allocations per frame).
#include <atomic>
#include <cstdlib>
#include <new>

#include "BenchSupport.h"

namespace {
std::atomic<uint64_t> gAllocations{0};
}

void* operator new(size_t n) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }

uint64_t fbmbench::allocations() { return gAllocations.load(std::memory_order_relaxed); }
