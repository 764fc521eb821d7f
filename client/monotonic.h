// A clock that does not go back. Any thread may call.
#pragma once

#include <cstdint>
#include <ctime>

namespace zol {

inline std::uint64_t monotonic_ns() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 +
         static_cast<std::uint64_t>(now.tv_nsec);
}

inline std::uint64_t monotonic_ms() {
  return monotonic_ns() / 1'000'000;
}

}  // namespace zol
