// Creates a frame buffer manager through createFrameBufferManager, configures metadata streams,
// dumps it, and prints every line the manager logged in a logcat-like form.
#include <cstdio>

#include <fbm/IFrameBufferManager.h>
#include <vexlor/HostSeams.h>

using namespace NSCam::v3;
using namespace NSCam::v3::pipeline;

int main() {
    vexlor::host::setULogSwitches(5, 0x207000, 1);  // everything, Android sink only
    vexlor::host::LogCapture::setEcho(true);

    std::shared_ptr<IFrameBufferManager> manager;
    createFrameBufferManager(&manager, "fbm-demo");
    if (!manager) return 1;

    IFrameBufferManager::ConfigureStreams cfg;
    cfg.metaStreams.push_back({Utils::makeMetaStreamInfo("halMetaIn", 0x100), eHAL_META});
    cfg.metaStreams.push_back({Utils::makeMetaStreamInfo("appMetaOut", 0x101), eAPP_META});
    manager->beginConfigure();
    int const err = manager->configureStreams(cfg);
    manager->endConfigure();

    vexlor::host::StringPrinter printer;
    manager->dumpState(printer);
    manager.reset();

    std::printf("configureStreams: %d\n--- dump ---\n%s", err, printer.text().c_str());
    return err == 0 ? 0 : 1;
}
