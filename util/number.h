// Reads numbers in the same way in 32-bit and 64-bit builds. Any thread may call.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>

// A value that does not fit becomes the nearest limit of the type.
inline std::int32_t clamp_to_int32(long value) {
  return static_cast<std::int32_t>(std::clamp<long>(value, INT32_MIN, INT32_MAX));
}

// strtol(3) in base 10 with a 32-bit long: it skips leading white space, takes a sign, and stops at
// the first non-digit. Without digits it returns 0.
inline std::int32_t text_to_int32(const char* text) {
  return clamp_to_int32(std::strtol(text, nullptr, 10));
}
