#include "util/number.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

std::int32_t text_to_int32(const char* text) {
  using Limits = std::numeric_limits<std::int32_t>;
  const long value = std::strtol(text, nullptr, 10);
  return static_cast<std::int32_t>(std::clamp<long>(value, Limits::min(), Limits::max()));
}
