#pragma once
#include <android/log.h>

namespace android {

// Interface for printing to an arbitrary data stream.
class Printer {
public:
    virtual void printLine(const char* string) = 0;
    virtual void printFormatLine(const char* format, ...) __attribute__((format(printf, 2, 3)));
    virtual ~Printer() = default;
};

// Prints each line to the Android log with a tag and priority.
class LogPrinter : public Printer {
public:
    LogPrinter(const char* logtag, android_LogPriority priority = ANDROID_LOG_DEBUG,
               const char* prefix = nullptr, bool ignoreBlankLines = false);
    void printLine(const char* string) override;

private:
    void printRaw(const char* string);

    const char* mLogTag;
    android_LogPriority mPriority;
    const char* mPrefix;
    bool mIgnoreBlankLines;
};

}  // namespace android
