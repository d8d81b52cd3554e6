#pragma once
// FrameBufferManagerImpl: the frame buffer manager behind IFrameBufferManager and its three
// companion interfaces, and the process-wide metadata free worker.
//
// Locks of the manager, and what each guards:
//   mConfigLock     the configuration maps, the sharing groups (for writing), the configuration
//                   printer and mPoolStreamInfos. Held only to copy or store; never around pools.
//   mConfigLogLock  the kept configuration lines. Only ever tried, never waited for.
//   mInFlightLock   the in-flight list and every set in it.
//   mReadyLock      the ready list and mReadyStreamCounters.
//   mInSelectLock   held by a selector from beginSelect to endSelect.
// Order, outermost first (checked by Clang's -Wthread-safety-beta where the analysis sees both):
//   mInSelectLock before mReadyLock. A selector's returned sets, and the sets a starving pool
//                   takes while a selection runs, are released into their producers (and so
//                   into producer and heap pool locks) with mInSelectLock held.
//   mInFlightLock before mConfigLock: returning a result looks streams up under it; and the
//                   metadata it keeps is locked, copied and allocated under it.
//   mReadyLock before mConfigLock: the ready counters look the sharing groups up under it.
//   mInFlightLock and mReadyLock are never held together.
// Producers and heap pools are called with no manager lock held, except that keeping a frame's
// buffers (shareSB) runs under mInFlightLock and releases run under mInSelectLock as above.
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <iosfwd>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fbm/IFrameBufferManager.h>
#include <fbm/IFrameBufferManagerState.h>
#include <vexlor/Debuggee.h>
#include <vexlor/IPrinter.h>
#include <vexlor/ImageBufferHeap.h>
#include <vexlor/ThreadAnnotations.h>

#include "BufferHeapPool.h"
#include "BufferProducer.h"

// The frame path reads as named steps, most called from one place. They are folded back into
// their caller, so that the steps cost what one body did (bench/profile.sh counts it); their
// declarations say inline, as they are defined only where they are called.
#define FBM_STEP __attribute__((always_inline)) inline

namespace NSCam::v3::pipeline {

// ---- metadata free worker ----------------------------------------------------------------------
// Destroys metadata stream buffers of released frames on its own thread, so that a pipeline thread
// releasing many kept frames is not held up. One per process: gFreeMetaObject.
class FreeMetaObject {
public:
    using MetaPtr = std::shared_ptr<IMetaStreamBuffer>;
    FreeMetaObject();
    ~FreeMetaObject();
    FreeMetaObject(FreeMetaObject const&) = delete;
    FreeMetaObject& operator=(FreeMetaObject const&) = delete;

    // Takes every buffer over (the vector is left empty) and wakes the worker; once the worker has
    // ended (unload, process exit), frees them on the calling thread.
    void freeBufferVec(std::vector<MetaPtr>& buffers);
    void freeBufferThreadLoop();

private:
    std::mutex mLock;
    std::condition_variable mCond;
    std::vector<MetaPtr> mPending;  // guarded by mLock; in hand-over order
    std::thread mWorker;
    std::atomic<bool> mExit{false};
    // Set by the destructor once the worker has ended (guarded by mLock): later hand-overs are
    // freed on the caller's thread. The process-wide object is static, so its lock and this flag
    // stay readable after it was destroyed; the pending vector is empty by then.
    bool mEnded = false;
};

extern FreeMetaObject gFreeMetaObject;

// The state as the dump's "--state" section: a heading, then one line per pool, stream and set.
void printState(IPrinter& printer, FrameBufferManagerState const& state);

// Lets go of one buffer on the calling thread. The image variant first gives the buffer back to
// its owner (releaseToOwner); the handle must not be empty. The metadata variant only resets.
void releaseBuffer(std::shared_ptr<IImageStreamBuffer>& buffer);
void releaseBuffer(std::shared_ptr<IMetaStreamBuffer>& buffer);

// The text of an error number, for log lines.
std::string errText(int err);
// Appends " id" for each id, in the stream's current base: the id lists of log and dump lines.
void appendIds(std::ostringstream& oss, std::set<StreamId_T> const& ids);

// ---- allocation --------------------------------------------------------------------------------
nivo::IImageBufferAllocator::ImgParam generateImgParam(IImageStreamInfo const* info);

// The heap allocator of a pool: one heap per call, from the allocation info and its parameters.
struct Allocator {
    std::shared_ptr<IImageStreamInfo> allocInfo;
    nivo::IImageBufferAllocator::ImgParam param;
    std::shared_ptr<nivo::IImageBufferHeap> operator()() const;
};

// ---- the manager -------------------------------------------------------------------------------
class FrameBufferManagerImpl : public IFrameBufferManager,
                               public IPipelineFrameStreamBufferProvider,
                               public IPipelineFrameHalResultProcessor,
                               public NSCam::IDebuggeeTarget,
                               public IFrameBufferManagerState {
public:
    // Configuration records; immutable once stored, so a handle may be used without a lock.
    struct ConfigImageStream {
        std::shared_ptr<IImageStreamInfo> info;       // the stream's own info
        std::shared_ptr<IImageStreamInfo> allocInfo;  // what its pool allocates from; null: no pool
        StreamAttribute attribute = eBUFFER_SOURCE_USER;
        std::shared_ptr<BufferProducer> pPool;            // POOL path
        std::shared_ptr<IStreamBufferProvider> provider;  // PROVIDER streams
    };
    struct ConfigMetaStream {
        std::shared_ptr<IMetaStreamInfo> info;
        StreamAttribute attribute = eHAL_META;
    };
    // One group of image streams configured together (one allocation when they share a pool).
    struct AddImageStreams {
        std::vector<std::shared_ptr<IImageStreamInfo>> infos;
        StreamAttribute attribute = eBUFFER_SOURCE_USER;
        std::shared_ptr<IStreamBufferProvider> provider;
    };

    // A frame in flight. Written by trackFrameResult (creation) and returnResult (timestamp, kept
    // buffers, remaining), always under mInFlightLock. Moved, never copied.
    struct InFlightBufferSet {
        uint32_t frameNo = 0;
        uint32_t requestNo = 0;
        int64_t timestamp = 0;  // the first positive timestamp a result brought; 0 until then
        std::vector<std::shared_ptr<IImageStreamBuffer>> halImage;  // kept so far
        std::vector<StreamId_T> halImageIds;  // their streams, for the ready list's counters
        std::vector<StreamId_T> received;     // tracked streams returned so far, one each
        std::vector<std::shared_ptr<IMetaStreamBuffer>> halMeta;
        std::vector<std::shared_ptr<IMetaStreamBuffer>> appMeta;
        std::shared_ptr<TrackFrameResultParams const> trackParams;
        size_t remaining = 0;  // tracked buffers still expected; the frame completes at 0

        InFlightBufferSet() = default;
        InFlightBufferSet(InFlightBufferSet&&) = default;
        InFlightBufferSet& operator=(InFlightBufferSet&&) = default;
        InFlightBufferSet(InFlightBufferSet const&) = delete;
        InFlightBufferSet& operator=(InFlightBufferSet const&) = delete;
    };

    explicit FrameBufferManagerImpl(char const* name);
    ~FrameBufferManagerImpl() override;
    bool initialize(std::shared_ptr<FrameBufferManagerImpl> const& self);  // always true

    // IHistoryBufferProvider
    void dumpState(IPrinter& printer) override;
    void dumpBufferState(IPrinter& printer) override;
    void enableFrameResultRecyclable(uint32_t frameNo, bool forceToRecycle) override;
    std::list<HistoryBufferSet> beginSelect() override;
    void endSelect() override;
    void returnUnselectedSet(ReturnUnselectedSet&& set) override;
    HistoryBufferSet cloneHBS(HistoryBufferSet const& source) override;
    std::map<uint32_t, std::shared_ptr<TrackFrameResultParams const>> peekInflights() const override;
    std::map<uint32_t, uint32_t> peekInflightsReqNo() const override;

    // IFrameBufferManager
    std::shared_ptr<IPipelineFrameStreamBufferProvider> getPipelineFrameBufferProvider() const override;
    std::shared_ptr<IPipelineFrameHalResultProcessor> getPipelineFrameResultProcessor() const override;
    void beginConfigure() override;
    int endConfigure() override;
    std::vector<std::shared_ptr<IImageStreamInfo>> getPoolStreamInfo() const override;
    int addImageStream(AddImageStream const& stream) override;
    int addMetaStream(AddMetaStream const& stream) override;
    int configureStreams(ConfigureStreams const& config) override;
    int triggerBufferPool(StreamId_T streamId) override;
    int updateBufferPoolMaxBufCount(StreamId_T streamId, int& maxBufCount) override;
    int getBufferPoolMaxBufCount(StreamId_T streamId, int& maxBufCount, int& allocated) override;
    int trackFrameResult(TrackFrameResult const& track) override;

    // IPipelineFrameStreamBufferProvider
    int requestStreamBuffer(ImageStreamBufferCallback callback,
                            RequestStreamBuffer const& request) override;
    // IPipelineFrameHalResultProcessor
    void returnResult(ReturnResult const& result) override;
    // IDebuggeeTarget
    std::string debuggeeName() const override;
    void debug(IPrinter* printer, std::vector<std::string> const& options) override;
    // IFrameBufferManagerState
    FrameBufferManagerState takeState() override;

    // The streams of one heap pool: those that share it, or the stream alone. A view of the pool
    // groups (it keeps them alive), so that asking for it allocates nothing.
    class PoolStreams {
    public:
        PoolStreams(std::shared_ptr<std::vector<std::set<StreamId_T>>> groups, StreamId_T streamId);
        bool contains(StreamId_T id) const { return mGroup ? mGroup->count(id) != 0 : id == mSingle; }
        // Whether `image` is a buffer of one of these streams (an empty handle is not).
        bool holds(std::shared_ptr<IImageStreamBuffer> const& image) const {
            auto info = image ? image->streamInfoOf() : nullptr;
            return info && contains(info->streamId());
        }
        size_t size() const { return mGroup ? mGroup->size() : 1; }
        StreamId_T key() const { return mGroup ? *mGroup->begin() : mSingle; }  // the smallest
        template <class F>
        void forEach(F&& f) const {
            if (!mGroup) return f(mSingle);
            for (StreamId_T id : *mGroup) f(id);
        }

    private:
        std::shared_ptr<std::vector<std::set<StreamId_T>>> mGroups;
        std::set<StreamId_T> const* mGroup = nullptr;  // in *mGroups; null: the stream alone
        StreamId_T mSingle;
    };

    // Configuration
    std::shared_ptr<ConfigImageStream> queryConfigImageStream(StreamId_T streamId) const
        EXCLUDES(mConfigLock);
    // The streams that share the heap pool of `streamId` (itself included), ascending.
    std::set<StreamId_T> getPoolStreams(StreamId_T streamId) const;
    // The streams of each heap pool made for more than one stream (may be empty), copied under
    // mConfigLock: a configuration may replace them at any time.
    std::shared_ptr<std::vector<std::set<StreamId_T>>> poolGroups() const EXCLUDES(mConfigLock);
    // The first of getPoolStreams(streamId), without making the set: the key of the ready
    // counters, looked up for every kept image (in `groups`, taken once for all of them).
    static StreamId_T poolKeyOf(std::vector<std::set<StreamId_T>> const* groups, StreamId_T streamId);
    PoolStreams poolStreamsOf(StreamId_T streamId) const EXCLUDES(mConfigLock);
    int configureImageStreams(std::vector<AddImageStream> const& streams,
                              std::vector<std::set<StreamId_T>> const* sharedGroups);
    int addImageStreams(AddImageStreams const& group);
    int allocateHalImageStreamBufferRuntime(std::shared_ptr<IImageStreamInfo> const& info,
                                            std::shared_ptr<IImageStreamBuffer>& out);

    // Keeping buffers: a second image buffer over the same heap, a private copy of metadata.
    void addSharedImage(std::shared_ptr<IImageStreamBuffer>&& buffer,
                        std::vector<std::shared_ptr<IImageStreamBuffer>>& out);
    void addCopiedMeta(std::shared_ptr<IMetaStreamBuffer>&& buffer,
                       std::vector<std::shared_ptr<IMetaStreamBuffer>>& out);
    // The same, for a buffer whose stream the caller has already asked for (a buffer's stream
    // info is a call, a lock and a handle copy of the platform's). True when one was kept.
    bool addSharedImage(StreamId_T streamId, std::shared_ptr<IImageStreamBuffer>&& buffer,
                        std::vector<std::shared_ptr<IImageStreamBuffer>>& out);
    void addCopiedMeta(std::shared_ptr<IMetaStreamInfo const>&& info,
                       std::shared_ptr<IMetaStreamBuffer>&& buffer,
                       std::vector<std::shared_ptr<IMetaStreamBuffer>>& out);

    // Release
    template <class BufferSet>
    void releaseOneBufferSet(BufferSet& set);
    // Releases the oldest recyclable sets holding images of the pool of `streamId`; the
    // producer's release callback. `count` heaps are wanted back.
    void tryReleaseHistoryBufferSets(int64_t streamId, int count, bool dumpOnFailure)
        EXCLUDES(mInSelectLock, mReadyLock);
    void releaseBufferSets(std::list<HistoryBufferSet>& sets);

    // Dumps
    void dumpConfigStreams(IPrinter& printer) EXCLUDES(mConfigLock, mConfigLogLock);
    void dumpBufferPools(IPrinter& printer) EXCLUDES(mConfigLock);

protected:
    // Where a request's buffer comes from, by the stream's attribute and the request's layout.
    struct RequestSource {
        enum Kind { Pool, Runtime, HalProvider, AppProvider } kind;
        char const* label;  // of trace markers
    };
    // False (with its line) for an attribute no source serves.
    inline bool chooseRequestSource(ConfigImageStream const& config, RequestStreamBuffer const& request,
                                    RequestSource& source) const;
    // A pool's or a HAL provider's buffer takes the request's stream info, after the callback.
    inline void giveRequestInfo(RequestSource const& source, ConfigImageStream const& config,
                                std::shared_ptr<IImageStreamInfo> const& reqInfo,
                                std::shared_ptr<IImageStreamBuffer> const& buffer) const;
    inline int takeFromPool(ConfigImageStream const& config, RequestStreamBuffer const& request,
                            std::shared_ptr<IImageStreamBuffer>& buffer) const;
    int requestFromProvider(ConfigImageStream const& config, RequestStreamBuffer const& request,
                            bool halProvider, ImageStreamBufferCallback&& callback,
                            std::shared_ptr<IImageStreamBuffer>& buffer) const;

    // The debug line of one result, built only when it is written.
    class ResultLine;
    // Keeps the result's tracked buffers in its frame's set; returns the set's node when the
    // frame is complete (empty otherwise).
    inline std::list<InFlightBufferSet> keepTrackedBuffers(ReturnResult const& result, ResultLine& line)
        EXCLUDES(mInFlightLock, mConfigLock);
    inline void keepTrackedImages(std::vector<std::shared_ptr<IImageStreamBuffer>>& list,
                                  InFlightBufferSet& set, ResultLine& line) REQUIRES(mInFlightLock);
    inline void keepTrackedMetas(std::vector<std::shared_ptr<IMetaStreamBuffer>>* list,
                                 std::set<StreamId_T> const& tracked, InFlightBufferSet& set,
                                 std::vector<std::shared_ptr<IMetaStreamBuffer>>& out, ResultLine& line)
        REQUIRES(mInFlightLock);
    // False (with its line) when the set already received a buffer of the stream.
    inline bool receiveOnce(InFlightBufferSet& set, StreamId_T streamId, char const* kind)
        REQUIRES(mInFlightLock);
    bool warnReceivedAgain(InFlightBufferSet const& set, StreamId_T streamId, char const* kind) const;
    inline void releaseUntracked(ReturnResult const& result, ResultLine& line);
    // A complete frame: released when it has no timestamp, otherwise onto the ready list.
    inline void completeFrame(std::list<InFlightBufferSet>& done, ResultLine& line)
        EXCLUDES(mReadyLock, mInFlightLock, mConfigLock);

    // The ready list's tie-breaks: a completed frame goes in front of sets with its timestamp,
    // a set a selector gives back goes behind them.
    enum class ReadyTie { InFrontOfEqual, BehindEqual };
    // A new set (spare when there is one) on the ready list at the place of `timestamp`.
    std::list<HistoryBufferSet>::iterator insertReadyLocked(int64_t timestamp, ReadyTie tie)
        REQUIRES(mReadyLock);
    // Takes a selector's set back onto the ready list; false when its frame is already there.
    bool keepReturnedSet(HistoryBufferSet& set) EXCLUDES(mReadyLock, mConfigLock);

    void increaseReadyCounters(HistoryBufferSet const& set, int delta) REQUIRES(mReadyLock)
        EXCLUDES(mConfigLock);
    // Moves the oldest recyclable set holding an image of the pool to the back of `out` (the
    // node itself: nothing is allocated). False when there is none.
    bool pickOneHistoryBufferSetLocked(PoolStreams const& poolStreams,
                                       std::list<HistoryBufferSet>& out) REQUIRES(mReadyLock);
    // Keeps the nodes of sets whose buffers were all let go, for the next frames (emptied here).
    void recycleInFlightSets(std::list<InFlightBufferSet>& sets) EXCLUDES(mInFlightLock);
    void recycleReadySets(std::list<HistoryBufferSet>& sets) EXCLUDES(mReadyLock);
    // dumpBufferState prints these into a printer that keeps the lines until the lock is let go.
    void dumpInFlightListLocked(IPrinter& printer) REQUIRES(mInFlightLock);
    void dumpReadyListLocked(IPrinter& printer) REQUIRES(mReadyLock);
    // The open configuration's printer, or one made for this call when none is open.
    std::shared_ptr<IPrinter> configPrinter() EXCLUDES(mConfigLock);
    std::shared_ptr<IPrinter> makeConfigPrinter();
    std::shared_ptr<IImageStreamInfo> evaluateSharedAllocStreamInfo(
        std::vector<std::shared_ptr<IImageStreamInfo>> const& infos, IPrinter& printer);
    std::shared_ptr<BufferProducer> createHalStreamBufferPool(
        std::shared_ptr<IImageStreamInfo> const& info,
        std::shared_ptr<IImageStreamInfo> const& allocInfo,
        std::shared_ptr<BufferProducer> const& sharedProducer);
    BufferProducer::ReleaseCallback makeReleaseCallback() const;
    int addProviderStreams(AddImageStreams const& group,
                           std::vector<std::shared_ptr<ConfigImageStream>>& replaced);
    int addPoolStreams(AddImageStreams const& group,
                       std::vector<std::shared_ptr<ConfigImageStream>>& replaced);
    // The state's configuration part: streams, pools (with their heap pools' counts) and lines.
    void takeConfigState(FrameBufferManagerState& state) EXCLUDES(mConfigLock, mConfigLogLock);
    static FrameBufferManagerState::Pool poolStateOf(ConfigImageStream const& config);
    // The counter tracks of a request's pool and of the ready list (the camera tag is on).
    __attribute__((cold, noinline)) void traceOccupancy(ConfigImageStream const& config) EXCLUDES(mReadyLock);
    // Stores a configured image stream; a record it replaces goes to `replaced`.
    void storeImageStream(std::shared_ptr<ConfigImageStream> record,
                          std::vector<std::shared_ptr<ConfigImageStream>>& replaced)
        EXCLUDES(mConfigLock);
    // Retires the heap pools of replaced records that no configured stream draws from any more.
    void retireReplacedPools(std::vector<std::shared_ptr<ConfigImageStream>>& replaced)
        EXCLUDES(mConfigLock);
    // Whether a POOL stream's info can ever give a buffer (with its error line when not).
    bool canServe(IImageStreamInfo const& info) const;

    // Members, in this order (destroyed in reverse: sets first, their buffers given back by the
    // destructor, then the configuration records and with them the producers).
    std::string mName;
    std::weak_ptr<FrameBufferManagerImpl> mWeakThis;  // source of the handles accessors return
    int32_t mLogLevel;
    std::shared_ptr<NSCam::IDebuggeeCookie> mDebuggeeCookie;
    mutable Mutex mConfigLock;
    // The configured sharing groups, as given (for the dump); replaced whole by a configuration.
    std::shared_ptr<std::vector<std::set<StreamId_T>>> mSharedStreamGroups GUARDED_BY(mConfigLock);
    // The streams of each heap pool made for more than one stream: a configured group whose
    // members could not share is not one. Rebuilt whole at every change; readers copy the handle.
    std::shared_ptr<std::vector<std::set<StreamId_T>>> mPoolGroups GUARDED_BY(mConfigLock);
    std::map<StreamId_T, std::shared_ptr<ConfigImageStream>> mConfigImageStreams GUARDED_BY(mConfigLock);
    std::map<StreamId_T, std::shared_ptr<ConfigMetaStream>> mConfigMetaStreams GUARDED_BY(mConfigLock);
    std::shared_ptr<IPrinter> mConfigPrinter GUARDED_BY(mConfigLock);
    std::list<std::string> mConfigLogs GUARDED_BY(mConfigLogLock);  // every configuration's lines
    Mutex mConfigLogLock;
    std::list<InFlightBufferSet> mInFlightList GUARDED_BY(mInFlightLock);
    mutable TimedMutex mInFlightLock ACQUIRED_BEFORE(mConfigLock);
    std::list<HistoryBufferSet> mReadyList GUARDED_BY(mReadyLock);  // ascending timestamp
    TimedMutex mReadyLock ACQUIRED_AFTER(mInSelectLock) ACQUIRED_BEFORE(mConfigLock);
    // Image handles on the ready list per pool, keyed by the pool's smallest stream id.
    std::map<StreamId_T, int32_t> mReadyStreamCounters GUARDED_BY(mReadyLock);
    // History sets released to feed each pool since its configuration, keyed the same way.
    std::map<StreamId_T, uint64_t> mReleasedUnderPressure GUARDED_BY(mReadyLock);
    int32_t mAcquireTimeoutMs;
    TimedMutex mInSelectLock;
    // The frames the running selection took, for the line of a selection that waits for it.
    std::vector<uint32_t> mSelectedFrames GUARDED_BY(mReadyLock);
    // The own info of every stream a pool was attempted for; grows with every configuration.
    std::vector<std::shared_ptr<IImageStreamInfo>> mPoolStreamInfos GUARDED_BY(mConfigLock);
    // Sets done with, kept as list nodes whose vectors keep their capacity: a steady frame flow
    // then makes no node and no vector for tracking, keeping or releasing a frame. Each holds
    // no buffer and at most kSpareSets nodes.
    std::list<InFlightBufferSet> mSpareInFlight GUARDED_BY(mInFlightLock);
    std::list<HistoryBufferSet> mSpareReady GUARDED_BY(mReadyLock);
};

}  // namespace NSCam::v3::pipeline
