#pragma once
// Stream descriptions of the camera stack, as this system uses them.
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace NSCam {

struct MSize {
    int32_t w = 0;
    int32_t h = 0;
};

namespace v3 {

using StreamId_T = int64_t;

struct BufPlane {
    size_t sizeInBytes = 0;
    size_t rowStrideInBytes = 0;
};

// A plane list: `count` planes, at most three of which are described.
struct BufPlanes {
    size_t count = 0;
    std::array<BufPlane, 3> planes{};
    size_t size() const { return count; }
    BufPlane const& operator[](size_t i) const { return planes[i]; }
};

// Security and allocation attributes; the first 32-bit word is carried to the allocator unread.
struct ImageBufferInfoAttribute {
    uint32_t secureWord = 0;
    uint32_t reserved = 0;
};

class IStreamInfo {
public:
    virtual ~IStreamInfo() = default;
    virtual char const* streamName() const = 0;
    virtual StreamId_T streamId() const = 0;
    virtual std::string describe() const = 0;
    virtual size_t maxBufNum() const = 0;
    virtual size_t minInitBufNum() const = 0;
};

class IMetaStreamInfo : public IStreamInfo {};

class IImageStreamInfo : public IStreamInfo {
public:
    virtual uint64_t allocExtent() const = 0;
    virtual uint32_t imageFormat() const = 0;
    virtual BufPlanes const& planeLayout() const = 0;
    virtual ImageBufferInfoAttribute const& allocAttribute() const = 0;
    virtual MSize imageSize() const = 0;
    virtual uint32_t allocUsage() const = 0;
    virtual bool isAllocDeferred() const = 0;
};

namespace Utils {

// Derives a new image stream info from an existing one. Owned by the caller.
class IImageStreamInfoBuilder {
public:
    virtual ~IImageStreamInfoBuilder() = default;
    virtual std::shared_ptr<IImageStreamInfo> build() const = 0;
    virtual void setStreamName(std::string const& name) = 0;
    virtual void setStreamId(StreamId_T id) = 0;
    virtual void setMaxBufNum(size_t n) = 0;
    virtual void setMinInitBufNum(size_t n) = 0;
    virtual void setPlaneLayout(BufPlanes const& planes) = 0;
};

std::unique_ptr<IImageStreamInfoBuilder> makeImageStreamInfoBuilder(IImageStreamInfo const* info);

// Host construction of stream infos (the pipeline model makes these on the device).
struct ImageStreamInfoParams {
    std::string name;
    StreamId_T id = 0;
    uint32_t format = 0;
    MSize size;
    BufPlanes planes;
    size_t maxBufNum = 0;
    size_t minInitBufNum = 0;
    uint64_t allocExtent = 0;
    ImageBufferInfoAttribute attribute;
    uint32_t usage = 0;
    bool deferred = false;
};
std::shared_ptr<IImageStreamInfo> makeImageStreamInfo(ImageStreamInfoParams const& params);
std::shared_ptr<IMetaStreamInfo> makeMetaStreamInfo(std::string const& name, StreamId_T id,
                                                     size_t maxBufNum = 1, size_t minInitBufNum = 1);

}  // namespace Utils
}  // namespace v3
}  // namespace NSCam
