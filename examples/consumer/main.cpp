#include <cstdio>

#include <fbm/IFrameBufferManager.h>

int main() {
    std::shared_ptr<NSCam::v3::pipeline::IFrameBufferManager> manager;
    createFrameBufferManager(&manager, "consumer");
    if (!manager) return 1;
    manager->beginConfigure();
    int const err = manager->endConfigure();
    std::printf("consumer: manager created, endConfigure() = %d\n", err);
    return err;
}
