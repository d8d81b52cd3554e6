#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>

#include "TestSupport.h"

namespace {

// The process's metadata worker starts with the library and prints its first lines whenever its
// thread gets to run, late on a loaded machine or under a sanitizer. Tests count log lines and
// metadata buffers: let it free one buffer and go back to its wait before the first test. Its
// first wait may come before the hand-over, so only a wait after the pass counts.
void settleMetadataWorker() {
    using namespace fbmtest;
    host::setULogSwitches(5, 0x207000, 1);
    std::atomic<bool> freed{false}, waiting{false};
    host::LogCapture::setLineHook([&](std::string const& text) {
        if (text.find("FreeMetaObject: free -") != std::string::npos) freed = true;
        if (!freed || text.find("FreeMetaObject: wait +") == std::string::npos) return;
        waiting = true;
        waiting.notify_all();
    });
    std::vector<MetaPtr> one{makeMeta(metaInfo(0x100, "settle"))};
    gFreeMetaObject.freeBufferVec(one);
    waiting.wait(false);
    host::LogCapture::setLineHook(nullptr);
    host::setULogSwitches(2, 0, 9);
    host::LogCapture::clear();
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Death tests fork a process that has worker threads: re-execute instead. Under a user-mode
    // emulator the binary cannot re-execute itself, and GTEST_DEATH_TEST_STYLE=fast says so.
    if (std::getenv("GTEST_DEATH_TEST_STYLE") == nullptr) GTEST_FLAG_SET(death_test_style, "threadsafe");
    settleMetadataWorker();
    return RUN_ALL_TESTS();
}
