#pragma once
// Test seams of the host stand-ins. Nothing in the system calls these: tests, the simulator and
// the benchmarks use them to watch and steer the platform underneath the manager.
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <vexlor/Debuggee.h>
#include <vexlor/IMetadata.h>
#include <vexlor/IPrinter.h>
#include <vexlor/ImageBufferHeap.h>
#include <vexlor/StreamBuffer.h>

namespace vexlor::host {

// ---- logs ----------------------------------------------------------------------------------
struct AndroidLogLine {
    int priority;
    std::string tag;
    std::string text;
};
struct ULogLine {
    uint32_t module;
    std::string tag;
    uint32_t level;
    std::string text;
    size_t length;
    bool fatalNotice = false;  // a notifyFatal(1) call rather than a line
};

class LogCapture {
public:
    static std::vector<AndroidLogLine> androidLines();
    static std::vector<ULogLine> ulogLines();
    static void clear();
    // Off: lines are no longer kept (long runs). On by default.
    static void setCapturing(bool on);
    // Lines of the Android sink also go to stderr, logcat-like, when on.
    static void setEcho(bool on);
    static size_t countAndroid(std::string const& substring);
    static size_t countULog(std::string const& substring);
    // Called with the text of every line of the Android sink, on the logging thread, with the
    // logger's own locks released (nullptr to remove). Lets a test stop a thread at a log site.
    static void setLineHook(std::function<void(std::string const& text)> hook);
};

// The unified logger's switches. Defaults: level 2, mask 0, mode 9 (both sinks).
void setULogSwitches(uint32_t detailsLevel, uint32_t normalDetailsMask, uint32_t mode);
// Everything on: level 5, the module's mask bits, both sinks.
void setULogVerbose();

// ---- properties ----------------------------------------------------------------------------
// Values seen by property_get_int32 of objects built afterwards. The environment variable
// VEXLOR_PROPERTIES ("key=value,key=value") seeds them at first use.
void setProperty(std::string const& key, int32_t value);
void clearProperties();

// ---- clocks -------------------------------------------------------------------------------
// Steps the wall clock of NSCam::Utils::Clock by `step` (as setting the time of day would); the
// monotonic clock is untouched. resetWallClock takes every step back.
void stepWallClock(std::chrono::nanoseconds step);
void resetWallClock();

// ---- tracing -------------------------------------------------------------------------------
struct TraceEvent {
    bool begin;
    std::string name;  // empty for an end; a counter track's name for a counter
    uint64_t tid;
    int64_t timeNs;    // steady clock
    bool counter = false;  // a counter track's new value (atrace_int), neither begin nor end
    int64_t value = 0;
};
class TraceRecorder {
public:
    static void setEnabledTags(uint64_t tags);
    static std::vector<TraceEvent> events();
    static void clear();
    static size_t countBegins(std::string const& name);
    static std::vector<TraceEvent> counters(std::string const& name);  // one track's values, in order
    // While set, every event goes to the sink instead of being kept (a long run streams its trace
    // to a file). Called under the recorder's lock, one event at a time, on the tracing thread.
    static void setSink(std::function<void(TraceEvent const&)> sink);
};

// ---- heaps ---------------------------------------------------------------------------------
struct HeapCreateCall {
    std::string caller;
    std::string heapName;
    nivo::IImageBufferAllocator::ImgParam param;
    bool flag;
};
class HeapFactory {
public:
    static int64_t created();
    static int64_t alive();
    // The next `n` creations fail (return null); -1 fails until reset with 0.
    static void failNext(int n);
    // Blocks until `pred(created, alive)` holds or the time-out passes; returns whether it held.
    static bool waitFor(std::function<bool(int64_t created, int64_t alive)> const& pred,
                        std::chrono::milliseconds timeout = std::chrono::seconds(10));
    static std::vector<HeapCreateCall> calls();  // kept while call recording is on
    static void setRecordCalls(bool on);
    static void reset();  // counters of created (not alive), failures, recorded calls
    // Called at every create, before it decides, on the creating thread (nullptr to remove).
    static void setCreateHook(std::function<void()> hook);
    // Live heaps per heap name: how many, and how many nobody but one owner holds (a heap waiting
    // in its pool's available list). A sample, not a synchronised view.
    struct Occupancy {
        int64_t alive = 0;
        int64_t idle = 0;
    };
    static std::map<std::string, Occupancy> occupancy();
    static Occupancy occupancyOf(std::string const& heapName);  // one name's, without visiting the rest

    // A heap's byte size: a blob's size (width x height) for a blob format, otherwise the sum of
    // its plane buffer sizes.
    static int64_t sizeOf(nivo::IImageBufferAllocator::ImgParam const& param);
    // Bytes and heaps alive per heap name and in all, with their peaks since the last resetPeaks
    // (which also forgets names with nothing alive). Exact: kept at every create and destroy.
    struct Memory {
        int64_t bytes = 0;
        int64_t peakBytes = 0;
        int64_t heaps = 0;
        int64_t peakHeaps = 0;
    };
    static std::map<std::string, Memory> memory();
    static Memory totalMemory();
    static void resetPeaks();
    // On: each heap is real memory of its size (an anonymous mapping with every page touched at
    // creation), so resident memory and allocation time are a device's. Off by default.
    static void setRealMemory(bool on);
};

// ---- stream buffers ------------------------------------------------------------------------
class StreamBufferFactory {
public:
    static int64_t imageAlive();
    static int64_t metaAlive();
    static void failNextImage(int n);  // as HeapFactory::failNext
    // The next image stream buffer made is `sb`, one already handed out: a platform that gives a
    // buffer twice (nullptr to disarm).
    static void handOutAgain(std::shared_ptr<NSCam::v3::IImageStreamBuffer> sb);
    static void failNextMeta(int n);
    static void failNextMetaLock(int n);  // tryReadLockMeta returns null
    static void setImageStatus(uint32_t status);  // statusOf() of buffers made afterwards
    // Called at every metadata stream buffer made, before it decides, with the metadata it is
    // to copy, on the calling thread (nullptr to remove).
    static void setMetaCreateHook(std::function<void(NSCam::IMetadata const*)> hook);
    // Called whenever a metadata stream buffer is destroyed, on the destroying thread.
    static void setMetaDestroyHook(std::function<void(char const* name)> hook);
    static int64_t releaseToOwnerCalls();
};

// ---- stream infos --------------------------------------------------------------------------
class StreamInfoFactory {
public:
    // The next `n` info builders are not made (makeImageStreamInfoBuilder returns null), or are
    // made but build nothing; as HeapFactory::failNext.
    static void failNextBuilder(int n);
    static void failNextBuild(int n);
};

// ---- debuggee registry ---------------------------------------------------------------------
class DebuggeeRegistry {
public:
    static void setPresent(bool present);  // IDebuggeeManager::get() returns null when absent
    static size_t attachedCount();
    static size_t attachCalls();
    static size_t detachCalls();
    // Calls debug() of every debuggee still alive, as the registry's own thread would.
    static size_t debugAll(NSCam::IPrinter* printer, std::vector<std::string> const& options = {});
};

// A printer that keeps its lines (tests, tools).
class StringPrinter : public NSCam::IPrinter {
public:
    void printLine(char const* line) override;
    void printFormatLine(char const* format, ...) override __attribute__((format(printf, 2, 3)));
    std::vector<std::string> lines() const { return mLines; }
    std::string text() const;
    bool contains(std::string const& s) const;

private:
    std::vector<std::string> mLines;
};

}  // namespace vexlor::host
