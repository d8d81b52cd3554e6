#pragma once
#include <cstdint>

// Host stand-in of the Android system tracer. Sections are recorded (see HostSeams.h) only while
// the caller finds its tag enabled; ATRACE_TAG_CAMERA is the camera tag.
#define ATRACE_TAG_CAMERA (1ULL << 10)

extern "C" {
uint64_t atrace_get_enabled_tags();
void atrace_begin_body(const char* name);
void atrace_end_body();
}
