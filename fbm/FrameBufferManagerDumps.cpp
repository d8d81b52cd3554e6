// The manager from the side, at any time: its dumps, and control of its pools.
#define LOG_TAG "vexlor-ppl_fbm"
#define LOG_SRC_PATH "pipeline/pipeline/fbm/FrameBufferManager"

#include "FrameBufferManager.h"

#include <cstdarg>
#include <cstdio>
#include <sstream>

#include <vexlor/LogScheme.h>

namespace NSCam::v3::pipeline {

namespace {

constexpr auto kDumpLockWait = std::chrono::milliseconds(500);

template <class Vec>
std::string toString_BuffersStreamId(Vec const& buffers) {
    std::ostringstream oss;
    oss << std::hex << std::showbase;
    for (auto const& b : buffers) {
        auto info = b ? b->streamInfoOf() : nullptr;  // a dump must not fall over a broken set
        if (info) oss << " (" << info->streamId() << ") ";
    }
    return oss.str();
}

}  // namespace

// =================================================================================================
// Dumps
// =================================================================================================

void FrameBufferManagerImpl::dumpState(IPrinter& printer) {
    dumpConfigStreams(printer);
    dumpBufferPools(printer);
    dumpBufferState(printer);
}

void FrameBufferManagerImpl::dumpConfigStreams(IPrinter& printer) {
    std::map<StreamId_T, std::shared_ptr<ConfigImageStream>> images;
    std::map<StreamId_T, std::shared_ptr<ConfigMetaStream>> metas;
    std::shared_ptr<std::vector<std::set<StreamId_T>>> groups;

    printer.printLine("<image streams>");
    {
        LockGuard<Mutex> lk(mConfigLock);
        images = mConfigImageStreams;
    }
    for (auto const& [id, c] : images) {
        if (!c) continue;
        std::string text = toString(c->attribute) + (c->info ? c->info->describe() : "");
        printer.printFormatLine("    %s", text.c_str());
    }
    printer.printLine("<meta streams>");
    {
        LockGuard<Mutex> lk(mConfigLock);
        metas = mConfigMetaStreams;
    }
    for (auto const& [id, c] : metas) {
        if (!c) continue;
        std::string text = toString(c->attribute) + (c->info ? c->info->describe() : "");
        printer.printFormatLine("    %s", text.c_str());
    }
    {
        LockGuard<Mutex> lk(mConfigLock);
        groups = mSharedStreamGroups;
    }
    if (groups && !groups->empty()) {
        printer.printLine("<pool-shared streams>");
        for (auto const& group : *groups) {
            std::ostringstream oss;
            oss << "(" << std::hex;
            appendIds(oss, group);
            oss << " )";
            printer.printFormatLine("    %s", oss.str().c_str());
        }
    }
    if (!mConfigLogLock.try_lock()) return;
    if (!mConfigLogs.empty()) {
        printer.printLine("<config messages>");
        for (auto const& l : mConfigLogs) printer.printFormatLine("    %s", l.c_str());
    }
    mConfigLogLock.unlock();
}

void FrameBufferManagerImpl::dumpBufferPools(IPrinter& printer) {
    printer.printLine("<image buffer pool>");
    std::map<StreamId_T, std::shared_ptr<ConfigImageStream>> images;
    {
        LockGuard<Mutex> lk(mConfigLock);
        images = mConfigImageStreams;
    }
    for (auto const& [id, c] : images) {
        if (c && c->pPool) c->pPool->dump();
    }
}

namespace {

// A printer that keeps the lines of a dump made under a lock, to print them once it is let go:
// the real printer may be a pipe to a debugging tool, and a slow reader must not hold up the
// frame path. Each line reaches the real printer through the operation it was printed with, so
// that printer formats and bounds it as it always did.
class DeferredPrinter : public IPrinter {
public:
    void printLine(char const* line) override { mLines.push_back({false, line ? line : ""}); }
    void printFormatLine(char const* format, ...) override {
        va_list args;
        va_start(args, format);
        va_list again;
        va_copy(again, args);
        int const n = std::vsnprintf(nullptr, 0, format, args);
        va_end(args);
        std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
        if (n > 0) std::vsnprintf(text.data(), text.size() + 1, format, again);
        va_end(again);
        mLines.push_back({true, std::move(text)});
    }
    // Prints what was kept to `printer` and forgets it.
    void flushTo(IPrinter& printer) {
        for (auto const& l : mLines) {
            if (l.formatted) printer.printFormatLine("%s", l.text.c_str());
            else printer.printLine(l.text.c_str());
        }
        mLines.clear();
    }

private:
    struct Line {
        bool formatted;
        std::string text;
    };
    std::vector<Line> mLines;
};

}  // namespace

void FrameBufferManagerImpl::dumpBufferState(IPrinter& printer) {
    DeferredPrinter lines;
    if (mInFlightLock.try_lock_for(kDumpLockWait)) {
        dumpInFlightListLocked(lines);
        mInFlightLock.unlock();
    } else {
        lines.printLine("Timeout waiting for mInFlightLock");
    }
    lines.flushTo(printer);
    if (mReadyLock.try_lock_for(kDumpLockWait)) {
        dumpReadyListLocked(lines);
        mReadyLock.unlock();
    } else {
        lines.printLine("Timeout waiting for mReadyLock");
    }
    lines.flushTo(printer);
}

void FrameBufferManagerImpl::dumpInFlightListLocked(IPrinter& printer) {
    printer.printLine("<InFlightList>");
    for (auto const& set : mInFlightList) {
        printer.printFormatLine("    [R%u F%u]TS:%lu #%zu left {%s} {%s} {%s}", set.requestNo,
                                set.frameNo, static_cast<unsigned long>(set.timestamp), set.remaining,
                                toString_BuffersStreamId(set.halImage).c_str(),
                                toString_BuffersStreamId(set.halMeta).c_str(),
                                toString_BuffersStreamId(set.appMeta).c_str());
    }
}

void FrameBufferManagerImpl::dumpReadyListLocked(IPrinter& printer) {
    printer.printLine("<ReadyList>");
    for (auto const& set : mReadyList) {
        printer.printFormatLine("    [R%u F%u]TS:%lu {%s} {%s} {%s}", set.requestNo, set.frameNo,
                                static_cast<unsigned long>(set.timestamp),
                                toString_BuffersStreamId(set.halImage).c_str(),
                                toString_BuffersStreamId(set.halMeta).c_str(),
                                toString_BuffersStreamId(set.appMeta).c_str());
    }
    std::ostringstream oss;
    for (auto const& [id, n] : mReadyStreamCounters) oss << id << "(" << n << ") ";
    printer.printFormatLine("mReadyStreamCounters: %s", oss.str().c_str());
}

// =================================================================================================
// Pool control
// =================================================================================================

int FrameBufferManagerImpl::triggerBufferPool(StreamId_T streamId) {
    auto config = queryConfigImageStream(streamId);
    if (!config || !config->allocInfo || !config->pPool) return 0;
    auto const& allocInfo = config->allocInfo;
    if (!allocInfo->isAllocDeferred()) return 0;
    return config->pPool->initProducer(allocInfo->maxBufNum(), allocInfo->minInitBufNum(),
                                       Allocator{allocInfo, generateImgParam(allocInfo.get())});
}

int FrameBufferManagerImpl::updateBufferPoolMaxBufCount(StreamId_T streamId, int& count) {
    if (count < 0) {  // 0 is a pool emptied on purpose; below it nothing means anything
        MY_LOGE("stream(%#lx) bad maxBufCount = %d", static_cast<long>(streamId), count);
        return -EINVAL;
    }
    auto config = queryConfigImageStream(streamId);
    if (!config || !config->allocInfo || !config->pPool) return 0;
    int32_t current = 0;
    int err = config->pPool->getMaxBuffer(current);
    if (err != 0) MY_LOGE("Stream(%s) getMaxBuffer failed!", config->allocInfo->describe().c_str());
    if (current == count) {
        MY_LOGW("Stream(%s) has already been set to maxBufCount = %d",
                config->allocInfo->describe().c_str(), count);
        return err;
    }
    return config->pPool->setMaxBufferCount(count);
}

int FrameBufferManagerImpl::getBufferPoolMaxBufCount(StreamId_T streamId, int& max, int& allocated) {
    auto config = queryConfigImageStream(streamId);
    if (!config || !config->allocInfo || !config->pPool) return 0;
    int result = 0;
    int err = config->pPool->getMaxBuffer(max);
    if (err != 0) {
        MY_LOGE("getMaxBuffer failed!");
        result = err;
    }
    err = config->pPool->getAllocatedBuffer(allocated);
    if (err != 0) {
        MY_LOGE("getAllocatedBuffer failed!");
        result = err;
    }
    return result;
}

}  // namespace NSCam::v3::pipeline
