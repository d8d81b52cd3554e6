// Fixed-cycle runs of the benchmark cases, for callgrind: `fbm_profile CASE CYCLES` runs CYCLES
// cycles of CASE inside fbm_profile_cycles, the only function bench/profile.sh has callgrind count
// (with everything it calls). Cases: acquire (one pooled buffer requested and released), frame (a
// 4-stream frame with 10 sets ready) and, when built with GStreamer, peer (GstBufferPool's acquire
// and release). Each runs the same cycle a thousand times first, so that the counted cycles find
// the spare nodes and caches of a steady flow.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "BenchFixture.h"

#ifdef FBM_BENCH_PEER
#include <gst/gst.h>
#endif

// The plain allocator: a counting one would add an atomic to every allocation of every owner.
uint64_t fbmbench::allocations() { return 0; }

extern "C" __attribute__((noinline)) void fbm_profile_cycles(std::function<void()> const& cycle, long n) {
    for (long i = 0; i < n; ++i) cycle();
}

int main(int argc, char** argv) {
    using namespace fbmbench;
    if (argc != 3 || std::atol(argv[2]) <= 0) {
        std::fprintf(stderr, "usage: fbm_profile acquire|frame|peer CYCLES\n");
        return 2;
    }
    long const n = std::atol(argv[2]);
    auto run = [n](std::function<void()> const& cycle) {
        for (int i = 0; i < 1000; ++i) cycle();
        fbm_profile_cycles(cycle, n);
    };
    if (std::strcmp(argv[1], "acquire") == 0) {
        Fixture fx(1);
        uint32_t f = 0;
        run([&] {
            SbPtr sb = fx.request(0, ++f);
            sb->releaseToOwner();
        });
    } else if (std::strcmp(argv[1], "frame") == 0) {
        int const streams = 4, history = 10;
        Fixture fx(streams, history + 8);
        uint32_t f = 0;
        for (; f < static_cast<uint32_t>(history); ++f) fx.frame(f, 1, 1);
        run([&] {
            fx.frame(f++, streams, 2);
            fx.m->tryReleaseHistoryBufferSets(1, 1, false);
        });
#ifdef FBM_BENCH_PEER
    } else if (std::strcmp(argv[1], "peer") == 0) {
        gst_init(nullptr, nullptr);
        GstBufferPool* pool = gst_buffer_pool_new();
        GstStructure* config = gst_buffer_pool_get_config(pool);
        gst_buffer_pool_config_set_params(config, nullptr, 64, 7, 7);
        gst_buffer_pool_set_config(pool, config);
        gst_buffer_pool_set_active(pool, TRUE);
        run([pool] {
            GstBuffer* buf = nullptr;
            gst_buffer_pool_acquire_buffer(pool, &buf, nullptr);
            gst_buffer_unref(buf);
        });
        gst_buffer_pool_set_active(pool, FALSE);
        gst_object_unref(pool);
#endif
    } else {
        std::fprintf(stderr, "fbm_profile: unknown case '%s'\n", argv[1]);
        return 2;
    }
    return 0;
}
