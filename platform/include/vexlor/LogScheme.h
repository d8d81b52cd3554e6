#pragma once
// The logging scheme of this system. Every source file defines LOG_TAG and LOG_SRC_PATH (its path
// within the source tree, printed in the Android copy of error lines) before including this header.
//
// A line is written in two steps: the gate, then the sinks. The gate comes first and the arguments
// are expanded only inside the sink branches, so a debug site whose object level is too low costs
// one comparison, and an argument such as a stream's describe() text is computed only when printed.
#include <android/log.h>
#include <vexlor/ULog.h>

#include <cstdarg>
#include <cstdint>

namespace NSCam::Utils::ULog {

inline constexpr ULogModule kFbmModule = 0x20700A;

inline bool ulogWarningOn() { return ULogger::sDetailsLevel >= kULogLevelWarning; }
inline bool ulogInfoOn() {
    return ULogger::sDetailsLevel >= kULogLevelInfo &&
           moduleWanted(ULogger::sNormalDetailsMask, kFbmModule);
}
inline bool ulogDebugOn() {
    return ULogger::sDetailsLevel >= kULogLevelDebug &&
           moduleWanted(ULogger::sNormalDetailsMask, kFbmModule);
}
inline bool ulogToAndroid() { return (ULogger::sMode & kModeAndroid) != 0; }
inline bool ulogToULogger() { return (ULogger::sMode & kModeULogMask) != 0; }

// Formats into a cleared 1024-byte stack buffer and hands it to the unified logger. The length
// passed is the formatter's result, uncut even when the text was cut at 1023 bytes.
void ulogFormatWrite(char const* tag, uint32_t level, char const* fmt, ...)
    __attribute__((format(printf, 3, 4)));

// The fatal stop's unified-log half: the line at error level, then notifyFatal(1).
void ulogFatalWrite(char const* tag, char const* fmt, ...) __attribute__((format(printf, 2, 3)));

}  // namespace NSCam::Utils::ULog

#define ULOG_SUFFIX_FMT_ " (%s){#%d:%s}"

#define ULOG_WRITE_(prio, level, fmt, ...)                                                       \
    do {                                                                                         \
        if (::NSCam::Utils::ULog::ulogToAndroid())                                               \
            __android_log_print(prio, LOG_TAG, fmt, ##__VA_ARGS__);                              \
        if (::NSCam::Utils::ULog::ulogToULogger())                                               \
            ::NSCam::Utils::ULog::ulogFormatWrite(LOG_TAG, level, fmt, ##__VA_ARGS__);           \
    } while (0)

// Error lines: no gate. The Android copy gets the function, line and source path suffix.
#define ULOG_ERROR_AS_(func, fmt, ...)                                                           \
    do {                                                                                         \
        if (::NSCam::Utils::ULog::ulogToAndroid())                                               \
            __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, fmt ULOG_SUFFIX_FMT_, ##__VA_ARGS__, \
                                func, __LINE__, LOG_SRC_PATH);                                   \
        if (::NSCam::Utils::ULog::ulogToULogger())                                               \
            ::NSCam::Utils::ULog::ulogFormatWrite(LOG_TAG, ::NSCam::Utils::ULog::kULogLevelError, \
                                                  fmt, ##__VA_ARGS__);                           \
    } while (0)

// Site macros. The `_AS` forms name the function field explicitly where the line is written on
// behalf of another step; the plain forms use the enclosing function's name.
#define MY_LOGE_AS(func, fmt, ...) ULOG_ERROR_AS_(func, "[%s] " fmt, func, ##__VA_ARGS__)
#define MY_LOGE(fmt, ...) MY_LOGE_AS(__FUNCTION__, fmt, ##__VA_ARGS__)

#define MY_LOGW_AS(func, fmt, ...)                                                               \
    do {                                                                                         \
        if (::NSCam::Utils::ULog::ulogWarningOn())                                               \
            ULOG_WRITE_(ANDROID_LOG_WARN, ::NSCam::Utils::ULog::kULogLevelWarning, "[%s] " fmt,  \
                        func, ##__VA_ARGS__);                                                    \
    } while (0)
#define MY_LOGW(fmt, ...) MY_LOGW_AS(__FUNCTION__, fmt, ##__VA_ARGS__)

#define MY_LOGI_AS(func, fmt, ...)                                                               \
    do {                                                                                         \
        if (::NSCam::Utils::ULog::ulogInfoOn())                                                  \
            ULOG_WRITE_(ANDROID_LOG_INFO, ::NSCam::Utils::ULog::kULogLevelInfo, "[%s] " fmt,     \
                        func, ##__VA_ARGS__);                                                    \
    } while (0)
#define MY_LOGI(fmt, ...) MY_LOGI_AS(__FUNCTION__, fmt, ##__VA_ARGS__)

// Debug lines: `cond` is the site's per-object threshold, tested before anything else.
#define MY_LOGD_IF_AS(cond, func, fmt, ...)                                                      \
    do {                                                                                         \
        if ((cond) && ::NSCam::Utils::ULog::ulogDebugOn())                                       \
            ULOG_WRITE_(ANDROID_LOG_DEBUG, ::NSCam::Utils::ULog::kULogLevelDebug, "[%s] " fmt,   \
                        func, ##__VA_ARGS__);                                                    \
    } while (0)
#define MY_LOGD_IF(cond, fmt, ...) MY_LOGD_IF_AS(cond, __FUNCTION__, fmt, ##__VA_ARGS__)
#define MY_LOGD(fmt, ...) MY_LOGD_IF(true, fmt, ##__VA_ARGS__)
#define MY_LOGD_AS(func, fmt, ...) MY_LOGD_IF_AS(true, func, fmt, ##__VA_ARGS__)

// A broken invariant: unified-log line and notifyFatal(1) when that sink is on, then the Android
// assertion, which aborts. Never returns. `fmt` is the whole text after "[%s:line-%d] ".
#define MY_FATAL_AS(func, fmt, ...)                                                              \
    do {                                                                                         \
        if (::NSCam::Utils::ULog::ulogToULogger())                                               \
            ::NSCam::Utils::ULog::ulogFatalWrite(LOG_TAG, "[%s:line-%d] " fmt, func, __LINE__,   \
                                                 ##__VA_ARGS__);                                 \
        __android_log_assert(nullptr, LOG_TAG, "[%s:line-%d] " fmt ULOG_SUFFIX_FMT_, func,       \
                             __LINE__, ##__VA_ARGS__, func, __LINE__, LOG_SRC_PATH);             \
    } while (0)
#define MY_FATAL(fmt, ...) MY_FATAL_AS(__FUNCTION__, fmt, ##__VA_ARGS__)
