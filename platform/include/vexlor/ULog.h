#pragma once
// The camera stack's unified logger, as this system uses it: four process-wide switches, the
// logger object with writeLog/notifyFatal, and ULogPrinter, which sends printed lines to the logs.
#include <utils/Printer.h>
#include <vexlor/IPrinter.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>

namespace NSCam::Utils::ULog {

using ULogModule = uint32_t;

// A switch as the log sites see it: a 32-bit value read afresh each time. Relaxed atomic on the
// host, so that a test may flip a switch while other threads log (a plain load on every target).
class LogSwitch {
public:
    constexpr LogSwitch(uint32_t v) : mValue(v) {}
    operator uint32_t() const { return mValue.load(std::memory_order_relaxed); }
    LogSwitch& operator=(uint32_t v) {
        mValue.store(v, std::memory_order_relaxed);
        return *this;
    }

private:
    std::atomic<uint32_t> mValue;
};

class ULogger {
public:
    virtual ~ULogger() = default;
    virtual void writeLog(ULogModule module, char const* tag, uint32_t level, char const* text,
                          size_t length) = 0;
    virtual void notifyFatal(int reason) = 0;

    // Process-wide switches, read afresh at every log site. Plain globals as on the device, and
    // written only by a configuring thread; see HostSeams.h for the setters tests use.
    static LogSwitch sDetailsLevel;       // 1 error, 2 warning, 3 info, 5 debug
    static LogSwitch sNormalDetailsMask;  // modules and sub-areas wanting info and debug lines
    static LogSwitch sMode;               // bit 0: Android log; bits 1 or 3: unified logger
    static std::atomic<ULogger*> sULogger;
};

inline constexpr uint32_t kULogLevelError = 1;
inline constexpr uint32_t kULogLevelWarning = 2;
inline constexpr uint32_t kULogLevelInfo = 3;
inline constexpr uint32_t kULogLevelDebug = 5;
inline constexpr uint32_t kModeAndroid = 1;
inline constexpr uint32_t kModeULogMask = 10;

// True when info and debug lines of `module` are wanted by the details mask.
inline bool moduleWanted(uint32_t mask, uint32_t module) {
    uint32_t const m = mask & module;
    return m >= 0x100000 && (m & 0xFF000) != 0;
}

class ULogPrinter : public NSCam::IPrinter, public android::Printer {
public:
    ULogPrinter(uint32_t level, ULogModule module, char const* tag,
                android_LogPriority androidPriority = ANDROID_LOG_DEBUG);
    void printLine(char const* line) override;
    void printFormatLine(char const* format, ...) override __attribute__((format(printf, 2, 3)));

protected:
    // Steps shared with printers that extend this one: the level and module gate, the sinks, and
    // formatting into a cleared 1024-byte line (the empty text when formatting fails).
    bool gateOpen() const;
    void write(char const* text);
    static void formatLine(char (&line)[1024], char const* format, va_list args);

private:

    uint32_t mLevel;
    ULogModule mModule;
    char mTag[64];
    android::LogPrinter mAndroidPrinter;
};

}  // namespace NSCam::Utils::ULog
