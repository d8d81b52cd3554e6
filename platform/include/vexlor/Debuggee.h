#pragma once
#include <memory>
#include <string>
#include <vector>

#include <vexlor/IPrinter.h>

namespace NSCam {

class IDebuggee {
public:
    virtual ~IDebuggee() = default;
    virtual std::string debuggeeName() const = 0;
    virtual void debug(IPrinter* printer, std::vector<std::string> const& options) = 0;
};
using IDebuggeeTarget = IDebuggee;

class IDebuggeeCookie {
public:
    virtual ~IDebuggeeCookie() = default;
};

// The process-wide debuggee registry. It keeps only weak references to its debuggees.
class IDebuggeeManager {
public:
    virtual ~IDebuggeeManager() = default;
    static IDebuggeeManager* get();  // null when debugging registration is unavailable
    virtual std::shared_ptr<IDebuggeeCookie> attachDebuggee(
        std::shared_ptr<IDebuggee> const& debuggee, int priority) = 0;
    virtual void detachDebuggee(std::shared_ptr<IDebuggeeCookie> const& cookie) = 0;
};

}  // namespace NSCam
