#pragma once
/// @file
/// The frame buffer manager of a camera pipeline: owns the image buffers of the pipeline's
/// streams, hands out stream buffers per frame, keeps the result buffers each frame must keep, and
/// offers completed frames as history buffer sets to selectors.
///
/// Threads: configuration on one configuring thread; requests, results and selection on any of
/// the pipeline's threads, concurrently; dumps from any thread, including the debuggee registry's.
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <vector>

#include <fbm/IHistoryBufferProvider.h>
#include <fbm/StreamAttribute.h>
#include <vexlor/StreamBuffer.h>
#include <vexlor/StreamInfo.h>

namespace NSCam::v3::pipeline {

/// Called once with the buffer of a request (possibly null).
using ImageStreamBufferCallback = std::function<void(std::shared_ptr<IImageStreamBuffer> const&)>;

/// A stream-buffer provider of the pipeline (PROVIDER streams), implemented by the pipeline.
///
/// It calls `callback` once with the buffer it supplies (possibly null) and returns 0 or a
/// negative errno code. It may answer during the call or after it has returned, on any thread:
/// `callback` may be copied and kept, and owns what it needs. A buffer that arrives after the call
/// returned reaches the pipeline's callback all the same, but the request has already been
/// reported without a buffer.
class IStreamBufferProvider {
public:
    /// What the manager asks a provider for.
    struct Request {
        std::shared_ptr<IImageStreamInfo> pStreamInfo;  ///< the stream, as the request describes it
        int64_t timeoutNs = -1;  ///< always -1: no limit is asked of the provider
        uint32_t requestNo = 0;  ///< the request being served
    };
    virtual ~IStreamBufferProvider() = default;
    /// Supplies one buffer through `callback`; returns 0 or a negative errno code.
    virtual int requestStreamBuffer(ImageStreamBufferCallback const& callback,
                                    Request const& request) = 0;
};

/// The image streams of the HAL side of each frame: where their buffers come from.
class IPipelineFrameStreamBufferProvider {
public:
    /// One request for a buffer of one stream. Fields in the order {requestNo, frameNo, ...}, as
    /// ReturnResult and unlike TrackFrameResult: fill it by field name.
    struct RequestStreamBuffer {
        uint32_t requestNo = 0;  ///< the request being served
        uint32_t frameNo = 0;    ///< the frame being served
        std::shared_ptr<IImageStreamInfo> pStreamInfo;  ///< the stream, as the pipeline describes it now
    };
    virtual ~IPipelineFrameStreamBufferProvider() = default;
    /// Obtains a buffer for the stream and calls `callback` with it (possibly null) before
    /// returning, except for a provider that answers late. `callback` must not be empty.
    ///
    /// A POOL stream's request may block: when its pool has no free heap it asks for history sets
    /// to be released and waits, woken by any heap of the pool that becomes available, up to the
    /// acquire time-out (1500 ms unless the property vendor.debug.camera.pipeline.fbm.acquire.timeout
    /// says otherwise). Any thread, concurrently.
    ///
    /// @return 0; -22 unknown stream or unsupported attribute or failed run-time allocation; -12 a
    /// pooled stream without a pool, or the stream buffer could not be made; -16 the acquire
    /// time-out; or the provider's code. The buffer belongs to the caller, who releases it
    /// exactly once through releaseToOwner.
    virtual int requestStreamBuffer(ImageStreamBufferCallback callback,
                                    RequestStreamBuffer const& request) = 0;
};

/// The results of each frame, in batches.
class IPipelineFrameHalResultProcessor {
public:
    /// One batch of a frame's results. The lists are the caller's; each may be null. Fields in the
    /// order {requestNo, frameNo, ...}, as RequestStreamBuffer and unlike TrackFrameResult and
    /// HistoryBufferSet: fill it by field name (the layout is fixed).
    struct ReturnResult {
        uint32_t requestNo = 0;  ///< the request the frame served
        uint32_t frameNo = 0;    ///< the frame
        int64_t timestamp = 0;   ///< below 1: this batch carries none; the first positive one counts
        bool isFrameDestroyed = false;  ///< the frame ends now: released if buffers are still expected
        /// Buffers the pipeline is done with: released, and the list emptied.
        std::vector<std::shared_ptr<IImageStreamBuffer>>* halImageToRelease = nullptr;
        /// Image results: tracked ones are kept (removed from the list), the others stay.
        std::vector<std::shared_ptr<IImageStreamBuffer>>* halImage = nullptr;
        /// HAL metadata results: tracked ones are copied; the list is emptied.
        std::vector<std::shared_ptr<IMetaStreamBuffer>>* halMeta = nullptr;
        /// APP metadata results: tracked ones are copied; the list is emptied.
        std::vector<std::shared_ptr<IMetaStreamBuffer>>* appMeta = nullptr;
    };
    virtual ~IPipelineFrameHalResultProcessor() = default;
    /// Keeps what the frame tracks; when its last tracked buffer has arrived the frame joins the
    /// ready list (in timestamp order), or is released if it has no timestamp. Never blocks on
    /// a pool. Any thread, concurrently.
    virtual void returnResult(ReturnResult const& result) = 0;
};

/// What a frame must keep of its results; immutable once handed in.
struct TrackFrameResultParams {
    std::set<StreamId_T> halImage;  ///< image streams whose buffers the frame keeps
    std::set<StreamId_T> halMeta;   ///< HAL metadata streams the frame keeps a copy of
    std::set<StreamId_T> appMeta;   ///< APP metadata streams the frame keeps a copy of
    bool isRecyclable = false;      ///< the frame may be released to feed a starving pool
};
/// "{ .halImage=[ 1a 2b ] .halMeta=[ ] .appMeta=[ 7 ] .isRecyclable=1 }"
std::string toString(TrackFrameResultParams const& params);

/// The manager, as the pipeline configures and controls it. Made by createFrameBufferManager.
class IFrameBufferManager : public IHistoryBufferProvider {
public:
    /// A frame and what it keeps. Fields in the order {frameNo, requestNo, ...}, as
    /// HistoryBufferSet and unlike RequestStreamBuffer and ReturnResult: fill it by field name.
    struct TrackFrameResult {
        uint32_t frameNo = 0;    ///< the frame
        uint32_t requestNo = 0;  ///< the request it serves
        std::shared_ptr<TrackFrameResultParams const> trackParams;  ///< may be null: nothing kept
    };

    /// One image stream of a configuration.
    struct AddImageStream {
        std::shared_ptr<IImageStreamInfo> info;          ///< the stream
        StreamAttribute attribute = eBUFFER_SOURCE_USER;  ///< where its buffers come from
        std::shared_ptr<IStreamBufferProvider> provider;  ///< PROVIDER streams only
    };

    /// One metadata stream of a configuration.
    struct AddMetaStream {
        std::shared_ptr<IMetaStreamInfo> info;  ///< the stream
        StreamAttribute attribute = eHAL_META;  ///< eHAL_META or eAPP_META
    };

    /// A whole configuration.
    struct ConfigureStreams {
        /// Groups of POOL image streams that share one allocation; may be null or empty.
        std::shared_ptr<std::vector<std::set<StreamId_T>>> sharedGroups;
        std::vector<AddImageStream> imageStreams;  ///< pools are set up in this order
        std::vector<AddMetaStream> metaStreams;    ///< added after every image stream
    };

    /// The frame-path interface of this manager (requests).
    virtual std::shared_ptr<IPipelineFrameStreamBufferProvider> getPipelineFrameBufferProvider() const = 0;
    /// The frame-path interface of this manager (results).
    virtual std::shared_ptr<IPipelineFrameHalResultProcessor> getPipelineFrameResultProcessor() const = 0;

    /// Opens a configuration: its warnings are logged and kept for the dump until endConfigure.
    virtual void beginConfigure() = 0;
    /// Closes the configuration opened by beginConfigure. Always 0.
    virtual int endConfigure() = 0;
    /// The image streams of every pool set up so far, in set-up order (never cleared).
    virtual std::vector<std::shared_ptr<IImageStreamInfo>> getPoolStreamInfo() const = 0;
    /// Adds one image stream (a pool is set up for POOL streams). 0 or -22.
    virtual int addImageStream(AddImageStream const& stream) = 0;
    /// Adds one metadata stream. Always 0.
    virtual int addMetaStream(AddMetaStream const& stream) = 0;
    /// The whole configuration: 0 or the first error (then the metadata streams are not added).
    /// On the configuring thread, before frames flow.
    virtual int configureStreams(ConfigureStreams const& config) = 0;

    /// Allocates a deferred pool; its first requests wait for the worker's first heap. 0 for a
    /// stream without a pool, else the pool's code.
    virtual int triggerBufferPool(StreamId_T streamId) = 0;
    /// Changes a pool's maximum while frames flow (heaps in use above it come back through the
    /// release path). 0 for a stream without a pool, else the pool's code.
    virtual int updateBufferPoolMaxBufCount(StreamId_T streamId, int& maxBufCount) = 0;
    /// Reads a pool's maximum and the heaps made so far. 0 for a stream without a pool.
    virtual int getBufferPoolMaxBufCount(StreamId_T streamId, int& maxBufCount, int& allocated) = 0;

    /// Declares what a frame must keep, before its first result. Always 0.
    virtual int trackFrameResult(TrackFrameResult const& track) = 0;
};

}  // namespace NSCam::v3::pipeline

/// Builds a manager and stores it into *out (nothing when out is null). `name` may be null.
/// One manager per pipeline; it ends when the last handle to it and its interfaces goes.
extern "C" void createFrameBufferManager(
    std::shared_ptr<NSCam::v3::pipeline::IFrameBufferManager>* out, char const* name);
