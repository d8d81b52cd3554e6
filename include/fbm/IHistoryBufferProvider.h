#pragma once
/// @file
/// The selector's side of the frame buffer manager: completed frames kept as history buffer sets.
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <vector>

#include <vexlor/IPrinter.h>
#include <vexlor/StreamBuffer.h>

namespace NSCam::v3::pipeline {

struct TrackFrameResultParams;

/// Completed frames, oldest first, for selectors (multi-frame features), and the dumps.
///
/// Threads: any thread, concurrently with requests and results. A selection (beginSelect to
/// endSelect) holds the selection lock; starving requests wait for it at most 10 ms.
class IHistoryBufferProvider {
public:
    /// One completed frame's kept buffers. Copying shares every handle; moving empties the source.
    /// Fields in the order {frameNo, requestNo, ...}, as TrackFrameResult and unlike
    /// RequestStreamBuffer and ReturnResult.
    struct HistoryBufferSet {
        uint32_t frameNo = 0;    ///< the frame's number
        uint32_t requestNo = 0;  ///< the request the frame served
        int64_t timestamp = 0;   ///< positive for every set on the ready list; the list's sort key
        bool isRecyclable = false;  ///< only recyclable sets are released to feed a starving pool
        /// The manager's own buffers of the tracked image streams (over the pipeline's heaps).
        std::vector<std::shared_ptr<IImageStreamBuffer>> halImage;
        std::vector<std::shared_ptr<IMetaStreamBuffer>> halMeta;  ///< private copies of HAL metadata
        std::vector<std::shared_ptr<IMetaStreamBuffer>> appMeta;  ///< private copies of APP metadata
    };

    /// A set the selector gives back: kept (back on the ready list) or released.
    struct ReturnUnselectedSet {
        HistoryBufferSet& bufferSet;  ///< emptied when kept: its buffers move back to the manager
        bool keep = false;            ///< true: back on the ready list; false: released now
    };

    virtual ~IHistoryBufferProvider() = default;

    /// The configuration, every pool and the frames in flight and ready. Safe from any thread at
    /// any time; waits at most 500 ms for each list's lock and never holds one while printing.
    virtual void dumpState(IPrinter& printer) = 0;
    /// The frames in flight and the ready list only, as in dumpState.
    virtual void dumpBufferState(IPrinter& printer) = 0;

    /// A placeholder: logs and changes nothing.
    virtual void enableFrameResultRecyclable(uint32_t frameNo, bool forceToRecycle) = 0;

    /// Takes the whole ready list, in ascending timestamp order. Holds the selection lock until
    /// endSelect, which must be called exactly once, on the same thread. Sets the selector keeps
    /// are its own: it releases their buffers or gives them back.
    virtual std::list<HistoryBufferSet> beginSelect() = 0;
    /// Ends the selection begun by beginSelect on this thread.
    virtual void endSelect() = 0;
    /// Between beginSelect and endSelect, once per set the selector does not keep for itself.
    virtual void returnUnselectedSet(ReturnUnselectedSet&& set) = 0;
    /// A new, always recyclable set with buffers of its own over the same heaps and copied
    /// metadata; images of streams without a pool are left out.
    virtual HistoryBufferSet cloneHBS(HistoryBufferSet const& source) = 0;

    /// A snapshot of the frames in flight: frame number to its tracking parameters.
    virtual std::map<uint32_t, std::shared_ptr<TrackFrameResultParams const>> peekInflights() const = 0;
    /// A snapshot of the frames in flight: frame number to request number.
    virtual std::map<uint32_t, uint32_t> peekInflightsReqNo() const = 0;
};

}  // namespace NSCam::v3::pipeline
