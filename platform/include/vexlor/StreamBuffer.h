#pragma once
// Stream buffers of the camera stack and the factories that make them.
#include <cstdint>
#include <memory>

#include <vexlor/IMetadata.h>
#include <vexlor/ImageBufferHeap.h>
#include <vexlor/StreamInfo.h>

namespace NSCam::v3 {

class IImageStreamBuffer;

// The object a pooled image stream buffer returns to when it is released to its owner.
class IImageStreamBufferPool {
public:
    virtual ~IImageStreamBufferPool() = default;
    virtual char const* poolName() const = 0;
    virtual void dumpPool() const = 0;
    virtual int32_t initPool(char const* name, size_t maxNumberOfBuffers,
                             size_t minNumberOfInitialCommittedBuffers) = 0;
    virtual void uninitPool(char const* name) = 0;
    virtual int32_t commitPool(char const* name) = 0;
    virtual int32_t acquireFromPool(char const* name, std::shared_ptr<IImageStreamBuffer>& out,
                                    int64_t timeoutNs) = 0;
    virtual int32_t releaseToPool(char const* name, std::shared_ptr<IImageStreamBuffer> buffer) = 0;
};

class IImageStreamBuffer {
public:
    virtual ~IImageStreamBuffer() = default;
    virtual std::shared_ptr<IImageStreamInfo const> streamInfoOf() const = 0;
    virtual void setStreamInfo(std::shared_ptr<IImageStreamInfo const> const& info) = 0;
    virtual char const* bufferName() const = 0;
    virtual uint32_t statusOf() const = 0;
    virtual std::shared_ptr<nivo::IImageBufferHeap> imageBufferHeap() const = 0;
    // The owner has finished with the buffer: a pooled buffer goes back to its pool, once.
    virtual void releaseToOwner() = 0;
};

class IMetaStreamBuffer {
public:
    virtual ~IMetaStreamBuffer() = default;
    virtual std::shared_ptr<IMetaStreamInfo const> streamInfoOf() const = 0;
    virtual char const* bufferName() const = 0;
    virtual uint32_t statusOf() const = 0;
    // Null when the buffer cannot be locked. The metadata is stable until unlockMeta.
    virtual IMetadata* tryReadLockMeta(char const* user) = 0;
    virtual IMetadata* tryWriteLockMeta(char const* user) = 0;
    virtual void unlockMeta(char const* user, IMetadata* meta) = 0;
};

namespace Utils {

struct MakeHalImageStreamBuffer {
    std::shared_ptr<IImageStreamInfo const> streamInfo;
    std::shared_ptr<nivo::IImageBufferHeap> heap;
    std::shared_ptr<IImageStreamBufferPool> pool;  // null for a buffer allocated at run time
    std::shared_ptr<void> reserved;                // always null
};

struct MakeHalMetaStreamBuffer {
    std::shared_ptr<IMetaStreamInfo const> streamInfo;
    IMetadata const* metadata = nullptr;  // copied by the factory
};

std::shared_ptr<IImageStreamBuffer> makeHalImageStreamBuffer(MakeHalImageStreamBuffer const& arg);
std::shared_ptr<IMetaStreamBuffer> makeHalMetaStreamBuffer(MakeHalMetaStreamBuffer const& arg);

}  // namespace Utils
}  // namespace NSCam::v3
