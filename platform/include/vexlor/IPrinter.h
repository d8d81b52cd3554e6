#pragma once

namespace NSCam {

// A line printer: dumps are written through it. The vendor's layout puts the two operations in
// the first slots and the destructor after them (as android::Printer does); callers through an
// IPrinter& use those slots, so the order here is binary layout, not style.
class IPrinter {
public:
    virtual void printLine(char const* line) = 0;
    virtual void printFormatLine(char const* format, ...) __attribute__((format(printf, 2, 3))) = 0;
    virtual ~IPrinter() = default;
};

}  // namespace NSCam
