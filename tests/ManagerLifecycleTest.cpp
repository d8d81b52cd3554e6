#include <dlfcn.h>

#include "TestSupport.h"

namespace fbmtest {
namespace {

class ManagerLifecycleTest : public PlatformTest {
protected:
    void SetUp() override {
        PlatformTest::SetUp();
        host::setULogSwitches(3, 0x207000, 9);  // the destructor's info lines
    }
};

TEST_F(ManagerLifecycleTest, NullOutBuildsNothing) {
    size_t const attaches = host::DebuggeeRegistry::attachCalls();
    createFrameBufferManager(nullptr, "x");
    EXPECT_EQ(host::DebuggeeRegistry::attachCalls(), attaches);
}

TEST_F(ManagerLifecycleTest, CreateRegistersAndDestroyUnregisters) {
    std::shared_ptr<IFrameBufferManager> manager;
    createFrameBufferManager(&manager, "P1");
    ASSERT_TRUE(manager);
    EXPECT_EQ(host::DebuggeeRegistry::attachedCount(), 1u);

    host::StringPrinter printer;
    EXPECT_EQ(host::DebuggeeRegistry::debugAll(&printer, {"--ignored"}), 1u);
    EXPECT_TRUE(printer.contains("<image streams>"));
    EXPECT_TRUE(printer.contains("<ReadyList>"));

    size_t const detaches = host::DebuggeeRegistry::detachCalls();
    manager.reset();
    EXPECT_EQ(host::DebuggeeRegistry::attachedCount(), 0u);
    EXPECT_EQ(host::DebuggeeRegistry::detachCalls(), detaches + 1);
    EXPECT_EQ(androidCount("[~FrameBufferManagerImpl] + mDebuggeeCookie:0x"), 1u);
    EXPECT_EQ(androidCount("[~FrameBufferManagerImpl] -"), 1u);
}

TEST_F(ManagerLifecycleTest, WithoutRegistryCreationAndDestructionStillWork) {
    host::DebuggeeRegistry::setPresent(false);
    size_t const attaches = host::DebuggeeRegistry::attachCalls();
    size_t const detaches = host::DebuggeeRegistry::detachCalls();
    std::shared_ptr<IFrameBufferManager> manager;
    createFrameBufferManager(&manager, nullptr);
    ASSERT_TRUE(manager);
    manager.reset();
    EXPECT_EQ(host::DebuggeeRegistry::attachCalls(), attaches);
    EXPECT_EQ(host::DebuggeeRegistry::detachCalls(), detaches);
    EXPECT_EQ(androidCount("[~FrameBufferManagerImpl] + mDebuggeeCookie:(nil)"), 1u);
    EXPECT_EQ(androidCount("[~FrameBufferManagerImpl] -"), 1u);
}

TEST_F(ManagerLifecycleTest, NameAndProperties) {
    EXPECT_EQ(makeManager(nullptr)->takeState().name, "");
    EXPECT_EQ(makeManager("cam0")->takeState().name, "cam0");
    EXPECT_EQ(makeManager()->takeState().acquireTimeoutMs, 1500);
    host::setProperty("vendor.debug.camera.pipeline.fbm.acquire.timeout", 500);
    host::setProperty("vendor.debug.camera.log.pipeline.fbm", 3);
    auto m = makeManager();
    EXPECT_EQ(m->takeState().acquireTimeoutMs, 500);
    EXPECT_EQ(m->mLogLevel, 3);
    EXPECT_EQ(m->debuggeeName(), "NSCam::v3::IFrameBufferManager");
}

TEST_F(ManagerLifecycleTest, AccessorHandlesShareTheManagersOwnership) {
    std::shared_ptr<IFrameBufferManager> manager;
    createFrameBufferManager(&manager, "P1");
    auto provider = manager->getPipelineFrameBufferProvider();
    auto processor = manager->getPipelineFrameResultProcessor();
    ASSERT_TRUE(provider && processor);
    // Both are parts of the one object.
    EXPECT_EQ(dynamic_cast<IFrameBufferManager*>(provider.get()), manager.get());
    EXPECT_EQ(dynamic_cast<IFrameBufferManager*>(processor.get()), manager.get());

    manager.reset();
    processor.reset();
    EXPECT_EQ(androidCount("[~FrameBufferManagerImpl] -"), 0u);  // the provider keeps it alive
    provider.reset();
    EXPECT_EQ(androidCount("[~FrameBufferManagerImpl] -"), 1u);
}

TEST_F(ManagerLifecycleTest, AccessorsAreEmptyWithoutAnOwner) {
    TestManager unowned("bare");  // never given to initialize: no weak self
    EXPECT_FALSE(unowned.getPipelineFrameBufferProvider());
    EXPECT_FALSE(unowned.getPipelineFrameResultProcessor());
}

}  // namespace
}  // namespace fbmtest
