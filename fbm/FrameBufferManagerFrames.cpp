// A frame's road through the manager: its buffers requested, its results returned in batches, and
// what it must keep.
#define LOG_TAG "vexlor-ppl_fbm"
#define LOG_SRC_PATH "pipeline/pipeline/fbm/FrameBufferManager"

#include "FrameBufferManager.h"

#include <mutex>

#include <vexlor/LogScheme.h>
#include <vexlor/Trace.h>

using NSCam::Utils::ScopedTrace;

namespace NSCam::v3::pipeline {

namespace {

constexpr size_t kSpareSets = 32;  // emptied sets kept per list, for the next frames

// What a provider answered, shared by the requesting frame and the callable the provider keeps.
struct ProviderAnswer {
    std::mutex lock;
    std::shared_ptr<IImageStreamBuffer> buffer;  // as given to the callable
    bool answered = false;                       // the caller's callback has run
    bool returned = false;                       // requestStreamBuffer has taken its result
};

constexpr char kRequestFn[] = "requestStreamBuffer";  // the name in the lines of its steps

bool sameLayout(IImageStreamInfo const& a, IImageStreamInfo const& b) {
    if (a.imageFormat() != b.imageFormat()) return false;
    BufPlanes const& pa = a.planeLayout();
    BufPlanes const& pb = b.planeLayout();
    if (pa.count != pb.count) return false;
    size_t const n = std::min<size_t>(pa.count, pa.planes.size());
    for (size_t i = 0; i < n; ++i) {
        if (pa[i].sizeInBytes != pb[i].sizeInBytes ||
            pa[i].rowStrideInBytes != pb[i].rowStrideInBytes) {
            return false;
        }
    }
    return true;
}

// A marker of the source used, named after the request when its stream has a name.
// Out of the request's own code: with the tag off it costs the one test that calls it.
__attribute__((cold, noinline)) void traceRequest(char const* label,
                                                  IPipelineFrameStreamBufferProvider::RequestStreamBuffer const& request) {
    char const* name = request.pStreamInfo->streamName();
    std::string marker = label;
    if (name != nullptr && name[0] != '\0') {
        marker += std::string(" requestStreamBuffer ") + name + "|request:" +
                  std::to_string(request.requestNo) + " frame:" + std::to_string(request.frameNo);
    }
    NSCam::Utils::traceMarker(marker.c_str());
}

}  // namespace

// =================================================================================================
// Requests
// =================================================================================================

int FrameBufferManagerImpl::requestStreamBuffer(ImageStreamBufferCallback callback,
                                                RequestStreamBuffer const& request) {
    auto const& reqInfo = request.pStreamInfo;
    if (!callback || !reqInfo) {  // before anything is taken: nothing to hand it to, or no stream
        MY_LOGE("[requestNo:%u frameNo:%u] %s", request.requestNo, request.frameNo,
                callback ? "no stream info" : "empty callback");
        return -EINVAL;
    }
    auto config = queryConfigImageStream(reqInfo->streamId());
    if (!config) return -EINVAL;
    RequestSource source;
    if (!chooseRequestSource(*config, request, source)) return -EINVAL;
    if (NSCam::Utils::cameraTraceOn()) {
        traceRequest(source.label, request);
        traceOccupancy(*config);  // what the request finds
    }

    std::shared_ptr<IImageStreamBuffer> buffer;
    int err = 0;
    switch (source.kind) {
        case RequestSource::Pool:
            err = takeFromPool(*config, request, buffer);
            callback(buffer);  // whatever came, a null buffer included
            break;
        case RequestSource::HalProvider:
        case RequestSource::AppProvider:
            err = requestFromProvider(*config, request, source.kind == RequestSource::HalProvider,
                                      std::move(callback), buffer);
            break;
        case RequestSource::Runtime:
            err = allocateHalImageStreamBufferRuntime(reqInfo, buffer);
            callback(buffer);
            break;
    }
    giveRequestInfo(source, *config, reqInfo, buffer);
    if (err != 0 || !buffer) {
        MY_LOGE("[requestNo:%u frameNo:%u] err:%d(%s) %s", request.requestNo, request.frameNo, err,
                errText(-err).c_str(),
                (toString(config->attribute) + config->info->describe()).c_str());
    }
    return err;
}

FBM_STEP void FrameBufferManagerImpl::giveRequestInfo(RequestSource const& source, ConfigImageStream const& config,
                                                      std::shared_ptr<IImageStreamInfo> const& reqInfo,
                                                      std::shared_ptr<IImageStreamBuffer> const& buffer) const {
    // A pooled buffer always carries the stream info of the request that took it. One from the
    // pool was made with the stream's own info: when that is the request's, there is nothing to do.
    bool const ownInfo = source.kind == RequestSource::Pool && reqInfo.get() == config.info.get();
    bool const adopt = source.kind == RequestSource::Pool || source.kind == RequestSource::HalProvider;
    if (adopt && buffer && !ownInfo && buffer->streamInfoOf().get() != reqInfo.get()) {
        buffer->setStreamInfo(reqInfo);
    }
}

FBM_STEP bool FrameBufferManagerImpl::chooseRequestSource(ConfigImageStream const& config,
                                                 RequestStreamBuffer const& request,
                                                 RequestSource& source) const {
    // A stream whose layout changed after configuration is served by an allocation per request,
    // deliberately: its buffers are then laid out as the request says.
    auto layoutChanged = [&](char const* from) {
        auto const& reqInfo = request.pStreamInfo;
        if (config.info.get() == reqInfo.get() || sameLayout(*config.info, *reqInfo)) return false;
        MY_LOGD_AS(kRequestFn, "[requestNo:%u frameNo:%u] %s -> RUNTIME due to alloc layout change",
                   request.requestNo, request.frameNo, from);
        return true;
    };
    switch (static_cast<uint32_t>(config.attribute)) {
        case eHAL_IMAGE_POOL:
            source = layoutChanged("POOL") ? RequestSource{RequestSource::Runtime, "POOL -> RUNTIME"}
                                           : RequestSource{RequestSource::Pool, "POOL"};
            return true;
        case eHAL_IMAGE_RUNTIME:
            source = {RequestSource::Runtime, "RUNTIME"};
            return true;
        case eHAL_IMAGE_PROVIDER:
            source = layoutChanged("PROVIDER")
                         ? RequestSource{RequestSource::Runtime, "PROVIDER -> RUNTIME"}
                         : RequestSource{RequestSource::HalProvider, "HAL_IMAGE_PROVIDER"};
            return true;
        case eAPP_IMAGE_PROVIDER:  // never switched: the application lays its buffers out
            source = {RequestSource::AppProvider, "APP_IMAGE_PROVIDER"};
            return true;
        default:
            MY_LOGE_AS(kRequestFn, "[requestNo:%u frameNo:%u] Unsupported attribute:%s for %s",
                       request.requestNo, request.frameNo, toString(config.attribute).c_str(),
                       config.info->describe().c_str());
            return false;
    }
}

FBM_STEP int FrameBufferManagerImpl::takeFromPool(ConfigImageStream const& config,
                                         RequestStreamBuffer const& request,
                                         std::shared_ptr<IImageStreamBuffer>& buffer) const {
    auto const& pool = config.pPool;
    if (!pool) {
        MY_LOGE_AS(kRequestFn, "cannot get pConfigImageStream->pPool");
        return -ENOMEM;
    }
    MY_LOGD_IF_AS(mLogLevel >= 2, kRequestFn, "[requestNo:%u frameNo:%u] acquireFromPool (%s)",
                  request.requestNo, request.frameNo, pool->poolName());
    return pool->acquireFromPool(pool->poolName(), buffer,
                                 static_cast<int64_t>(mAcquireTimeoutMs) * 1000000);
}

int FrameBufferManagerImpl::requestFromProvider(ConfigImageStream const& config,
                                                RequestStreamBuffer const& request, bool halProvider,
                                                ImageStreamBufferCallback&& callback,
                                                std::shared_ptr<IImageStreamBuffer>& buffer) const {
    if (!config.provider) return -EINVAL;
    // The provider may answer during the call or later, on any thread: the wrapper owns the
    // caller's callback and shares the answer's slot with this frame. A late answer (after this
    // call returned) finishes the request itself: it gives a HAL provider's buffer the request's
    // stream info, as requestStreamBuffer does for a prompt one.
    auto answer = std::make_shared<ProviderAnswer>();
    auto const& reqInfo = request.pStreamInfo;
    int const err = config.provider->requestStreamBuffer(
        [answer, halProvider, reqInfo, cb = std::move(callback)](
            std::shared_ptr<IImageStreamBuffer> const& b) {
            {
                std::lock_guard<std::mutex> lk(answer->lock);
                answer->buffer = b;
            }
            cb(b);
            bool late;
            {
                std::lock_guard<std::mutex> lk(answer->lock);
                answer->answered = true;
                late = answer->returned;
            }
            if (late && halProvider && b && b->streamInfoOf().get() != reqInfo.get()) {
                b->setStreamInfo(reqInfo);
            }
        },
        IStreamBufferProvider::Request{reqInfo, -1, request.requestNo});
    std::lock_guard<std::mutex> lk(answer->lock);
    answer->returned = true;
    if (answer->answered) buffer = answer->buffer;
    return err;
}

int FrameBufferManagerImpl::allocateHalImageStreamBufferRuntime(
    std::shared_ptr<IImageStreamInfo> const& info, std::shared_ptr<IImageStreamBuffer>& out) {
    auto const param = generateImgParam(info.get());
    std::shared_ptr<nivo::IImageBufferHeap> heap;
    {
        ScopedTrace trace("Allocator");
        heap = nivo::IImageBufferHeapFactory::create("fbm", info->streamName(), param, false);
    }
    out = Utils::makeHalImageStreamBuffer({info, heap, nullptr, nullptr});
    if (out) return 0;
    MY_LOGE("<REQUEST> %s", info->describe().c_str());
    return -EINVAL;
}

// =================================================================================================
// Tracking and results
// =================================================================================================

int FrameBufferManagerImpl::trackFrameResult(TrackFrameResult const& track) {
    auto const& params = track.trackParams;
    if (!params || (params->halImage.empty() && params->halMeta.empty() && params->appMeta.empty())) {
        MY_LOGD_IF(mLogLevel >= 2, "[R%u F%u] no streams to track", track.requestNo, track.frameNo);
        return 0;
    }
    {
        LockGuard<TimedMutex> lk(mInFlightLock);
        if (mSpareInFlight.empty()) {
            mInFlightList.emplace_back();
        } else {
            mInFlightList.splice(mInFlightList.end(), mSpareInFlight, mSpareInFlight.begin());
        }
        InFlightBufferSet& set = mInFlightList.back();
        set.frameNo = track.frameNo;
        set.requestNo = track.requestNo;
        set.timestamp = 0;
        // A spare set's vectors usually hold enough already.
        set.halImage.reserve(params->halImage.size());
        set.halMeta.reserve(params->halMeta.size());
        set.appMeta.reserve(params->appMeta.size());
        set.trackParams = params;
        set.remaining = params->halImage.size() + params->halMeta.size() + params->appMeta.size();
    }
    MY_LOGD_IF(mLogLevel >= 2, "[R%u F%u] track:%s", track.requestNo, track.frameNo,
               toString(*params).c_str());
    return 0;
}

// The level-2 line of one result: built only when it will be written, and buffer names are asked
// for only then.
class FrameBufferManagerImpl::ResultLine {
public:
    ResultLine(bool on, ReturnResult const& result) {
        if (!on) return;
        mText = std::make_unique<std::string>();
        *mText += "[R" + std::to_string(result.requestNo) + " F" + std::to_string(result.frameNo) +
                  "]TS:" + std::to_string(result.timestamp) + " " +
                  (result.isFrameDestroyed ? "X" : " ");
    }
    // " name(O) " for a kept buffer, " name(X) " for one let go.
    template <class Buffer>
    void note(Buffer const& buffer, char const* mark) {
        if (!mText) return;
        if (char const* name = buffer->bufferName()) *mText += std::string(" ") + name + mark;
    }
    bool on() const { return mText != nullptr; }
    void append(char const* text) {
        if (mText) *mText += text;
    }
    void write() const {
        if (mText) MY_LOGD_AS("returnResult", "%s", mText->c_str());
    }

private:
    std::unique_ptr<std::string> mText;
};

void FrameBufferManagerImpl::returnResult(ReturnResult const& result) {
    ResultLine line(mLogLevel >= 2, result);
    std::list<InFlightBufferSet> done = keepTrackedBuffers(result, line);
    releaseUntracked(result, line);
    if (!done.empty()) completeFrame(done, line);
    line.write();
}

FBM_STEP std::list<FrameBufferManagerImpl::InFlightBufferSet> FrameBufferManagerImpl::keepTrackedBuffers(
    ReturnResult const& result, ResultLine& line) {
    std::list<InFlightBufferSet> done;  // the completed set, taken out of the list whole
    LockGuard<TimedMutex> lk(mInFlightLock);
    auto it = std::find_if(mInFlightList.begin(), mInFlightList.end(),
                           [&](InFlightBufferSet const& s) { return s.frameNo == result.frameNo; });
    if (it == mInFlightList.end()) return done;  // never tracked, or already complete
    InFlightBufferSet& set = *it;
    if (set.timestamp == 0 && result.timestamp >= 1) set.timestamp = result.timestamp;
    if (result.halImage != nullptr) keepTrackedImages(*result.halImage, set, line);
    keepTrackedMetas(result.halMeta, set.trackParams->halMeta, set, set.halMeta, line);
    keepTrackedMetas(result.appMeta, set.trackParams->appMeta, set, set.appMeta, line);
    if (result.isFrameDestroyed && set.remaining != 0) {
        MY_LOGE_AS("returnResult", "[requestNo:%u frameNo:%u] isFrameDestroyed(%d), but still have #%zu left",
                   result.requestNo, result.frameNo, result.isFrameDestroyed, set.remaining);
        set.timestamp = 0;  // released, not kept: the frame is broken
        set.remaining = 0;
    }
    if (set.remaining == 0) {
        MY_LOGD_IF_AS(mLogLevel >= 3, "returnResult", "erase frameNo=%d from mInFlightList", result.frameNo);
        done.splice(done.end(), mInFlightList, it);
    }
    return done;
}

FBM_STEP bool FrameBufferManagerImpl::receiveOnce(InFlightBufferSet& set, StreamId_T streamId,
                                                  char const* kind) {
    for (StreamId_T received : set.received) {  // a few at most: a plain walk is cheapest
        if (received == streamId) return warnReceivedAgain(set, streamId, kind);
    }
    set.received.push_back(streamId);
    return true;
}

bool FrameBufferManagerImpl::warnReceivedAgain(InFlightBufferSet const& set, StreamId_T streamId,
                                               char const* kind) const {
    // Counted once, or the frame would never complete: the extra stays with the caller.
    MY_LOGW_AS("returnResult", "[R%u F%u] %s stream(%#lx) returned again: left in the caller's list",
               set.requestNo, set.frameNo, kind, static_cast<long>(streamId));
    return false;
}

FBM_STEP void FrameBufferManagerImpl::keepTrackedImages(std::vector<std::shared_ptr<IImageStreamBuffer>>& list,
                                               InFlightBufferSet& set, ResultLine& line) {
    auto const& tracked = set.trackParams->halImage;
    for (auto b = list.begin(); b != list.end();) {
        StreamId_T const id = *b ? (*b)->streamInfoOf()->streamId() : 0;
        if (!*b || tracked.count(id) == 0 || !receiveOnce(set, id, "image")) {
            ++b;  // not tracked: it stays in the caller's list
            continue;
        }
        line.note(*b, "(O) ");
        if (addSharedImage(id, std::move(*b), set.halImage)) set.halImageIds.push_back(id);
        --set.remaining;  // returned, whether or not a buffer could be kept
        b = list.erase(b);
    }
}

FBM_STEP void FrameBufferManagerImpl::keepTrackedMetas(std::vector<std::shared_ptr<IMetaStreamBuffer>>* list,
                                              std::set<StreamId_T> const& tracked,
                                              InFlightBufferSet& set,
                                              std::vector<std::shared_ptr<IMetaStreamBuffer>>& out,
                                              ResultLine& line) {
    if (list == nullptr) return;
    for (auto b = list->begin(); b != list->end();) {
        auto info = *b ? (*b)->streamInfoOf() : nullptr;
        if (!info || tracked.count(info->streamId()) == 0 || !receiveOnce(set, info->streamId(), "meta")) {
            ++b;
            continue;
        }
        line.note(*b, "(O) ");
        addCopiedMeta(std::move(info), std::move(*b), out);
        --set.remaining;
        b = list->erase(b);
    }
}

FBM_STEP void FrameBufferManagerImpl::releaseUntracked(ReturnResult const& result, ResultLine& line) {
    if (result.halImageToRelease != nullptr) {
        for (auto& b : *result.halImageToRelease) {
            if (!b) continue;
            line.note(b, "(X) ");
            releaseBuffer(b);
        }
        result.halImageToRelease->clear();
    }
    for (auto* list : {result.halMeta, result.appMeta}) {
        if (list == nullptr) continue;
        for (auto& b : *list) {
            if (!b) continue;
            line.note(b, "(X) ");
            b.reset();  // untracked metadata is only dropped here
        }
        list->clear();
    }
}

FBM_STEP void FrameBufferManagerImpl::completeFrame(std::list<InFlightBufferSet>& doneNode, ResultLine& line) {
    InFlightBufferSet& done = doneNode.front();
    if (done.timestamp == 0) {
        if (line.on()) line.append((" => release bufferSet (TS: " + std::to_string(done.timestamp) + ")").c_str());
        // Tied to the flag being false: a frame without timestamp is released either way, and
        // only losing one the selector may not recycle is an error.
        if (!done.trackParams->isRecyclable) {
            MY_LOGE_AS("returnResult", "release un-recyclable frame! (due to error)");
        }
        releaseOneBufferSet(done);
    } else {
        auto const groups = poolGroups();
        LockGuard<TimedMutex> lk(mReadyLock);
        auto hbs = insertReadyLocked(done.timestamp, ReadyTie::InFrontOfEqual);
        hbs->frameNo = done.frameNo;
        hbs->requestNo = done.requestNo;
        hbs->timestamp = done.timestamp;
        hbs->isRecyclable = done.trackParams->isRecyclable;
        // The buffers move; the emptied vectors of the spare set go back with the frame's.
        hbs->halImage.swap(done.halImage);
        hbs->halMeta.swap(done.halMeta);
        hbs->appMeta.swap(done.appMeta);
        for (StreamId_T id : done.halImageIds) mReadyStreamCounters[poolKeyOf(groups.get(), id)] += 1;
        line.append(" => move to ReadyList");
    }
    recycleInFlightSets(doneNode);
}

std::list<IHistoryBufferProvider::HistoryBufferSet>::iterator
FrameBufferManagerImpl::insertReadyLocked(int64_t timestamp, ReadyTie tie) {
    // From the back, where new frames go: the list is in ascending timestamp order.
    auto pos = mReadyList.end();
    while (pos != mReadyList.begin()) {
        int64_t const prev = std::prev(pos)->timestamp;
        if (prev < timestamp || (tie == ReadyTie::BehindEqual && prev == timestamp)) break;
        --pos;
    }
    if (mSpareReady.empty()) return mReadyList.emplace(pos);
    auto node = mSpareReady.begin();
    mReadyList.splice(pos, mSpareReady, node);
    return node;
}

void FrameBufferManagerImpl::recycleInFlightSets(std::list<InFlightBufferSet>& sets) {
    for (auto& set : sets) {
        set.halImage.clear();  // released or moved on: only empty handles are left
        set.halImageIds.clear();
        set.received.clear();
        set.halMeta.clear();
        set.appMeta.clear();
        set.trackParams.reset();
    }
    LockGuard<TimedMutex> lk(mInFlightLock);
    while (!sets.empty() && mSpareInFlight.size() < kSpareSets) {
        mSpareInFlight.splice(mSpareInFlight.end(), sets, sets.begin());
    }
}

void FrameBufferManagerImpl::recycleReadySets(std::list<HistoryBufferSet>& sets) {
    for (auto& set : sets) {
        set.halImage.clear();
        set.halMeta.clear();
        set.appMeta.clear();
    }
    {
        LockGuard<TimedMutex> lk(mReadyLock);
        while (!sets.empty() && mSpareReady.size() < kSpareSets) {
            mSpareReady.splice(mSpareReady.end(), sets, sets.begin());
        }
    }
    sets.clear();  // beyond the bound
}

void FrameBufferManagerImpl::increaseReadyCounters(HistoryBufferSet const& set, int delta) {
    auto const groups = poolGroups();
    for (auto const& image : set.halImage) {
        if (!image) continue;
        auto info = image->streamInfoOf();
        if (!info) {
            MY_LOGE_AS("operator()", "pStreamInfo == nullptr");
            continue;
        }
        mReadyStreamCounters[poolKeyOf(groups.get(), info->streamId())] += delta;
    }
}

template <class BufferSet>
void FrameBufferManagerImpl::releaseOneBufferSet(BufferSet& set) {
    for (auto& b : set.halImage)
        if (b) releaseBuffer(b);
    for (auto& b : set.halMeta) releaseBuffer(b);
    for (auto& b : set.appMeta) releaseBuffer(b);
    MY_LOGD_IF(mLogLevel >= 2, "release [R%u F%u]", set.requestNo, set.frameNo);
}
template void FrameBufferManagerImpl::releaseOneBufferSet(InFlightBufferSet&);
template void FrameBufferManagerImpl::releaseOneBufferSet(HistoryBufferSet&);

void FrameBufferManagerImpl::enableFrameResultRecyclable(uint32_t frameNo, bool forceToRecycle) {
    if (mLogLevel >= 2) {
        MY_LOGE("TODO - frameNo:%u forceToRecycle:%d", frameNo, forceToRecycle ? 1 : 0);
    }
}

// =================================================================================================
// Keeping buffers
// =================================================================================================

void FrameBufferManagerImpl::addSharedImage(std::shared_ptr<IImageStreamBuffer>&& buffer,
                                            std::vector<std::shared_ptr<IImageStreamBuffer>>& out) {
    StreamId_T const streamId = buffer->streamInfoOf()->streamId();
    addSharedImage(streamId, std::move(buffer), out);
}

bool FrameBufferManagerImpl::addSharedImage(StreamId_T streamId,
                                            std::shared_ptr<IImageStreamBuffer>&& buffer,
                                            std::vector<std::shared_ptr<IImageStreamBuffer>>& out) {
    auto config = queryConfigImageStream(streamId);
    if (config && config->attribute == eHAL_IMAGE_POOL && config->pPool) {
        auto shared = config->pPool->shareSB(buffer);
        if (!shared) return false;
        out.push_back(std::move(shared));
        return true;
    }
    char const* const fn = "addSharedImage";
    MY_LOGW_AS(fn, "Fail to share image (%#lx:%s, attribute:%s) ", static_cast<long>(streamId),
               buffer->streamInfoOf()->streamName(),
               config ? toString(config->attribute).c_str() : "(not configured)");
    return false;
}

void FrameBufferManagerImpl::addCopiedMeta(std::shared_ptr<IMetaStreamBuffer>&& buffer,
                                           std::vector<std::shared_ptr<IMetaStreamBuffer>>& out) {
    addCopiedMeta(buffer->streamInfoOf(), std::move(buffer), out);
}

void FrameBufferManagerImpl::addCopiedMeta(std::shared_ptr<IMetaStreamInfo const>&& info,
                                           std::shared_ptr<IMetaStreamBuffer>&& buffer,
                                           std::vector<std::shared_ptr<IMetaStreamBuffer>>& out) {
    char const* const fn = "addCopiedMeta";
    StreamId_T const streamId = info->streamId();
    IMetadata* locked = buffer->tryReadLockMeta(LOG_TAG);
    if (locked == nullptr) MY_FATAL_AS(fn, "fail to lock metaSB(%#lx)", static_cast<long>(streamId));
    // The read lock brackets only the copy: a producer node may be waiting to write the source.
    IMetadata copy(*locked);
    buffer->unlockMeta(LOG_TAG, locked);
    auto kept = Utils::makeHalMetaStreamBuffer({std::move(info), &copy});
    if (kept) {
        out.push_back(std::move(kept));
    } else {
        MY_LOGW_AS(fn, "Fail to copy meta (%#lx)", static_cast<long>(streamId));
    }
}

}  // namespace NSCam::v3::pipeline
