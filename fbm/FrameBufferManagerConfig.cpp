// The manager before its first frame: configuration, the streams' records and their pools.
#define LOG_TAG "vexlor-ppl_fbm"
#define LOG_SRC_PATH "pipeline/pipeline/fbm/FrameBufferManager"

#include "FrameBufferManager.h"

#include <cstdarg>
#include <cstdio>

#include <vexlor/LogScheme.h>
#include <vexlor/Trace.h>

using NSCam::Utils::ScopedTrace;
using NSCam::Utils::ULog::ULogPrinter;

namespace NSCam::v3::pipeline {

namespace {

constexpr uint32_t kBlobFormat = 0x2300;
constexpr uint32_t kBlobFormatJpeg = 0x21;
constexpr uint32_t kDefaultUsage = 0x08C20000;

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

}  // namespace

// =================================================================================================
// Configuration
// =================================================================================================

void FrameBufferManagerImpl::beginConfigure() {
    LockGuard<Mutex> lk(mConfigLock);
    // Lines of earlier configurations stay and are dumped together: a mode switch's warnings
    // are read beside those of the configuration it replaced.
    mConfigPrinter = makeConfigPrinter();  // std::make_shared throws rather than give nothing
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

std::shared_ptr<std::vector<std::set<StreamId_T>>> FrameBufferManagerImpl::poolGroups() const {
    LockGuard<Mutex> lk(mConfigLock);
    return mPoolGroups;
}

FrameBufferManagerImpl::PoolStreams FrameBufferManagerImpl::poolStreamsOf(StreamId_T streamId) const {
    return PoolStreams(poolGroups(), streamId);
}

std::set<StreamId_T> FrameBufferManagerImpl::getPoolStreams(StreamId_T streamId) const {
    std::set<StreamId_T> out;
    poolStreamsOf(streamId).forEach([&out](StreamId_T id) { out.insert(id); });
    return out;
}

StreamId_T FrameBufferManagerImpl::poolKeyOf(std::vector<std::set<StreamId_T>> const* groups,
                                             StreamId_T streamId) {
    if (groups == nullptr) return streamId;
    for (auto const& group : *groups) {
        if (group.count(streamId) != 0) return *group.begin();
    }
    return streamId;
}

void FrameBufferManagerImpl::storeImageStream(std::shared_ptr<ConfigImageStream> record,
                                              std::vector<std::shared_ptr<ConfigImageStream>>& replaced) {
    StreamId_T const id = record->info->streamId();
    LockGuard<Mutex> lk(mConfigLock);
    auto& slot = mConfigImageStreams[id];
    if (slot) replaced.push_back(std::move(slot));
    slot = std::move(record);
    // The members of a shared pool are the streams whose pool allocates from its one derived info.
    std::map<IImageStreamInfo const*, std::set<StreamId_T>> byAllocInfo;
    for (auto const& [streamId, c] : mConfigImageStreams) {
        if (c->pPool && c->allocInfo) byAllocInfo[c->allocInfo.get()].insert(streamId);
    }
    auto groups = std::make_shared<std::vector<std::set<StreamId_T>>>();
    for (auto& [info, ids] : byAllocInfo) {
        if (ids.size() >= 2) groups->push_back(std::move(ids));
    }
    // None at all is the usual case: readers then copy an empty handle, which costs no count.
    mPoolGroups = groups->empty() ? nullptr : std::move(groups);
}

void FrameBufferManagerImpl::retireReplacedPools(std::vector<std::shared_ptr<ConfigImageStream>>& replaced) {
    if (replaced.empty()) return;
    std::map<StreamId_T, std::shared_ptr<ConfigImageStream>> configured;
    {
        LockGuard<Mutex> lk(mConfigLock);
        configured = mConfigImageStreams;
    }
    // A pool-shared group's heap pool lives on while any configured stream draws from it.
    std::set<BufferHeapPool const*> inUse;
    for (auto const& [id, c] : configured) {
        if (c->pPool) inUse.insert(c->pPool->heapPool().get());
    }
    for (auto const& old : replaced) {
        if (!old->pPool) continue;
        auto pool = old->pPool->heapPool();
        if (pool && inUse.count(pool.get()) == 0) pool->retire();
    }
    replaced.clear();  // the records go; producers with buffers out live on in those buffers
}

// =================================================================================================
// Pool set-up
// =================================================================================================

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
    std::set<StreamId_T> ids;
    for (auto const& s : streams) {
        if (s.info && !ids.insert(s.info->streamId()).second) {
            configPrinter()->printFormatLine("WARNING [%s] two image streams with streamId:%s: the "
                                             "last configured is kept",
                                             fn, toHexString(s.info->streamId()).c_str());
        }
    }
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
    std::vector<std::shared_ptr<ConfigImageStream>> replaced;  // their pools retire at the end
    int const err = bufferSourceOf(group.attribute) == eBUFFER_SOURCE_PROVIDER
                        ? addProviderStreams(group, replaced)
                        : addPoolStreams(group, replaced);
    retireReplacedPools(replaced);
    {
        // The streams' pools are new: so are their counts.
        LockGuard<TimedMutex> lk(mReadyLock);
        for (auto const& info : group.infos) {
            if (info) mReleasedUnderPressure.erase(info->streamId());
        }
    }
    return err;
}

int FrameBufferManagerImpl::addProviderStreams(AddImageStreams const& group,
                                               std::vector<std::shared_ptr<ConfigImageStream>>& replaced) {
    char const* const fn = "addImageStreams";
    for (auto const& info : group.infos) {
        if (!group.provider) {
            MY_LOGE_AS(fn, "[%s] Bad provider", info->describe().c_str());
            return -EINVAL;
        }
        auto record = std::make_shared<ConfigImageStream>();
        record->info = info;
        record->attribute = group.attribute;
        record->provider = group.provider;
        storeImageStream(std::move(record), replaced);
    }
    return 0;
}

int FrameBufferManagerImpl::addPoolStreams(AddImageStreams const& group,
                                           std::vector<std::shared_ptr<ConfigImageStream>>& replaced) {
    char const* const fn = "addImageStreams";
    if (group.infos.empty()) {
        MY_LOGW_AS(fn, "empty stream info");
        return 0;
    }
    if (bufferSourceOf(group.attribute) == eBUFFER_SOURCE_POOL) {
        for (auto const& info : group.infos) {
            if (info && !canServe(*info)) return -EINVAL;
        }
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
            MY_LOGE_AS(fn, "[%s] Failed on createHalStreamBufferPool", info->describe().c_str());
            return -EINVAL;
        }
        if (!sharedProducer && derived) sharedProducer = producer;
        auto record = std::make_shared<ConfigImageStream>();
        record->info = info;
        record->allocInfo = allocInfo;
        record->attribute = group.attribute;
        record->pPool = std::move(producer);
        storeImageStream(std::move(record), replaced);
    }
    return 0;
}

bool FrameBufferManagerImpl::canServe(IImageStreamInfo const& info) const {
    MSize const size = info.imageSize();
    if (info.maxBufNum() != 0 && size.w > 0 && size.h > 0) return true;
    // Its requests would wait out every time-out for a heap that is never made.
    MY_LOGE_AS("addImageStreams", "[%s] a POOL stream that can never serve: maxBufNum(%zu) size(%dx%d)",
               info.describe().c_str(), info.maxBufNum(), size.w, size.h);
    return false;
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

}  // namespace NSCam::v3::pipeline
