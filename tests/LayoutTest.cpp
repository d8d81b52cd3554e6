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

// The operations hold consecutive slots from `first`, in the order given (a failure names the
// slot where the order breaks).
template <class... Pmf>
void expectSlotsFrom(size_t first, Pmf... operations) {
    size_t slot = first;
    auto const expect = [&slot](size_t got) { EXPECT_EQ(got, slot++); };
    (expect(slotOf(operations)), ...);
}

TEST(Layout, PrintersPutTheirOperationsBeforeTheDestructor) {
    expectSlotsFrom(0, &NSCam::IPrinter::printLine, &NSCam::IPrinter::printFormatLine);
    // The platform's printer, which the log printer also derives from, is laid out alike.
    expectSlotsFrom(0, &android::Printer::printLine, &android::Printer::printFormatLine);
}

TEST(Layout, InterfacesInTheirSlotOrder) {
    using H = IHistoryBufferProvider;
    using M = IFrameBufferManager;
    expectSlotsFrom(kAfterDestructor, &H::dumpState, &H::dumpBufferState, &H::enableFrameResultRecyclable,
                    &H::beginSelect, &H::endSelect, &H::returnUnselectedSet, &H::cloneHBS, &H::peekInflights,
                    &H::peekInflightsReqNo, &M::getPipelineFrameBufferProvider, &M::getPipelineFrameResultProcessor,
                    &M::beginConfigure, &M::endConfigure, &M::getPoolStreamInfo, &M::addImageStream,
                    &M::addMetaStream, &M::configureStreams, &M::triggerBufferPool, &M::updateBufferPoolMaxBufCount,
                    &M::getBufferPoolMaxBufCount, &M::trackFrameResult);
    expectSlotsFrom(kAfterDestructor, &IPipelineFrameStreamBufferProvider::requestStreamBuffer);
    expectSlotsFrom(kAfterDestructor, &IPipelineFrameHalResultProcessor::returnResult);
    expectSlotsFrom(kAfterDestructor, &NSCam::IDebuggeeTarget::debuggeeName, &NSCam::IDebuggeeTarget::debug);
    using P = IImageStreamBufferPool;
    expectSlotsFrom(kAfterDestructor, &P::poolName, &P::dumpPool, &P::initPool, &P::uninitPool, &P::commitPool,
                    &P::acquireFromPool, &P::releaseToPool);
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
