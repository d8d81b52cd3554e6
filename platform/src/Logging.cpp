// Host stand-ins of the unified logger and its printer, and the capture of the Android log: lines
// written through the real liblog reach the capture through liblog's own logger hook.
#include <android/log.h>
#include <utils/Printer.h>
#include <vexlor/HostSeams.h>
#include <vexlor/LogScheme.h>
#include <vexlor/ULog.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include "HookSlot.h"

namespace {

struct Capture {
    std::mutex lock;
    std::vector<vexlor::host::AndroidLogLine> android;
    std::vector<vexlor::host::ULogLine> ulog;
};
Capture& capture() {
    static Capture* c = new Capture;  // never destroyed: logging may run during static teardown
    return *c;
}
std::atomic<bool> gCapturing{true};
std::atomic<bool> gEcho{false};

char priorityLetter(int prio) {
    static char const kLetters[] = "??VDIWEFS";
    return (prio >= 0 && prio <= 8) ? kLetters[prio] : '?';
}

void echoLine(int prio, char const* tag, char const* text) {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    tm t{};
    localtime_r(&ts.tv_sec, &t);
    std::fprintf(stderr, "%02d-%02d %02d:%02d:%02d.%03ld %5d %5ld %c %s: %s\n", t.tm_mon + 1,
                 t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, ts.tv_nsec / 1000000, getpid(),
                 static_cast<long>(syscall(SYS_gettid)), priorityLetter(prio), tag, text);
}

vexlor::host::detail::HookSlot<std::function<void(std::string const&)>> gLineHook;

void recordAndroid(int prio, char const* tag, char const* text) {
    if (gEcho.load(std::memory_order_relaxed)) echoLine(prio, tag, text);
    if (gCapturing.load(std::memory_order_relaxed)) {
        auto& c = capture();
        std::lock_guard<std::mutex> lk(c.lock);
        c.android.push_back({prio, tag ? tag : "", text});
    }
    if (gLineHook.isSet()) gLineHook(std::string(text));
}

// The process's unified logger: keeps what it is given.
class CapturingULogger : public NSCam::Utils::ULog::ULogger {
public:
    void writeLog(NSCam::Utils::ULog::ULogModule module, char const* tag, uint32_t level,
                  char const* text, size_t length) override {
        if (!gCapturing.load(std::memory_order_relaxed)) return;
        auto& c = capture();
        std::lock_guard<std::mutex> lk(c.lock);
        c.ulog.push_back({module, tag ? tag : "", level, text ? text : "", length, false});
    }
    void notifyFatal(int reason) override {
        auto& c = capture();
        std::lock_guard<std::mutex> lk(c.lock);
        c.ulog.push_back({0, "", 0, "notifyFatal(" + std::to_string(reason) + ")", 0, true});
    }
};

CapturingULogger gCapturingULogger;

// liblog's logger hook. Its record changed in API 30 (one __android_log_message); Debian's liblog
// (release 29) passes an __android_logger_data and the text apart. Only this differs.
#if VEXLOR_LIBLOG_LOGGER_DATA
void hostLogger(__android_logger_data const* data, char const* message) {
    recordAndroid(data->priority, data->tag, message ? message : "");
}
#else
void hostLogger(__android_log_message const* message) {
    recordAndroid(message->priority, message->tag, message->message ? message->message : "");
}
#endif

// Every line of the process goes to the capture, debug lines included: the host liblog drops
// lines below INFO unless the minimum priority is lowered.
bool installLogHook() {
    __android_log_set_logger(hostLogger);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    return true;
}
bool const gLogHookInstalled = installLogHook();  // at load, before any library above logs

// VEXLOR_LOG=error|warning|info|debug (or 1 to 5): a host user's one switch to see the library's
// lines of that level and above on standard error, logcat-like. It stands for what a device sets
// with the unified logger's switches; the objects' own debug levels stay properties
// (VEXLOR_PROPERTIES).
uint32_t levelOf(char const* text) {
    static struct {
        char const* name;
        uint32_t level;
    } const kNames[] = {{"error", 1}, {"warning", 2}, {"info", 3}, {"debug", 5}};
    for (auto const& n : kNames)
        if (std::strcmp(text, n.name) == 0) return n.level;
    char* end = nullptr;
    long const v = std::strtol(text, &end, 10);
    return (end != text && *end == '\0' && v >= 1 && v <= 5) ? static_cast<uint32_t>(v) : 0;
}
bool logFromEnvironment() {
    char const* text = std::getenv("VEXLOR_LOG");
    uint32_t const level = text ? levelOf(text) : 0;
    if (level == 0) {
        if (text != nullptr) std::fprintf(stderr, "VEXLOR_LOG=%s: use error, warning, info or debug\n", text);
        return false;
    }
    NSCam::Utils::ULog::ULogger::sDetailsLevel = level;
    NSCam::Utils::ULog::ULogger::sNormalDetailsMask = 0x207000;  // the pipeline's modules
    NSCam::Utils::ULog::ULogger::sMode = NSCam::Utils::ULog::ULogger::sMode | NSCam::Utils::ULog::kModeAndroid;
    gEcho = true;
    return true;
}

}  // namespace

namespace NSCam::Utils::ULog {

LogSwitch ULogger::sDetailsLevel{2};
LogSwitch ULogger::sNormalDetailsMask{0};
LogSwitch ULogger::sMode{9};
std::atomic<ULogger*> ULogger::sULogger{&gCapturingULogger};
namespace {
bool const gLogFromEnvironment = logFromEnvironment();  // after the switches' own defaults
}  // namespace

void ulogFormatWrite(char const* tag, uint32_t level, char const* fmt, ...) {
    char buf[1024];
    std::memset(buf, 0, sizeof buf);
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    if (n < 0) return;
    buf[sizeof buf - 1] = '\0';
    ULogger::sULogger.load()->writeLog(kFbmModule, tag, level, buf, static_cast<size_t>(n));
}

void ulogFatalWrite(char const* tag, char const* fmt, ...) {
    char buf[1024];
    std::memset(buf, 0, sizeof buf);
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    if (n >= 0) {
        buf[sizeof buf - 1] = '\0';
        ULogger::sULogger.load()->writeLog(kFbmModule, tag, kULogLevelError, buf, static_cast<size_t>(n));
    }
    ULogger::sULogger.load()->notifyFatal(1);
}

ULogPrinter::ULogPrinter(uint32_t level, ULogModule module, char const* tag,
                         android_LogPriority androidPriority)
    : mLevel(level), mModule(module), mTag{},
      mAndroidPrinter(mTag, androidPriority, nullptr, false) {
    std::strncpy(mTag, tag ? tag : "", sizeof mTag);
    mTag[sizeof mTag - 1] = '\0';
}

bool ULogPrinter::gateOpen() const {
    if (ULogger::sDetailsLevel < mLevel) return false;
    if (mLevel >= kULogLevelInfo && !moduleWanted(ULogger::sNormalDetailsMask, mModule)) {
        return false;
    }
    return true;
}

void ULogPrinter::write(char const* text) {
    if (ULogger::sMode & kModeAndroid) mAndroidPrinter.printLine(text);
    if (ULogger::sMode & kModeULogMask) {
        ULogger::sULogger.load()->writeLog(mModule, mTag, mLevel, text, std::strlen(text));
    }
}

void ULogPrinter::printLine(char const* line) {
    if (!gateOpen() || line == nullptr) return;
    write(line);
}

void ULogPrinter::formatLine(char (&line)[1024], char const* format, va_list args) {
    std::memset(line, 0, sizeof line);
    if (std::vsnprintf(line, sizeof line, format, args) < 0) line[0] = '\0';
    line[sizeof line - 1] = '\0';
}

void ULogPrinter::printFormatLine(char const* format, ...) {
    if (!gateOpen()) return;
    char buf[1024];
    va_list ap;
    va_start(ap, format);
    formatLine(buf, format, ap);
    va_end(ap);
    write(buf);
}

}  // namespace NSCam::Utils::ULog

namespace vexlor::host {

std::vector<AndroidLogLine> LogCapture::androidLines() {
    auto& c = capture();
    std::lock_guard<std::mutex> lk(c.lock);
    return c.android;
}
std::vector<ULogLine> LogCapture::ulogLines() {
    auto& c = capture();
    std::lock_guard<std::mutex> lk(c.lock);
    return c.ulog;
}
void LogCapture::clear() {
    auto& c = capture();
    std::lock_guard<std::mutex> lk(c.lock);
    c.android.clear();
    c.ulog.clear();
}
void LogCapture::setCapturing(bool on) { gCapturing = on; }
void LogCapture::setEcho(bool on) { gEcho = on; }
void LogCapture::setLineHook(std::function<void(std::string const&)> hook) { gLineHook.set(std::move(hook)); }
size_t LogCapture::countAndroid(std::string const& s) {
    size_t n = 0;
    for (auto const& l : androidLines()) n += l.text.find(s) != std::string::npos;
    return n;
}
size_t LogCapture::countULog(std::string const& s) {
    size_t n = 0;
    for (auto const& l : ulogLines()) n += l.text.find(s) != std::string::npos;
    return n;
}

void setULogSwitches(uint32_t detailsLevel, uint32_t normalDetailsMask, uint32_t mode) {
    using NSCam::Utils::ULog::ULogger;
    ULogger::sDetailsLevel = detailsLevel;
    ULogger::sNormalDetailsMask = normalDetailsMask;
    ULogger::sMode = mode;
}
void setULogVerbose() { setULogSwitches(5, 0x207000, 9); }

void StringPrinter::printLine(char const* line) { mLines.emplace_back(line ? line : ""); }
void StringPrinter::printFormatLine(char const* format, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, format);
    int n = std::vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    mLines.emplace_back(n < 0 ? "" : buf);
}
std::string StringPrinter::text() const {
    std::string s;
    for (auto const& l : mLines) s += l + "\n";
    return s;
}
bool StringPrinter::contains(std::string const& s) const {
    for (auto const& l : mLines)
        if (l.find(s) != std::string::npos) return true;
    return false;
}

}  // namespace vexlor::host
