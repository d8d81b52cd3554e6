#pragma once
// A configured manager and one frame of a pipeline, shared by the benchmarks and the profile.
#include <memory>
#include <string>
#include <vector>

#include <vexlor/HostSeams.h>

#include "BenchSupport.h"
#include "FrameBufferManager.h"

namespace fbmbench {

using namespace NSCam::v3;
using namespace NSCam::v3::pipeline;
namespace host = vexlor::host;
using SbPtr = std::shared_ptr<IImageStreamBuffer>;
using MetaPtr = std::shared_ptr<IMetaStreamBuffer>;

inline std::shared_ptr<IImageStreamInfo> image(StreamId_T id, size_t max) {
    Utils::ImageStreamInfoParams p;
    p.name = "s";
    p.name += std::to_string(id);
    p.id = id;
    p.format = 0x32315659;
    p.size = {1920, 1080};
    p.planes.count = 2;
    p.planes.planes[0] = {1920 * 1080, 1920};
    p.planes.planes[1] = {1920 * 540, 1920};
    p.maxBufNum = max;
    p.minInitBufNum = 1;
    return Utils::makeImageStreamInfo(p);
}

inline void quietPlatform() {
    host::setULogSwitches(2, 0, 0);
    host::LogCapture::setCapturing(false);
    host::DebuggeeRegistry::setPresent(false);
}

// A configured manager with `streams` pooled image streams and two metadata streams.
struct Fixture {
    std::shared_ptr<FrameBufferManagerImpl> m;
    std::shared_ptr<IPipelineFrameStreamBufferProvider> provider;
    std::shared_ptr<IPipelineFrameHalResultProcessor> processor;
    std::vector<std::shared_ptr<IImageStreamInfo>> images;
    std::shared_ptr<IMetaStreamInfo> halMeta = Utils::makeMetaStreamInfo("halMeta", 0x100);
    std::shared_ptr<IMetaStreamInfo> appMeta = Utils::makeMetaStreamInfo("appMeta", 0x101);

    explicit Fixture(int streams, int heaps = 7) {
        quietPlatform();
        m = std::make_shared<FrameBufferManagerImpl>("bench");
        m->initialize(m);
        provider = m->getPipelineFrameBufferProvider();
        processor = m->getPipelineFrameResultProcessor();
        IFrameBufferManager::ConfigureStreams cfg;
        for (int i = 0; i < streams; ++i) {
            images.push_back(image(i + 1, 7));
            cfg.imageStreams.push_back({images.back(), eHAL_IMAGE_POOL, nullptr});
        }
        cfg.metaStreams = {{halMeta, eHAL_META}, {appMeta, eAPP_META}};
        m->configureStreams(cfg);
        for (int i = 0; i < streams; ++i) {
            int max = i == 0 ? heaps : 7;
            if (max != 7) m->updateBufferPoolMaxBufCount(i + 1, max);
            waitFilled(i + 1, max);
        }
    }
    void waitFilled(StreamId_T id, int n) {
        host::HeapFactory::waitFor([&](int64_t, int64_t) {
            int max = 0, allocated = 0;
            m->getBufferPoolMaxBufCount(id, max, allocated);
            return allocated == n;
        });
    }
    SbPtr request(int stream, uint32_t frame) {
        SbPtr got;
        provider->requestStreamBuffer([&got](SbPtr const& sb) { got = sb; }, {frame, frame, images[stream]});
        return got;
    }
    MetaPtr meta(std::shared_ptr<IMetaStreamInfo> const& info, uint32_t frame) {
        NSCam::IMetadata md;
        md.update(1, frame);
        return Utils::makeHalMetaStreamBuffer({info, &md});
    }
    // Allocations of one frame by phase: what the pipeline makes (parameters, lists, metadata)
    // and what the manager does with it.
    struct Allocs {
        uint64_t pipeline = 0, track = 0, requests = 0, results = 0;
    };
    // One frame keeping `keptImages` images (streams 0..) and both metadata streams, with results in
    // two batches; the set joins the ready list at its back.
    void frame(uint32_t f, int streams, int keptImages, Allocs* allocs = nullptr) {
        uint64_t a = fbmbench::allocations();
        auto mark = [&](uint64_t Allocs::*field) {
            uint64_t const now = fbmbench::allocations();
            if (allocs) allocs->*field += now - a;
            a = now;
        };
        auto params = std::make_shared<TrackFrameResultParams>();
        for (int i = 0; i < keptImages; ++i) params->halImage.insert(i + 1);
        params->halMeta = {0x100};
        params->appMeta = {0x101};
        params->isRecyclable = true;
        mark(&Allocs::pipeline);
        m->trackFrameResult({f, f, params});
        mark(&Allocs::track);
        std::vector<SbPtr> out, toRelease;
        out.reserve(streams);
        mark(&Allocs::pipeline);
        for (int s = 0; s < streams; ++s) out.push_back(request(s, f));
        mark(&Allocs::requests);
        toRelease = out;
        std::vector<MetaPtr> none, hal{meta(halMeta, f)}, app{meta(appMeta, f)};
        mark(&Allocs::pipeline);
        IPipelineFrameHalResultProcessor::ReturnResult images{f, f, 1000 + int64_t(f), false, &toRelease, &out,
                                                              nullptr, nullptr};
        processor->returnResult(images);
        IPipelineFrameHalResultProcessor::ReturnResult metas{f, f, 0, false, nullptr, nullptr, &hal, &app};
        processor->returnResult(metas);
        mark(&Allocs::results);
    }
};

}  // namespace fbmbench
