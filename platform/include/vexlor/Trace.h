#pragma once
// Trace sections of the camera tag. The tag is tested separately at the beginning and at the end
// of a section, and nothing is called while it is off.
#include <cutils/trace.h>

#include <string>

namespace NSCam::Utils {

inline bool cameraTraceOn() { return (atrace_get_enabled_tags() & ATRACE_TAG_CAMERA) != 0; }

class ScopedTrace {
public:
    explicit ScopedTrace(char const* name) {
        if (cameraTraceOn()) atrace_begin_body(name);
    }
    ~ScopedTrace() {
        if (cameraTraceOn()) atrace_end_body();
    }
    ScopedTrace(ScopedTrace const&) = delete;
    ScopedTrace& operator=(ScopedTrace const&) = delete;
};

// A section opened and closed at once.
inline void traceMarker(char const* name) {
    if (cameraTraceOn()) {
        atrace_begin_body(name);
        atrace_end_body();
    }
}

}  // namespace NSCam::Utils

#define CAM_TRACE_NAME_CONCAT_(a, b) a##b
#define CAM_TRACE_NAME_(name, line) ::NSCam::Utils::ScopedTrace CAM_TRACE_NAME_CONCAT_(__trace_, line)(name)
#define CAM_TRACE_NAME(name) CAM_TRACE_NAME_(name, __LINE__)
#define CAM_TRACE_CALL() CAM_TRACE_NAME(__FUNCTION__)
