#pragma once
// The frame buffer manager of a camera pipeline: owns the image buffers of the pipeline's streams,
// hands out stream buffers per frame, keeps the result buffers each frame must keep, and offers
// completed frames as history buffer sets to selectors.
//
// Threads: configuration on one configuring thread; requests, results and selection on any of the
// pipeline's threads, concurrently; dumps from any thread, including the debuggee registry's.
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

using ImageStreamBufferCallback = std::function<void(std::shared_ptr<IImageStreamBuffer> const&)>;

// A stream-buffer provider of the pipeline (PROVIDER streams). It calls `callback` once with the
// buffer it supplies (possibly null) and returns 0 or a negative errno code. It may answer during
// the call or after it has returned, on any thread: `callback` may be copied and kept, and owns
// what it needs. A buffer that arrives after the call returned reaches the pipeline's callback
// all the same, but the request has already been reported without a buffer.
class IStreamBufferProvider {
public:
    struct Request {
        std::shared_ptr<IImageStreamInfo> pStreamInfo;
        int64_t timeoutNs = -1;  // always -1: no limit is asked of the provider
        uint32_t requestNo = 0;
    };
    virtual ~IStreamBufferProvider() = default;
    virtual int requestStreamBuffer(ImageStreamBufferCallback const& callback,
                                    Request const& request) = 0;
};

// The image streams of the HAL side of each frame: where their buffers come from.
class IPipelineFrameStreamBufferProvider {
public:
    struct RequestStreamBuffer {
        uint32_t requestNo = 0;
        uint32_t frameNo = 0;
        std::shared_ptr<IImageStreamInfo> pStreamInfo;  // as the pipeline describes it now
    };
    virtual ~IPipelineFrameStreamBufferProvider() = default;
    // Obtains a buffer for the stream and calls `callback` with it (possibly null). `callback` must
    // not be empty. Returns 0; -22 unknown stream or unsupported attribute or failed run-time
    // allocation; -12 pooled stream without pool; -16 the pool's acquire time-out; or the
    // provider's code. The buffer belongs to the caller, who releases it through releaseToOwner.
    virtual int requestStreamBuffer(ImageStreamBufferCallback callback,
                                    RequestStreamBuffer const& request) = 0;
};

// The results of each frame, in batches.
class IPipelineFrameHalResultProcessor {
public:
    struct ReturnResult {
        uint32_t requestNo = 0;
        uint32_t frameNo = 0;
        int64_t timestamp = 0;  // below 1: this batch carries none
        bool isFrameDestroyed = false;
        // Caller-owned lists, each may be null. On return halImageToRelease, halMeta and appMeta
        // are empty; halImage keeps the buffers the manager did not keep.
        std::vector<std::shared_ptr<IImageStreamBuffer>>* halImageToRelease = nullptr;
        std::vector<std::shared_ptr<IImageStreamBuffer>>* halImage = nullptr;
        std::vector<std::shared_ptr<IMetaStreamBuffer>>* halMeta = nullptr;
        std::vector<std::shared_ptr<IMetaStreamBuffer>>* appMeta = nullptr;
    };
    virtual ~IPipelineFrameHalResultProcessor() = default;
    virtual void returnResult(ReturnResult const& result) = 0;
};

// What a frame must keep of its results; immutable once handed in.
struct TrackFrameResultParams {
    std::set<StreamId_T> halImage;
    std::set<StreamId_T> halMeta;
    std::set<StreamId_T> appMeta;
    bool isRecyclable = false;
};
// "{ .halImage=[ 1a 2b ] .halMeta=[ ] .appMeta=[ 7 ] .isRecyclable=1 }"
std::string toString(TrackFrameResultParams const& params);

class IFrameBufferManager : public IHistoryBufferProvider {
public:
    struct TrackFrameResult {
        uint32_t frameNo = 0;
        uint32_t requestNo = 0;
        std::shared_ptr<TrackFrameResultParams const> trackParams;  // may be null
    };

    struct AddImageStream {
        std::shared_ptr<IImageStreamInfo> info;
        StreamAttribute attribute = eBUFFER_SOURCE_USER;
        std::shared_ptr<IStreamBufferProvider> provider;  // PROVIDER streams only
    };

    struct AddMetaStream {
        std::shared_ptr<IMetaStreamInfo> info;
        StreamAttribute attribute = eHAL_META;
    };

    struct ConfigureStreams {
        // Groups of POOL image streams that share one allocation; may be null or empty.
        std::shared_ptr<std::vector<std::set<StreamId_T>>> sharedGroups;
        std::vector<AddImageStream> imageStreams;
        std::vector<AddMetaStream> metaStreams;
    };

    virtual std::shared_ptr<IPipelineFrameStreamBufferProvider> getPipelineFrameBufferProvider() const = 0;
    virtual std::shared_ptr<IPipelineFrameHalResultProcessor> getPipelineFrameResultProcessor() const = 0;

    // A configuration is open from beginConfigure to endConfigure (always 0); its warnings are
    // logged and kept for the dump.
    virtual void beginConfigure() = 0;
    virtual int endConfigure() = 0;
    // The image streams of every pool set up so far, in set-up order (never cleared).
    virtual std::vector<std::shared_ptr<IImageStreamInfo>> getPoolStreamInfo() const = 0;
    virtual int addImageStream(AddImageStream const& stream) = 0;  // 0 or -22
    virtual int addMetaStream(AddMetaStream const& stream) = 0;    // always 0
    // The whole configuration: 0 or the first error (then the metadata streams are not added).
    virtual int configureStreams(ConfigureStreams const& config) = 0;

    // Pool control of one configured stream; 0 for streams without a pool.
    virtual int triggerBufferPool(StreamId_T streamId) = 0;  // allocates a deferred pool
    virtual int updateBufferPoolMaxBufCount(StreamId_T streamId, int& maxBufCount) = 0;
    virtual int getBufferPoolMaxBufCount(StreamId_T streamId, int& maxBufCount, int& allocated) = 0;

    // Declares what a frame must keep, before its first result. Always 0.
    virtual int trackFrameResult(TrackFrameResult const& track) = 0;
};

}  // namespace NSCam::v3::pipeline

// Builds a manager and stores it into *out (nothing when out is null). `name` may be null.
extern "C" void createFrameBufferManager(
    std::shared_ptr<NSCam::v3::pipeline::IFrameBufferManager>* out, char const* name);
