#pragma once
/// \file
/// What a frame buffer manager holds at one moment, as one typed value: its heap pools with their
/// counts since configuration, its streams, the frames in flight and the ready list. Dumps print
/// from it (`debug` with the option "--state" adds it as a section of key=value lines), and
/// tools and tests read it instead of log text.
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <fbm/IFrameBufferManager.h>
#include <vexlor/IPrinter.h>

namespace NSCam::v3::pipeline {

/// One snapshot, taken under the locks a dump takes: a frame lock not had within the dump's limit
/// (500 ms) leaves its part out, marked as not taken; it never waits longer.
struct FrameBufferManagerState {
    /// A heap pool: one stream's, or one a sharing group draws from.
    struct Pool {
        std::string name;                    ///< its allocation info's stream name
        std::vector<StreamId_T> streams;     ///< the streams that draw from it, ascending
        int64_t heapBytes = 0;               ///< one heap's size
        int32_t max = 0;                     ///< the count its worker makes heaps towards
        int32_t allocated = 0;               ///< heaps made: available and in use
        int32_t available = 0;               ///< heaps free to hand out
        int32_t inUse = 0;                   ///< heaps out, under buffers of any stream of the pool
        int32_t waiting = 0;                 ///< requests waiting for a heap now
        uint64_t served = 0;                 ///< heaps handed out since configuration
        uint64_t timeouts = 0;               ///< requests that ran out of the acquire time-out
        uint64_t slicesWaited = 0;           ///< 10 ms slices waited out without a heap
        uint64_t releasedUnderPressure = 0;  ///< history sets released to feed it
        int32_t peakInUse = 0;               ///< the most heaps out at once
    };
    /// A configured stream.
    struct Stream {
        StreamId_T id = 0;       ///< its id
        std::string name;        ///< its info's stream name
        uint32_t attribute = 0;  ///< a StreamAttribute
        std::string pool;        ///< its heap pool's name; empty for a stream without one
    };
    /// A frame: in flight (with what it still expects) or on the ready list.
    struct Set {
        uint32_t frameNo = 0;                ///< the frame
        uint32_t requestNo = 0;              ///< its request
        int64_t timestamp = 0;               ///< 0 while it has none
        size_t remaining = 0;                ///< in flight only: tracked buffers still expected
        std::vector<StreamId_T> halImage;    ///< the streams of the images it keeps
        std::vector<StreamId_T> halMeta;     ///< the streams of the HAL metadata it keeps
        std::vector<StreamId_T> appMeta;     ///< the streams of the application metadata it keeps
    };

    std::string name;                             ///< the manager's
    int32_t acquireTimeoutMs = 0;                 ///< how long a POOL request may wait
    std::vector<Pool> pools;                      ///< by their first stream, ascending
    std::vector<Stream> streams;                  ///< image streams, then metadata streams, by id
    bool inFlightTaken = false;                   ///< false: the in-flight list was busy too long
    std::vector<Set> inFlight;                    ///< in list order
    bool readyTaken = false;                      ///< false: the ready list was busy too long
    std::vector<Set> ready;                       ///< oldest first
    std::map<StreamId_T, int32_t> readyCounters;  ///< images on the ready list per pool
    std::vector<std::string> configLines;         ///< kept warnings of every configuration
};

/// The state side of a manager. Any thread, at any time, like a dump.
class IFrameBufferManagerState {
public:
    virtual ~IFrameBufferManagerState() = default;
    /// A snapshot of everything above, taken now.
    virtual FrameBufferManagerState takeState() = 0;
};

}  // namespace NSCam::v3::pipeline

/// Stores the state side of `manager` into *out: empty unless `manager` was made by
/// createFrameBufferManager. It shares the manager's ownership.
extern "C" void getFrameBufferManagerState(
    std::shared_ptr<NSCam::v3::pipeline::IFrameBufferManagerState>* out,
    std::shared_ptr<NSCam::v3::pipeline::IFrameBufferManager> const* manager);

/// Prints `state` as the "--state" section of a dump: a heading line "<state> name=...", then one
/// line of key=value tokens per pool, stream, in-flight set and ready set, the ready counters and
/// the configuration lines, each indented by four blanks; ids in hexadecimal.
extern "C" void printFrameBufferManagerState(
    NSCam::IPrinter* printer, NSCam::v3::pipeline::FrameBufferManagerState const* state);

namespace NSCam::v3::pipeline {

/// The state side of `manager` (empty for another implementation).
inline std::shared_ptr<IFrameBufferManagerState> stateOf(std::shared_ptr<IFrameBufferManager> const& manager) {
    std::shared_ptr<IFrameBufferManagerState> out;
    getFrameBufferManagerState(&out, &manager);
    return out;
}

}  // namespace NSCam::v3::pipeline
