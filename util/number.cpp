#include "util/number.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

std::int32_t clamp_to_int32(long value) {
  using Limits = std::numeric_limits<std::int32_t>;
  return static_cast<std::int32_t>(std::clamp<long>(value, Limits::min(), Limits::max()));
}

std::int32_t text_to_int32(const char* text) {
  return clamp_to_int32(std::strtol(text, nullptr, 10));
}
