// The manager's state as one typed value: taken as a dump takes what it prints, printed as the
// dump's "--state" section, and traced as counter tracks while the camera tag is on.
#define LOG_TAG "vexlor-ppl_fbm"
#define LOG_SRC_PATH "pipeline/pipeline/fbm/FrameBufferManager"

#include "FrameBufferManager.h"

#include <algorithm>
#include <sstream>

#include <fbm/IFrameBufferManagerState.h>
#include <vexlor/LogScheme.h>
#include <vexlor/Trace.h>

namespace NSCam::v3::pipeline {

namespace {

constexpr auto kStateLockWait = std::chrono::milliseconds(500);  // as the dump's

// One heap's size, as the heap factory makes it from these parameters.
int64_t heapBytesOf(IImageStreamInfo const& info) {
    auto const param = generateImgParam(&info);
    int64_t bytes = 0;
    for (size_t const size : param.bufSizesInBytes) bytes += static_cast<int64_t>(size);
    if (bytes == 0) bytes = static_cast<int64_t>(param.imgSize.w) * param.imgSize.h;  // a blob
    return bytes;
}

template <class Vec>
std::vector<StreamId_T> streamsOf(Vec const& buffers) {
    std::vector<StreamId_T> ids;
    for (auto const& b : buffers) {
        auto info = b ? b->streamInfoOf() : nullptr;
        if (info) ids.push_back(info->streamId());
    }
    return ids;
}

template <class SourceSet>
FrameBufferManagerState::Set stateOf(SourceSet const& set) {
    FrameBufferManagerState::Set s;
    s.frameNo = set.frameNo;
    s.requestNo = set.requestNo;
    s.timestamp = set.timestamp;
    s.halImage = streamsOf(set.halImage);
    s.halMeta = streamsOf(set.halMeta);
    s.appMeta = streamsOf(set.appMeta);
    return s;
}

std::string hex(int64_t id) {
    std::ostringstream oss;
    oss << "0x" << std::hex << id;
    return oss.str();
}

std::string idList(std::vector<StreamId_T> const& ids) {
    std::string text;
    for (StreamId_T id : ids) text += (text.empty() ? "" : ",") + hex(id);
    return text;
}

}  // namespace

FrameBufferManagerState FrameBufferManagerImpl::takeState() {
    FrameBufferManagerState state;
    state.name = mName;
    state.acquireTimeoutMs = mAcquireTimeoutMs;
    takeConfigState(state);
    if (mInFlightLock.try_lock_for(kStateLockWait)) {
        state.inFlightTaken = true;
        for (auto const& set : mInFlightList) {
            state.inFlight.push_back(stateOf(set));
            state.inFlight.back().remaining = set.remaining;
        }
        mInFlightLock.unlock();
    }
    if (mReadyLock.try_lock_for(kStateLockWait)) {
        state.readyTaken = true;
        for (auto const& set : mReadyList) state.ready.push_back(stateOf(set));
        state.readyCounters = mReadyStreamCounters;
        for (auto& pool : state.pools) {
            auto it = mReleasedUnderPressure.find(pool.streams.front());  // the pool's key
            if (it != mReleasedUnderPressure.end()) pool.releasedUnderPressure = it->second;
        }
        mReadyLock.unlock();
    }
    return state;
}

void FrameBufferManagerImpl::takeConfigState(FrameBufferManagerState& state) {
    std::map<StreamId_T, std::shared_ptr<ConfigImageStream>> images;
    std::map<StreamId_T, std::shared_ptr<ConfigMetaStream>> metas;
    {
        LockGuard<Mutex> lk(mConfigLock);
        images = mConfigImageStreams;
        metas = mConfigMetaStreams;
    }
    // A pool is known by the info it allocates from: one derived info for a shared group.
    std::map<IImageStreamInfo const*, size_t> poolOf;
    for (auto const& [id, c] : images) {
        FrameBufferManagerState::Stream stream{id, c->info->streamName(), c->attribute, ""};
        if (c->pPool && c->allocInfo) {
            stream.pool = c->allocInfo->streamName();
            auto [at, added] = poolOf.emplace(c->allocInfo.get(), state.pools.size());
            if (added) state.pools.push_back(poolStateOf(*c));
            state.pools[at->second].streams.push_back(id);
        }
        state.streams.push_back(std::move(stream));
    }
    for (auto const& [id, c] : metas) {
        state.streams.push_back({id, c->info ? c->info->streamName() : "", c->attribute, ""});
    }
    if (mConfigLogLock.try_lock()) {
        state.configLines.assign(mConfigLogs.begin(), mConfigLogs.end());
        mConfigLogLock.unlock();
    }
}

FrameBufferManagerState::Pool FrameBufferManagerImpl::poolStateOf(ConfigImageStream const& config) {
    FrameBufferManagerState::Pool pool;
    pool.name = config.allocInfo->streamName();
    pool.heapBytes = heapBytesOf(*config.allocInfo);
    // A deferred pool not triggered yet has no heap pool: nothing made, nothing counted.
    if (auto heapPool = config.pPool->heapPool()) heapPool->countsInto(pool);
    return pool;
}

void printState(IPrinter& printer, FrameBufferManagerState const& state) {
    auto count = [](bool taken, size_t n) { return taken ? std::to_string(n) : std::string("busy"); };
    printer.printFormatLine("<state> name=%s acquireTimeoutMs=%d inFlight=%s ready=%s", state.name.c_str(),
                            state.acquireTimeoutMs, count(state.inFlightTaken, state.inFlight.size()).c_str(),
                            count(state.readyTaken, state.ready.size()).c_str());
    for (auto const& p : state.pools) {
        printer.printFormatLine(
            "    pool %s streams=%s heapBytes=%lld max=%d allocated=%d available=%d inUse=%d waiting=%d "
            "served=%llu timeouts=%llu slicesWaited=%llu releasedUnderPressure=%llu peakInUse=%d",
            p.name.c_str(), idList(p.streams).c_str(), static_cast<long long>(p.heapBytes), p.max,
            p.allocated, p.available, p.inUse, p.waiting, static_cast<unsigned long long>(p.served),
            static_cast<unsigned long long>(p.timeouts), static_cast<unsigned long long>(p.slicesWaited),
            static_cast<unsigned long long>(p.releasedUnderPressure), p.peakInUse);
    }
    for (auto const& s : state.streams) {
        printer.printFormatLine("    stream %s attribute=%s pool=%s name=%s", hex(s.id).c_str(),
                                hex(s.attribute).c_str(), s.pool.c_str(), s.name.c_str());
    }
    auto printSets = [&](char const* list, std::vector<FrameBufferManagerState::Set> const& sets) {
        for (auto const& set : sets) {
            printer.printFormatLine("    %s F%u R%u timestamp=%lld remaining=%zu halImage=%s halMeta=%s appMeta=%s",
                                    list, set.frameNo, set.requestNo, static_cast<long long>(set.timestamp),
                                    set.remaining, idList(set.halImage).c_str(), idList(set.halMeta).c_str(),
                                    idList(set.appMeta).c_str());
        }
    };
    printSets("inFlight", state.inFlight);
    printSets("ready", state.ready);
    std::string counters;
    for (auto const& [id, n] : state.readyCounters) counters += " " + hex(id) + "=" + std::to_string(n);
    if (state.readyTaken) printer.printFormatLine("    readyCounters%s", counters.c_str());
    for (auto const& line : state.configLines) printer.printFormatLine("    config %s", line.c_str());
}

void FrameBufferManagerImpl::traceOccupancy(ConfigImageStream const& config) {
    if (config.pPool) {
        if (auto heapPool = config.pPool->heapPool()) {
            FrameBufferManagerState::Pool s;
            heapPool->countsInto(s);
            std::string const name = heapPool->poolName();
            atrace_int(ATRACE_TAG_CAMERA, (name + ".inUse").c_str(), s.inUse);
            atrace_int(ATRACE_TAG_CAMERA, (name + ".available").c_str(), s.available);
        }
    }
    size_t ready;
    {
        LockGuard<TimedMutex> lk(mReadyLock);
        ready = mReadyList.size();
    }
    atrace_int(ATRACE_TAG_CAMERA, (mName + ".ready").c_str(), static_cast<int32_t>(ready));
}


}  // namespace NSCam::v3::pipeline

extern "C" __attribute__((visibility("default"))) void printFrameBufferManagerState(
    NSCam::IPrinter* printer, NSCam::v3::pipeline::FrameBufferManagerState const* state) {
    if (printer != nullptr && state != nullptr) NSCam::v3::pipeline::printState(*printer, *state);
}

extern "C" __attribute__((visibility("default"))) void getFrameBufferManagerState(
    std::shared_ptr<NSCam::v3::pipeline::IFrameBufferManagerState>* out,
    std::shared_ptr<NSCam::v3::pipeline::IFrameBufferManager> const* manager) {
    using NSCam::v3::pipeline::FrameBufferManagerImpl;
    if (out == nullptr) return;
    out->reset();
    if (manager == nullptr) return;
    if (auto impl = std::dynamic_pointer_cast<FrameBufferManagerImpl>(*manager)) *out = std::move(impl);
}
