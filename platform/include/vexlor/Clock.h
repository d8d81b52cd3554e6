#pragma once
// Clocks of this system, in nanoseconds. Waits and time-outs are measured on the monotonic clock,
// so a step of the time of day (network time, the user) neither stretches nor cuts them short.
#include <cstdint>
#include <ctime>

// A step added to the wall clock: defined by the host stand-ins, whose tests step the time of day
// (HostSeams.h); on a device it is not defined and the wall clock is the system's.
extern "C" int64_t vexlor_wall_clock_step_ns() __attribute__((weak));

namespace NSCam::Utils::Clock {

inline int64_t nsOf(clockid_t clock) {
    timespec ts{};
    ::clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// Elapsed time since an arbitrary start; never stepped.
inline int64_t monotonicNs() { return nsOf(CLOCK_MONOTONIC); }

// Time of day; stepped when the device's time is set.
inline int64_t wallClockNs() {
    return nsOf(CLOCK_REALTIME) + (vexlor_wall_clock_step_ns ? vexlor_wall_clock_step_ns() : 0);
}

}  // namespace NSCam::Utils::Clock
