#pragma once
// Shared fixtures of the tests: a clean platform for each test, stream infos, and a manager whose
// internal state the tests may read.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <android/log.h>
#include <cutils/trace.h>
#include <vexlor/HostSeams.h>

#include "FrameBufferManager.h"

namespace fbmtest {

using namespace NSCam::v3;
using namespace NSCam::v3::pipeline;
namespace host = vexlor::host;
using SbPtr = std::shared_ptr<IImageStreamBuffer>;
using MetaPtr = std::shared_ptr<IMetaStreamBuffer>;

// Whether thread `tid` of this process sleeps (as on a futex); true when unreadable: no wait for ever.
inline bool threadSleeps(pid_t tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string text;
    if (!std::getline(stat, text)) return true;
    auto const close = text.rfind(')');  // the state follows the name, which may hold anything
    return close == std::string::npos || text.compare(close + 1, 3, " S ") == 0;
}

inline constexpr uint32_t kYuvFormat = 0x32315659;
inline constexpr uint32_t kBlobFormat = 0x21;

// Resets every seam of the stand-ins: default log switches, no properties, tracing off, counters.
class PlatformTest : public ::testing::Test {
protected:
    void SetUp() override {
        host::setULogSwitches(2, 0, 9);
        host::LogCapture::setCapturing(true);
        host::LogCapture::clear();
        host::clearProperties();
        host::resetWallClock();
        host::TraceRecorder::setEnabledTags(0);
        host::TraceRecorder::clear();
        host::HeapFactory::reset();
        host::HeapFactory::setRecordCalls(false);
        host::HeapFactory::setCreateHook(nullptr);
        host::StreamBufferFactory::failNextImage(0);
        host::StreamInfoFactory::failNextBuilder(0);
        host::StreamInfoFactory::failNextBuild(0);
        host::StreamBufferFactory::handOutAgain(nullptr);
        host::StreamBufferFactory::failNextMeta(0);
        host::StreamBufferFactory::failNextMetaLock(0);
        host::StreamBufferFactory::setImageStatus(0);
        host::DebuggeeRegistry::setPresent(true);
    }
    void TearDown() override {
        host::HeapFactory::failNext(0);
        host::HeapFactory::setCreateHook(nullptr);
        host::StreamBufferFactory::setMetaDestroyHook(nullptr);
        host::StreamBufferFactory::setMetaCreateHook(nullptr);
        host::LogCapture::setLineHook(nullptr);
    }
    // How many captured lines of each sink contain `text`.
    static size_t androidCount(std::string const& text) { return host::LogCapture::countAndroid(text); }
    static size_t ulogCount(std::string const& text) { return host::LogCapture::countULog(text); }
    static bool waitHeaps(std::function<bool(int64_t created, int64_t alive)> const& pred) {
        return host::HeapFactory::waitFor(pred, std::chrono::seconds(10));
    }
    // Waits (at most 10 s) until an Android log line containing `text` has been written since the
    // last clear, and returns whether one was.
    static bool waitForLine(std::string const& text) {
        std::mutex m;
        std::condition_variable cv;
        bool seen = false;
        host::LogCapture::setLineHook([&](std::string const& line) {
            if (line.find(text) == std::string::npos) return;
            std::lock_guard<std::mutex> lk(m);
            seen = true;
            cv.notify_all();
        });
        std::unique_lock<std::mutex> lk(m);
        bool const ok = cv.wait_for(lk, std::chrono::seconds(10),
                                    [&] { return seen || androidCount(text) > 0; });
        lk.unlock();
        host::LogCapture::setLineHook(nullptr);
        return ok;
    }
};

// Turns a hang into a failure that says where it hung: unless destroyed within `limit`, prints
// what `describe` says and aborts the test program.
class Watchdog {
public:
    Watchdog(std::chrono::seconds limit, std::function<std::string()> describe)
        : mThread([this, limit, describe = std::move(describe)] {
              std::unique_lock<std::mutex> lk(mLock);
              if (mCond.wait_for(lk, limit, [&] { return mDone; })) return;
              std::fprintf(stderr, "%s\n", describe().c_str());
              std::abort();
          }) {}
    ~Watchdog() {
        {
            std::lock_guard<std::mutex> lk(mLock);
            mDone = true;
        }
        mCond.notify_all();
        mThread.join();
    }

private:
    std::mutex mLock;
    std::condition_variable mCond;
    bool mDone = false;
    std::thread mThread;  // last: it starts once the members above exist
};

struct StreamSpec {
    StreamId_T id = 1;
    std::string name = "stream";
    uint32_t format = kYuvFormat;
    int32_t w = 640;
    int32_t h = 480;
    size_t max = 4;
    size_t min = 2;
    bool deferred = false;
    uint32_t secure = 0;
    size_t luma = 0;  // a YUV's first plane in bytes (w*h when 0); the second holds the rest of w*h*3/2
};

inline std::shared_ptr<IImageStreamInfo> imageInfo(StreamSpec const& s) {
    Utils::ImageStreamInfoParams p;
    p.name = s.name;
    p.id = s.id;
    p.format = s.format;
    p.size = {s.w, s.h};
    if (s.format == kBlobFormat || s.format == 0x2300) {
        p.planes.count = 1;
        p.planes.planes[0] = {static_cast<size_t>(s.w) * s.h, static_cast<size_t>(s.w) * s.h};
    } else {
        size_t const pixels = static_cast<size_t>(s.w) * s.h, luma = s.luma ? s.luma : pixels;
        p.planes.count = 2;
        p.planes.planes[0] = {luma, static_cast<size_t>(s.w)};
        p.planes.planes[1] = {pixels * 3 / 2 - luma, static_cast<size_t>(s.w)};
    }
    p.maxBufNum = s.max;
    p.minInitBufNum = s.min;
    p.deferred = s.deferred;
    p.attribute.secureWord = s.secure;
    return Utils::makeImageStreamInfo(p);
}

inline std::shared_ptr<IMetaStreamInfo> metaInfo(StreamId_T id, std::string const& name = "meta") {
    return Utils::makeMetaStreamInfo(name, id);
}

inline MetaPtr makeMeta(std::shared_ptr<IMetaStreamInfo> const& info, int64_t value = 0) {
    NSCam::IMetadata m;
    m.update(1, value);
    return Utils::makeHalMetaStreamBuffer({info, &m});
}

// The manager, with the locks a test may hold to stand for another thread, and what its state
// does not show (the settings it read, the configuration lines' list).
class TestManager : public FrameBufferManagerImpl {
public:
    using FrameBufferManagerImpl::FrameBufferManagerImpl;
    using FrameBufferManagerImpl::mConfigLogLock;
    using FrameBufferManagerImpl::mConfigLogs;
    using FrameBufferManagerImpl::mInFlightLock;
    using FrameBufferManagerImpl::mInSelectLock;
    using FrameBufferManagerImpl::mLogLevel;
    using FrameBufferManagerImpl::mReadyLock;

    // The ready list's frame numbers and counters, from the state.
    std::vector<uint32_t> readyFrames() {
        std::vector<uint32_t> out;
        for (auto const& s : takeState().ready) out.push_back(s.frameNo);
        return out;
    }
    std::map<StreamId_T, int32_t> readyCounters() { return takeState().readyCounters; }
};

inline std::shared_ptr<TestManager> makeManager(char const* name = "test") {
    auto m = std::make_shared<TestManager>(name);
    m->initialize(m);
    return m;
}

}  // namespace fbmtest
