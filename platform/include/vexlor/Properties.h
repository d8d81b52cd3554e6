#pragma once
#include <cstdint>

namespace NSCam::Utils::Properties {

// Reads an integer system property; `defaultValue` when it is unset or not an integer.
int32_t property_get_int32(char const* key, int32_t defaultValue);

}  // namespace NSCam::Utils::Properties
