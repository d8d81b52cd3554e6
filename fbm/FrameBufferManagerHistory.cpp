// Completed frames as history sets: offered to a selector, and released to feed a starving pool.
#define LOG_TAG "vexlor-ppl_fbm"
#define LOG_SRC_PATH "pipeline/pipeline/fbm/FrameBufferManager"

#include "FrameBufferManager.h"

#include <algorithm>
#include <sstream>

#include <vexlor/LogScheme.h>

using NSCam::Utils::ULog::ULogPrinter;

namespace NSCam::v3::pipeline {

namespace {

constexpr size_t kReleaseToWorkerThreshold = 4;
constexpr auto kSelectLockWait = std::chrono::milliseconds(10);
constexpr auto kSelectionWaitNoted = std::chrono::seconds(1);  // a selection waited this long says so

template <class Vec>
void dropEmptyHandles(Vec& buffers) {
    buffers.erase(std::remove(buffers.begin(), buffers.end(), nullptr), buffers.end());
}

template <class Vec>
std::string metaNames(Vec const& buffers, bool brief) {
    if (brief) return "#" + std::to_string(buffers.size());
    std::string s;
    for (auto const& b : buffers) {
        auto info = b ? b->streamInfoOf() : nullptr;
        s += std::string(info ? info->streamName() : "") + " ";
    }
    return s;
}

std::string toString(IHistoryBufferProvider::HistoryBufferSet const& set, bool brief) {
    std::ostringstream oss;
    oss << "[F" << set.frameNo << " R" << set.requestNo << " ts:" << set.timestamp << " halImage("
        << set.halImage.size() << ")" << " halMeta(" << metaNames(set.halMeta, brief) << ")"
        << " appMeta(" << metaNames(set.appMeta, brief) << ")" << "]";
    return oss.str();
}

}  // namespace

// =================================================================================================
// Selection
// =================================================================================================

std::list<IHistoryBufferProvider::HistoryBufferSet> FrameBufferManagerImpl::beginSelect()
    NO_THREAD_SAFETY_ANALYSIS {  // returns with mInSelectLock held, until endSelect
    MY_LOGD_IF(mLogLevel >= 3, "in selection +");
    if (!mInSelectLock.try_lock_for(kSelectionWaitNoted)) {
        // Another selection holds it: a selector that forgot endSelect blocks every later one.
        std::ostringstream frames;
        {
            LockGuard<TimedMutex> lk(mReadyLock);
            for (uint32_t f : mSelectedFrames) frames << " " << f;
        }
        MY_LOGW("waited 1 s for the selection of frames {%s } to end; still waiting",
                frames.str().c_str());
        mInSelectLock.lock();
    }
    std::list<HistoryBufferSet> sets;
    LockGuard<TimedMutex> lk(mReadyLock);
    sets.splice(sets.end(), mReadyList);
    mSelectedFrames.clear();
    for (auto const& set : sets) {
        increaseReadyCounters(set, -1);
        mSelectedFrames.push_back(set.frameNo);
    }
    return sets;
}

void FrameBufferManagerImpl::endSelect() NO_THREAD_SAFETY_ANALYSIS {
    mInSelectLock.unlock();
    MY_LOGD_IF(mLogLevel >= 3, "in selection -");
}

void FrameBufferManagerImpl::returnUnselectedSet(ReturnUnselectedSet&& ret) {
    HistoryBufferSet& set = ret.bufferSet;
    MY_LOGD_IF(mLogLevel >= 2, "[R%u F%u] welcome back, %s", set.requestNo, set.frameNo,
               ret.keep ? "keep" : "release");
    if (ret.keep) {
        // What the selector released itself is not kept; a set left with nothing is not kept.
        dropEmptyHandles(set.halImage);
        dropEmptyHandles(set.halMeta);
        dropEmptyHandles(set.appMeta);
        if (set.halImage.empty() && set.halMeta.empty() && set.appMeta.empty()) return;
        if (keepReturnedSet(set)) return;
        MY_LOGW("[R%u F%u] already in ReadyList: released", set.requestNo, set.frameNo);
    }
    releaseOneBufferSet(set);
}

bool FrameBufferManagerImpl::keepReturnedSet(HistoryBufferSet& set) {
    LockGuard<TimedMutex> lk(mReadyLock);
    // One ready set per frame: a set given back twice would leave a second one holding buffers
    // that were already handed on. Of the second, what the first holds too is only let go.
    auto same = std::find_if(mReadyList.begin(), mReadyList.end(),
                             [&](HistoryBufferSet const& s) { return s.frameNo == set.frameNo; });
    if (same != mReadyList.end()) {
        auto forget = [](auto& mine, auto const& kept) {
            for (auto& b : mine) {
                if (std::find(kept.begin(), kept.end(), b) != kept.end()) b.reset();
            }
        };
        forget(set.halImage, same->halImage);
        forget(set.halMeta, same->halMeta);
        forget(set.appMeta, same->appMeta);
        return false;
    }
    increaseReadyCounters(set, 1);
    // Behind sets of the same timestamp: the opposite tie-break of a completed frame's,
    // deliberately, so that a set given back keeps its place among its equals.
    *insertReadyLocked(set.timestamp, ReadyTie::BehindEqual) = std::move(set);
    return true;
}

IHistoryBufferProvider::HistoryBufferSet FrameBufferManagerImpl::cloneHBS(HistoryBufferSet const& source) {
    HistoryBufferSet clone;
    clone.frameNo = source.frameNo;
    clone.requestNo = source.requestNo;
    clone.timestamp = source.timestamp;
    // Always recyclable: the clone owns buffers of its own, so giving it up to a starving pool
    // never takes what the selector kept of the source.
    clone.isRecyclable = true;
    for (auto const& b : source.halImage) {
        if (!b) continue;
        auto copy = b;
        addSharedImage(std::move(copy), clone.halImage);
    }
    for (auto const& b : source.halMeta) {
        if (!b) continue;
        auto copy = b;
        addCopiedMeta(std::move(copy), clone.halMeta);
    }
    for (auto const& b : source.appMeta) {
        if (!b) continue;
        auto copy = b;
        addCopiedMeta(std::move(copy), clone.appMeta);
    }
    MY_LOGD("cloned HBS=%s", toString(clone, false).c_str());
    return clone;
}

std::map<uint32_t, std::shared_ptr<TrackFrameResultParams const>>
FrameBufferManagerImpl::peekInflights() const {
    std::map<uint32_t, std::shared_ptr<TrackFrameResultParams const>> out;
    LockGuard<TimedMutex> lk(mInFlightLock);
    for (auto const& set : mInFlightList) out.emplace(set.frameNo, set.trackParams);
    return out;
}

std::map<uint32_t, uint32_t> FrameBufferManagerImpl::peekInflightsReqNo() const {
    std::map<uint32_t, uint32_t> out;
    LockGuard<TimedMutex> lk(mInFlightLock);
    for (auto const& set : mInFlightList) out.emplace(set.frameNo, set.requestNo);
    return out;
}

// =================================================================================================
// Release
// =================================================================================================

bool FrameBufferManagerImpl::pickOneHistoryBufferSetLocked(PoolStreams const& poolStreams,
                                                           std::list<HistoryBufferSet>& out) {
    auto const ofPool = [&](auto const& image) { return poolStreams.holds(image); };
    for (auto it = mReadyList.begin(); it != mReadyList.end(); ++it) {
        if (!it->isRecyclable) continue;
        if (std::none_of(it->halImage.begin(), it->halImage.end(), ofPool)) continue;
        increaseReadyCounters(*it, -1);
        out.splice(out.end(), mReadyList, it);
        return true;
    }
    return false;
}

void FrameBufferManagerImpl::tryReleaseHistoryBufferSets(int64_t streamId, int count,
                                                         bool dumpOnFailure) {
    if (count < 1) {
        MY_LOGE("stream(%#lx), bad try release count(%d)", static_cast<long>(streamId), count);
        return;
    }
    MY_LOGD_IF(mLogLevel >= 2, "stream(%#lx), try release count(%d) +", static_cast<long>(streamId),
               count);
    PoolStreams const poolStreams = poolStreamsOf(streamId);

    // Bounded, so that a long selection cannot stall a starving request; the release then goes
    // ahead on what is left on the ready list. Held, when taken, until the sets are released.
    ScopedTryLock<TimedMutex> select(mInSelectLock, kSelectLockWait);
    if (!select.owns()) {
        MY_LOGE("try_lock_for mInSelectLock timeout (10ms). Check the critical section between "
                "beginSelect() and endSelect()");
    } else {
        MY_LOGD_IF(mLogLevel >= 3, "try_lock_for mInSelectLock within timeout (10ms)");
    }

    // Picked oldest first until the heaps they hold of the pool add up to `count` (a set counts
    // as one heap in a single-stream pool).
    std::list<HistoryBufferSet> sets;
    {
        LockGuard<TimedMutex> lk(mReadyLock);
        for (int left = count; left >= 1;) {
            if (!pickOneHistoryBufferSetLocked(poolStreams, sets)) {
                MY_LOGW_AS("tryReleaseHistoryBufferSets",
                           "stream(%#lx) getOneHistoryBufferSetLocked failed! mReadyList(#%zu)",
                           static_cast<long>(streamId), mReadyList.size());
                break;
            }
            auto const& images = sets.back().halImage;
            left -= poolStreams.size() < 2 ? 1
                                           : static_cast<int>(std::count_if(
                                                 images.begin(), images.end(),
                                                 [&](auto const& image) { return poolStreams.holds(image); }));
        }
        if (!sets.empty()) mReleasedUnderPressure[poolStreams.key()] += sets.size();
    }
    if (count == 1) {
        if (!sets.empty()) {
            releaseOneBufferSet(sets.front());
            recycleReadySets(sets);
            return;
        }
    } else {
        MY_LOGD("stream(%#lx), release bufferHeap count(%d), release bufferSet count(%zu)",
                static_cast<long>(streamId), count, sets.size());
        releaseBufferSets(sets);
        // Read after releaseBufferSets, which empties a list of up to 4 sets itself: only a
        // larger batch of exactly `count` sets returns early. Kept as it is, as is the comparison
        // of a number of sets with a number of heaps.
        size_t const released = sets.size();
        recycleReadySets(sets);
        if (released == static_cast<size_t>(count)) return;
    }

    select.unlock();
    if (dumpOnFailure) {
        if (NSCam::Utils::ULog::ulogDebugOn()) {
            std::ostringstream ids;
            ids << std::hex;
            poolStreams.forEach([&ids](StreamId_T id) { ids << id << " "; });
            MY_LOGD("stream(%#lx): no {%s} in ReadyList", static_cast<long>(streamId),
                    ids.str().c_str());
        }
        ULogPrinter printer(NSCam::Utils::ULog::kULogLevelDebug, NSCam::Utils::ULog::kFbmModule,
                            LOG_TAG);
        dumpBufferPools(printer);
    }
}

void FrameBufferManagerImpl::releaseBufferSets(std::list<HistoryBufferSet>& sets) {
    if (sets.size() > kReleaseToWorkerThreshold) {
        // Metadata goes to the worker so that this (request) thread is not held up; the list is
        // left in place for the caller to clear.
        for (auto& set : sets) {
            for (auto& image : set.halImage)
                if (image) releaseBuffer(image);
            gFreeMetaObject.freeBufferVec(set.halMeta);
            gFreeMetaObject.freeBufferVec(set.appMeta);
            MY_LOGD_IF(mLogLevel >= 2, "release [R%u F%u]", set.requestNo, set.frameNo);
        }
        return;
    }
    std::list<HistoryBufferSet> released;
    while (!sets.empty()) {
        releaseOneBufferSet(sets.front());
        released.splice(released.end(), sets, sets.begin());
    }
    recycleReadySets(released);
}

}  // namespace NSCam::v3::pipeline
