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

}  // namespace

// =================================================================================================
// Requests
// =================================================================================================

int FrameBufferManagerImpl::requestStreamBuffer(ImageStreamBufferCallback callback,
                                                RequestStreamBuffer const& request) {
    auto const& reqInfo = request.pStreamInfo;
    if (!reqInfo) {
        MY_LOGE("[requestNo:%u frameNo:%u] no stream info", request.requestNo, request.frameNo);
        return -EINVAL;
    }
    auto config = queryConfigImageStream(reqInfo->streamId());
    if (!config) return -EINVAL;

    enum class Source { Pool, Runtime, HalProvider, AppProvider };
    Source source;
    char const* label;
    auto layoutChanged = [&] {
        return config->info.get() != reqInfo.get() && !sameLayout(*config->info, *reqInfo);
    };
    switch (static_cast<uint32_t>(config->attribute)) {
        case eHAL_IMAGE_POOL:
            if (layoutChanged()) {
                MY_LOGD("[requestNo:%u frameNo:%u] POOL -> RUNTIME due to alloc layout change",
                        request.requestNo, request.frameNo);
                source = Source::Runtime;
                label = "POOL -> RUNTIME";
            } else {
                source = Source::Pool;
                label = "POOL";
            }
            break;
        case eHAL_IMAGE_RUNTIME:
            source = Source::Runtime;
            label = "RUNTIME";
            break;
        case eHAL_IMAGE_PROVIDER:
            if (layoutChanged()) {
                MY_LOGD("[requestNo:%u frameNo:%u] PROVIDER -> RUNTIME due to alloc layout change",
                        request.requestNo, request.frameNo);
                source = Source::Runtime;
                label = "PROVIDER -> RUNTIME";
            } else {
                source = Source::HalProvider;
                label = "HAL_IMAGE_PROVIDER";
            }
            break;
        case eAPP_IMAGE_PROVIDER:
            source = Source::AppProvider;
            label = "APP_IMAGE_PROVIDER";
            break;
        default:
            MY_LOGE("[requestNo:%u frameNo:%u] Unsupported attribute:%s for %s", request.requestNo,
                    request.frameNo, toString(config->attribute).c_str(),
                    config->info->describe().c_str());
            return -EINVAL;
    }

    if (NSCam::Utils::cameraTraceOn()) {
        char const* name = reqInfo->streamName();
        std::string marker = label;
        if (name != nullptr && name[0] != '\0') {
            marker += std::string(" requestStreamBuffer ") + name + "|request:" +
                      std::to_string(request.requestNo) + " frame:" + std::to_string(request.frameNo);
        }
        NSCam::Utils::traceMarker(marker.c_str());
    }

    std::shared_ptr<IImageStreamBuffer> buffer;
    int err = 0;
    switch (source) {
        case Source::Pool: {
            auto const& pool = config->pPool;
            if (!pool) {
                MY_LOGE("cannot get pConfigImageStream->pPool");
                err = -ENOMEM;
                break;
            }
            MY_LOGD_IF(mLogLevel >= 2, "[requestNo:%u frameNo:%u] acquireFromPool (%s)",
                       request.requestNo, request.frameNo, pool->poolName());
            err = pool->acquireFromPool(pool->poolName(), buffer,
                                        static_cast<int64_t>(mAcquireTimeoutMs) * 1000000);
            callback(buffer);
            break;
        }
        case Source::HalProvider:
        case Source::AppProvider: {
            if (!config->provider) {
                err = -EINVAL;
                break;
            }
            // The provider may answer during the call or later, on any thread: the wrapper owns
            // the caller's callback and shares the answer's slot with this frame. A late answer
            // (after this call returned) finishes the request itself: it gives a HAL provider's
            // buffer the request's stream info, as the code below does for a prompt one.
            auto answer = std::make_shared<ProviderAnswer>();
            bool const halProvider = source == Source::HalProvider;
            err = config->provider->requestStreamBuffer(
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
            {
                std::lock_guard<std::mutex> lk(answer->lock);
                answer->returned = true;
                if (answer->answered) buffer = answer->buffer;
            }
            break;
        }
        case Source::Runtime:
            err = allocateHalImageStreamBufferRuntime(reqInfo, buffer);
            callback(buffer);
            break;
    }

    // A pooled buffer always carries the stream info of the request that took it. One from the
    // pool was made with the stream's own info: when that is the request's, there is nothing to do.
    bool const ownInfo = source == Source::Pool && reqInfo.get() == config->info.get();
    if ((source == Source::Pool || source == Source::HalProvider) && buffer && !ownInfo &&
        buffer->streamInfoOf().get() != reqInfo.get()) {
        buffer->setStreamInfo(reqInfo);
    }
    if (err != 0 || !buffer) {
        MY_LOGE("[requestNo:%u frameNo:%u] err:%d(%s) %s", request.requestNo, request.frameNo, err,
                errText(-err).c_str(),
                (toString(config->attribute) + config->info->describe()).c_str());
    }
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

void FrameBufferManagerImpl::returnResult(ReturnResult const& result) {
    // The line is built only when it will be written.
    std::unique_ptr<std::string> line;
    if (mLogLevel >= 2) {
        line = std::make_unique<std::string>();
        *line += "[R" + std::to_string(result.requestNo) + " F" + std::to_string(result.frameNo) +
                 "]TS:" + std::to_string(result.timestamp) + " " +
                 (result.isFrameDestroyed ? "X" : " ");
    }
    // Names are asked for only when the line is being built.
    auto note = [&line](auto const& buffer, char const* mark) {
        if (!line) return;
        if (char const* name = buffer->bufferName()) *line += std::string(" ") + name + mark;
    };

    bool complete = false;
    std::list<InFlightBufferSet> doneNode;  // the completed set, taken out of the list whole
    {
        LockGuard<TimedMutex> lk(mInFlightLock);
        auto it = std::find_if(mInFlightList.begin(), mInFlightList.end(),
                               [&](InFlightBufferSet const& s) { return s.frameNo == result.frameNo; });
        if (it != mInFlightList.end()) {
            InFlightBufferSet& set = *it;
            if (set.timestamp == 0 && result.timestamp >= 1) set.timestamp = result.timestamp;
            TrackFrameResultParams const& track = *set.trackParams;
            if (result.halImage != nullptr) {
                auto& list = *result.halImage;
                for (auto b = list.begin(); b != list.end();) {
                    StreamId_T const id = *b ? (*b)->streamInfoOf()->streamId() : 0;
                    if (*b && track.halImage.count(id) != 0) {
                        note(*b, "(O) ");
                        if (addSharedImage(id, std::move(*b), set.halImage)) set.halImageIds.push_back(id);
                        --set.remaining;
                        b = list.erase(b);
                    } else {
                        ++b;
                    }
                }
            }
            auto keepMetas = [&](std::vector<std::shared_ptr<IMetaStreamBuffer>>* list,
                                 std::set<StreamId_T> const& tracked,
                                 std::vector<std::shared_ptr<IMetaStreamBuffer>>& out) {
                if (list == nullptr) return;
                for (auto b = list->begin(); b != list->end();) {
                    auto info = *b ? (*b)->streamInfoOf() : nullptr;
                    if (info && tracked.count(info->streamId()) != 0) {
                        note(*b, "(O) ");
                        addCopiedMeta(std::move(info), std::move(*b), out);
                        --set.remaining;
                        b = list->erase(b);
                    } else {
                        ++b;
                    }
                }
            };
            keepMetas(result.halMeta, track.halMeta, set.halMeta);
            keepMetas(result.appMeta, track.appMeta, set.appMeta);
            if (result.isFrameDestroyed) {
                if (set.remaining != 0) {
                    MY_LOGE("[requestNo:%u frameNo:%u] isFrameDestroyed(%d), but still have #%zu left",
                            result.requestNo, result.frameNo, result.isFrameDestroyed, set.remaining);
                    set.timestamp = 0;
                    set.remaining = 0;
                }
                complete = true;
            } else {
                complete = set.remaining == 0;
            }
            if (complete) {
                MY_LOGD_IF(mLogLevel >= 3, "erase frameNo=%d from mInFlightList", result.frameNo);
                doneNode.splice(doneNode.end(), mInFlightList, it);
            }
        }
    }

    if (result.halImageToRelease != nullptr) {
        for (auto& b : *result.halImageToRelease) {
            if (!b) continue;
            note(b, "(X) ");
            releaseBuffer(b);
        }
        result.halImageToRelease->clear();
    }
    for (auto* list : {result.halMeta, result.appMeta}) {
        if (list == nullptr) continue;
        for (auto& b : *list) {
            if (!b) continue;
            note(b, "(X) ");
            b.reset();  // untracked metadata is only dropped here
        }
        list->clear();
    }

    if (complete) {
        InFlightBufferSet& done = doneNode.front();
        if (done.timestamp == 0) {
            if (line) *line += " => release bufferSet (TS: " + std::to_string(done.timestamp) + ")";
            // Tied to the flag being false: a frame without timestamp is released either way.
            if (!done.trackParams->isRecyclable) MY_LOGE("release un-recyclable frame! (due to error)");
            releaseOneBufferSet(done);
        } else {
            auto const groups = sharedGroups();
            LockGuard<TimedMutex> lk(mReadyLock);
            // From the back: behind the first older set, so a new set goes in front of sets with
            // an equal timestamp.
            auto pos = mReadyList.end();
            while (pos != mReadyList.begin()) {
                auto prev = std::prev(pos);
                if (prev->timestamp < done.timestamp) break;
                pos = prev;
            }
            std::list<HistoryBufferSet>::iterator hbs;
            if (mSpareReady.empty()) {
                hbs = mReadyList.emplace(pos);
            } else {
                hbs = mSpareReady.begin();
                mReadyList.splice(pos, mSpareReady, hbs);
            }
            hbs->frameNo = done.frameNo;
            hbs->requestNo = done.requestNo;
            hbs->timestamp = done.timestamp;
            hbs->isRecyclable = done.trackParams->isRecyclable;
            // The buffers move; the emptied vectors of the spare set go back with the frame's.
            hbs->halImage.swap(done.halImage);
            hbs->halMeta.swap(done.halMeta);
            hbs->appMeta.swap(done.appMeta);
            for (StreamId_T id : done.halImageIds) mReadyStreamCounters[poolKeyOf(groups.get(), id)] += 1;
            if (line) *line += " => move to ReadyList";
        }
        recycleInFlightSets(doneNode);
    }
    if (line) MY_LOGD("%s", line->c_str());
}

void FrameBufferManagerImpl::recycleInFlightSets(std::list<InFlightBufferSet>& sets) {
    for (auto& set : sets) {
        set.halImage.clear();  // released or moved on: only empty handles are left
        set.halImageIds.clear();
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
    auto const groups = sharedGroups();
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

void FrameBufferManagerImpl::addSharedImages(std::vector<std::shared_ptr<IImageStreamBuffer>> const& in,
                                             std::vector<std::shared_ptr<IImageStreamBuffer>>& out) {
    for (auto const& b : in) {
        auto copy = b;
        addSharedImage(std::move(copy), out);
    }
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

void FrameBufferManagerImpl::addCopiedMetas(std::vector<std::shared_ptr<IMetaStreamBuffer>> const& in,
                                            std::vector<std::shared_ptr<IMetaStreamBuffer>>& out) {
    for (auto const& b : in) {
        auto copy = b;
        addCopiedMeta(std::move(copy), out);
    }
}

}  // namespace NSCam::v3::pipeline
