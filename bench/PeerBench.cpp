// The peer: GStreamer's GstBufferPool, a pool users already trust, doing the same work.
#include <benchmark/benchmark.h>
#include <gst/gst.h>

#include <atomic>
#include <thread>

#include "BenchSupport.h"

namespace {

GstBufferPool* makePool(guint buffers) {
    static bool const inited = [] {
        gst_init(nullptr, nullptr);
        return true;
    }();
    (void)inited;
    GstBufferPool* pool = gst_buffer_pool_new();
    GstStructure* config = gst_buffer_pool_get_config(pool);
    gst_buffer_pool_config_set_params(config, nullptr, 64, buffers, buffers);
    gst_buffer_pool_set_config(pool, config);
    gst_buffer_pool_set_active(pool, TRUE);
    return pool;
}

void freePool(GstBufferPool* pool) {
    gst_buffer_pool_set_active(pool, FALSE);
    gst_object_unref(pool);
}

// 1. Acquire and release of one buffer of a pool of 7, one thread.
void BM_Peer_AcquireRelease(benchmark::State& state) {
    GstBufferPool* pool = makePool(7);
    for (auto _ : state) {
        GstBuffer* buf = nullptr;
        gst_buffer_pool_acquire_buffer(pool, &buf, nullptr);
        gst_buffer_unref(buf);  // back to its pool
    }
    freePool(pool);
}
BENCHMARK(BM_Peer_AcquireRelease);

// 2. Acquired on this thread, released on another.
void BM_Peer_AcquireReleasePipelined(benchmark::State& state) {
    GstBufferPool* pool = makePool(7);
    fbmbench::SpscRing<GstBuffer*, 4> ring;
    std::atomic<bool> stop{false};
    std::thread releaser([&] {
        GstBuffer* buf = nullptr;
        while (!stop.load(std::memory_order_relaxed)) {
            if (ring.pop(buf)) gst_buffer_unref(buf);
            else std::this_thread::yield();
        }
        while (ring.pop(buf)) gst_buffer_unref(buf);
    });
    for (auto _ : state) {
        GstBuffer* buf = nullptr;
        gst_buffer_pool_acquire_buffer(pool, &buf, nullptr);
        ring.pushWait(buf);
    }
    stop = true;
    releaser.join();
    freePool(pool);
}
BENCHMARK(BM_Peer_AcquireReleasePipelined)->UseRealTime();

}  // namespace
