// Numbers read alike on the 32-bit and the 64-bit build. Any thread may call.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>

// A value that does not fit becomes the nearest limit of the type.
inline std::int32_t clamp_to_int32(long value) {
  return static_cast<std::int32_t>(std::clamp<long>(value, INT32_MIN, INT32_MAX));
}

// strtol(3) in base 10 as a 32-bit long gives it: leading white space and a sign are taken, the
// first non-digit ends the number, and no digits give 0.
inline std::int32_t text_to_int32(const char* text) {
  return clamp_to_int32(std::strtol(text, nullptr, 10));
}
