// The manager's objects: its free functions and records, the metadata free worker, its lifecycle
// and the library's entry point. The rest of the class, in the order of a frame's road:
//   FrameBufferManagerConfig.cpp    configuration and pool set-up, before the first frame
//   FrameBufferManagerFrames.cpp    requests, tracking and results, keeping buffers
//   FrameBufferManagerHistory.cpp   selection and release of history sets
//   FrameBufferManagerDumps.cpp     dumps and pool control, from the side at any time
#define LOG_TAG "vexlor-ppl_fbm"
#define LOG_SRC_PATH "pipeline/pipeline/fbm/FrameBufferManager"

#include "FrameBufferManager.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <sstream>

#include <vexlor/LogScheme.h>
#include <vexlor/Properties.h>

namespace NSCam::v3::pipeline {

namespace {

constexpr char const kDebuggeeName[] = "NSCam::v3::IFrameBufferManager";

}  // namespace

void appendIds(std::ostringstream& oss, std::set<StreamId_T> const& ids) {
    for (auto id : ids) oss << " " << id;
}

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

std::string errText(int err) {
    char buf[128];
    return ::strerror_r(err, buf, sizeof buf);  // GNU variant: returns the text
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

void FrameBufferManagerImpl::debug(IPrinter* printer, std::vector<std::string> const& options) {
    if (printer == nullptr) return;
    dumpState(*printer);
    // For people and tools: the same moment's state as key=value lines, after the usual text.
    if (std::find(options.begin(), options.end(), "--state") != options.end()) {
        printState(*printer, takeState());
    }
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
