#pragma once
// The camera stack's clocks, in nanoseconds.
#include <cstdint>

namespace NSCam::Utils::Clock {

// Elapsed time since an arbitrary start; never stepped. Measure waits and time-outs with it.
int64_t monotonicNs();
// Time of day; stepped when the device's time is set (network time, the user).
int64_t wallClockNs();

}  // namespace NSCam::Utils::Clock
