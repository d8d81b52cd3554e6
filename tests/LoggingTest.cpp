#define LOG_TAG "vexlor-ppl_fbm"
#define LOG_SRC_PATH "pipeline/pipeline/fbm/FrameBufferManager"

#include <vexlor/LogScheme.h>
#include <vexlor/Trace.h>

#include <dlfcn.h>
#include <utils/Printer.h>

#include <algorithm>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace fbmtest {
namespace {

using NSCam::Utils::ULog::ULogger;

class LoggingTest : public PlatformTest {};

// The library's metadata worker starts with the library and logs its first debug lines on its own
// thread: with debug lines on, they may land among a test's own while the process starts.
template <class Line>
std::vector<Line> withoutMetaWorker(std::vector<Line> lines) {
    lines.erase(std::remove_if(lines.begin(), lines.end(),
                               [](Line const& l) { return l.text.find("FreeMetaObject:") != std::string::npos; }),
                lines.end());
    return lines;
}
std::vector<host::AndroidLogLine> ownAndroidLines() { return withoutMetaWorker(host::LogCapture::androidLines()); }
std::vector<host::ULogLine> ownULogLines() { return withoutMetaWorker(host::LogCapture::ulogLines()); }

int gEvaluations = 0;
int counted() {
    ++gEvaluations;
    return 7;
}

void logOneOfEach() {
    MY_LOGE("error %d", 1);
    MY_LOGW("warning %d", 2);
    MY_LOGI("info %d", 3);
    MY_LOGD("debug %d", 4);
}

TEST_F(LoggingTest, ModeSelectsTheSinks) {
    host::setULogSwitches(5, 0x207000, 1);
    logOneOfEach();
    EXPECT_EQ(ownAndroidLines().size(), 4u);
    EXPECT_TRUE(ownULogLines().empty());

    host::LogCapture::clear();
    host::setULogSwitches(5, 0x207000, 8);
    logOneOfEach();
    EXPECT_TRUE(ownAndroidLines().empty());
    auto ulog = ownULogLines();
    ASSERT_EQ(ulog.size(), 4u);
    EXPECT_EQ(ulog[0].level, 1u);
    EXPECT_EQ(ulog[1].level, 2u);
    EXPECT_EQ(ulog[2].level, 3u);
    EXPECT_EQ(ulog[3].level, 5u);
    for (auto const& l : ulog) {
        EXPECT_EQ(l.module, 0x20700Au);
        EXPECT_EQ(l.tag, "vexlor-ppl_fbm");
    }

    host::LogCapture::clear();
    host::setULogSwitches(5, 0x207000, 0);
    logOneOfEach();  // errors too are silent
    EXPECT_TRUE(ownAndroidLines().empty());
    EXPECT_TRUE(ownULogLines().empty());
}

TEST_F(LoggingTest, LevelAndModuleGates) {
    host::setULogSwitches(2, 0, 1);
    logOneOfEach();
    auto lines = ownAndroidLines();
    ASSERT_EQ(lines.size(), 2u);  // a warning needs no mask
    EXPECT_EQ(lines[0].priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(lines[1].priority, ANDROID_LOG_WARN);
    EXPECT_EQ(lines[1].text, "[logOneOfEach] warning 2");

    host::LogCapture::clear();
    host::setULogSwitches(3, 0x200000, 1);  // bit 21 without a sub-area bit: no info
    logOneOfEach();
    EXPECT_EQ(ownAndroidLines().size(), 2u);

    host::LogCapture::clear();
    host::setULogSwitches(3, 0x201000, 1);  // bit 21 and one of 0x7000: info, not debug
    logOneOfEach();
    lines = ownAndroidLines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[2].priority, ANDROID_LOG_INFO);

    host::LogCapture::clear();
    host::setULogSwitches(5, 0x004000, 1);  // a sub-area bit without bit 21
    logOneOfEach();
    EXPECT_EQ(ownAndroidLines().size(), 2u);
}

TEST_F(LoggingTest, GateComesBeforeArgumentEvaluation) {
    host::setULogSwitches(5, 0x207000, 9);
    gEvaluations = 0;
    int objectLevel = 0;
    MY_LOGD_IF(objectLevel >= 2, "value %d", counted());
    host::setULogSwitches(1, 0, 9);
    MY_LOGW("value %d", counted());
    MY_LOGI("value %d", counted());
    EXPECT_EQ(gEvaluations, 0);
    EXPECT_TRUE(ownAndroidLines().empty());
}

TEST_F(LoggingTest, ErrorSuffixOnlyOnTheAndroidCopy) {
    host::setULogSwitches(2, 0, 9);
    MY_LOGE("bad count(%d)", -1);
    int const line = __LINE__ - 1;
    auto android = ownAndroidLines();
    auto ulog = ownULogLines();
    ASSERT_EQ(android.size(), 1u);
    ASSERT_EQ(ulog.size(), 1u);
    std::string const fn = __FUNCTION__;
    EXPECT_EQ(android[0].text, "[" + fn + "] bad count(-1) (" + fn + "){#" + std::to_string(line) +
                                   ":pipeline/pipeline/fbm/FrameBufferManager}");
    EXPECT_EQ(ulog[0].text, "[" + fn + "] bad count(-1)");
    EXPECT_EQ(ulog[0].length, ulog[0].text.size());
}

TEST_F(LoggingTest, UnifiedCopyIsCutAt1023BytesWithTheUncutLength) {
    host::setULogSwitches(2, 0, 8);
    std::string const big(2000, 'x');
    MY_LOGW("%s", big.c_str());
    auto ulog = ownULogLines();
    ASSERT_EQ(ulog.size(), 1u);
    std::string const expected = "[" + std::string(__FUNCTION__) + "] " + big;
    EXPECT_EQ(ulog[0].text.size(), 1023u);
    EXPECT_EQ(ulog[0].text, expected.substr(0, 1023));
    EXPECT_EQ(ulog[0].length, expected.size());
}

TEST_F(LoggingTest, DebugLinesOfAnObjectNeedItsOwnLevel) {
    host::setULogSwitches(5, 0x207000, 1);
    auto quiet = makeManager();  // built with the property unset: level 0
    host::setProperty("vendor.debug.camera.log.pipeline.fbm", 2);
    auto chatty = makeManager();
    host::setProperty("vendor.debug.camera.log.pipeline.fbm", 0);  // later changes do not matter

    IFrameBufferManager::TrackFrameResult track{1, 1, nullptr};
    quiet->trackFrameResult(track);
    EXPECT_EQ(androidCount("no streams to track"), 0u);
    chatty->trackFrameResult(track);
    EXPECT_EQ(androidCount("[trackFrameResult] [R1 F1] no streams to track"), 1u);
    IPipelineFrameHalResultProcessor::ReturnResult result;
    result.requestNo = result.frameNo = 1;
    result.timestamp = 5;
    quiet->returnResult(result);
    chatty->returnResult(result);
    EXPECT_EQ(androidCount("[returnResult] [R1 F1]TS:5  "), 1u);
}

TEST_F(LoggingTest, ULogPrinterGatesOnItsLevelAndModule) {
    using NSCam::Utils::ULog::ULogPrinter;
    host::setULogSwitches(3, 0, 9);
    ULogPrinter debugPrinter(5, 0x20700A, "vexlor-ppl_fbm");
    debugPrinter.printLine("hidden");
    ULogPrinter warnPrinter(2, 0x20700A, "vexlor-ppl_fbm");
    warnPrinter.printFormatLine("shown %d", 1);
    ULogPrinter infoPrinter(3, 0x20700A, "vexlor-ppl_fbm");
    infoPrinter.printLine("needs the mask");
    auto android = ownAndroidLines();
    ASSERT_EQ(android.size(), 1u);
    EXPECT_EQ(android[0].text, "shown 1");
    EXPECT_EQ(android[0].priority, ANDROID_LOG_DEBUG);
    auto ulog = ownULogLines();
    ASSERT_EQ(ulog.size(), 1u);
    EXPECT_EQ(ulog[0].level, 2u);
    EXPECT_EQ(ulog[0].length, 7u);
}

TEST_F(LoggingTest, TraceSectionsOnlyWhileTheCameraTagIsOn) {
    { CAM_TRACE_NAME("off"); }
    host::TraceRecorder::setEnabledTags(ATRACE_TAG_CAMERA);
    { CAM_TRACE_NAME("on"); }
    NSCam::Utils::traceMarker("marker");
    host::TraceRecorder::setEnabledTags(1);  // another tag only
    { CAM_TRACE_NAME("other"); }
    auto events = host::TraceRecorder::events();
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0].name, "on");
    EXPECT_FALSE(events[1].begin);
    EXPECT_EQ(events[2].name, "marker");
    EXPECT_FALSE(events[3].begin);
}

// Where the process finds a symbol: the file of the object that defines it.
std::string definedIn(char const* symbol) {
    void* const address = dlsym(RTLD_DEFAULT, symbol);
    Dl_info info{};
    if (address == nullptr || dladdr(address, &info) == 0 || info.dli_fname == nullptr) return "";
    return info.dli_fname;
}

// The real Android libraries sit under the seams: lines go through liblog (and its logger hook,
// debug lines included), printers are libutils', and the tracer's entry points are the recorder's,
// found before libcutils' own (which is loaded too, and would record nothing).
TEST_F(LoggingTest, LinesAndSectionsReachTheSeamsThroughTheRealLibraries) {
    EXPECT_NE(definedIn("__android_log_print").find("liblog.so"), std::string::npos);
    EXPECT_NE(definedIn("_ZN7android10LogPrinter9printLineEPKc").find("libutils.so"), std::string::npos);
    EXPECT_NE(definedIn("atrace_setup").find("libcutils.so"), std::string::npos);
    for (char const* entry : {"atrace_get_enabled_tags", "atrace_begin_body", "atrace_end_body"}) {
        EXPECT_NE(definedIn(entry).find("libvexlor_platform.so"), std::string::npos) << entry;
    }

    __android_log_print(ANDROID_LOG_DEBUG, "seam", "debug %d", 3);
    android::LogPrinter("seam").printLine("");  // a blank line goes out as one space
    auto const lines = ownAndroidLines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].priority, ANDROID_LOG_DEBUG);
    EXPECT_EQ(lines[0].tag, "seam");
    EXPECT_EQ(lines[0].text, "debug 3");
    EXPECT_EQ(lines[1].text, " ");

    host::TraceRecorder::setEnabledTags(ATRACE_TAG_CAMERA);
    atrace_begin(ATRACE_TAG_CAMERA, "through cutils' helper");
    atrace_end(ATRACE_TAG_CAMERA);
    host::TraceRecorder::setEnabledTags(0);
    EXPECT_EQ(host::TraceRecorder::countBegins("through cutils' helper"), 1u);
    EXPECT_EQ(host::TraceRecorder::events().size(), 2u);
}

// A unified logger that shows what it was told on stderr, so a death test can see the order.
class StderrULogger : public ULogger {
public:
    void writeLog(uint32_t, char const*, uint32_t level, char const* text, size_t) override {
        std::fprintf(stderr, "ULOG(%u):%s\n", level, text);
    }
    void notifyFatal(int reason) override { std::fprintf(stderr, "NOTIFY_FATAL(%d)\n", reason); }
};

TEST_F(LoggingTest, FatalStopWritesTheUnifiedLineNotifiesAndAborts) {
    EXPECT_DEATH(
        {
            static StderrULogger logger;
            ULogger::sULogger = &logger;
            host::setULogSwitches(1, 0, 9);
            host::LogCapture::setEcho(true);  // the fatal line as liblog's logger hook gets it
            MY_FATAL("fail to lock metaSB(%#lx)", 0x10L);
        },
        "ULOG\\(1\\):\\[TestBody:line-[0-9]+\\] fail to lock metaSB\\(0x10\\)\n"
        "NOTIFY_FATAL\\(1\\)\n"
        // liblog's own abort message, the bare text, then the line as its logger hook got it
        "\\[TestBody:line-[0-9]+\\] fail to lock metaSB\\(0x10\\) \\(TestBody\\)\\{#[0-9]+:pipeline/pipeline/fbm/FrameBufferManager\\}\n"
        ".* F vexlor-ppl_fbm: \\[TestBody:line-[0-9]+\\] fail to lock metaSB\\(0x10\\) "
        "\\(TestBody\\)\\{#[0-9]+:pipeline/pipeline/fbm/FrameBufferManager\\}");
}

TEST_F(LoggingTest, FatalStopAbortsWithEverySinkOff) {
    EXPECT_DEATH(
        {
            host::setULogSwitches(0, 0, 0);
            MY_FATAL("never %d", 1);
        },
        "never 1");
}

}  // namespace
}  // namespace fbmtest
