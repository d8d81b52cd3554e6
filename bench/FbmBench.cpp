// Benchmarks of the frame buffer manager's frame path. Each case says what a user would feel.
#define LOG_TAG "vexlor-ppl_fbm"
#define LOG_SRC_PATH "pipeline/pipeline/fbm/FrameBufferManager"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <new>
#include <thread>
#include <vector>

#include <vexlor/HostSeams.h>
#include <vexlor/LogScheme.h>

#include "BenchFixture.h"

namespace {

using namespace fbmbench;

// 1. One pooled stream buffer, requested and released on one thread. What a pipeline pays per
//    buffer of every stream of every frame.
void BM_Manager_AcquireRelease(benchmark::State& state) {
    Fixture fx(1);
    uint32_t f = 0;
    for (auto _ : state) {
        SbPtr sb = fx.request(0, ++f);
        sb->releaseToOwner();
    }
}
BENCHMARK(BM_Manager_AcquireRelease);

// 2. The same with the release on another thread, as results come back on their own threads.
void BM_Manager_AcquireReleasePipelined(benchmark::State& state) {
    Fixture fx(1);
    fbmbench::SpscRing<SbPtr, 4> ring;  // fewer in flight than the pool has heaps: never starves
    std::atomic<bool> stop{false};
    std::thread releaser([&] {
        SbPtr sb;
        while (!stop.load(std::memory_order_relaxed)) {
            if (ring.pop(sb)) {
                sb->releaseToOwner();
                sb.reset();
            } else {
                std::this_thread::yield();
            }
        }
        while (ring.pop(sb)) sb->releaseToOwner();
    });
    uint32_t f = 0;
    for (auto _ : state) ring.pushWait(fx.request(0, ++f));
    stop = true;
    releaser.join();
}
BENCHMARK(BM_Manager_AcquireReleasePipelined)->UseRealTime();

// 3. One whole frame: requests on N pooled streams, two images and both metadata streams kept,
//    results in two batches, the set joins the ready list and the oldest set is released. What
//    the manager adds to every frame, with a short or a long history.
void BM_Manager_Frame(benchmark::State& state) {
    int const streams = static_cast<int>(state.range(0));
    int const history = static_cast<int>(state.range(1));
    Fixture fx(streams, history + 8);
    uint32_t f = 0;
    for (; f < static_cast<uint32_t>(history); ++f) fx.frame(f, 1, 1);  // sets on the ready list
    int const kept = std::min(streams, 2);
    Fixture::Allocs allocs;
    uint64_t release = 0;
    for (auto _ : state) {
        fx.frame(f++, streams, kept, &allocs);
        uint64_t const a = fbmbench::allocations();
        fx.m->tryReleaseHistoryBufferSets(1, 1, false);  // the oldest set holds an image of stream 1
        release += fbmbench::allocations() - a;
    }
    double const n = static_cast<double>(state.iterations());
    state.counters["allocs/frame"] = (allocs.pipeline + allocs.track + allocs.requests + allocs.results + release) / n;
    state.counters["by pipeline"] = allocs.pipeline / n;
    state.counters["track"] = allocs.track / n;
    state.counters["requests"] = allocs.requests / n;
    state.counters["results"] = allocs.results / n;
    state.counters["release"] = release / n;
}
BENCHMARK(BM_Manager_Frame)->ArgsProduct({{1, 4, 8}, {10}})->ArgsProduct({{4}, {100, 1000}});

// 4. A starving pool fed by releasing history sets: the time from request to buffer in hand when
//    every heap is kept by a set on the ready list. A pool that can be fed must not wait.
void BM_Manager_StarvingRequest(benchmark::State& state) {
    Fixture fx(1, 4);
    uint32_t f = 0;
    for (; f < 4; ++f) fx.frame(f, 1, 1);  // every heap kept
    std::vector<double> ns;
    ns.reserve(1 << 20);
    for (auto _ : state) {
        auto const t0 = std::chrono::steady_clock::now();
        SbPtr sb = fx.request(0, f);
        auto const t1 = std::chrono::steady_clock::now();
        ns.push_back(std::chrono::duration<double, std::nano>(t1 - t0).count());
        state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
        // Keep it as the next frame's history, so the pool stays starved.
        auto params = std::make_shared<TrackFrameResultParams>();
        params->halImage = {1};
        params->isRecyclable = true;
        fx.m->trackFrameResult({f, f, params});
        std::vector<SbPtr> out{sb}, toRelease{sb};
        sb.reset();
        IPipelineFrameHalResultProcessor::ReturnResult r{f, f, 1000 + int64_t(f), false, &toRelease, &out,
                                                         nullptr, nullptr};
        fx.processor->returnResult(r);
        ++f;
    }
    std::sort(ns.begin(), ns.end());
    if (!ns.empty()) {
        state.counters["median_ns"] = ns[ns.size() / 2];
        state.counters["p99_ns"] = ns[std::min(ns.size() - 1, ns.size() * 99 / 100)];
    }
}
BENCHMARK(BM_Manager_StarvingRequest)->UseManualTime();

// 5. A debug log site whose object level is too low, and one gated off by the global switches:
//    what logging costs the frame path when nobody is looking.
void BM_Log_ObjectLevelTooLow(benchmark::State& state) {
    quietPlatform();
    int volatile level = 0;
    for (auto _ : state) {
        MY_LOGD_IF(level >= 2, "frame %d", 1);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Log_ObjectLevelTooLow);

void BM_Log_GlobalSwitchOff(benchmark::State& state) {
    quietPlatform();
    for (auto _ : state) {
        MY_LOGD("frame %d", 1);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Log_GlobalSwitchOff);

// 6. A selection: the selector takes the ready list and gives every set back kept.
void BM_Manager_SelectReturnAll(benchmark::State& state) {
    Fixture fx(1, static_cast<int>(state.range(0)) + 8);
    uint32_t f = 0;
    for (; f < state.range(0); ++f) fx.frame(f, 1, 1);
    for (auto _ : state) {
        auto sets = fx.m->beginSelect();
        for (auto& s : sets) fx.m->returnUnselectedSet({s, true});
        fx.m->endSelect();
    }
}
BENCHMARK(BM_Manager_SelectReturnAll)->Arg(4)->Arg(64);

// 7. The first buffer of a pool right after configuration (camera launch): the request waits for
//    the pool's worker to make its first heap, with real memory behind each heap. Reported with
//    what making one such heap costs alone, the floor of the wait.
void BM_Manager_FirstBufferAfterConfigure(benchmark::State& state) {
    quietPlatform();
    host::HeapFactory::setRealMemory(true);
    auto const info = image(1, 4);
    std::vector<double> allocNs;
    for (auto _ : state) {
        auto m = std::make_shared<FrameBufferManagerImpl>("bench");
        m->initialize(m);
        auto provider = m->getPipelineFrameBufferProvider();
        IFrameBufferManager::ConfigureStreams cfg;
        cfg.imageStreams = {{info, eHAL_IMAGE_POOL, nullptr}};
        m->configureStreams(cfg);
        auto const t0 = std::chrono::steady_clock::now();
        SbPtr got;
        provider->requestStreamBuffer([&got](SbPtr const& sb) { got = sb; }, {1, 1, info});
        auto const t1 = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
        got->releaseToOwner();
        got.reset();
        provider.reset();
        m.reset();  // its pool's worker is joined here, untimed
        auto const a0 = std::chrono::steady_clock::now();
        auto heap = nivo::IImageBufferHeapFactory::create("bench", "alone", generateImgParam(info.get()), false);
        allocNs.push_back(std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - a0).count());
    }
    host::HeapFactory::setRealMemory(false);
    std::sort(allocNs.begin(), allocNs.end());
    if (!allocNs.empty()) state.counters["alloc_ns"] = allocNs[allocNs.size() / 2];
}
BENCHMARK(BM_Manager_FirstBufferAfterConfigure)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
