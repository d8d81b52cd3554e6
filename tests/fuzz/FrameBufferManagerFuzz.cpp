// libFuzzer harness: input bytes become a sequence of calls on the manager's public interfaces
// (configure, request, track, results with arbitrary buffers and flags, selection, clones,
// release, pool control, dumps). After each sequence the pipeline lets go of everything, and then
// the invariants must hold: the ready counters agree with the ready list, no stream buffer is
// tracked, and once the manager ends no heap is alive. A broken invariant aborts (a crash).
#include <cstdio>
#include <cstdlib>
#include <list>

#include <vexlor/HostSeams.h>

#include "FrameBufferManager.h"

namespace {

using namespace NSCam::v3;
using namespace NSCam::v3::pipeline;
namespace host = vexlor::host;
using SbPtr = std::shared_ptr<IImageStreamBuffer>;
using MetaPtr = std::shared_ptr<IMetaStreamBuffer>;
using HBS = IHistoryBufferProvider::HistoryBufferSet;

void check(bool ok, char const* what) {
    if (ok) return;
    std::fprintf(stderr, "invariant broken: %s\n", what);
    std::abort();
}

class Bytes {
public:
    Bytes(uint8_t const* p, size_t n) : mP(p), mN(n) {}
    uint8_t next() {
        if (mN == 0) return 0;
        --mN;
        return *mP++;
    }
    bool done() const { return mN == 0; }

private:
    uint8_t const* mP;
    size_t mN;
};

class Manager : public FrameBufferManagerImpl {
public:
    using FrameBufferManagerImpl::FrameBufferManagerImpl;
    void checkCounters() {
        NSCam::LockGuard<NSCam::TimedMutex> lk(mReadyLock);
        std::map<StreamId_T, int32_t> expected;
        for (auto const& set : mReadyList)
            for (auto const& image : set.halImage)
                if (image) ++expected[*getPoolStreams(image->streamInfoOf()->streamId()).begin()];
        for (auto const& [key, n] : mReadyStreamCounters) check(n == expected[key], "ready counters");
    }
};

class Provider : public IStreamBufferProvider {
public:
    int requestStreamBuffer(ImageStreamBufferCallback const& cb, Request const& req) override {
        if (++mCalls % 5 == 0) return -EIO;
        auto heap = nivo::IImageBufferHeapFactory::create("p", req.pStreamInfo->streamName(), {}, false);
        cb(Utils::makeHalImageStreamBuffer({req.pStreamInfo, heap, nullptr, nullptr}));
        return 0;
    }
    int mCalls = 0;
};

class NullPrinter : public NSCam::IPrinter {
public:
    void printLine(char const*) override {}
    void printFormatLine(char const*, ...) override {}
};

std::shared_ptr<IImageStreamInfo> image(StreamId_T id, char const* name, size_t max, bool deferred = false,
                                        int32_t w = 64) {
    Utils::ImageStreamInfoParams p;
    p.name = name;
    p.id = id;
    p.format = 0x32315659;
    p.size = {w, 48};
    p.planes.count = 2;
    p.planes.planes[0] = {static_cast<size_t>(w) * 48, static_cast<size_t>(w)};
    p.planes.planes[1] = {static_cast<size_t>(w) * 24, static_cast<size_t>(w)};
    p.maxBufNum = max;
    p.minInitBufNum = 1;
    p.deferred = deferred;
    return Utils::makeImageStreamInfo(p);
}

struct Pipeline {
    std::shared_ptr<Manager> m = std::make_shared<Manager>("fuzz");
    std::vector<std::shared_ptr<IImageStreamInfo>> images;
    std::vector<std::shared_ptr<IMetaStreamInfo>> metas{Utils::makeMetaStreamInfo("hal", 0x100),
                                                        Utils::makeMetaStreamInfo("app", 0x101)};
    std::vector<SbPtr> held;  // the pipeline's own buffers
    std::list<HBS> selected;  // sets the selector keeps for itself
    std::shared_ptr<Provider> provider = std::make_shared<Provider>();

    void configure(Bytes& in) {
        m->initialize(m);
        uint8_t const shape = in.next();
        images = {image(0x1, "preview", 1 + shape % 3), image(0x2, "fullA", 3), image(0x3, "fullB", 3),
                  image(0x4, "runtime", 1), image(0x5, "halProv", 1), image(0x6, "appProv", 1),
                  image(0x7, "deferred", 2, true)};
        IFrameBufferManager::ConfigureStreams cfg;
        cfg.sharedGroups = std::make_shared<std::vector<std::set<StreamId_T>>>();
        if (shape & 0x10) cfg.sharedGroups->push_back({0x2, 0x3});
        if (shape & 0x20) cfg.sharedGroups->push_back({0x1, 0x4, 0x9});  // mixed: warnings
        StreamAttribute const attrs[] = {eHAL_IMAGE_POOL,     eHAL_IMAGE_POOL,     eHAL_IMAGE_POOL,
                                         eHAL_IMAGE_RUNTIME,  eHAL_IMAGE_PROVIDER, eAPP_IMAGE_PROVIDER,
                                         eHAL_IMAGE_POOL};
        for (size_t i = 0; i < images.size(); ++i) {
            bool const provided = bufferSourceOf(attrs[i]) == eBUFFER_SOURCE_PROVIDER;
            cfg.imageStreams.push_back({images[i], attrs[i], provided ? provider : nullptr});
        }
        cfg.metaStreams = {{metas[0], eHAL_META}, {metas[1], eAPP_META}};
        if (shape & 0x40) m->beginConfigure();
        check(m->configureStreams(cfg) == 0, "configureStreams");
        m->endConfigure();
        // Requests right after set-up would wait for the pools' first heaps.
        host::HeapFactory::waitFor([&](int64_t, int64_t) {
            for (StreamId_T id : {0x1, 0x2, 0x4}) {
                int max = 0, allocated = 0;
                m->getBufferPoolMaxBufCount(id, max, allocated);
                if (allocated < max) return false;
            }
            return true;
        });
    }

    void request(Bytes& in) {
        uint8_t const pick = in.next();
        auto const& info = images[pick % images.size()];
        // A pool with no heap waiting and nothing to release waits out its time-out in 10 ms
        // slices: asked for only now and then, to keep the fuzzer fast.
        auto config = m->queryConfigImageStream(info->streamId());
        if (config && config->allocInfo && (pick & 0xF0) != 0xF0) {
            auto const occupancy = host::HeapFactory::occupancy();
            auto it = occupancy.find(config->allocInfo->streamName());
            if (it == occupancy.end() || it->second.idle == 0) return;
        }
        SbPtr got;
        m->requestStreamBuffer([&](SbPtr const& sb) { got = sb; }, {1, 1, info});
        if (got) held.push_back(std::move(got));
        if (held.size() > 12) releaseHeld(0);
    }

    void releaseHeld(size_t i) {
        if (held.empty()) return;
        i %= held.size();
        held[i]->releaseToOwner();
        held.erase(held.begin() + static_cast<std::ptrdiff_t>(i));
    }

    void track(Bytes& in) {
        uint8_t const frame = in.next() % 8, mask = in.next();
        auto p = std::make_shared<TrackFrameResultParams>();
        for (size_t i = 0; i < images.size(); ++i)
            if (mask & (1u << i)) p->halImage.insert(images[i]->streamId());
        if (mask & 0x80) p->halMeta.insert(0x100);
        if (in.next() & 1) p->appMeta.insert(0x101);
        p->isRecyclable = in.next() % 4 != 0;
        m->trackFrameResult({frame, frame, p});
    }

    void result(Bytes& in) {
        uint8_t const frame = in.next() % 8, flags = in.next(), picks = in.next();
        std::vector<SbPtr> offered, toRelease;
        std::vector<MetaPtr> halMeta, appMeta;
        for (size_t i = 0; i < held.size(); ++i)
            if (picks & (1u << (i % 8))) offered.push_back(held[i]);
        if (flags & 0x10) {  // the pipeline is done with what it offered
            for (auto const& sb : offered) {
                toRelease.push_back(sb);
                held.erase(std::find(held.begin(), held.end(), sb));
            }
        }
        if (flags & 0x20) toRelease.push_back(nullptr);
        NSCam::IMetadata md;
        md.update(1, frame);
        if (flags & 0x40) halMeta.push_back(Utils::makeHalMetaStreamBuffer({metas[0], &md}));
        if (flags & 0x80) appMeta.push_back(Utils::makeHalMetaStreamBuffer({metas[1], &md}));
        if (flags & 0x08) halMeta.push_back(nullptr);
        int64_t const ts = (flags & 3) == 0 ? 0 : (flags & 3) == 1 ? -5 : int64_t(in.next()) * 10;
        IPipelineFrameHalResultProcessor::ReturnResult r;
        r.frameNo = frame;
        r.requestNo = frame;
        r.timestamp = ts;
        r.isFrameDestroyed = flags & 4;
        r.halImage = (flags & 0x02) && offered.empty() ? nullptr : &offered;
        r.halImageToRelease = &toRelease;
        r.halMeta = &halMeta;
        r.appMeta = (flags & 0x01) ? &appMeta : nullptr;
        m->returnResult(r);
        check(toRelease.empty() && halMeta.empty(), "lists emptied");
    }

    void select(Bytes& in) {
        auto sets = m->beginSelect();
        for (auto& s : selected) m->returnUnselectedSet({s, false});
        selected.clear();
        for (auto& s : sets) {
            switch (in.next() % 3) {
                case 0: m->returnUnselectedSet({s, true}); break;
                case 1: m->returnUnselectedSet({s, false}); break;
                default: selected.push_back(std::move(s)); break;
            }
        }
        if (!selected.empty() && (in.next() & 1)) selected.push_back(m->cloneHBS(selected.front()));
        m->endSelect();
    }

    // Everything the pipeline and the selector hold goes back; unfinished frames are destroyed.
    void finish() {
        while (!held.empty()) releaseHeld(0);
        auto sets = m->beginSelect();
        for (auto& s : selected) m->returnUnselectedSet({s, false});
        for (auto& s : sets) m->returnUnselectedSet({s, false});
        selected.clear();
        m->endSelect();
        // A frame number may be tracked twice; each destroyed result ends the older set.
        for (auto frames = m->peekInflights(); !frames.empty(); frames = m->peekInflights()) {
            for (auto const& [frame, params] : frames) {
                IPipelineFrameHalResultProcessor::ReturnResult r;
                r.frameNo = frame;
                r.isFrameDestroyed = true;
                m->returnResult(r);
            }
        }
        check(m->peekInflights().empty(), "no frame left in flight");
        m->checkCounters();
        check(host::StreamBufferFactory::imageAlive() == 0, "no stream buffer tracked");
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    static bool const once = [] {
        host::setULogSwitches(0, 0, 0);
        host::LogCapture::setCapturing(false);
        host::setProperty("vendor.debug.camera.pipeline.fbm.acquire.timeout", 0);
        host::DebuggeeRegistry::setPresent(false);
        return true;
    }();
    (void)once;
    Bytes in(data, size);
    {
        Pipeline p;
        p.configure(in);
        NullPrinter printer;
        for (int ops = 0; ops < 48 && !in.done(); ++ops) {
            switch (in.next() % 11) {
                case 0: case 1: p.request(in); break;
                case 2: p.track(in); break;
                case 3: case 4: p.result(in); break;
                case 5: p.select(in); break;
                case 6: p.releaseHeld(in.next()); break;
                case 7: {
                    int max = 1 + in.next() % 5;
                    p.m->updateBufferPoolMaxBufCount(p.images[in.next() % p.images.size()]->streamId(), max);
                    break;
                }
                case 8: p.m->triggerBufferPool(0x7); break;
                case 9: p.m->dumpState(printer); break;
                default: p.m->enableFrameResultRecyclable(in.next(), true); break;
            }
        }
        p.finish();
    }
    check(host::HeapFactory::waitFor([](int64_t, int64_t alive) { return alive == 0; },
                                     std::chrono::seconds(5)),
          "no heap alive once the manager ended");
    check(host::StreamBufferFactory::metaAlive() == 0 ||
              host::HeapFactory::waitFor([](int64_t, int64_t) { return host::StreamBufferFactory::metaAlive() == 0; },
                                         std::chrono::seconds(5)),
          "no metadata buffer alive");
    return 0;
}
