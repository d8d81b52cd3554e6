#pragma once
// The simulated pipeline of one camera: its parts live in files of their own, by role.
//   FrameDriver.cpp     configuration and the frames: tracking, requests, pool changes, the run
//                       from start to end
//   ResultReturner.cpp  results in batches from their own threads, and the pipeline's releases
//   Selector.cpp        the selector: selections, sets held for processing, clones
//   Report.cpp          samples, the dump, memory, and the printed report
// Threads: the requesting thread runs the frames; each result returner has its thread and its
// queue; the selector has its thread (none of these with --result-threads 0, where everything
// runs on the requesting thread and every count repeats for a seed).
#include "Simulation.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <fstream>
#include <list>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include <cutils/trace.h>
#include <fbm/IFrameBufferManager.h>
#include <fbm/IFrameBufferManagerState.h>
#include <vexlor/HostSeams.h>
#include <vexlor/ULog.h>

namespace fbmsim::detail {

using namespace NSCam::v3;
using namespace NSCam::v3::pipeline;
namespace host = vexlor::host;
using SbPtr = std::shared_ptr<IImageStreamBuffer>;
using MetaPtr = std::shared_ptr<IMetaStreamBuffer>;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kYuvFormat = 0x32315659;
constexpr uint32_t kBlobFormat = 0x21;

double residentMb();
std::shared_ptr<IImageStreamInfo> makeInfo(ImageStreamCfg const& c);
// What a provider allocates for a stream: its format and its planes.
nivo::IImageBufferAllocator::ImgParam paramOf(IImageStreamInfo const& info);

// A provider of the simulated pipeline: a buffer over a fresh heap per request.
class SimProvider : public IStreamBufferProvider {
public:
    int requestStreamBuffer(ImageStreamBufferCallback const& callback, Request const& request) override {
        auto heap = nivo::IImageBufferHeapFactory::create("sim-provider", request.pStreamInfo->streamName(),
                                                          paramOf(*request.pStreamInfo), false);
        callback(Utils::makeHalImageStreamBuffer({request.pStreamInfo, heap, nullptr, nullptr}));
        return 0;
    }
};

struct Batch {
    uint32_t frameNo = 0;
    int64_t timestamp = 0;
    bool destroyed = false;
    std::vector<SbPtr> images;
    std::vector<SbPtr> toRelease;
    std::vector<MetaPtr> halMeta;
    std::vector<MetaPtr> appMeta;
    std::shared_ptr<std::atomic<int>> batchesLeft;  // of the frame
};

class Simulation {
public:
    Simulation(Scenario const& sc, Options const& opt, std::ostream& dumpOut)
        : mSc(sc), mOpt(opt), mDumpOut(dumpOut), mRng(opt.seed) {}

    // Configures, runs every frame and lets the selector go of everything; false when the
    // configuration failed. Then heapsInUse() while every pipeline's buffers are back, and end().
    bool run();
    std::string heapsInUse() const;
    void end();
    RunReport& report() { return mR; }

private:
    struct Image {
        ImageStreamCfg cfg;
        std::shared_ptr<IImageStreamInfo> info;
        bool active = true;
        size_t report = 0;  // index into the report's streams
    };
    struct Meta {
        MetaStreamCfg cfg;
        std::shared_ptr<IMetaStreamInfo> info;
    };
    struct Held {
        IHistoryBufferProvider::HistoryBufferSet set;
        uint32_t age = 0;
    };
    struct Worker {
        std::mutex lock;
        std::condition_variable cond;
        std::deque<Batch> queue;
        bool stop = false;
        std::thread thread;
    };

    bool configure();
    // With synchronous results, waits until every active pool holds the heaps its worker is
    // making (after configuration, a trigger or a raised maximum): a request that finds a pool
    // still filling may release history sets early or wait a slice, and how often that happens
    // would depend on the machine rather than on the seed.
    void settlePoolsIfSynchronous();
    void frame(uint32_t f);
    void dispatch(Batch&& b);
    void processBatch(Batch& b);
    void workerLoop(Worker& w, uint64_t seed);
    void selectorLoop();
    void selectOnce(bool final);
    void sample(uint32_t f);
    void dumpState();
    void gatherMemory();
    void progress(uint32_t f, bool done);

    Scenario mSc;
    Options mOpt;
    std::ostream& mDumpOut;
    std::mt19937_64 mRng;  // the requesting thread's
    RunReport mR;
    std::shared_ptr<IFrameBufferManager> mManager;
    std::shared_ptr<IFrameBufferManagerState> mState;  // the manager's state side
    std::shared_ptr<IPipelineFrameStreamBufferProvider> mProvider;
    std::shared_ptr<IPipelineFrameHalResultProcessor> mProcessor;
    std::shared_ptr<SimProvider> mStreamProvider = std::make_shared<SimProvider>();
    std::vector<Image> mImages;
    std::vector<Meta> mMetas;
    std::set<std::string> mPoolNames;  // the pools of POOL streams (streams' or groups' allocations)
    SbPtr mForgotten;                  // --inject-leak
    std::vector<std::unique_ptr<Worker>> mWorkers;
    std::mt19937_64 mDispatchRng{0};

    std::mutex mFlightLock;
    std::condition_variable mFlightCond;
    uint32_t mInFlight = 0;

    std::mutex mSelLock;
    std::condition_variable mSelCond;
    uint32_t mSelPending = 0;
    bool mSelStop = false;
    std::thread mSelector;
    std::mt19937_64 mSelRng{0};
    std::list<Held> mHeld;  // selector thread only
    std::atomic<uint64_t> mReadyJoins{0};

    Clock::time_point mStart;
    uint32_t mSampleEvery = 1;
    int mLastPercent = -1;
    Clock::time_point mNextProgressLine;
};

}  // namespace fbmsim::detail
