#pragma once

namespace NSCam {

// A line printer: dumps are written through it.
class IPrinter {
public:
    virtual ~IPrinter() = default;
    virtual void printLine(char const* line) = 0;
    virtual void printFormatLine(char const* format, ...) __attribute__((format(printf, 2, 3))) = 0;
};

}  // namespace NSCam
