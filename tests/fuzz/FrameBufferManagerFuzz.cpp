// libFuzzer harness: input bytes become a sequence of calls on the manager's public interfaces
// (request, track, results with arbitrary buffers and flags, selection, clones, release, pool
// control, dumps) on a configured pipeline. After each sequence the pipeline lets go of
// everything, and then the invariants must hold: no frame in flight, the ready counters agree
// with the ready list, no stream buffer is tracked, every heap of the pipeline waits in its pool,
// no metadata buffer is alive; and whenever a manager ends, no heap it made is alive. A broken
// invariant aborts (a crash). Pipelines are kept from input to input (see pipelines()): a crash
// may need the inputs run before it, which libFuzzer's crash-*/ files do not carry.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <set>

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
    // Whether releasing the set the manager would pick to feed this stream's pool gives a heap
    // back: the oldest recyclable ready set holding an image of the pool, on a heap that nobody
    // else holds (the pipeline, the selector, another set, a frame in flight). Otherwise the
    // request would wait out its time-out.
    bool releaseFeeds(StreamId_T id, std::vector<SbPtr> const& held, std::list<HBS> const& selected) {
        auto const pool = getPoolStreams(id);
        std::multiset<nivo::IImageBufferHeap const*> holders;
        auto hold = [&](SbPtr const& image) {
            if (image) holders.insert(image->imageBufferHeap().get());
        };
        for (auto const& sb : held) hold(sb);
        for (auto const& set : selected) std::for_each(set.halImage.begin(), set.halImage.end(), hold);
        {
            NSCam::LockGuard<NSCam::TimedMutex> lk(mInFlightLock);
            for (auto const& frame : mInFlightList) std::for_each(frame.halImage.begin(), frame.halImage.end(), hold);
        }
        NSCam::LockGuard<NSCam::TimedMutex> lk(mReadyLock);
        for (auto const& set : mReadyList) std::for_each(set.halImage.begin(), set.halImage.end(), hold);
        auto ofPool = [&](SbPtr const& image) {
            return image && pool.count(image->streamInfoOf()->streamId()) != 0;
        };
        for (auto const& set : mReadyList) {
            if (!set.isRecyclable || std::none_of(set.halImage.begin(), set.halImage.end(), ofPool)) continue;
            return std::any_of(set.halImage.begin(), set.halImage.end(), [&](SbPtr const& image) {
                return ofPool(image) && holders.count(image->imageBufferHeap().get()) == 1;
            });
        }
        return false;
    }
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

std::shared_ptr<IImageStreamInfo> image(StreamId_T id, std::string const& name, size_t max, bool deferred = false,
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

std::string hex(StreamId_T id) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%#lx", static_cast<long>(id));
    return buf;
}

// Inputs run so far.
uint64_t gInputs = 0;

// A call that costs far more than a whole input runs at most once in `every` inputs: the inputs
// that reach it breed more of their kind, and the run would spend its time on them.
class Budget {
public:
    explicit Budget(uint64_t every) : mEvery(every) {}
    bool take() {
        if (mLast != 0 && gInputs - mLast < mEvery) return false;
        mLast = gInputs;
        return true;
    }

private:
    uint64_t const mEvery;
    uint64_t mLast = 0;
};
Budget gTimeOuts(1000);  // a request that waits out its 10 ms time-out
Budget gTriggers(100);   // triggering an untriggered deferred pool, which costs a new pipeline

struct Pipeline {
    std::shared_ptr<Manager> m = std::make_shared<Manager>("fuzz");
    std::vector<std::shared_ptr<IImageStreamInfo>> images;
    std::vector<std::shared_ptr<IMetaStreamInfo>> metas;
    std::vector<SbPtr> held;  // the pipeline's own buffers
    std::list<HBS> selected;  // sets the selector keeps for itself
    std::shared_ptr<Provider> provider = std::make_shared<Provider>();

    std::map<StreamId_T, int> configuredMax;  // what every input starts from
    bool triggered = false;                   // the deferred pool: cannot be undone

    // Each pipeline has its own stream ids and names, so its heaps (named after its streams or,
    // when shared, its ids) are told apart from those of the other pipelines kept alive.
    StreamId_T base = 0;
    std::string suffix;
    StreamId_T id(StreamId_T low) const { return base | low; }

    void configure(uint8_t shape) {
        static uint32_t instances = 0;  // a pipeline keeps its names when it changes places
        uint32_t const instance = ++instances % (1u << 20);
        base = StreamId_T{instance} << 12;
        suffix = "." + std::to_string(instance);
        metas = {Utils::makeMetaStreamInfo("hal" + suffix, id(0x100)), Utils::makeMetaStreamInfo("app" + suffix, id(0x101))};
        m->initialize(m);
        std::string const& k = suffix;
        images = {image(id(0x1), "preview" + k, 1 + shape % 3), image(id(0x2), "fullA" + k, 3),
                  image(id(0x3), "fullB" + k, 3),         image(id(0x4), "runtime" + k, 1),
                  image(id(0x5), "halProv" + k, 1),       image(id(0x6), "appProv" + k, 1),
                  image(id(0x7), "deferred" + k, 2, true)};
        IFrameBufferManager::ConfigureStreams cfg;
        cfg.sharedGroups = std::make_shared<std::vector<std::set<StreamId_T>>>();
        if (shape & 0x10) cfg.sharedGroups->push_back({id(0x2), id(0x3)});
        if (shape & 0x20) cfg.sharedGroups->push_back({id(0x1), id(0x4), id(0x9)});  // mixed: warnings
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
        if (shape & 0x80) trigger();
        recordPools();
    }

    void trigger() {
        m->triggerBufferPool(id(0x7));
        triggered = true;
    }

    // The pools as they are now become what every input starts from.
    void recordPools() {
        configuredMax.clear();
        for (auto const& info : images) {
            int max = 0, allocated = 0;
            if (m->getBufferPoolMaxBufCount(info->streamId(), max, allocated) == 0) configuredMax[info->streamId()] = max;
        }
        waitForPools();
    }

    // Requests right after the pools were sized would wait for their heaps in 10 ms slices.
    void waitForPools() {
        host::HeapFactory::waitFor([&](int64_t, int64_t) {
            for (auto const& [id, configured] : configuredMax) {
                int max = 0, allocated = 0;
                m->getBufferPoolMaxBufCount(id, max, allocated);
                if (allocated != max) return false;
            }
            return true;
        });
    }

    // Puts the pools back to their maximums for the next input.
    void restore() {
        bool changed = false;
        for (auto const& [id, configured] : configuredMax) {
            int max = 0, allocated = 0;
            m->getBufferPoolMaxBufCount(id, max, allocated);
            if (max == configured) continue;
            int restored = configured;
            m->updateBufferPoolMaxBufCount(id, restored);
            changed = true;
        }
        if (changed) waitForPools();
    }

    void request(Bytes& in) {
        uint8_t const pick = in.next();
        auto const& info = images[pick % images.size()];
        // A pool with no heap to spare waits a 10 ms slice before it gives up or is fed by the
        // release of history sets; a shrinking pool frees its waiting heaps first, so only those
        // beyond its surplus are to spare. It is asked anyway now and then when the ready list
        // holds its heaps (the release path), and rarely when nothing does (the time-out).
        auto config = m->queryConfigImageStream(info->streamId());
        if (config && config->allocInfo) {
            int max = 0, allocated = 0;
            m->getBufferPoolMaxBufCount(info->streamId(), max, allocated);
            auto const idle = host::HeapFactory::occupancyOf(config->allocInfo->streamName()).idle;
            if (idle <= std::max(0, allocated - max)) {
                bool const release = (pick & 0xF0) == 0xF0 && m->releaseFeeds(info->streamId(), held, selected);
                if (!release && !(pick == 0xFF && gTimeOuts.take())) return;
            }
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
        if (mask & 0x80) p->halMeta.insert(id(0x100));
        if (in.next() & 1) p->appMeta.insert(id(0x101));
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
        // Every heap of the pipeline's pools waits in its pool: nobody but the pool holds one.
        for (auto const& info : images) {
            auto config = m->queryConfigImageStream(info->streamId());
            if (!config || !config->allocInfo || !config->pPool) continue;
            auto const o = host::HeapFactory::occupancyOf(config->allocInfo->streamName());
            check(o.idle == o.alive, "every heap back in its pool");
        }
    }
};

// A pipeline per configuration, kept from input to input: a manager and its pool workers cost
// more to start and stop than a whole input costs to run. Each input starts from its pipeline as
// configured, the deferred pool triggered or not as the input's first byte says. A pipeline whose
// deferred pool an input triggered cannot go back: it takes the place of the triggered
// configuration when that is free, or it ends.
std::map<uint8_t, std::unique_ptr<Pipeline>>& pipelines() {
    static auto* p = new std::map<uint8_t, std::unique_ptr<Pipeline>>;
    return *p;
}

// Once a manager has ended, no heap it made may be alive.
void end(std::unique_ptr<Pipeline> p) {
    std::vector<std::string> names;
    for (auto const& info : p->images) names.push_back(info->streamName());
    names.push_back("shared-" + hex(p->id(0x2)) + "-" + hex(p->id(0x3)));
    p.reset();
    check(host::HeapFactory::waitFor(
              [&](int64_t, int64_t) {
                  for (auto const& name : names)
                      if (host::HeapFactory::occupancyOf(name).alive != 0) return false;
                  return true;
              },
              std::chrono::seconds(5)),
          "no heap alive once the manager ended");
    // Forgets the names of heaps no longer alive: a lookup by name slows down as pipelines come
    // and go, each with names of its own.
    host::HeapFactory::resetPeaks();
}

// At the end of a run every pipeline kept ends, and then no heap at all may be alive.
void endAll() {
    auto& all = pipelines();
    while (!all.empty()) {
        auto p = std::move(all.begin()->second);
        all.erase(all.begin());
        end(std::move(p));
    }
    check(host::HeapFactory::waitFor([](int64_t, int64_t alive) { return alive == 0; }, std::chrono::seconds(5)),
          "no heap alive once every manager ended");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    static bool const once = [] {
        host::setULogSwitches(0, 0, 0);
        host::LogCapture::setCapturing(false);
        host::setProperty("vendor.debug.camera.pipeline.fbm.acquire.timeout", 0);
        host::DebuggeeRegistry::setPresent(false);
        std::atexit(endAll);
        return true;
    }();
    (void)once;
    ++gInputs;
    Bytes in(data, size);
    // The configuration's bytes: the preview pool's maximum and the sharing groups. Whether the
    // configuration was opened with beginConfigure only changes where its warnings go.
    uint8_t const shape = in.next();
    uint8_t const key = static_cast<uint8_t>((shape % 3) | (shape & 0xF0));
    auto& slot = pipelines()[key];
    if (!slot) {
        slot = std::make_unique<Pipeline>();
        slot->configure(shape);
    }
    {
        Pipeline& p = *slot;
        NullPrinter printer;
        bool dumped = false;
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
                case 8: {
                    // Triggering the deferred pool makes the pipeline one of another kind, which
                    // costs a new pipeline: rare here, as inputs may also start with it triggered.
                    uint8_t const which = in.next();
                    if (which == 0xA7 && (p.triggered || gTriggers.take())) p.trigger();
                    else p.m->triggerBufferPool(p.images[which % 6]->streamId());  // not deferred: no-op
                    break;
                }
                case 9:
                    // One dump an input: a dump costs as much as a dozen other calls, and what it
                    // covers depends on the state it prints, not on how often it prints.
                    if (!dumped) p.m->dumpState(printer);
                    dumped = true;
                    break;
                default: p.m->enableFrameResultRecyclable(in.next(), true); break;
            }
        }
        p.finish();
    }
    slot->restore();
    if (slot->triggered && (key & 0x80) == 0) {
        std::unique_ptr<Pipeline> changed = std::move(slot);
        pipelines().erase(key);
        auto& triggeredSlot = pipelines()[static_cast<uint8_t>(key | 0x80)];
        if (triggeredSlot) {
            end(std::move(changed));
        } else {
            changed->recordPools();
            triggeredSlot = std::move(changed);
        }
    }
    check(host::StreamBufferFactory::metaAlive() == 0 ||
              host::HeapFactory::waitFor([](int64_t, int64_t) { return host::StreamBufferFactory::metaAlive() == 0; },
                                         std::chrono::seconds(5)),
          "no metadata buffer alive");
    return 0;
}
