#pragma once
// Trace sections of the camera tag, through the system tracer's own inline helpers: each of
// atrace_begin and atrace_end tests the enabled tags itself, so the test is made separately at the
// beginning and at the end of a section, and nothing is called while the tag is off.
#include <cutils/trace.h>

#include <string>

namespace NSCam::Utils {

inline bool cameraTraceOn() { return atrace_is_tag_enabled(ATRACE_TAG_CAMERA) != 0; }

class ScopedTrace {
public:
    explicit ScopedTrace(char const* name) { atrace_begin(ATRACE_TAG_CAMERA, name); }
    ~ScopedTrace() { atrace_end(ATRACE_TAG_CAMERA); }
    ScopedTrace(ScopedTrace const&) = delete;
    ScopedTrace& operator=(ScopedTrace const&) = delete;
};

// A section opened and closed at once.
inline void traceMarker(char const* name) {
    if (cameraTraceOn()) {
        atrace_begin(ATRACE_TAG_CAMERA, name);
        atrace_end(ATRACE_TAG_CAMERA);
    }
}

}  // namespace NSCam::Utils

#define CAM_TRACE_NAME_CONCAT_(a, b) a##b
#define CAM_TRACE_NAME_(name, line) ::NSCam::Utils::ScopedTrace CAM_TRACE_NAME_CONCAT_(__trace_, line)(name)
#define CAM_TRACE_NAME(name) CAM_TRACE_NAME_(name, __LINE__)
#define CAM_TRACE_CALL() CAM_TRACE_NAME(__FUNCTION__)
