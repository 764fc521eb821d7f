#include "util/number.h"

#include <algorithm>
#include <cstdlib>

std::int32_t clamp_to_int32(long value) {
  return static_cast<std::int32_t>(std::clamp<long>(value, INT32_MIN, INT32_MAX));
}

std::int32_t text_to_int32(const char* text) {
  return clamp_to_int32(std::strtol(text, nullptr, 10));
}
