#pragma once
/// @file
/// Stream ids and the attribute that says where a stream's buffers come from.
#include <cstdint>
#include <ios>
#include <sstream>
#include <string>

/// The camera pipeline of the vendor stack.
namespace NSCam::v3::pipeline {

/// A stream's id, unique within a pipeline.
using StreamId_T = int64_t;

/// Where a stream's buffers come from (low four bits) and what kind of stream it is.
/// Configurations use the combined values (eHAL_IMAGE_POOL and below).
enum StreamAttribute : uint32_t {
    eBUFFER_SOURCE_USER = 0,      ///< the pipeline's user supplies buffers
    eBUFFER_SOURCE_POOL = 1,      ///< from the stream's pool
    eBUFFER_SOURCE_RUNTIME = 2,   ///< allocated when requested
    eBUFFER_SOURCE_PROVIDER = 4,  ///< from the stream's IStreamBufferProvider
    eBUFFER_SOURCE_MASK = 0xF,    ///< the source bits
    eBEHAVIOR_META = 0x10,        ///< set: metadata stream; clear: image stream
    eBEHAVIOR_APP = 0x20,         ///< set: stream of the application; clear: of the HAL

    eHAL_IMAGE_POOL = eBUFFER_SOURCE_POOL,                         ///< HAL image, pooled heaps
    eHAL_IMAGE_RUNTIME = eBUFFER_SOURCE_RUNTIME,                   ///< HAL image, a heap per request
    eHAL_IMAGE_PROVIDER = eBUFFER_SOURCE_PROVIDER,                 ///< HAL image from a provider
    eAPP_IMAGE_PROVIDER = eBEHAVIOR_APP | eBUFFER_SOURCE_PROVIDER,  ///< application image from a provider
    eHAL_META = eBEHAVIOR_META,                                     ///< HAL metadata
    eAPP_META = eBEHAVIOR_APP | eBEHAVIOR_META,                     ///< application metadata
};

/// The source bits of an attribute (one of the eBUFFER_SOURCE_ values).
inline uint32_t bufferSourceOf(uint32_t attribute) { return attribute & eBUFFER_SOURCE_MASK; }

/// "[IMAGE-HAL-POOL    ]" and the like; unknown sources print as "?       ".
std::string toString(StreamAttribute attribute);

/// Hexadecimal with the base prefix and lower-case digits: 255 gives "0xff", 0 gives "0".
template <typename T>
std::string toHexString(T value) {
    std::ostringstream oss;
    oss << std::hex << std::showbase << value;
    return oss.str();
}

}  // namespace NSCam::v3::pipeline
