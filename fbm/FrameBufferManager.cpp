// The manager, in sections that follow a frame's road:
//   Free functions and records, Metadata free worker, Lifecycle   the objects
//   Configuration, Pool set-up                                     before the first frame
//   Requests, Tracking and results, Keeping buffers                a frame's buffers, in order
//   Selection, Release                                             its history set, to the end
//   Dumps, Pool control, Entry                                     from the side, at any time
#define LOG_TAG "vexlor-ppl_fbm"
#define LOG_SRC_PATH "pipeline/pipeline/fbm/FrameBufferManager"

#include "FrameBufferManager.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <sstream>

#include <vexlor/LogScheme.h>
#include <vexlor/Properties.h>
#include <vexlor/Trace.h>

using NSCam::Utils::ScopedTrace;
using NSCam::Utils::ULog::ULogPrinter;

namespace NSCam::v3::pipeline {

namespace {

constexpr char const kDebuggeeName[] = "NSCam::v3::IFrameBufferManager";
constexpr uint32_t kBlobFormat = 0x2300;
constexpr uint32_t kBlobFormatJpeg = 0x21;
constexpr uint32_t kDefaultUsage = 0x08C20000;
constexpr size_t kReleaseToWorkerThreshold = 4;
constexpr auto kSelectLockWait = std::chrono::milliseconds(10);
constexpr auto kDumpLockWait = std::chrono::milliseconds(500);
constexpr size_t kSpareSets = 32;  // emptied sets kept per list, for the next frames

// What a provider answered, shared by the requesting frame and the callable the provider keeps.
struct ProviderAnswer {
    std::mutex lock;
    std::shared_ptr<IImageStreamBuffer> buffer;  // as given to the callable
    bool answered = false;                       // the caller's callback has run
    bool returned = false;                       // requestStreamBuffer has taken its result
};

std::string errText(int err) {
    char buf[128];
    return ::strerror_r(err, buf, sizeof buf);  // GNU variant: returns the text
}

std::string hexId(int64_t id) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%#lx", static_cast<long>(id));
    return buf;
}

// The configuration printer: lines go to the logs like a ULogPrinter's (info level) and are kept
// in the manager's list of configuration lines unless that list is busy at the time.
class MyPrinter : public ULogPrinter {
public:
    MyPrinter(std::list<std::string>& logs, Mutex& logLock)
        : ULogPrinter(NSCam::Utils::ULog::kULogLevelInfo, NSCam::Utils::ULog::kFbmModule,
                      LOG_TAG, ANDROID_LOG_INFO),
          mLogs(logs), mLogLock(logLock) {}

    void printLine(char const* line) override {
        ULogPrinter::printLine(line);
        keep(line);
    }
    void printFormatLine(char const* format, ...) override __attribute__((format(printf, 2, 3))) {
        char buf[1024];
        va_list ap;
        va_start(ap, format);
        formatLine(buf, format, ap);
        va_end(ap);
        ULogPrinter::printLine(buf);
        keep(buf);
    }

private:
    // Only tried: a dump or another printer holding the list makes this line go unrecorded,
    // deliberately, rather than making configuration wait.
    void keep(char const* text) {
        if (!mLogLock.try_lock()) return;
        if (text != nullptr) mLogs.emplace_back(text);
        mLogLock.unlock();
    }

    std::list<std::string>& mLogs;
    Mutex& mLogLock;
};

bool sameLayout(IImageStreamInfo const& a, IImageStreamInfo const& b) {
    if (a.imageFormat() != b.imageFormat()) return false;
    BufPlanes const& pa = a.planeLayout();
    BufPlanes const& pb = b.planeLayout();
    if (pa.count != pb.count) return false;
    size_t const n = std::min<size_t>(pa.count, pa.planes.size());
    for (size_t i = 0; i < n; ++i) {
        if (pa[i].sizeInBytes != pb[i].sizeInBytes ||
            pa[i].rowStrideInBytes != pb[i].rowStrideInBytes) {
            return false;
        }
    }
    return true;
}

template <class Vec>
std::string toString_BuffersStreamId(Vec const& buffers) {
    std::ostringstream oss;
    oss << std::hex << std::showbase;
    for (auto const& b : buffers) oss << " (" << b->streamInfoOf()->streamId() << ") ";
    return oss.str();
}

template <class Vec>
std::string metaNames(Vec const& buffers, bool brief) {
    if (brief) return "#" + std::to_string(buffers.size());
    std::string s;
    for (auto const& b : buffers) {
        auto info = b ? b->streamInfoOf() : nullptr;
        s += std::string(info ? info->streamName() : "") + " ";
    }
    return s;
}

std::string toString(IHistoryBufferProvider::HistoryBufferSet const& set, bool brief) {
    std::ostringstream oss;
    oss << "[F" << set.frameNo << " R" << set.requestNo << " ts:" << set.timestamp << " halImage("
        << set.halImage.size() << ")" << " halMeta(" << metaNames(set.halMeta, brief) << ")"
        << " appMeta(" << metaNames(set.appMeta, brief) << ")" << "]";
    return oss.str();
}

void appendIds(std::ostringstream& oss, std::set<StreamId_T> const& ids) {
    for (auto id : ids) oss << " " << id;
}

}  // namespace

// =================================================================================================
// Free functions and records
// =================================================================================================

std::string toString(StreamAttribute attribute) {
    static char const* const kSources[] = {"USER    ", "POOL    ", "RUNTIME ", "?       ",
                                           "PROVIDER"};
    uint32_t const source = bufferSourceOf(attribute);
    std::string s = "[";
    s += (attribute & eBEHAVIOR_META) ? "META " : "IMAGE";
    s += "-";
    s += (attribute & eBEHAVIOR_APP) ? "APP" : "HAL";
    s += "-";
    s += source <= 4 ? kSources[source] : "?       ";
    s += "]";
    return s;
}

std::string toString(TrackFrameResultParams const& params) {
    std::ostringstream oss;
    oss << "{" << std::hex;
    oss << " .halImage=[";
    appendIds(oss, params.halImage);
    oss << " ]";
    oss << " .halMeta=[";
    appendIds(oss, params.halMeta);
    oss << " ]";
    oss << " .appMeta=[";
    appendIds(oss, params.appMeta);
    oss << " ]";
    oss << std::dec << " .isRecyclable=" << static_cast<int>(params.isRecyclable) << " }";
    return oss.str();
}

void releaseBuffer(std::shared_ptr<IImageStreamBuffer>& buffer) {
    buffer->releaseToOwner();
    buffer.reset();
}

void releaseBuffer(std::shared_ptr<IMetaStreamBuffer>& buffer) { buffer.reset(); }

nivo::IImageBufferAllocator::ImgParam generateImgParam(IImageStreamInfo const* info) {
    nivo::IImageBufferAllocator::ImgParam p;
    uint32_t const format = info->imageFormat();
    BufPlanes const& planes = info->planeLayout();
    p.imgFormat = format;
    if (format == kBlobFormat || format == kBlobFormatJpeg) {
        p.imgSize.w = static_cast<int32_t>(static_cast<uint32_t>(planes.planes[0].sizeInBytes));
        p.imgSize.h = 1;
    } else {
        p.imgSize = info->imageSize();
        size_t const n = std::min<size_t>(planes.count, 3);
        for (size_t i = 0; i < n; ++i) {
            p.bufStridesInBytes[i] = planes.planes[i].rowStrideInBytes;
            p.bufSizesInBytes[i] = planes.planes[i].sizeInBytes;
        }
    }
    p.allocExtent = info->allocExtent();
    p.secureWord = info->allocAttribute().secureWord;
    p.flag0 = false;
    p.flag1 = true;
    p.usage = info->allocUsage() != 0 ? info->allocUsage() : kDefaultUsage;
    p.trailing = 1;
    return p;
}

std::shared_ptr<nivo::IImageBufferHeap> Allocator::operator()() const {
    ScopedTrace trace("Allocator");
    return nivo::IImageBufferHeapFactory::create("fbm", allocInfo->streamName(), param, false);
}

// =================================================================================================
// Metadata free worker
// =================================================================================================

FreeMetaObject gFreeMetaObject;

FreeMetaObject::FreeMetaObject() {
    mWorker = std::thread(&FreeMetaObject::freeBufferThreadLoop, this);
}

FreeMetaObject::~FreeMetaObject() {
    // The flag is set under the lock the worker tests it with before it waits: set without it, a
    // worker between its emptiness test and its wait would miss this wake-up and the join would
    // wait for a hand-over that never comes at unload or process exit.
    {
        std::lock_guard<std::mutex> lk(mLock);
        mExit = true;
    }
    mCond.notify_all();
    if (mWorker.joinable()) mWorker.join();
    std::vector<MetaPtr> left;
    {
        std::lock_guard<std::mutex> lk(mLock);
        mEnded = true;
        left.swap(mPending);  // the vector holds no storage from here on
    }
    left.clear();  // whatever is left is destroyed on this thread
}

void FreeMetaObject::freeBufferVec(std::vector<MetaPtr>& buffers) {
    {
        std::lock_guard<std::mutex> lk(mLock);
        if (!mEnded) {
            mPending.insert(mPending.end(), buffers.begin(), buffers.end());
            buffers.clear();
            mCond.notify_all();
            return;
        }
    }
    // The worker has ended: a pipeline thread still running at process exit (after the static
    // destructor) frees its buffers itself.
    buffers.clear();
}

void FreeMetaObject::freeBufferThreadLoop() {
    MY_LOGD("FreeMetaObject: thread +");
    while (!mExit) {
        std::vector<MetaPtr> local;
        {
            std::unique_lock<std::mutex> lk(mLock);
            if (mPending.empty() && !mExit) {
                MY_LOGD("FreeMetaObject: wait +");
                mCond.wait(lk);  // one wait: any wake-up, spurious or not, runs one pass
                MY_LOGD("FreeMetaObject: wait -");
            }
            local = mPending;
            mPending.clear();
        }
        MY_LOGD("FreeMetaObject: free +");
        while (!local.empty()) local.pop_back();  // the last handed over goes first
        MY_LOGD("FreeMetaObject: free -");
        local.shrink_to_fit();
    }
    MY_LOGD("FreeMetaObject: thread -");
}

// =================================================================================================
// Lifecycle
// =================================================================================================

FrameBufferManagerImpl::FrameBufferManagerImpl(char const* name)
    : mName(name ? name : ""),
      mLogLevel(NSCam::Utils::Properties::property_get_int32("vendor.debug.camera.log.pipeline.fbm", 0)),
      mAcquireTimeoutMs(NSCam::Utils::Properties::property_get_int32(
          "vendor.debug.camera.pipeline.fbm.acquire.timeout", 1500)) {}

bool FrameBufferManagerImpl::initialize(std::shared_ptr<FrameBufferManagerImpl> const& self) {
    if (self) {
        if (auto registry = NSCam::IDebuggeeManager::get()) {
            std::shared_ptr<NSCam::IDebuggeeTarget> target = self;
            mDebuggeeCookie = registry->attachDebuggee(target, 0);
        }
    }
    mWeakThis = self;
    return true;
}

FrameBufferManagerImpl::~FrameBufferManagerImpl() {
    MY_LOGI("+ mDebuggeeCookie:%p", mDebuggeeCookie.get());
    if (auto registry = NSCam::IDebuggeeManager::get()) {
        auto cookie = mDebuggeeCookie;
        registry->detachDebuggee(cookie);
    }
    mDebuggeeCookie.reset();
    MY_LOGI("-");
    // What the unfinished frames and the ready sets kept goes back to its producers now. Dropping
    // it with the lists would not: a kept buffer holds its producer, which tracks the buffer, so
    // producers, heap pools and heaps would outlive the manager.
    std::list<InFlightBufferSet> inFlight;
    std::list<HistoryBufferSet> ready;
    {
        LockGuard<TimedMutex> lk(mInFlightLock);
        inFlight.swap(mInFlightList);
    }
    {
        LockGuard<TimedMutex> lk(mReadyLock);
        ready.swap(mReadyList);
    }
    for (auto& set : inFlight) releaseOneBufferSet(set);
    for (auto& set : ready) releaseOneBufferSet(set);
}

std::shared_ptr<IPipelineFrameStreamBufferProvider>
FrameBufferManagerImpl::getPipelineFrameBufferProvider() const {
    return mWeakThis.lock();
}

std::shared_ptr<IPipelineFrameHalResultProcessor>
FrameBufferManagerImpl::getPipelineFrameResultProcessor() const {
    return mWeakThis.lock();
}

std::vector<std::shared_ptr<IImageStreamInfo>> FrameBufferManagerImpl::getPoolStreamInfo() const {
    LockGuard<Mutex> lk(mConfigLock);
    return mPoolStreamInfos;
}

std::string FrameBufferManagerImpl::debuggeeName() const { return kDebuggeeName; }

void FrameBufferManagerImpl::debug(IPrinter* printer, std::vector<std::string> const&) {
    if (printer != nullptr) dumpState(*printer);
}

// =================================================================================================
// Configuration
// =================================================================================================

void FrameBufferManagerImpl::beginConfigure() {
    LockGuard<Mutex> lk(mConfigLock);
    // Lines of earlier configurations stay, deliberately, and are dumped together.
    mConfigPrinter = makeConfigPrinter();
    if (!mConfigPrinter) MY_FATAL("Failed on std::make_shared<MyPrinter>");
}

int FrameBufferManagerImpl::endConfigure() {
    std::shared_ptr<IPrinter> printer;  // ends when its last holder lets go, outside the lock
    LockGuard<Mutex> lk(mConfigLock);
    printer = std::move(mConfigPrinter);
    return 0;
}

std::shared_ptr<IPrinter> FrameBufferManagerImpl::configPrinter() {
    {
        LockGuard<Mutex> lk(mConfigLock);
        if (mConfigPrinter) return mConfigPrinter;
    }
    return makeConfigPrinter();
}

// The printer touches the list only while holding the lock it is given.
std::shared_ptr<IPrinter> FrameBufferManagerImpl::makeConfigPrinter() NO_THREAD_SAFETY_ANALYSIS {
    return std::make_shared<MyPrinter>(mConfigLogs, mConfigLogLock);
}

int FrameBufferManagerImpl::addMetaStream(AddMetaStream const& s) {
    auto record = std::make_shared<ConfigMetaStream>();
    record->info = s.info;
    record->attribute = s.attribute;
    LockGuard<Mutex> lk(mConfigLock);
    mConfigMetaStreams[s.info->streamId()] = std::move(record);
    return 0;
}

std::shared_ptr<FrameBufferManagerImpl::ConfigImageStream>
FrameBufferManagerImpl::queryConfigImageStream(StreamId_T streamId) const {
    LockGuard<Mutex> lk(mConfigLock);
    auto it = mConfigImageStreams.find(streamId);
    if (it != mConfigImageStreams.end()) return it->second;
    MY_LOGW("couldn't find streamId:%#lx", static_cast<long>(streamId));
    return nullptr;
}

FrameBufferManagerImpl::PoolStreams::PoolStreams(
    std::shared_ptr<std::vector<std::set<StreamId_T>>> groups, StreamId_T streamId)
    : mGroups(std::move(groups)), mSingle(streamId) {
    if (!mGroups) return;
    for (auto const& group : *mGroups) {
        if (group.count(streamId) != 0) {
            mGroup = &group;  // the first group wins
            return;
        }
    }
}

FrameBufferManagerImpl::PoolStreams FrameBufferManagerImpl::poolStreamsOf(StreamId_T streamId) const {
    return PoolStreams(mSharedStreamGroups, streamId);
}

std::set<StreamId_T> FrameBufferManagerImpl::getPoolStreams(StreamId_T streamId) const {
    std::set<StreamId_T> out;
    poolStreamsOf(streamId).forEach([&out](StreamId_T id) { out.insert(id); });
    return out;
}

StreamId_T FrameBufferManagerImpl::poolKeyOf(StreamId_T streamId) const {
    return poolStreamsOf(streamId).first();
}

// =================================================================================================
// Pool set-up
// =================================================================================================

int FrameBufferManagerImpl::configureStreams(ConfigureStreams const& cfg) {
    ScopedTrace trace("IFrameBufferManager::configureStreams");
    {
        LockGuard<Mutex> lk(mConfigLock);
        mSharedStreamGroups = cfg.sharedGroups;
    }
    int err = configureImageStreams(cfg.imageStreams, cfg.sharedGroups.get());
    if (err != 0) return err;
    for (auto const& meta : cfg.metaStreams) {
        err = addMetaStream(meta);
        if (err != 0) return err;
    }
    return 0;
}

int FrameBufferManagerImpl::addImageStream(AddImageStream const& s) {
    AddImageStreams group;
    if (s.info) group.infos.push_back(s.info);
    group.attribute = s.attribute;
    group.provider = s.provider;
    return addImageStreams(group);
}

int FrameBufferManagerImpl::configureImageStreams(
    std::vector<AddImageStream> const& streams,
    std::vector<std::set<StreamId_T>> const* sharedGroups) {
    ScopedTrace trace("configureImageStreams");
    char const* const fn = "configureImageStreams";
    std::list<AddImageStream> rest(streams.begin(), streams.end());
    if (sharedGroups != nullptr) {
        auto printer = configPrinter();
        for (auto const& ids : *sharedGroups) {
            std::vector<AddImageStream> group;
            for (StreamId_T id : ids) {
                auto it = std::find_if(rest.begin(), rest.end(), [id](AddImageStream const& s) {
                    return s.info && s.info->streamId() == id;
                });
                if (it == rest.end()) {
                    printer->printFormatLine("WARNING [%s] Couldn't find the shared streamId:%s", fn,
                                             toHexString(id).c_str());
                    continue;
                }
                group.push_back(*it);
                rest.erase(it);
            }
            // Compared against the current first entry, which an entry that fails leaves before
            // the next is compared: the first surviving POOL entry sets the attribute.
            for (size_t i = 0; i < group.size();) {
                auto const& s = group[i];
                if (bufferSourceOf(s.attribute) != eBUFFER_SOURCE_POOL) {
                    printer->printFormatLine(
                        "WARNING [%s] '%s': pool-shared but not BUFFER_SOURCE_POOL - attribute:%s",
                        fn, s.info->streamName(), toString(s.attribute).c_str());
                } else if (s.attribute != group.front().attribute) {
                    printer->printFormatLine("WARNING [%s] '%s': different attribute - attribute:%s",
                                             fn, s.info->streamName(), toString(s.attribute).c_str());
                } else {
                    ++i;
                    continue;
                }
                rest.push_back(s);
                group.erase(group.begin() + static_cast<std::ptrdiff_t>(i));
            }
            if (group.empty()) continue;
            AddImageStreams add;
            for (auto const& s : group) add.infos.push_back(s.info);
            add.attribute = group.front().attribute;
            int const err = addImageStreams(add);
            if (err != 0) return err;
        }
    }
    for (auto const& s : rest) {
        int const err = addImageStream(s);
        if (err != 0) return err;
    }
    return 0;
}

int FrameBufferManagerImpl::addImageStreams(AddImageStreams const& group) {
    ScopedTrace trace("addImageStreams");
    if (bufferSourceOf(group.attribute) == eBUFFER_SOURCE_PROVIDER) {
        for (auto const& info : group.infos) {
            if (!group.provider) {
                MY_LOGE("[%s] Bad provider", info->describe().c_str());
                return -EINVAL;
            }
            auto record = std::make_shared<ConfigImageStream>();
            record->info = info;
            record->attribute = group.attribute;
            record->provider = group.provider;
            LockGuard<Mutex> lk(mConfigLock);
            mConfigImageStreams[info->streamId()] = std::move(record);
        }
        return 0;
    }
    if (group.infos.empty()) {
        MY_LOGW("empty stream info");
        return 0;
    }

    std::shared_ptr<IImageStreamInfo> derived;
    {
        auto printer = configPrinter();
        derived = evaluateSharedAllocStreamInfo(group.infos, *printer);
    }
    std::shared_ptr<BufferProducer> sharedProducer;
    for (auto const& info : group.infos) {
        auto const& allocInfo = derived ? derived : info;
        auto producer = createHalStreamBufferPool(info, allocInfo, sharedProducer);
        {
            LockGuard<Mutex> lk(mConfigLock);
            mPoolStreamInfos.push_back(info);
        }
        if (!producer) {
            MY_LOGE("[%s] Failed on createHalStreamBufferPool", info->describe().c_str());
            return -EINVAL;
        }
        if (!sharedProducer && derived) sharedProducer = producer;
        auto record = std::make_shared<ConfigImageStream>();
        record->info = info;
        record->allocInfo = allocInfo;
        record->attribute = group.attribute;
        record->pPool = std::move(producer);
        LockGuard<Mutex> lk(mConfigLock);
        mConfigImageStreams[info->streamId()] = std::move(record);
    }
    return 0;
}

std::shared_ptr<IImageStreamInfo> FrameBufferManagerImpl::evaluateSharedAllocStreamInfo(
    std::vector<std::shared_ptr<IImageStreamInfo>> const& infos, IPrinter& printer) {
    ScopedTrace trace("evaluateSharedAllocStreamInfo");
    char const* const fn = "evaluateSharedAllocStreamInfo";
    if (infos.empty() || !infos.front()) {
        MY_FATAL("Bad arguments - count:%zu pStreamInfos:%p", infos.size(),
                 static_cast<void const*>(infos.data()));
    }
    if (infos.size() == 1) return nullptr;

    auto const& first = infos.front();
    uint32_t const secure = first->allocAttribute().secureWord;
    uint32_t const format = first->imageFormat();
    MSize const size = first->imageSize();
    std::string name = "shared";
    size_t maxBufNum = 0, minInitBufNum = 0, largest = 0;
    BufPlanes const* layout = nullptr;
    for (size_t i = 0; i < infos.size(); ++i) {
        auto const& info = infos[i];
        if (!info) continue;
        auto detail = [&] {
            return "[" + std::to_string(i) + "|" + std::to_string(infos.size()) + "] '" +
                   info->describe() + "' != '" + first->describe() + "'";
        };
        MSize const s = info->imageSize();
        if (info->allocAttribute().secureWord != secure) {
            printer.printFormatLine("ERROR [%s] Different SecureInfo: %s", fn, detail().c_str());
            return nullptr;
        }
        if (info->imageFormat() != format) {
            printer.printFormatLine("ERROR [%s] Different AllocImgFormat: %s", fn, detail().c_str());
            return nullptr;
        }
        if (format != kBlobFormatJpeg && (s.w != size.w || s.h != size.h)) {
            printer.printFormatLine("ERROR [%s] Different ImgSize & Non-BLOB: %s", fn,
                                    detail().c_str());
            return nullptr;
        }
        name += "-" + hexId(info->streamId());
        maxBufNum = std::max(maxBufNum, info->maxBufNum());
        minInitBufNum = std::max(minInitBufNum, info->minInitBufNum());
        BufPlanes const& planes = info->planeLayout();
        size_t total = 0;
        for (size_t p = 0; p < std::min<size_t>(planes.count, planes.planes.size()); ++p) {
            total += planes[p].sizeInBytes;
        }
        if (total > largest) {  // strictly: the first with the largest total wins a tie
            largest = total;
            layout = &planes;
        }
    }
    auto builder = Utils::makeImageStreamInfoBuilder(first.get());
    if (!builder) MY_FATAL("Never happen...");
    builder->setStreamName(name);
    builder->setStreamId(-1);
    builder->setMaxBufNum(maxBufNum);
    builder->setMinInitBufNum(minInitBufNum);
    if (layout != nullptr) builder->setPlaneLayout(*layout);
    auto derived = builder->build();
    if (!derived) MY_FATAL("Never happen...");
    return derived;
}

BufferProducer::ReleaseCallback FrameBufferManagerImpl::makeReleaseCallback() const {
    // A weak handle: the producers belong to the manager, so a strong one would keep it (and
    // every heap) alive forever.
    std::weak_ptr<FrameBufferManagerImpl> weak = mWeakThis;
    return [weak](int64_t streamId, int32_t count, bool dumpOnFailure) {
        if (auto self = weak.lock()) self->tryReleaseHistoryBufferSets(streamId, count, dumpOnFailure);
    };
}

std::shared_ptr<BufferProducer> FrameBufferManagerImpl::createHalStreamBufferPool(
    std::shared_ptr<IImageStreamInfo> const& info, std::shared_ptr<IImageStreamInfo> const& allocInfo,
    std::shared_ptr<BufferProducer> const& sharedProducer) {
    auto producer = std::make_shared<BufferProducer>(allocInfo->streamName(), info,
                                                     makeReleaseCallback(), sharedProducer);
    if (!producer) {
        MY_LOGE("[P\"%s\" A\"%s\"] Failed to create a pool", info->describe().c_str(),
                allocInfo->describe().c_str());
        return nullptr;
    }
    if (allocInfo->isAllocDeferred()) return producer;  // initialised by triggerBufferPool
    int const err = producer->initProducer(allocInfo->maxBufNum(), allocInfo->minInitBufNum(),
                                           Allocator{allocInfo, generateImgParam(allocInfo.get())});
    if (err != 0) {
        MY_LOGE("[P\"%s\" A\"%s\"] (%p) failed on initPool - err:%d(%s)", info->describe().c_str(),
                allocInfo->describe().c_str(), static_cast<void*>(producer.get()), err,
                errText(-err).c_str());
        return nullptr;
    }
    return producer;
}

// =================================================================================================
// Requests
// =================================================================================================

int FrameBufferManagerImpl::requestStreamBuffer(ImageStreamBufferCallback callback,
                                                RequestStreamBuffer const& request) {
    auto const& reqInfo = request.pStreamInfo;
    if (!reqInfo) {
        MY_LOGE("[requestNo:%u frameNo:%u] no stream info", request.requestNo, request.frameNo);
        return -EINVAL;
    }
    auto config = queryConfigImageStream(reqInfo->streamId());
    if (!config) return -EINVAL;

    enum class Source { Pool, Runtime, HalProvider, AppProvider };
    Source source;
    char const* label;
    auto layoutChanged = [&] {
        return config->info.get() != reqInfo.get() && !sameLayout(*config->info, *reqInfo);
    };
    switch (static_cast<uint32_t>(config->attribute)) {
        case eHAL_IMAGE_POOL:
            if (layoutChanged()) {
                MY_LOGD("[requestNo:%u frameNo:%u] POOL -> RUNTIME due to alloc layout change",
                        request.requestNo, request.frameNo);
                source = Source::Runtime;
                label = "POOL -> RUNTIME";
            } else {
                source = Source::Pool;
                label = "POOL";
            }
            break;
        case eHAL_IMAGE_RUNTIME:
            source = Source::Runtime;
            label = "RUNTIME";
            break;
        case eHAL_IMAGE_PROVIDER:
            if (layoutChanged()) {
                MY_LOGD("[requestNo:%u frameNo:%u] PROVIDER -> RUNTIME due to alloc layout change",
                        request.requestNo, request.frameNo);
                source = Source::Runtime;
                label = "PROVIDER -> RUNTIME";
            } else {
                source = Source::HalProvider;
                label = "HAL_IMAGE_PROVIDER";
            }
            break;
        case eAPP_IMAGE_PROVIDER:
            source = Source::AppProvider;
            label = "APP_IMAGE_PROVIDER";
            break;
        default:
            MY_LOGE("[requestNo:%u frameNo:%u] Unsupported attribute:%s for %s", request.requestNo,
                    request.frameNo, toString(config->attribute).c_str(),
                    config->info->describe().c_str());
            return -EINVAL;
    }

    if (NSCam::Utils::cameraTraceOn()) {
        char const* name = reqInfo->streamName();
        std::string marker = label;
        if (name != nullptr && name[0] != '\0') {
            marker += std::string(" requestStreamBuffer ") + name + "|request:" +
                      std::to_string(request.requestNo) + " frame:" + std::to_string(request.frameNo);
        }
        NSCam::Utils::traceMarker(marker.c_str());
    }

    std::shared_ptr<IImageStreamBuffer> buffer;
    int err = 0;
    switch (source) {
        case Source::Pool: {
            auto const& pool = config->pPool;
            if (!pool) {
                MY_LOGE("cannot get pConfigImageStream->pPool");
                err = -ENOMEM;
                break;
            }
            MY_LOGD_IF(mLogLevel >= 2, "[requestNo:%u frameNo:%u] acquireFromPool (%s)",
                       request.requestNo, request.frameNo, pool->poolName());
            err = pool->acquireFromPool(pool->poolName(), buffer,
                                        static_cast<int64_t>(mAcquireTimeoutMs) * 1000000);
            callback(buffer);
            break;
        }
        case Source::HalProvider:
        case Source::AppProvider: {
            if (!config->provider) {
                err = -EINVAL;
                break;
            }
            // The provider may answer during the call or later, on any thread: the wrapper owns
            // the caller's callback and shares the answer's slot with this frame. A late answer
            // (after this call returned) finishes the request itself: it gives a HAL provider's
            // buffer the request's stream info, as the code below does for a prompt one.
            auto answer = std::make_shared<ProviderAnswer>();
            bool const halProvider = source == Source::HalProvider;
            err = config->provider->requestStreamBuffer(
                [answer, halProvider, reqInfo, cb = std::move(callback)](
                    std::shared_ptr<IImageStreamBuffer> const& b) {
                    {
                        std::lock_guard<std::mutex> lk(answer->lock);
                        answer->buffer = b;
                    }
                    cb(b);
                    bool late;
                    {
                        std::lock_guard<std::mutex> lk(answer->lock);
                        answer->answered = true;
                        late = answer->returned;
                    }
                    if (late && halProvider && b && b->streamInfoOf().get() != reqInfo.get()) {
                        b->setStreamInfo(reqInfo);
                    }
                },
                IStreamBufferProvider::Request{reqInfo, -1, request.requestNo});
            {
                std::lock_guard<std::mutex> lk(answer->lock);
                answer->returned = true;
                if (answer->answered) buffer = answer->buffer;
            }
            break;
        }
        case Source::Runtime:
            err = allocateHalImageStreamBufferRuntime(reqInfo, buffer);
            callback(buffer);
            break;
    }

    // A pooled buffer always carries the stream info of the request that took it. One from the
    // pool was made with the stream's own info: when that is the request's, there is nothing to do.
    bool const ownInfo = source == Source::Pool && reqInfo.get() == config->info.get();
    if ((source == Source::Pool || source == Source::HalProvider) && buffer && !ownInfo &&
        buffer->streamInfoOf().get() != reqInfo.get()) {
        buffer->setStreamInfo(reqInfo);
    }
    if (err != 0 || !buffer) {
        MY_LOGE("[requestNo:%u frameNo:%u] err:%d(%s) %s", request.requestNo, request.frameNo, err,
                errText(-err).c_str(),
                (toString(config->attribute) + config->info->describe()).c_str());
    }
    return err;
}

int FrameBufferManagerImpl::allocateHalImageStreamBufferRuntime(
    std::shared_ptr<IImageStreamInfo> const& info, std::shared_ptr<IImageStreamBuffer>& out) {
    auto const param = generateImgParam(info.get());
    std::shared_ptr<nivo::IImageBufferHeap> heap;
    {
        ScopedTrace trace("Allocator");
        heap = nivo::IImageBufferHeapFactory::create("fbm", info->streamName(), param, false);
    }
    out = Utils::makeHalImageStreamBuffer({info, heap, nullptr, nullptr});
    if (out) return 0;
    MY_LOGE("<REQUEST> %s", info->describe().c_str());
    return -EINVAL;
}

// =================================================================================================
// Tracking and results
// =================================================================================================

int FrameBufferManagerImpl::trackFrameResult(TrackFrameResult const& track) {
    auto const& params = track.trackParams;
    if (!params || (params->halImage.empty() && params->halMeta.empty() && params->appMeta.empty())) {
        MY_LOGD_IF(mLogLevel >= 2, "[R%u F%u] no streams to track", track.requestNo, track.frameNo);
        return 0;
    }
    {
        LockGuard<TimedMutex> lk(mInFlightLock);
        if (mSpareInFlight.empty()) {
            mInFlightList.emplace_back();
        } else {
            mInFlightList.splice(mInFlightList.end(), mSpareInFlight, mSpareInFlight.begin());
        }
        InFlightBufferSet& set = mInFlightList.back();
        set.frameNo = track.frameNo;
        set.requestNo = track.requestNo;
        set.timestamp = 0;
        // A spare set's vectors usually hold enough already.
        set.halImage.reserve(params->halImage.size());
        set.halMeta.reserve(params->halMeta.size());
        set.appMeta.reserve(params->appMeta.size());
        set.trackParams = params;
        set.remaining = params->halImage.size() + params->halMeta.size() + params->appMeta.size();
    }
    MY_LOGD_IF(mLogLevel >= 2, "[R%u F%u] track:%s", track.requestNo, track.frameNo,
               toString(*params).c_str());
    return 0;
}

void FrameBufferManagerImpl::returnResult(ReturnResult const& result) {
    // The line is built only when it will be written.
    std::unique_ptr<std::string> line;
    if (mLogLevel >= 2) {
        line = std::make_unique<std::string>();
        *line += "[R" + std::to_string(result.requestNo) + " F" + std::to_string(result.frameNo) +
                 "]TS:" + std::to_string(result.timestamp) + " " +
                 (result.isFrameDestroyed ? "X" : " ");
    }
    // Names are asked for only when the line is being built.
    auto note = [&line](auto const& buffer, char const* mark) {
        if (!line) return;
        if (char const* name = buffer->bufferName()) *line += std::string(" ") + name + mark;
    };

    bool complete = false;
    std::list<InFlightBufferSet> doneNode;  // the completed set, taken out of the list whole
    {
        LockGuard<TimedMutex> lk(mInFlightLock);
        auto it = std::find_if(mInFlightList.begin(), mInFlightList.end(),
                               [&](InFlightBufferSet const& s) { return s.frameNo == result.frameNo; });
        if (it != mInFlightList.end()) {
            InFlightBufferSet& set = *it;
            if (set.timestamp == 0 && result.timestamp >= 1) set.timestamp = result.timestamp;
            TrackFrameResultParams const& track = *set.trackParams;
            if (result.halImage != nullptr) {
                auto& list = *result.halImage;
                for (auto b = list.begin(); b != list.end();) {
                    if (*b && track.halImage.count((*b)->streamInfoOf()->streamId()) != 0) {
                        note(*b, "(O) ");
                        addSharedImage(std::move(*b), set.halImage);
                        --set.remaining;
                        b = list.erase(b);
                    } else {
                        ++b;
                    }
                }
            }
            auto keepMetas = [&](std::vector<std::shared_ptr<IMetaStreamBuffer>>* list,
                                 std::set<StreamId_T> const& tracked,
                                 std::vector<std::shared_ptr<IMetaStreamBuffer>>& out) {
                if (list == nullptr) return;
                for (auto b = list->begin(); b != list->end();) {
                    if (*b && tracked.count((*b)->streamInfoOf()->streamId()) != 0) {
                        note(*b, "(O) ");
                        addCopiedMeta(std::move(*b), out);
                        --set.remaining;
                        b = list->erase(b);
                    } else {
                        ++b;
                    }
                }
            };
            keepMetas(result.halMeta, track.halMeta, set.halMeta);
            keepMetas(result.appMeta, track.appMeta, set.appMeta);
            if (result.isFrameDestroyed) {
                if (set.remaining != 0) {
                    MY_LOGE("[requestNo:%u frameNo:%u] isFrameDestroyed(%d), but still have #%zu left",
                            result.requestNo, result.frameNo, result.isFrameDestroyed, set.remaining);
                    set.timestamp = 0;
                    set.remaining = 0;
                }
                complete = true;
            } else {
                complete = set.remaining == 0;
            }
            if (complete) {
                MY_LOGD_IF(mLogLevel >= 3, "erase frameNo=%d from mInFlightList", result.frameNo);
                doneNode.splice(doneNode.end(), mInFlightList, it);
            }
        }
    }

    if (result.halImageToRelease != nullptr) {
        for (auto& b : *result.halImageToRelease) {
            if (!b) continue;
            note(b, "(X) ");
            releaseBuffer(b);
        }
        result.halImageToRelease->clear();
    }
    for (auto* list : {result.halMeta, result.appMeta}) {
        if (list == nullptr) continue;
        for (auto& b : *list) {
            if (!b) continue;
            note(b, "(X) ");
            b.reset();  // untracked metadata is only dropped here
        }
        list->clear();
    }

    if (complete) {
        InFlightBufferSet& done = doneNode.front();
        if (done.timestamp == 0) {
            if (line) *line += " => release bufferSet (TS: " + std::to_string(done.timestamp) + ")";
            // Tied to the flag being false: a frame without timestamp is released either way.
            if (!done.trackParams->isRecyclable) MY_LOGE("release un-recyclable frame! (due to error)");
            releaseOneBufferSet(done);
        } else {
            LockGuard<TimedMutex> lk(mReadyLock);
            // From the back: behind the first older set, so a new set goes in front of sets with
            // an equal timestamp.
            auto pos = mReadyList.end();
            while (pos != mReadyList.begin()) {
                auto prev = std::prev(pos);
                if (prev->timestamp < done.timestamp) break;
                pos = prev;
            }
            std::list<HistoryBufferSet>::iterator hbs;
            if (mSpareReady.empty()) {
                hbs = mReadyList.emplace(pos);
            } else {
                hbs = mSpareReady.begin();
                mReadyList.splice(pos, mSpareReady, hbs);
            }
            hbs->frameNo = done.frameNo;
            hbs->requestNo = done.requestNo;
            hbs->timestamp = done.timestamp;
            hbs->isRecyclable = done.trackParams->isRecyclable;
            // The buffers move; the emptied vectors of the spare set go back with the frame's.
            hbs->halImage.swap(done.halImage);
            hbs->halMeta.swap(done.halMeta);
            hbs->appMeta.swap(done.appMeta);
            increaseReadyCounters(*hbs, 1);
            if (line) *line += " => move to ReadyList";
        }
        recycleInFlightSets(doneNode);
    }
    if (line) MY_LOGD("%s", line->c_str());
}

void FrameBufferManagerImpl::recycleInFlightSets(std::list<InFlightBufferSet>& sets) {
    for (auto& set : sets) {
        set.halImage.clear();  // released or moved on: only empty handles are left
        set.halMeta.clear();
        set.appMeta.clear();
        set.trackParams.reset();
    }
    LockGuard<TimedMutex> lk(mInFlightLock);
    while (!sets.empty() && mSpareInFlight.size() < kSpareSets) {
        mSpareInFlight.splice(mSpareInFlight.end(), sets, sets.begin());
    }
}

void FrameBufferManagerImpl::recycleReadySets(std::list<HistoryBufferSet>& sets) {
    for (auto& set : sets) {
        set.halImage.clear();
        set.halMeta.clear();
        set.appMeta.clear();
    }
    {
        LockGuard<TimedMutex> lk(mReadyLock);
        while (!sets.empty() && mSpareReady.size() < kSpareSets) {
            mSpareReady.splice(mSpareReady.end(), sets, sets.begin());
        }
    }
    sets.clear();  // beyond the bound
}

void FrameBufferManagerImpl::increaseReadyCounters(HistoryBufferSet const& set, int delta) {
    for (auto const& image : set.halImage) {
        if (!image) continue;
        auto info = image->streamInfoOf();
        if (!info) {
            MY_LOGE_AS("operator()", "pStreamInfo == nullptr");
            continue;
        }
        mReadyStreamCounters[poolKeyOf(info->streamId())] += delta;
    }
}

template <class BufferSet>
void FrameBufferManagerImpl::releaseOneBufferSet(BufferSet& set) {
    for (auto& b : set.halImage)
        if (b) releaseBuffer(b);
    for (auto& b : set.halMeta) releaseBuffer(b);
    for (auto& b : set.appMeta) releaseBuffer(b);
    MY_LOGD_IF(mLogLevel >= 2, "release [R%u F%u]", set.requestNo, set.frameNo);
}
template void FrameBufferManagerImpl::releaseOneBufferSet(InFlightBufferSet&);
template void FrameBufferManagerImpl::releaseOneBufferSet(HistoryBufferSet&);

void FrameBufferManagerImpl::enableFrameResultRecyclable(uint32_t frameNo, bool forceToRecycle) {
    if (mLogLevel >= 2) {
        MY_LOGE("TODO - frameNo:%u forceToRecycle:%d", frameNo, forceToRecycle ? 1 : 0);
    }
}

// =================================================================================================
// Keeping buffers
// =================================================================================================

void FrameBufferManagerImpl::addSharedImage(std::shared_ptr<IImageStreamBuffer>&& buffer,
                                            std::vector<std::shared_ptr<IImageStreamBuffer>>& out) {
    auto info = buffer->streamInfoOf();
    StreamId_T const streamId = info->streamId();
    auto config = queryConfigImageStream(streamId);
    if (config && config->attribute == eHAL_IMAGE_POOL && config->pPool) {
        if (auto shared = config->pPool->shareSB(buffer)) out.push_back(std::move(shared));
        return;
    }
    MY_LOGW("Fail to share image (%#lx:%s, attribute:%s) ", static_cast<long>(streamId),
            info->streamName(), config ? toString(config->attribute).c_str() : "(not configured)");
}

void FrameBufferManagerImpl::addSharedImages(std::vector<std::shared_ptr<IImageStreamBuffer>> const& in,
                                             std::vector<std::shared_ptr<IImageStreamBuffer>>& out) {
    for (auto const& b : in) {
        auto copy = b;
        addSharedImage(std::move(copy), out);
    }
}

void FrameBufferManagerImpl::addCopiedMeta(std::shared_ptr<IMetaStreamBuffer>&& buffer,
                                           std::vector<std::shared_ptr<IMetaStreamBuffer>>& out) {
    auto info = buffer->streamInfoOf();
    StreamId_T const streamId = info->streamId();
    IMetadata* locked = buffer->tryReadLockMeta(LOG_TAG);
    if (locked == nullptr) MY_FATAL("fail to lock metaSB(%#lx)", static_cast<long>(streamId));
    IMetadata copy(*locked);  // the source stays locked only for the copy
    buffer->unlockMeta(LOG_TAG, locked);
    auto kept = Utils::makeHalMetaStreamBuffer({info, &copy});
    if (kept) {
        out.push_back(std::move(kept));
    } else {
        MY_LOGW("Fail to copy meta (%#lx)", static_cast<long>(streamId));
    }
}

void FrameBufferManagerImpl::addCopiedMetas(std::vector<std::shared_ptr<IMetaStreamBuffer>> const& in,
                                            std::vector<std::shared_ptr<IMetaStreamBuffer>>& out) {
    for (auto const& b : in) {
        auto copy = b;
        addCopiedMeta(std::move(copy), out);
    }
}

// =================================================================================================
// Selection
// =================================================================================================

std::list<IHistoryBufferProvider::HistoryBufferSet> FrameBufferManagerImpl::beginSelect()
    NO_THREAD_SAFETY_ANALYSIS {  // returns with mInSelectLock held, until endSelect
    MY_LOGD_IF(mLogLevel >= 3, "in selection +");
    mInSelectLock.lock();
    std::list<HistoryBufferSet> sets;
    LockGuard<TimedMutex> lk(mReadyLock);
    sets.splice(sets.end(), mReadyList);
    for (auto const& set : sets) increaseReadyCounters(set, -1);
    return sets;
}

void FrameBufferManagerImpl::endSelect() NO_THREAD_SAFETY_ANALYSIS {
    mInSelectLock.unlock();
    MY_LOGD_IF(mLogLevel >= 3, "in selection -");
}

void FrameBufferManagerImpl::returnUnselectedSet(ReturnUnselectedSet&& ret) {
    HistoryBufferSet& set = ret.bufferSet;
    MY_LOGD_IF(mLogLevel >= 2, "[R%u F%u] welcome back, %s", set.requestNo, set.frameNo,
               ret.keep ? "keep" : "release");
    if (!ret.keep) {
        releaseOneBufferSet(set);
        return;
    }
    LockGuard<TimedMutex> lk(mReadyLock);
    increaseReadyCounters(set, 1);
    // From the front: before the first newer set, so a returned set goes behind equal ones
    // (the opposite tie-break of returnResult, deliberately).
    auto pos = std::find_if(mReadyList.begin(), mReadyList.end(),
                            [&](HistoryBufferSet const& s) { return s.timestamp > set.timestamp; });
    if (mSpareReady.empty()) {
        mReadyList.insert(pos, std::move(set));
    } else {
        auto node = mSpareReady.begin();
        mReadyList.splice(pos, mSpareReady, node);
        *node = std::move(set);
    }
}

IHistoryBufferProvider::HistoryBufferSet FrameBufferManagerImpl::cloneHBS(HistoryBufferSet const& source) {
    HistoryBufferSet clone;
    clone.frameNo = source.frameNo;
    clone.requestNo = source.requestNo;
    clone.timestamp = source.timestamp;
    clone.isRecyclable = true;  // a clone is always recyclable, deliberately
    for (auto const& b : source.halImage) {
        if (!b) continue;
        auto copy = b;
        addSharedImage(std::move(copy), clone.halImage);
    }
    for (auto const& b : source.halMeta) {
        if (!b) continue;
        auto copy = b;
        addCopiedMeta(std::move(copy), clone.halMeta);
    }
    for (auto const& b : source.appMeta) {
        if (!b) continue;
        auto copy = b;
        addCopiedMeta(std::move(copy), clone.appMeta);
    }
    MY_LOGD("cloned HBS=%s", toString(clone, false).c_str());
    return clone;
}

std::map<uint32_t, std::shared_ptr<TrackFrameResultParams const>>
FrameBufferManagerImpl::peekInflights() const {
    std::map<uint32_t, std::shared_ptr<TrackFrameResultParams const>> out;
    LockGuard<TimedMutex> lk(mInFlightLock);
    for (auto const& set : mInFlightList) out.emplace(set.frameNo, set.trackParams);
    return out;
}

std::map<uint32_t, uint32_t> FrameBufferManagerImpl::peekInflightsReqNo() const {
    std::map<uint32_t, uint32_t> out;
    LockGuard<TimedMutex> lk(mInFlightLock);
    for (auto const& set : mInFlightList) out.emplace(set.frameNo, set.requestNo);
    return out;
}

// =================================================================================================
// Release
// =================================================================================================

bool FrameBufferManagerImpl::pickOneHistoryBufferSetLocked(PoolStreams const& poolStreams,
                                                           std::list<HistoryBufferSet>& out) {
    for (auto it = mReadyList.begin(); it != mReadyList.end(); ++it) {
        if (!it->isRecyclable) continue;
        bool const holdsPoolImage =
            std::any_of(it->halImage.begin(), it->halImage.end(), [&](auto const& image) {
                auto info = image ? image->streamInfoOf() : nullptr;
                return info && poolStreams.contains(info->streamId());
            });
        if (!holdsPoolImage) continue;
        increaseReadyCounters(*it, -1);
        out.splice(out.end(), mReadyList, it);
        return true;
    }
    return false;
}

void FrameBufferManagerImpl::tryReleaseHistoryBufferSets(int64_t streamId, int count,
                                                         bool dumpOnFailure) {
    if (count < 1) {
        MY_LOGE("stream(%#lx), bad try release count(%d)", static_cast<long>(streamId), count);
        return;
    }
    MY_LOGD_IF(mLogLevel >= 2, "stream(%#lx), try release count(%d) +", static_cast<long>(streamId),
               count);
    PoolStreams const poolStreams = poolStreamsOf(streamId);

    // Bounded, so that a long selection cannot stall a starving request; the release then goes
    // ahead on what is left on the ready list. Held, when taken, until the sets are released.
    ScopedTryLock<TimedMutex> select(mInSelectLock, kSelectLockWait);
    if (!select.owns()) {
        MY_LOGE("try_lock_for mInSelectLock timeout (10ms). Check the critical section between "
                "beginSelect() and endSelect()");
    } else {
        MY_LOGD_IF(mLogLevel >= 3, "try_lock_for mInSelectLock within timeout (10ms)");
    }
    auto warnNoSet = [&]() REQUIRES(mReadyLock) {
        MY_LOGW_AS("tryReleaseHistoryBufferSets",
                   "stream(%#lx) getOneHistoryBufferSetLocked failed! mReadyList(#%zu)",
                   static_cast<long>(streamId), mReadyList.size());
    };

    std::list<HistoryBufferSet> sets;
    if (count == 1) {
        bool picked;
        {
            LockGuard<TimedMutex> lk(mReadyLock);
            picked = pickOneHistoryBufferSetLocked(poolStreams, sets);
            if (!picked) warnNoSet();
        }
        if (picked) {
            releaseOneBufferSet(sets.front());
            recycleReadySets(sets);
            return;
        }
    } else {
        {
            LockGuard<TimedMutex> lk(mReadyLock);
            int left = count;
            do {
                if (!pickOneHistoryBufferSetLocked(poolStreams, sets)) {
                    warnNoSet();
                    break;
                }
                if (poolStreams.size() >= 2) {
                    auto const& set = sets.back();
                    left -= static_cast<int>(
                        std::count_if(set.halImage.begin(), set.halImage.end(), [&](auto const& image) {
                            auto info = image ? image->streamInfoOf() : nullptr;
                            return info && poolStreams.contains(info->streamId());
                        }));
                } else {
                    left -= 1;
                }
            } while (left >= 1);
        }
        MY_LOGD("stream(%#lx), release bufferHeap count(%d), release bufferSet count(%zu)",
                static_cast<long>(streamId), count, sets.size());
        releaseBufferSets(sets);
        // Read after releaseBufferSets, which empties a list of up to 4 sets itself: only a
        // larger batch of exactly `count` sets returns early. Kept as it is, as is the comparison
        // of a number of sets with a number of heaps.
        size_t const released = sets.size();
        recycleReadySets(sets);
        if (released == static_cast<size_t>(count)) return;
    }

    select.unlock();
    if (dumpOnFailure) {
        if (NSCam::Utils::ULog::ulogDebugOn()) {
            std::ostringstream ids;
            ids << std::hex;
            poolStreams.forEach([&ids](StreamId_T id) { ids << id << " "; });
            MY_LOGD("stream(%#lx): no {%s} in ReadyList", static_cast<long>(streamId),
                    ids.str().c_str());
        }
        ULogPrinter printer(NSCam::Utils::ULog::kULogLevelDebug, NSCam::Utils::ULog::kFbmModule,
                            LOG_TAG);
        dumpBufferPools(printer);
    }
}

void FrameBufferManagerImpl::releaseBufferSets(std::list<HistoryBufferSet>& sets) {
    if (sets.size() > kReleaseToWorkerThreshold) {
        // Metadata goes to the worker so that this (request) thread is not held up; the list is
        // left in place for the caller to clear.
        for (auto& set : sets) {
            for (auto& image : set.halImage)
                if (image) releaseBuffer(image);
            gFreeMetaObject.freeBufferVec(set.halMeta);
            gFreeMetaObject.freeBufferVec(set.appMeta);
            MY_LOGD_IF(mLogLevel >= 2, "release [R%u F%u]", set.requestNo, set.frameNo);
        }
        return;
    }
    std::list<HistoryBufferSet> released;
    while (!sets.empty()) {
        releaseOneBufferSet(sets.front());
        released.splice(released.end(), sets, sets.begin());
    }
    recycleReadySets(released);
}

// =================================================================================================
// Dumps
// =================================================================================================

void FrameBufferManagerImpl::dumpState(IPrinter& printer) {
    dumpConfigStreams(printer);
    dumpBufferPools(printer);
    dumpBufferState(printer);
}

void FrameBufferManagerImpl::dumpConfigStreams(IPrinter& printer) {
    std::map<StreamId_T, std::shared_ptr<ConfigImageStream>> images;
    std::map<StreamId_T, std::shared_ptr<ConfigMetaStream>> metas;
    std::shared_ptr<std::vector<std::set<StreamId_T>>> groups;

    printer.printLine("<image streams>");
    {
        LockGuard<Mutex> lk(mConfigLock);
        images = mConfigImageStreams;
    }
    for (auto const& [id, c] : images) {
        if (!c) continue;
        std::string text = toString(c->attribute) + (c->info ? c->info->describe() : "");
        printer.printFormatLine("    %s", text.c_str());
    }
    printer.printLine("<meta streams>");
    {
        LockGuard<Mutex> lk(mConfigLock);
        metas = mConfigMetaStreams;
    }
    for (auto const& [id, c] : metas) {
        if (!c) continue;
        std::string text = toString(c->attribute) + (c->info ? c->info->describe() : "");
        printer.printFormatLine("    %s", text.c_str());
    }
    {
        LockGuard<Mutex> lk(mConfigLock);
        groups = mSharedStreamGroups;
    }
    if (groups && !groups->empty()) {
        printer.printLine("<pool-shared streams>");
        for (auto const& group : *groups) {
            std::ostringstream oss;
            oss << "(" << std::hex;
            appendIds(oss, group);
            oss << " )";
            printer.printFormatLine("    %s", oss.str().c_str());
        }
    }
    if (!mConfigLogLock.try_lock()) return;
    if (!mConfigLogs.empty()) {
        printer.printLine("<config messages>");
        for (auto const& l : mConfigLogs) printer.printFormatLine("    %s", l.c_str());
    }
    mConfigLogLock.unlock();
}

void FrameBufferManagerImpl::dumpBufferPools(IPrinter& printer) {
    printer.printLine("<image buffer pool>");
    std::map<StreamId_T, std::shared_ptr<ConfigImageStream>> images;
    {
        LockGuard<Mutex> lk(mConfigLock);
        images = mConfigImageStreams;
    }
    for (auto const& [id, c] : images) {
        if (c && c->pPool) c->pPool->dump();
    }
}

namespace {

// A printer that keeps the lines of a dump made under a lock, to print them once it is let go:
// the real printer may be a pipe to a debugging tool, and a slow reader must not hold up the
// frame path. Each line reaches the real printer through the operation it was printed with, so
// that printer formats and bounds it as it always did.
class DeferredPrinter : public IPrinter {
public:
    void printLine(char const* line) override { mLines.push_back({false, line ? line : ""}); }
    void printFormatLine(char const* format, ...) override {
        va_list args;
        va_start(args, format);
        va_list again;
        va_copy(again, args);
        int const n = std::vsnprintf(nullptr, 0, format, args);
        va_end(args);
        std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
        if (n > 0) std::vsnprintf(text.data(), text.size() + 1, format, again);
        va_end(again);
        mLines.push_back({true, std::move(text)});
    }
    // Prints what was kept to `printer` and forgets it.
    void flushTo(IPrinter& printer) {
        for (auto const& l : mLines) {
            if (l.formatted) printer.printFormatLine("%s", l.text.c_str());
            else printer.printLine(l.text.c_str());
        }
        mLines.clear();
    }

private:
    struct Line {
        bool formatted;
        std::string text;
    };
    std::vector<Line> mLines;
};

}  // namespace

void FrameBufferManagerImpl::dumpBufferState(IPrinter& printer) {
    DeferredPrinter lines;
    if (mInFlightLock.try_lock_for(kDumpLockWait)) {
        dumpInFlightListLocked(lines);
        mInFlightLock.unlock();
    } else {
        lines.printLine("Timeout waiting for mInFlightLock");
    }
    lines.flushTo(printer);
    if (mReadyLock.try_lock_for(kDumpLockWait)) {
        dumpReadyListLocked(lines);
        mReadyLock.unlock();
    } else {
        lines.printLine("Timeout waiting for mReadyLock");
    }
    lines.flushTo(printer);
}

void FrameBufferManagerImpl::dumpInFlightListLocked(IPrinter& printer) {
    printer.printLine("<InFlightList>");
    for (auto const& set : mInFlightList) {
        printer.printFormatLine("    [R%u F%u]TS:%lu #%zu left {%s} {%s} {%s}", set.requestNo,
                                set.frameNo, static_cast<unsigned long>(set.timestamp), set.remaining,
                                toString_BuffersStreamId(set.halImage).c_str(),
                                toString_BuffersStreamId(set.halMeta).c_str(),
                                toString_BuffersStreamId(set.appMeta).c_str());
    }
}

void FrameBufferManagerImpl::dumpReadyListLocked(IPrinter& printer) {
    printer.printLine("<ReadyList>");
    for (auto const& set : mReadyList) {
        printer.printFormatLine("    [R%u F%u]TS:%lu {%s} {%s} {%s}", set.requestNo, set.frameNo,
                                static_cast<unsigned long>(set.timestamp),
                                toString_BuffersStreamId(set.halImage).c_str(),
                                toString_BuffersStreamId(set.halMeta).c_str(),
                                toString_BuffersStreamId(set.appMeta).c_str());
    }
    std::ostringstream oss;
    for (auto const& [id, n] : mReadyStreamCounters) oss << id << "(" << n << ") ";
    printer.printFormatLine("mReadyStreamCounters: %s", oss.str().c_str());
}

// =================================================================================================
// Pool control
// =================================================================================================

int FrameBufferManagerImpl::triggerBufferPool(StreamId_T streamId) {
    auto config = queryConfigImageStream(streamId);
    if (!config || !config->allocInfo || !config->pPool) return 0;
    auto const& allocInfo = config->allocInfo;
    if (!allocInfo->isAllocDeferred()) return 0;
    return config->pPool->initProducer(allocInfo->maxBufNum(), allocInfo->minInitBufNum(),
                                       Allocator{allocInfo, generateImgParam(allocInfo.get())});
}

int FrameBufferManagerImpl::updateBufferPoolMaxBufCount(StreamId_T streamId, int& count) {
    auto config = queryConfigImageStream(streamId);
    if (!config || !config->allocInfo || !config->pPool) return 0;
    int32_t current = 0;
    int err = config->pPool->getMaxBuffer(current);
    if (err != 0) MY_LOGE("Stream(%s) getMaxBuffer failed!", config->allocInfo->describe().c_str());
    if (current == count) {
        MY_LOGW("Stream(%s) has already been set to maxBufCount = %d",
                config->allocInfo->describe().c_str(), count);
        return err;
    }
    return config->pPool->setMaxBufferCount(count);
}

int FrameBufferManagerImpl::getBufferPoolMaxBufCount(StreamId_T streamId, int& max, int& allocated) {
    auto config = queryConfigImageStream(streamId);
    if (!config || !config->allocInfo || !config->pPool) return 0;
    int result = 0;
    int err = config->pPool->getMaxBuffer(max);
    if (err != 0) {
        MY_LOGE("getMaxBuffer failed!");
        result = err;
    }
    err = config->pPool->getAllocatedBuffer(allocated);
    if (err != 0) {
        MY_LOGE("getAllocatedBuffer failed!");
        result = err;
    }
    return result;
}

}  // namespace NSCam::v3::pipeline

// =================================================================================================
// Entry
// =================================================================================================

extern "C" __attribute__((visibility("default"))) void createFrameBufferManager(
    std::shared_ptr<NSCam::v3::pipeline::IFrameBufferManager>* out, char const* name) {
    using NSCam::v3::pipeline::FrameBufferManagerImpl;
    if (out == nullptr) return;
    auto manager = std::make_shared<FrameBufferManagerImpl>(name);  // one allocation with its block
    manager->initialize(manager);
    *out = std::move(manager);
}
