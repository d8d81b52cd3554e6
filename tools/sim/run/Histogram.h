#pragma once
// A latency histogram of fixed size: 16 linear sub-buckets per power of two of nanoseconds, so a
// percentile is within about 6% of the true value and memory stays flat however long the run.
// Not synchronised: one thread adds.
#include <array>
#include <cstdint>

namespace fbmsim {

class Histogram {
public:
    void add(uint64_t ns) {
        ++mBuckets[bucketOf(ns)];
        ++mCount;
        if (ns > mMax) mMax = ns;
    }
    uint64_t count() const {
        return mCount;
    }
    uint64_t max() const {
        return mMax;
    }
    // The value below which a fraction q of the samples lie (upper edge of its bucket, capped at max).
    uint64_t quantile(double q) const {
        if (mCount == 0) return 0;
        uint64_t const rank = static_cast<uint64_t>(q * static_cast<double>(mCount - 1)) + 1;
        uint64_t seen = 0;
        for (size_t b = 0; b < mBuckets.size(); ++b) {
            seen += mBuckets[b];
            if (seen >= rank) {
                uint64_t const edge = upperEdge(b);
                return edge < mMax ? edge : mMax;
            }
        }
        return mMax;
    }

private:
    static constexpr int kSub = 16;
    static size_t bucketOf(uint64_t v) {
        if (v < kSub) return static_cast<size_t>(v);
        int const exp = 63 - __builtin_clzll(v);  // v in [2^exp, 2^(exp+1))
        uint64_t const sub = (v >> (exp - 4)) & (kSub - 1);
        return static_cast<size_t>((exp - 3) * kSub + static_cast<int>(sub));
    }
    static uint64_t upperEdge(size_t b) {
        if (b < kSub) return b;
        int const exp = static_cast<int>(b / kSub) + 3;
        uint64_t const sub = b % kSub;
        return ((uint64_t{kSub} + sub + 1) << (exp - 4)) - 1;
    }

    std::array<uint64_t, 64 * kSub> mBuckets{};
    uint64_t mCount = 0;
    uint64_t mMax = 0;
};

}  // namespace fbmsim
