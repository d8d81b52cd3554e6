// A pipeline-side program built against the installed library (find_package, as the README says):
// one pooled stream configured with the platform's stream info, one buffer requested and let go.
#include <cstdio>

#include <fbm/IFrameBufferManager.h>
#include <fbm/IFrameBufferManagerState.h>

using namespace NSCam::v3;
using namespace NSCam::v3::pipeline;

int main() {
    std::shared_ptr<IFrameBufferManager> manager;
    createFrameBufferManager(&manager, "consumer");
    if (!manager) return 1;

    Utils::ImageStreamInfoParams p;  // the stream, as the camera stack describes it
    p.name = "preview";
    p.id = 0x1;
    p.format = 0x32315659;  // YV12
    p.size = {640, 480};
    p.planes.count = 1;
    p.planes.planes[0] = {640 * 480 * 3 / 2, 640};
    p.maxBufNum = 2;
    p.minInitBufNum = 1;
    IFrameBufferManager::ConfigureStreams config;
    config.imageStreams = {{Utils::makeImageStreamInfo(p), eHAL_IMAGE_POOL, nullptr}};
    manager->beginConfigure();
    int err = manager->configureStreams(config);
    manager->endConfigure();

    IPipelineFrameStreamBufferProvider::RequestStreamBuffer request;
    request.requestNo = 1;
    request.frameNo = 1;
    request.pStreamInfo = config.imageStreams[0].info;
    std::shared_ptr<IImageStreamBuffer> buffer;
    if (err == 0) {
        err = manager->getPipelineFrameBufferProvider()->requestStreamBuffer(
            [&](auto const& b) { buffer = b; }, request);
    }
    if (buffer) buffer->releaseToOwner();
    auto const state = stateOf(manager)->takeState();
    std::printf("consumer: configured and served %d, pool %s served %llu\n", err,
                state.pools.empty() ? "-" : state.pools[0].name.c_str(),
                state.pools.empty() ? 0ull : static_cast<unsigned long long>(state.pools[0].served));
    return err == 0 && buffer ? 0 : 1;
}
