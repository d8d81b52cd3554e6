// Host stand-ins of the camera stack's types: metadata, stream infos, heaps, stream buffers and
// the debuggee registry. They count what they make so tests can prove that nothing leaks.
#include <vexlor/Debuggee.h>
#include <vexlor/HostSeams.h>
#include <vexlor/IMetadata.h>
#include <vexlor/ImageBufferHeap.h>
#include <vexlor/StreamBuffer.h>
#include <vexlor/StreamInfo.h>
#include <vexlor/ThreadAnnotations.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <shared_mutex>

#include <sys/mman.h>
#include <unistd.h>

#include "HookSlot.h"

namespace {

std::atomic<int64_t> gMetadataAlive{0};

// failNext semantics: n > 0 fails the next n calls; -1 fails until reset.
bool takeFailure(std::atomic<int>& counter) {
    int v = counter.load();
    while (v != 0) {
        if (v < 0) return true;
        if (counter.compare_exchange_weak(v, v - 1)) return true;
    }
    return false;
}

std::string hex(int64_t v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%#lx", static_cast<long>(v));
    return buf;
}

}  // namespace

// ---- metadata ----------------------------------------------------------------------------------
namespace NSCam {

IMetadata::IMetadata(IMetadata const& other) : mEntries(other.mEntries) { ++gMetadataAlive; }
IMetadata& IMetadata::operator=(IMetadata const& other) = default;
IMetadata::~IMetadata() { --gMetadataAlive; }
bool IMetadata::get(uint32_t tag, int64_t& out) const {
    auto it = mEntries.find(tag);
    if (it == mEntries.end()) return false;
    out = it->second;
    return true;
}
int64_t IMetadata::liveCount() { return gMetadataAlive.load(); }

}  // namespace NSCam

// ---- stream infos ------------------------------------------------------------------------------
namespace NSCam::v3::Utils {
namespace {

class HostImageStreamInfo : public IImageStreamInfo {
public:
    explicit HostImageStreamInfo(ImageStreamInfoParams p) : mP(std::move(p)) {}
    char const* streamName() const override { return mP.name.c_str(); }
    StreamId_T streamId() const override { return mP.id; }
    std::string describe() const override {
        char buf[256];
        std::snprintf(buf, sizeof buf, "%s:%s %dx%d fmt:%#x planes:%zu max:%zu min:%zu%s",
                      hex(mP.id).c_str(), mP.name.c_str(), mP.size.w, mP.size.h, mP.format,
                      mP.planes.count, mP.maxBufNum, mP.minInitBufNum,
                      mP.deferred ? " deferred" : "");
        return buf;
    }
    size_t maxBufNum() const override { return mP.maxBufNum; }
    size_t minInitBufNum() const override { return mP.minInitBufNum; }
    uint64_t allocExtent() const override { return mP.allocExtent; }
    uint32_t imageFormat() const override { return mP.format; }
    BufPlanes const& planeLayout() const override { return mP.planes; }
    ImageBufferInfoAttribute const& allocAttribute() const override { return mP.attribute; }
    MSize imageSize() const override { return mP.size; }
    uint32_t allocUsage() const override { return mP.usage; }
    bool isAllocDeferred() const override { return mP.deferred; }
    ImageStreamInfoParams const& params() const { return mP; }

private:
    ImageStreamInfoParams mP;
};

class HostMetaStreamInfo : public IMetaStreamInfo {
public:
    HostMetaStreamInfo(std::string name, StreamId_T id, size_t maxN, size_t minN)
        : mName(std::move(name)), mId(id), mMax(maxN), mMin(minN) {}
    char const* streamName() const override { return mName.c_str(); }
    StreamId_T streamId() const override { return mId; }
    std::string describe() const override { return hex(mId) + ":" + mName + " meta"; }
    size_t maxBufNum() const override { return mMax; }
    size_t minInitBufNum() const override { return mMin; }

private:
    std::string mName;
    StreamId_T mId;
    size_t mMax, mMin;
};

std::atomic<int> gFailBuilder{0}, gFailBuild{0};

class HostBuilder : public IImageStreamInfoBuilder {
public:
    explicit HostBuilder(ImageStreamInfoParams p) : mP(std::move(p)) {}
    std::shared_ptr<IImageStreamInfo> build() const override {
        if (takeFailure(gFailBuild)) return nullptr;
        return std::make_shared<HostImageStreamInfo>(mP);
    }
    void setStreamName(std::string const& name) override { mP.name = name; }
    void setStreamId(StreamId_T id) override { mP.id = id; }
    void setMaxBufNum(size_t n) override { mP.maxBufNum = n; }
    void setMinInitBufNum(size_t n) override { mP.minInitBufNum = n; }
    void setPlaneLayout(BufPlanes const& planes) override { mP.planes = planes; }

private:
    ImageStreamInfoParams mP;
};

}  // namespace

std::unique_ptr<IImageStreamInfoBuilder> makeImageStreamInfoBuilder(IImageStreamInfo const* info) {
    if (info == nullptr || takeFailure(gFailBuilder)) return nullptr;
    ImageStreamInfoParams p;
    if (auto host = dynamic_cast<HostImageStreamInfo const*>(info)) {
        p = host->params();
    } else {
        p.name = info->streamName();
        p.id = info->streamId();
        p.format = info->imageFormat();
        p.size = info->imageSize();
        p.planes = info->planeLayout();
        p.maxBufNum = info->maxBufNum();
        p.minInitBufNum = info->minInitBufNum();
        p.allocExtent = info->allocExtent();
        p.attribute = info->allocAttribute();
        p.usage = info->allocUsage();
        p.deferred = info->isAllocDeferred();
    }
    return std::make_unique<HostBuilder>(std::move(p));
}

std::shared_ptr<IImageStreamInfo> makeImageStreamInfo(ImageStreamInfoParams const& params) {
    return std::make_shared<HostImageStreamInfo>(params);
}

std::shared_ptr<IMetaStreamInfo> makeMetaStreamInfo(std::string const& name, StreamId_T id,
                                                     size_t maxBufNum, size_t minInitBufNum) {
    return std::make_shared<HostMetaStreamInfo>(name, id, maxBufNum, minInitBufNum);
}

}  // namespace NSCam::v3::Utils

// ---- heaps -------------------------------------------------------------------------------------
namespace {

struct HeapMemoryStats {
    int64_t bytes = 0;
    int64_t peakBytes = 0;
    int64_t heaps = 0;
    int64_t peakHeaps = 0;
    void add(int64_t size) {
        bytes += size;
        ++heaps;
        peakBytes = std::max(peakBytes, bytes);
        peakHeaps = std::max(peakHeaps, heaps);
    }
    void remove(int64_t size) {
        bytes -= size;
        --heaps;
    }
};

// A heap name's figures and its live heaps. A heap keeps a pointer to its name's entry (map
// nodes do not move); an entry is erased only when no heap of its name is alive.
struct NameEntry {
    HeapMemoryStats stats;
    std::vector<std::weak_ptr<nivo::IImageBufferHeap>> live;  // pruned as heaps die
};

struct HeapStats {
    std::mutex lock;
    std::map<std::string, NameEntry> byName;
    HeapMemoryStats total;
    std::atomic<bool> realMemory{false};
    std::condition_variable cond;
    int64_t created = 0;
    int64_t alive = 0;
    uint64_t events = 0;
    std::atomic<int> failNext{0};
    bool record = false;
    std::vector<vexlor::host::HeapCreateCall> calls;
    vexlor::host::detail::HookSlot<std::function<void()>> hook;  // called before each heap is made
};
HeapStats& heapStats() {
    static HeapStats* s = new HeapStats;
    return *s;
}

// Real memory for a heap: an anonymous mapping whose every page is touched now, so resident
// memory and the time to allocate are those of a device allocation. Null when it cannot be had.
void* mapTouched(int64_t bytes) {
    if (bytes <= 0) return nullptr;
    void* p = mmap(nullptr, static_cast<size_t>(bytes), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) return nullptr;
    long const page = sysconf(_SC_PAGESIZE);
    for (int64_t at = 0; at < bytes; at += page) static_cast<volatile char*>(p)[at] = 1;
    return p;
}

class HostHeap : public nivo::IImageBufferHeap {
public:
    HostHeap(std::string name, int64_t bytes, void* memory)
        : mName(std::move(name)), mBytes(bytes), mMemory(memory) {}
    ~HostHeap() override {
        if (mMemory != nullptr) munmap(mMemory, static_cast<size_t>(mBytes));
        auto& s = heapStats();
        std::lock_guard<std::mutex> lk(s.lock);
        mEntry->stats.remove(mBytes);
        if (mEntry->stats.heaps == 0) {
            // Weak handles keep the memory of a make_shared heap: none is kept for a dead name.
            std::vector<std::weak_ptr<nivo::IImageBufferHeap>>().swap(mEntry->live);
        }
        s.total.remove(mBytes);
        --s.alive;
        ++s.events;
        s.cond.notify_all();
    }
    char const* heapName() const override { return mName.c_str(); }
    NameEntry* mEntry = nullptr;  // set at creation under the factory's lock

private:
    std::string mName;
    int64_t mBytes;
    void* mMemory;  // owned; null unless heaps are real memory
};

bool isBlobFormat(uint32_t format) { return format == 0x21 || format == 0x2300; }

// Heaps alive, and those nobody but one owner holds (waiting in their pool's available list).
// Counted under the factory's lock, from the owner counts alone: a heap being destroyed has no
// owner left but is still listed until its destructor takes that lock. Locking a weak handle here
// could make this the last owner, and run that destructor under the lock it needs.
vexlor::host::HeapFactory::Occupancy countOwners(std::vector<std::weak_ptr<nivo::IImageBufferHeap>> const& heaps) {
    vexlor::host::HeapFactory::Occupancy o;
    for (auto const& w : heaps) {
        long const owners = w.use_count();
        if (owners == 0) continue;
        ++o.alive;
        o.idle += owners == 1;
    }
    return o;
}

}  // namespace

namespace nivo {

std::shared_ptr<IImageBufferHeap> IImageBufferHeapFactory::create(
    char const* callerName, char const* heapName, IImageBufferAllocator::ImgParam const& param,
    bool flag) {
    auto& s = heapStats();
    {
        std::lock_guard<std::mutex> lk(s.lock);
        if (s.record) s.calls.push_back({callerName ? callerName : "", heapName ? heapName : "", param, flag});
    }
    s.hook();
    if (takeFailure(s.failNext)) return nullptr;
    int64_t const bytes = vexlor::host::HeapFactory::sizeOf(param);
    void* memory = nullptr;
    if (s.realMemory.load() && bytes > 0) {
        memory = mapTouched(bytes);
        if (memory == nullptr) return nullptr;  // as a device allocation that failed
    }
    std::string name = heapName ? heapName : "";
    auto heap = std::make_shared<HostHeap>(name, bytes, memory);
    std::lock_guard<std::mutex> lk(s.lock);
    NameEntry& entry = s.byName[name];
    heap->mEntry = &entry;
    entry.stats.add(bytes);
    s.total.add(bytes);
    auto& mine = entry.live;
    if (mine.size() >= 8 && mine.size() >= 2 * static_cast<size_t>(entry.stats.heaps)) {
        mine.erase(std::remove_if(mine.begin(), mine.end(), [](auto const& w) { return w.expired(); }), mine.end());
    }
    mine.push_back(heap);
    ++s.created;
    ++s.alive;
    ++s.events;
    s.cond.notify_all();
    return heap;
}

}  // namespace nivo

// ---- stream buffers ----------------------------------------------------------------------------
namespace {

std::atomic<int64_t> gImageAlive{0};
std::atomic<int64_t> gMetaAlive{0};
std::atomic<int> gFailImage{0};
std::atomic<int> gFailMeta{0};
std::atomic<int> gFailMetaLock{0};
std::atomic<uint32_t> gImageStatus{0};
std::atomic<int64_t> gReleaseToOwnerCalls{0};
std::atomic<uint64_t> gBufferSeq{0};
vexlor::host::detail::HookSlot<std::function<void(char const*)>> gMetaDestroyHook;
vexlor::host::detail::HookSlot<std::function<void(NSCam::IMetadata const*)>> gMetaCreateHook;
// A buffer to hand out again, armed by a test; the flag keeps the lock off the frame path.
std::atomic<bool> gHandOutAgainArmed{false};
std::mutex gHandOutAgainLock;
std::shared_ptr<NSCam::v3::IImageStreamBuffer> gHandOutAgain;  // guarded by gHandOutAgainLock

using namespace NSCam::v3;

class HostImageStreamBuffer : public IImageStreamBuffer,
                              public std::enable_shared_from_this<HostImageStreamBuffer> {
public:
    explicit HostImageStreamBuffer(Utils::MakeHalImageStreamBuffer const& arg)
        : mInfo(arg.streamInfo), mHeap(arg.heap), mPool(arg.pool), mStatus(gImageStatus.load(std::memory_order_relaxed)) {
        gImageAlive.fetch_add(1, std::memory_order_relaxed);
    }
    ~HostImageStreamBuffer() override { gImageAlive.fetch_sub(1, std::memory_order_relaxed); }

    std::shared_ptr<IImageStreamInfo const> streamInfoOf() const override {
        NSCam::LockGuard<NSCam::Mutex> lk(mLock);
        return mInfo;
    }
    void setStreamInfo(std::shared_ptr<IImageStreamInfo const> const& info) override {
        NSCam::LockGuard<NSCam::Mutex> lk(mLock);
        mInfo = info;
    }
    // Made on first use: only log lines ask for it.
    char const* bufferName() const override {
        std::call_once(mNameOnce, [this] {
            mName = std::string(streamInfoOf() ? streamInfoOf()->streamName() : "") + "#" +
                    std::to_string(++gBufferSeq);
        });
        return mName.c_str();
    }
    uint32_t statusOf() const override { return mStatus; }
    std::shared_ptr<nivo::IImageBufferHeap> imageBufferHeap() const override { return mHeap; }
    void releaseToOwner() override {
        gReleaseToOwnerCalls.fetch_add(1, std::memory_order_relaxed);
        if (mReleased.exchange(true)) return;
        // The caller holds this buffer, and the buffer its pool, for the length of the call.
        if (mPool) mPool->releaseToPool("releaseToOwner", shared_from_this());
    }

private:
    mutable NSCam::Mutex mLock;
    std::shared_ptr<IImageStreamInfo const> mInfo;
    std::shared_ptr<nivo::IImageBufferHeap> mHeap;
    std::shared_ptr<IImageStreamBufferPool> mPool;  // a pooled buffer keeps its pool alive
    mutable std::once_flag mNameOnce;
    mutable std::string mName;
    uint32_t mStatus;
    std::atomic<bool> mReleased{false};
};

class HostMetaStreamBuffer : public IMetaStreamBuffer {
public:
    HostMetaStreamBuffer(std::shared_ptr<IMetaStreamInfo const> info, NSCam::IMetadata const& meta)
        : mInfo(std::move(info)), mMeta(meta), mSeq(++gBufferSeq) {
        ++gMetaAlive;
    }
    ~HostMetaStreamBuffer() override {
        if (gMetaDestroyHook.isSet()) gMetaDestroyHook(bufferName());
        --gMetaAlive;
    }
    std::shared_ptr<IMetaStreamInfo const> streamInfoOf() const override { return mInfo; }
    // Made when first asked for, as a real buffer's name costs nothing to a caller that never
    // asks (the allocation counts of the benchmarks stay the manager's).
    char const* bufferName() const override {
        std::call_once(mNameOnce, [this] {
            mName = std::string(mInfo ? mInfo->streamName() : "") + "#" + std::to_string(mSeq);
        });
        return mName.c_str();
    }
    uint32_t statusOf() const override { return 0; }
    NSCam::IMetadata* tryReadLockMeta(char const*) override {
        if (takeFailure(gFailMetaLock)) return nullptr;
        if (!mRw.try_lock_shared()) return nullptr;
        return &mMeta;
    }
    NSCam::IMetadata* tryWriteLockMeta(char const*) override {
        if (!mRw.try_lock()) return nullptr;
        mWriteLocked = true;
        return &mMeta;
    }
    void unlockMeta(char const*, NSCam::IMetadata*) override {
        if (mWriteLocked) {
            mWriteLocked = false;
            mRw.unlock();
        } else {
            mRw.unlock_shared();
        }
    }

private:
    std::shared_ptr<IMetaStreamInfo const> mInfo;
    NSCam::IMetadata mMeta;
    uint64_t const mSeq;
    mutable std::once_flag mNameOnce;
    mutable std::string mName;
    std::shared_mutex mRw;
    bool mWriteLocked = false;  // written only while holding mRw exclusively
};

}  // namespace

namespace NSCam::v3::Utils {

std::shared_ptr<IImageStreamBuffer> makeHalImageStreamBuffer(MakeHalImageStreamBuffer const& arg) {
    if (!arg.heap || takeFailure(gFailImage)) return nullptr;  // a stream buffer needs a heap
    if (gHandOutAgainArmed.load(std::memory_order_acquire)) {
        std::lock_guard<std::mutex> lk(gHandOutAgainLock);
        gHandOutAgainArmed = false;
        if (gHandOutAgain) return std::move(gHandOutAgain);
    }
    return std::make_shared<HostImageStreamBuffer>(arg);
}

std::shared_ptr<IMetaStreamBuffer> makeHalMetaStreamBuffer(MakeHalMetaStreamBuffer const& arg) {
    if (gMetaCreateHook.isSet()) gMetaCreateHook(arg.metadata);
    if (takeFailure(gFailMeta) || arg.metadata == nullptr) return nullptr;
    return std::make_shared<HostMetaStreamBuffer>(arg.streamInfo, *arg.metadata);
}

}  // namespace NSCam::v3::Utils

// ---- debuggee registry -------------------------------------------------------------------------
namespace {

class HostCookie : public NSCam::IDebuggeeCookie {
public:
    explicit HostCookie(std::weak_ptr<NSCam::IDebuggee> d) : debuggee(std::move(d)) {}
    std::weak_ptr<NSCam::IDebuggee> debuggee;
};

class HostRegistry : public NSCam::IDebuggeeManager {
public:
    std::shared_ptr<NSCam::IDebuggeeCookie> attachDebuggee(
        std::shared_ptr<NSCam::IDebuggee> const& debuggee, int) override {
        auto cookie = std::make_shared<HostCookie>(debuggee);
        std::lock_guard<std::mutex> lk(lock);
        ++attaches;
        cookies.push_back(cookie);
        return cookie;
    }
    void detachDebuggee(std::shared_ptr<NSCam::IDebuggeeCookie> const& cookie) override {
        std::lock_guard<std::mutex> lk(lock);
        ++detaches;
        cookies.erase(std::remove_if(cookies.begin(), cookies.end(),
                                     [&](auto const& c) { return c.get() == cookie.get(); }),
                      cookies.end());
    }
    std::mutex lock;
    std::vector<std::shared_ptr<HostCookie>> cookies;
    size_t attaches = 0;
    size_t detaches = 0;
};

HostRegistry& registry() {
    static HostRegistry* r = new HostRegistry;
    return *r;
}
std::atomic<bool> gRegistryPresent{true};

}  // namespace

namespace NSCam {
IDebuggeeManager* IDebuggeeManager::get() {
    return gRegistryPresent.load() ? &registry() : nullptr;
}
}  // namespace NSCam

namespace vexlor::host {

int64_t HeapFactory::created() {
    auto& s = heapStats();
    std::lock_guard<std::mutex> lk(s.lock);
    return s.created;
}
int64_t HeapFactory::alive() {
    auto& s = heapStats();
    std::lock_guard<std::mutex> lk(s.lock);
    return s.alive;
}
void HeapFactory::failNext(int n) { heapStats().failNext = n; }
bool HeapFactory::waitFor(std::function<bool(int64_t, int64_t)> const& pred,
                          std::chrono::milliseconds timeout) {
    // Re-evaluated after every heap event and at least every 100 us, without the factory's lock,
    // so the predicate may read state that changes just after an event (a pool counting the heap
    // it was given) and may take locks of its own. That state changes microseconds after the
    // event: a longer poll would make every wait for a pool to fill a millisecond long.
    auto& s = heapStats();
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    std::unique_lock<std::mutex> lk(s.lock);
    for (;;) {
        int64_t const created = s.created, alive = s.alive;
        uint64_t const events = s.events;
        lk.unlock();
        bool const held = pred(created, alive);
        lk.lock();
        if (held) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        if (s.events == events) s.cond.wait_for(lk, std::chrono::microseconds(100));
    }
}
std::vector<HeapCreateCall> HeapFactory::calls() {
    auto& s = heapStats();
    std::lock_guard<std::mutex> lk(s.lock);
    return s.calls;
}
void HeapFactory::setRecordCalls(bool on) {
    auto& s = heapStats();
    std::lock_guard<std::mutex> lk(s.lock);
    s.record = on;
}
void HeapFactory::reset() {
    auto& s = heapStats();
    std::lock_guard<std::mutex> lk(s.lock);
    s.created = 0;
    s.failNext = 0;
    s.calls.clear();
}
std::map<std::string, HeapFactory::Occupancy> HeapFactory::occupancy() {
    std::map<std::string, Occupancy> out;
    auto& s = heapStats();
    std::lock_guard<std::mutex> lk(s.lock);
    for (auto const& [name, entry] : s.byName) {
        Occupancy const o = countOwners(entry.live);
        if (o.alive != 0) out[name] = o;
    }
    return out;
}

int64_t HeapFactory::sizeOf(nivo::IImageBufferAllocator::ImgParam const& param) {
    if (isBlobFormat(param.imgFormat)) {
        return int64_t{std::max(param.imgSize.w, 0)} * std::max(param.imgSize.h, 1);
    }
    int64_t bytes = 0;
    for (size_t planeBytes : param.bufSizesInBytes) bytes += static_cast<int64_t>(planeBytes);
    return bytes;
}
std::map<std::string, HeapFactory::Memory> HeapFactory::memory() {
    auto& s = heapStats();
    std::lock_guard<std::mutex> lk(s.lock);
    std::map<std::string, Memory> out;
    for (auto const& [name, e] : s.byName) {
        auto const& m = e.stats;
        out[name] = {m.bytes, m.peakBytes, m.heaps, m.peakHeaps};
    }
    return out;
}
HeapFactory::Memory HeapFactory::totalMemory() {
    auto& s = heapStats();
    std::lock_guard<std::mutex> lk(s.lock);
    return {s.total.bytes, s.total.peakBytes, s.total.heaps, s.total.peakHeaps};
}
void HeapFactory::resetPeaks() {
    auto& s = heapStats();
    std::lock_guard<std::mutex> lk(s.lock);
    for (auto it = s.byName.begin(); it != s.byName.end();) {
        auto& m = it->second.stats;
        if (m.heaps == 0) {
            it = s.byName.erase(it);  // no heap points at it
            continue;
        }
        m.peakBytes = m.bytes;
        m.peakHeaps = m.heaps;
        ++it;
    }
    s.total.peakBytes = s.total.bytes;
    s.total.peakHeaps = s.total.heaps;
}
void HeapFactory::setRealMemory(bool on) { heapStats().realMemory = on; }

HeapFactory::Occupancy HeapFactory::occupancyOf(std::string const& heapName) {
    auto& s = heapStats();
    std::lock_guard<std::mutex> lk(s.lock);
    auto it = s.byName.find(heapName);
    return it == s.byName.end() ? Occupancy{} : countOwners(it->second.live);
}

void HeapFactory::setCreateHook(std::function<void()> hook) { heapStats().hook.set(std::move(hook)); }

int64_t StreamBufferFactory::imageAlive() { return gImageAlive.load(); }
int64_t StreamBufferFactory::metaAlive() { return gMetaAlive.load(); }
void StreamBufferFactory::failNextImage(int n) { gFailImage = n; }
void StreamInfoFactory::failNextBuilder(int n) { NSCam::v3::Utils::gFailBuilder = n; }
void StreamInfoFactory::failNextBuild(int n) { NSCam::v3::Utils::gFailBuild = n; }
void StreamBufferFactory::handOutAgain(std::shared_ptr<NSCam::v3::IImageStreamBuffer> sb) {
    std::lock_guard<std::mutex> lk(gHandOutAgainLock);
    gHandOutAgain = std::move(sb);
    gHandOutAgainArmed = static_cast<bool>(gHandOutAgain);
}
void StreamBufferFactory::failNextMeta(int n) { gFailMeta = n; }
void StreamBufferFactory::failNextMetaLock(int n) { gFailMetaLock = n; }
void StreamBufferFactory::setImageStatus(uint32_t status) { gImageStatus = status; }
void StreamBufferFactory::setMetaDestroyHook(std::function<void(char const*)> hook) {
    gMetaDestroyHook.set(std::move(hook));
}
void StreamBufferFactory::setMetaCreateHook(std::function<void(NSCam::IMetadata const*)> hook) {
    gMetaCreateHook.set(std::move(hook));
}
int64_t StreamBufferFactory::releaseToOwnerCalls() { return gReleaseToOwnerCalls.load(); }

void DebuggeeRegistry::setPresent(bool present) { gRegistryPresent = present; }
size_t DebuggeeRegistry::attachedCount() {
    auto& r = registry();
    std::lock_guard<std::mutex> lk(r.lock);
    return r.cookies.size();
}
size_t DebuggeeRegistry::attachCalls() {
    auto& r = registry();
    std::lock_guard<std::mutex> lk(r.lock);
    return r.attaches;
}
size_t DebuggeeRegistry::detachCalls() {
    auto& r = registry();
    std::lock_guard<std::mutex> lk(r.lock);
    return r.detaches;
}
size_t DebuggeeRegistry::debugAll(NSCam::IPrinter* printer, std::vector<std::string> const& options) {
    std::vector<std::shared_ptr<NSCam::IDebuggee>> targets;
    {
        auto& r = registry();
        std::lock_guard<std::mutex> lk(r.lock);
        for (auto const& c : r.cookies)
            if (auto d = c->debuggee.lock()) targets.push_back(std::move(d));
    }
    // Called without the registry's lock: a debuggee whose last owner is this list may be
    // destroyed here, and its destructor detaches itself.
    for (auto const& d : targets) d->debug(printer, options);
    return targets.size();
}

}  // namespace vexlor::host
