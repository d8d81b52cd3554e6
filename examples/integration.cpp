// A pipeline's use of the frame buffer manager, start to end: one pooled preview stream and the HAL
// metadata, a few frames whose results come back in two batches, a selector that takes the ready
// sets and gives them back, and the teardown. The stream infos and the metadata buffer come from
// the camera stack (here its host stand-ins).
#include <cstdio>

#include <fbm/IFrameBufferManager.h>

using namespace NSCam::v3;
using namespace NSCam::v3::pipeline;

static std::shared_ptr<IImageStreamInfo> previewInfo() {
    Utils::ImageStreamInfoParams p;
    p.name = "preview";
    p.id = 0x1;
    p.format = 0x32315659;  // YV12
    p.size = {640, 480};
    p.planes.count = 1;
    p.planes.planes[0] = {640 * 480 * 3 / 2, 640};
    p.maxBufNum = 6;  // the pool's maximum; its worker makes the heaps in the background
    p.minInitBufNum = 2;
    return Utils::makeImageStreamInfo(p);
}

int main() {
    // 1. One manager per pipeline, configured once on the configuring thread.
    std::shared_ptr<IFrameBufferManager> fbm;
    createFrameBufferManager(&fbm, "example");
    auto preview = previewInfo();
    auto halMeta = Utils::makeMetaStreamInfo("halMeta", 0x100);
    IFrameBufferManager::ConfigureStreams config;
    config.imageStreams = {{preview, eHAL_IMAGE_POOL, nullptr}};
    config.metaStreams = {{halMeta, eHAL_META}};
    fbm->beginConfigure();
    int err = fbm->configureStreams(config);
    fbm->endConfigure();
    auto provider = fbm->getPipelineFrameBufferProvider();
    auto results = fbm->getPipelineFrameResultProcessor();

    for (uint32_t frame = 1; frame <= 4 && err == 0; ++frame) {
        // 2. Before the first result: what this frame keeps for the selector.
        auto keep = std::make_shared<TrackFrameResultParams>();
        keep->halImage = {0x1};
        keep->halMeta = {0x100};
        keep->isRecyclable = true;  // may be released to feed a starving pool
        IFrameBufferManager::TrackFrameResult track;  // records are filled by name: their orders differ
        track.frameNo = frame;
        track.requestNo = frame;
        track.trackParams = keep;
        fbm->trackFrameResult(track);

        // 3. A buffer per image stream; blocks up to the acquire time-out when the pool is empty.
        std::shared_ptr<IImageStreamBuffer> image;
        IPipelineFrameStreamBufferProvider::RequestStreamBuffer request;
        request.requestNo = frame;
        request.frameNo = frame;
        request.pStreamInfo = preview;
        err = provider->requestStreamBuffer([&](auto const& b) { image = b; }, request);
        if (err != 0) break;

        // 4. Results in batches. The manager keeps its own handle of the tracked buffers; the
        //    pipeline lets go of its own once done with it.
        std::vector<std::shared_ptr<IImageStreamBuffer>> images{image};
        IPipelineFrameHalResultProcessor::ReturnResult batch;
        batch.requestNo = frame;
        batch.frameNo = frame;
        batch.timestamp = 1000 * frame;  // the first positive one is the frame's
        batch.halImage = &images;        // the manager keeps a buffer of each tracked image
        results->returnResult(batch);
        image->releaseToOwner();
        NSCam::IMetadata md;
        std::vector<std::shared_ptr<IMetaStreamBuffer>> metas{
            Utils::makeHalMetaStreamBuffer({halMeta, &md})};
        IPipelineFrameHalResultProcessor::ReturnResult metadata;
        metadata.requestNo = frame;
        metadata.frameNo = frame;
        metadata.halMeta = &metas;  // a private copy of each tracked buffer is kept
        results->returnResult(metadata);
    }

    // 5. A selector: the whole ready list, oldest first. The newest goes back to the ready list,
    //    the others are released.
    auto sets = fbm->beginSelect();
    size_t const ready = sets.size();
    for (auto& set : sets) {
        IHistoryBufferProvider::ReturnUnselectedSet back{set, /*keep=*/&set == &sets.back()};
        fbm->returnUnselectedSet(std::move(back));
    }
    fbm->endSelect();

    // 6. Teardown: what the manager still keeps goes back to its pools when the last handle goes.
    provider.reset();
    results.reset();
    fbm.reset();
    // How many frames were still ready depends on how far the pool's worker had got: a request
    // that found no free heap released the oldest ready frame to take its heap.
    std::printf("example: configureStreams and requests %d, %zu frames ready, newest kept\n", err,
                ready);
    return err == 0 && ready >= 1 ? 0 : 1;
}
