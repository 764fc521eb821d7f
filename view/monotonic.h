// The clock of the view.
#pragma once

#include <cstdint>
#include <ctime>

inline std::uint64_t monotonic_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000 +
         static_cast<std::uint64_t>(now.tv_nsec) / 1'000'000;
}
