#pragma once
// The selector's side of the frame buffer manager: completed frames kept as history buffer sets.
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <vector>

#include <vexlor/IPrinter.h>
#include <vexlor/StreamBuffer.h>

namespace NSCam::v3::pipeline {

struct TrackFrameResultParams;

class IHistoryBufferProvider {
public:
    // One completed frame's kept buffers. Copying shares every handle; moving empties the source.
    struct HistoryBufferSet {
        uint32_t frameNo = 0;
        uint32_t requestNo = 0;
        int64_t timestamp = 0;  // positive for every set on the ready list; the list's sort key
        bool isRecyclable = false;  // only recyclable sets are released to feed a starving pool
        std::vector<std::shared_ptr<IImageStreamBuffer>> halImage;
        std::vector<std::shared_ptr<IMetaStreamBuffer>> halMeta;
        std::vector<std::shared_ptr<IMetaStreamBuffer>> appMeta;
    };

    // A set the selector gives back: kept (back on the ready list) or released.
    struct ReturnUnselectedSet {
        HistoryBufferSet& bufferSet;  // emptied when kept: its buffers move back to the manager
        bool keep = false;
    };

    virtual ~IHistoryBufferProvider() = default;

    // Dumps; safe from any thread at any time, never block longer than about a second.
    virtual void dumpState(IPrinter& printer) = 0;
    virtual void dumpBufferState(IPrinter& printer) = 0;

    // A placeholder: logs and changes nothing.
    virtual void enableFrameResultRecyclable(uint32_t frameNo, bool forceToRecycle) = 0;

    // Takes the whole ready list (ascending timestamp). Holds the selection lock until endSelect,
    // which must be called exactly once, on the same thread.
    virtual std::list<HistoryBufferSet> beginSelect() = 0;
    virtual void endSelect() = 0;
    // Between beginSelect and endSelect, once per set the selector does not keep for itself.
    virtual void returnUnselectedSet(ReturnUnselectedSet&& set) = 0;
    // A new, always recyclable set with buffers of its own over the same heaps / copied metadata.
    virtual HistoryBufferSet cloneHBS(HistoryBufferSet const& source) = 0;

    // Snapshots of the frames in flight: frame number to its tracking parameters / request number.
    virtual std::map<uint32_t, std::shared_ptr<TrackFrameResultParams const>> peekInflights() const = 0;
    virtual std::map<uint32_t, uint32_t> peekInflightsReqNo() const = 0;
};

}  // namespace NSCam::v3::pipeline
