// Functions for all fuzz targets.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>

// A failed check aborts, so that the fuzzer stores the input.
inline void check(bool holds, const char* property) {
  if (!holds) std::fprintf(stderr, "not true: %s\n", property), std::abort();
}

// Reads the fuzzer's input from its beginning. next() returns 0 after the end.
struct Input {
  const std::uint8_t* bytes;
  std::size_t left;
  std::uint8_t next() { return left == 0 ? 0 : (--left, *bytes++); }
  // The next bytes, at most max_count.
  std::span<const std::uint8_t> take(std::size_t max_count) {
    const std::span<const std::uint8_t> taken(bytes, std::min(max_count, left));
    bytes += taken.size();
    left -= taken.size();
    return taken;
  }
};
