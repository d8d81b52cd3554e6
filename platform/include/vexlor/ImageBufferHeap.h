#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>

#include <vexlor/StreamInfo.h>

namespace nivo {

// An allocated image buffer. Opaque to this system: kept, compared and printed by address.
class IImageBufferHeap {
public:
    virtual ~IImageBufferHeap() = default;
    virtual char const* heapName() const = 0;
};

struct IImageBufferAllocator {
    // Allocation parameters; fields not set are zero.
    struct ImgParam {
        uint32_t imgFormat = 0;
        NSCam::MSize imgSize;
        uint64_t allocExtent = 0;
        uint32_t secureWord = 0;
        bool flag0 = false;
        bool flag1 = false;
        uint32_t usage = 0;
        size_t bufStridesInBytes[3] = {0, 0, 0};
        size_t bufSizesInBytes[3] = {0, 0, 0};
        uint32_t trailing = 0;
    };
};

struct IImageBufferHeapFactory {
    // Allocates one heap; null on failure.
    static std::shared_ptr<IImageBufferHeap> create(char const* callerName, char const* heapName,
                                                    IImageBufferAllocator::ImgParam const& param,
                                                    bool flag);
};

}  // namespace nivo
