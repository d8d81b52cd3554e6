// The manager's typed state: what it counts, as the dump's section, and as trace counter tracks.
#include "FramePathSupport.h"

namespace fbmtest {
namespace {

using State = FrameBufferManagerState;

class StateTest : public FramePathTest {
protected:
    static State::Pool const& poolOf(State const& state, std::string const& name) {
        auto it = std::find_if(state.pools.begin(), state.pools.end(), [&](auto const& p) { return p.name == name; });
        EXPECT_NE(it, state.pools.end()) << name;
        return *it;
    }
};

TEST_F(StateTest, CountsWhatThePoolsWentThroughWhileFramesRace) {
    configure();
    // A reader racing the frames: every snapshot is whole, and counts only grow.
    std::atomic<bool> done{false};
    std::thread reader([&] {
        uint64_t served = 0;
        while (!done) {
            State const s = stateOf(std::static_pointer_cast<IFrameBufferManager>(mManager))->takeState();
            for (auto const& p : s.pools) {
                EXPECT_EQ(p.allocated, p.available + p.inUse) << p.name;
                EXPECT_GE(p.peakInUse, p.inUse) << p.name;
                if (p.name == "preview") {
                    EXPECT_GE(p.served, std::exchange(served, p.served));
                }
            }
        }
    });
    keptFrame(1, 100);
    keptFrame(2, 200);  // history holds both preview heaps
    auto [e3, fed] = request(kPreview, 3);  // fed from history: frame 1 goes
    auto [e4, held] = request(kPreview, 4);  // and frame 2
    auto [e5, none] = request(kPreview, 5);  // nothing left to feed it: the time-out
    done = true;
    reader.join();
    EXPECT_EQ(e3 | e4, 0);
    EXPECT_EQ(e5, -EBUSY);

    State const state = mManager->takeState();
    auto const& preview = poolOf(state, "preview");
    EXPECT_EQ(preview.streams, (std::vector<StreamId_T>{kPreview}));
    EXPECT_EQ(preview.served, 4u);
    EXPECT_EQ(preview.releasedUnderPressure, 2u);
    EXPECT_EQ(preview.timeouts, 1u);
    EXPECT_GE(preview.slicesWaited, 1u);
    EXPECT_EQ(preview.inUse, 2);
    EXPECT_EQ(preview.peakInUse, 2);
    EXPECT_EQ(preview.waiting, 0);
    auto const made = host::HeapFactory::memory()["preview"];
    EXPECT_EQ(preview.allocated, made.heaps);
    EXPECT_EQ(preview.heapBytes * made.heaps, made.bytes);
    EXPECT_EQ(poolOf(state, "shared-0x2-0x3").streams, (std::vector<StreamId_T>{kFullA, kFullB}));
    EXPECT_TRUE(state.readyTaken && state.ready.empty() && state.inFlightTaken);
    releaseEverythingAndCheck({&fed, &held});
}

TEST_F(StateTest, DumpWithTheStateOptionAddsItsSectionAfterTheUsualText) {
    configure();
    keptFrame(1, 100);
    track(2, {kPreview}, {kHalMeta});
    host::StringPrinter plain, withState;
    mManager->debug(&plain, {});
    mManager->debug(&withState, {"--verbose", "--state"});
    auto const lines = withState.lines();
    auto const usual = plain.lines();
    ASSERT_GT(lines.size(), usual.size());
    EXPECT_TRUE(std::equal(usual.begin(), usual.end(), lines.begin()));
    EXPECT_FALSE(plain.contains("<state>"));
    EXPECT_EQ(lines[usual.size()], "<state> name=frame-path acquireTimeoutMs=200 inFlight=1 ready=1");
    EXPECT_TRUE(withState.contains("    pool preview streams=0x1 heapBytes=460800 max=2 allocated=2 available=1 inUse=1 "
                                   "waiting=0 served=1 timeouts=0 slicesWaited=0 releasedUnderPressure=0 peakInUse=1"));
    EXPECT_TRUE(withState.contains("    stream 0x1 attribute=0x1 pool=preview name=preview"));
    EXPECT_TRUE(withState.contains("    stream 0x101 attribute=0x30 pool= name=appMeta"));
    EXPECT_TRUE(withState.contains("    inFlight F2 R1002 timestamp=0 remaining=2 halImage= halMeta= appMeta="));
    EXPECT_TRUE(withState.contains("    ready F1 R1001 timestamp=100 remaining=0 halImage=0x1 halMeta=0x100 appMeta=0x101"));
    EXPECT_TRUE(withState.contains("    readyCounters 0x1=1"));
    State const state = mManager->takeState();  // nothing to print with, or nothing to print
    printFrameBufferManagerState(nullptr, &state);
    printFrameBufferManagerState(&plain, nullptr);
    EXPECT_EQ(plain.lines(), usual);
    releaseEverythingAndCheck();
}

TEST_F(StateTest, RequestsTraceThePoolsOccupancyAndTheReadyListWhileTheTagIsOn) {
    configure();
    keptFrame(1, 100);  // untraced: the tag is off
    EXPECT_TRUE(host::TraceRecorder::events().empty());
    host::TraceRecorder::setEnabledTags(ATRACE_TAG_CAMERA);
    auto [err, sb] = request(kPreview, 2);
    host::TraceRecorder::setEnabledTags(0);
    ASSERT_EQ(err, 0);
    auto value = [](std::string const& track) {
        auto const values = host::TraceRecorder::counters(track);
        return values.empty() ? -1 : values.back().value;
    };
    EXPECT_EQ(value("preview.inUse"), 1);  // what the request found
    EXPECT_EQ(value("preview.available"), 1);
    EXPECT_EQ(value("frame-path.ready"), 1);
    releaseEverythingAndCheck({&sb});
}

}  // namespace
}  // namespace fbmtest
