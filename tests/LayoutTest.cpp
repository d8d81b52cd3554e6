// Binary layout of the interfaces the camera stack calls through: the slot of each virtual
// operation and the order of the manager's bases. A slot out of place builds and runs on this
// host, and calls the wrong operation on a device whose other side was built from the vendor's
// headers.
#include <gtest/gtest.h>
#include <utils/Printer.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <vexlor/Debuggee.h>
#include <vexlor/IPrinter.h>
#include <vexlor/StreamBuffer.h>

#include "FrameBufferManager.h"

namespace {

using namespace NSCam::v3;
using namespace NSCam::v3::pipeline;

// The vtable slot of a virtual member function, from its member pointer (Itanium C++ ABI: the
// pointer word holds 1 + the byte offset; the ARM variant holds the offset and marks the
// adjustment word odd).
template <class Pmf>
size_t slotOf(Pmf pmf) {
    struct Raw {
        uintptr_t ptr;
        ptrdiff_t adj;
    } raw;
    static_assert(sizeof(Pmf) == sizeof(Raw));
    std::memcpy(&raw, &pmf, sizeof raw);
#if defined(__aarch64__) || defined(__arm__)
    EXPECT_EQ(raw.adj & 1, 1) << "not a virtual function";
    return raw.ptr / sizeof(void*);
#else
    EXPECT_EQ(raw.ptr & 1, 1u) << "not a virtual function";
    return (raw.ptr - 1) / sizeof(void*);
#endif
}

// A virtual destructor takes two slots (complete and deleting); an interface that declares it
// first has its first operation in slot 2.
constexpr size_t kAfterDestructor = 2;

TEST(Layout, PrintersPutTheirOperationsBeforeTheDestructor) {
    EXPECT_EQ(slotOf(&NSCam::IPrinter::printLine), 0u);
    EXPECT_EQ(slotOf(&NSCam::IPrinter::printFormatLine), 1u);
    // The platform's printer, which the log printer also derives from, is laid out alike.
    EXPECT_EQ(slotOf(&android::Printer::printLine), 0u);
    EXPECT_EQ(slotOf(&android::Printer::printFormatLine), 1u);
}

TEST(Layout, ManagerInterfacesInTheirSlotOrder) {
    size_t slot = kAfterDestructor;
    EXPECT_EQ(slotOf(&IHistoryBufferProvider::dumpState), slot++);
    EXPECT_EQ(slotOf(&IHistoryBufferProvider::dumpBufferState), slot++);
    EXPECT_EQ(slotOf(&IHistoryBufferProvider::enableFrameResultRecyclable), slot++);
    EXPECT_EQ(slotOf(&IHistoryBufferProvider::beginSelect), slot++);
    EXPECT_EQ(slotOf(&IHistoryBufferProvider::endSelect), slot++);
    EXPECT_EQ(slotOf(&IHistoryBufferProvider::returnUnselectedSet), slot++);
    EXPECT_EQ(slotOf(&IHistoryBufferProvider::cloneHBS), slot++);
    EXPECT_EQ(slotOf(&IHistoryBufferProvider::peekInflights), slot++);
    EXPECT_EQ(slotOf(&IHistoryBufferProvider::peekInflightsReqNo), slot++);
    EXPECT_EQ(slotOf(&IFrameBufferManager::getPipelineFrameBufferProvider), slot++);
    EXPECT_EQ(slotOf(&IFrameBufferManager::getPipelineFrameResultProcessor), slot++);
    EXPECT_EQ(slotOf(&IFrameBufferManager::beginConfigure), slot++);
    EXPECT_EQ(slotOf(&IFrameBufferManager::endConfigure), slot++);
    EXPECT_EQ(slotOf(&IFrameBufferManager::getPoolStreamInfo), slot++);
    EXPECT_EQ(slotOf(&IFrameBufferManager::addImageStream), slot++);
    EXPECT_EQ(slotOf(&IFrameBufferManager::addMetaStream), slot++);
    EXPECT_EQ(slotOf(&IFrameBufferManager::configureStreams), slot++);
    EXPECT_EQ(slotOf(&IFrameBufferManager::triggerBufferPool), slot++);
    EXPECT_EQ(slotOf(&IFrameBufferManager::updateBufferPoolMaxBufCount), slot++);
    EXPECT_EQ(slotOf(&IFrameBufferManager::getBufferPoolMaxBufCount), slot++);
    EXPECT_EQ(slotOf(&IFrameBufferManager::trackFrameResult), slot++);

    EXPECT_EQ(slotOf(&IPipelineFrameStreamBufferProvider::requestStreamBuffer), kAfterDestructor);
    EXPECT_EQ(slotOf(&IPipelineFrameHalResultProcessor::returnResult), kAfterDestructor);
    EXPECT_EQ(slotOf(&NSCam::IDebuggeeTarget::debuggeeName), kAfterDestructor);
    EXPECT_EQ(slotOf(&NSCam::IDebuggeeTarget::debug), kAfterDestructor + 1);
}

TEST(Layout, StreamBufferPoolInItsSlotOrder) {
    size_t slot = kAfterDestructor;
    EXPECT_EQ(slotOf(&IImageStreamBufferPool::poolName), slot++);
    EXPECT_EQ(slotOf(&IImageStreamBufferPool::dumpPool), slot++);
    EXPECT_EQ(slotOf(&IImageStreamBufferPool::initPool), slot++);
    EXPECT_EQ(slotOf(&IImageStreamBufferPool::uninitPool), slot++);
    EXPECT_EQ(slotOf(&IImageStreamBufferPool::commitPool), slot++);
    EXPECT_EQ(slotOf(&IImageStreamBufferPool::acquireFromPool), slot++);
    EXPECT_EQ(slotOf(&IImageStreamBufferPool::releaseToPool), slot++);
}

TEST(Layout, ManagerBasesInDeclaredOrder) {
    auto manager = std::make_shared<FrameBufferManagerImpl>("layout");
    auto const at = [&](auto* base) {
        return reinterpret_cast<uintptr_t>(base) - reinterpret_cast<uintptr_t>(manager.get());
    };
    uintptr_t const primary = at(static_cast<IFrameBufferManager*>(manager.get()));
    uintptr_t const provider = at(static_cast<IPipelineFrameStreamBufferProvider*>(manager.get()));
    uintptr_t const processor = at(static_cast<IPipelineFrameHalResultProcessor*>(manager.get()));
    uintptr_t const debuggee = at(static_cast<NSCam::IDebuggeeTarget*>(manager.get()));
    EXPECT_EQ(primary, 0u);
    EXPECT_LT(primary, provider);
    EXPECT_LT(provider, processor);
    EXPECT_LT(processor, debuggee);
}

}  // namespace
