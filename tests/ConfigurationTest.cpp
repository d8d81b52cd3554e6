#include <atomic>
#include <thread>

#include "TestSupport.h"

namespace fbmtest {
namespace {

class ConfigurationTest : public PlatformTest {
protected:
    // A configuration whose only sharing group names a stream nobody configured: one warning.
    static IFrameBufferManager::ConfigureStreams unknownGroup(StreamId_T id) {
        IFrameBufferManager::ConfigureStreams cfg;
        cfg.sharedGroups = std::make_shared<std::vector<std::set<StreamId_T>>>(
            std::vector<std::set<StreamId_T>>{{id}});
        return cfg;
    }
};

TEST_F(ConfigurationTest, AttributeAndTrackParamsTexts) {
    EXPECT_EQ(toString(StreamAttribute(0)), "[IMAGE-HAL-USER    ]");
    EXPECT_EQ(toString(StreamAttribute(1)), "[IMAGE-HAL-POOL    ]");
    EXPECT_EQ(toString(StreamAttribute(2)), "[IMAGE-HAL-RUNTIME ]");
    EXPECT_EQ(toString(StreamAttribute(0x24)), "[IMAGE-APP-PROVIDER]");
    EXPECT_EQ(toString(StreamAttribute(0x31)), "[META -APP-POOL    ]");
    EXPECT_EQ(toString(StreamAttribute(3)), "[IMAGE-HAL-?       ]");
    EXPECT_EQ(toString(StreamAttribute(7)), "[IMAGE-HAL-?       ]");
    EXPECT_EQ(toString(StreamAttribute(0xF)), "[IMAGE-HAL-?       ]");
    EXPECT_EQ(toHexString(255), "0xff");
    EXPECT_EQ(toHexString(0), "0");
    EXPECT_EQ(toHexString(int64_t{0x1a2b}), "0x1a2b");
    TrackFrameResultParams p;
    p.halImage = {0x1a, 0x2b};
    p.appMeta = {7};
    p.isRecyclable = true;
    EXPECT_EQ(toString(p), "{ .halImage=[ 1a 2b ] .halMeta=[ ] .appMeta=[ 7 ] .isRecyclable=1 }");
}

TEST_F(ConfigurationTest, MetaStreamsReplaceByIdAndAreDumpedInIdOrder) {
    auto m = makeManager();
    m->beginConfigure();
    EXPECT_EQ(m->addMetaStream({metaInfo(0x20, "second"), eAPP_META}), 0);
    EXPECT_EQ(m->addMetaStream({metaInfo(0x10, "old"), eHAL_META}), 0);
    EXPECT_EQ(m->addMetaStream({metaInfo(0x10, "new"), eHAL_META}), 0);
    EXPECT_EQ(m->endConfigure(), 0);

    host::StringPrinter printer;
    m->dumpState(printer);
    auto lines = printer.lines();
    auto meta = std::find(lines.begin(), lines.end(), "<meta streams>");
    ASSERT_NE(meta, lines.end());
    ASSERT_LT(meta + 2, lines.end());
    EXPECT_EQ(*(meta + 1), "    [META -HAL-USER    ]0x10:new meta");
    EXPECT_EQ(*(meta + 2), "    [META -APP-USER    ]0x20:second meta");
    EXPECT_FALSE(printer.contains("<pool-shared streams>"));
    EXPECT_FALSE(printer.contains("<config messages>"));
}

TEST_F(ConfigurationTest, WarningsOfEveryConfigurationAreKeptAndDumped) {
    host::setULogSwitches(3, 0x207000, 1);
    auto m = makeManager();
    m->beginConfigure();
    ASSERT_EQ(m->configureStreams(unknownGroup(0x42)), 0);
    m->endConfigure();
    // A second configuration, this time without beginConfigure: still logged and kept.
    ASSERT_EQ(m->configureStreams(unknownGroup(0x43)), 0);

    auto android = host::LogCapture::androidLines();
    ASSERT_EQ(android.size(), 2u);
    EXPECT_EQ(android[0].priority, ANDROID_LOG_INFO);
    EXPECT_EQ(android[0].text, "WARNING [configureImageStreams] Couldn't find the shared streamId:0x42");

    host::StringPrinter printer;
    m->dumpState(printer);
    EXPECT_TRUE(printer.contains("<pool-shared streams>"));
    EXPECT_TRUE(printer.contains("    ( 43 )"));
    auto lines = printer.lines();
    auto messages = std::find(lines.begin(), lines.end(), "<config messages>");
    ASSERT_NE(messages, lines.end());
    ASSERT_LT(messages + 2, lines.end());
    EXPECT_EQ(*(messages + 1), "    WARNING [configureImageStreams] Couldn't find the shared streamId:0x42");
    EXPECT_EQ(*(messages + 2), "    WARNING [configureImageStreams] Couldn't find the shared streamId:0x43");
}

TEST_F(ConfigurationTest, LineIsLoggedButNotKeptWhileTheListIsBusy) {
    host::setULogSwitches(3, 0x207000, 1);
    auto m = makeManager();
    std::atomic<bool> held{false}, done{false};
    std::thread holder([&] {
        m->mConfigLogLock.lock();
        held = true;
        held.notify_all();
        done.wait(false);
        m->mConfigLogLock.unlock();
    });
    held.wait(false);

    m->beginConfigure();
    ASSERT_EQ(m->configureStreams(unknownGroup(0x42)), 0);
    m->endConfigure();
    EXPECT_EQ(androidCount("Couldn't find the shared streamId:0x42"), 1u);

    host::StringPrinter busy;
    m->dumpConfigStreams(busy);  // the dump only tries the lock too
    EXPECT_FALSE(busy.contains("<config messages>"));

    done = true;
    done.notify_all();
    holder.join();
    m->mConfigLogLock.lock();
    EXPECT_TRUE(m->mConfigLogs.empty());
    m->mConfigLogLock.unlock();
}

// An unknown stream has no record; a failing image stream leaves the meta streams out; one given
// without its info is skipped with a warning and the configuration goes on.
TEST_F(ConfigurationTest, BadImageStreamsAreNamed) {
    host::setULogSwitches(3, 0x207000, 1);
    for (bool failing : {true, false}) {
        auto m = makeManager();
        EXPECT_EQ(m->queryConfigImageStream(0x77), nullptr);
        IFrameBufferManager::ConfigureStreams cfg;
        if (failing) cfg.imageStreams.push_back({imageInfo({.id = 1, .name = "jpeg"}), eAPP_IMAGE_PROVIDER, nullptr});
        if (!failing) cfg.imageStreams.push_back({nullptr, eHAL_IMAGE_POOL, nullptr});
        cfg.metaStreams.push_back({metaInfo(0x10), eHAL_META});
        EXPECT_EQ(m->configureStreams(cfg), failing ? -EINVAL : 0);
        host::StringPrinter printer;
        m->dumpConfigStreams(printer);
        EXPECT_EQ(printer.contains("0x10:meta"), !failing);
    }
    EXPECT_EQ(androidCount("[queryConfigImageStream] couldn't find streamId:0x77"), 2u);
    EXPECT_EQ(androidCount("[addImageStreams] [0x1:jpeg"), 1u);
    EXPECT_EQ(androidCount("] Bad provider (addImageStreams){#"), 1u);
    EXPECT_EQ(androidCount("[addImageStreams] empty stream info"), 1u);
}

}  // namespace
}  // namespace fbmtest
