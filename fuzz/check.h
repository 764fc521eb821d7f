// Shared by the fuzz targets.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>

// A failed check ends the run, and the fuzzer keeps the input.
inline void check(bool holds, const char* promise) {
  if (!holds) std::fprintf(stderr, "broken: %s\n", promise), std::abort();
}

// Reads the input from the front, byte by byte; returns zeros after its end.
struct Input {
  const std::uint8_t* bytes;
  std::size_t left;
  std::uint8_t next() { return left == 0 ? 0 : (--left, *bytes++); }
  // The next bytes, at most this many.
  std::span<const std::uint8_t> take(std::size_t most) {
    const std::span<const std::uint8_t> taken(bytes, std::min(most, left));
    bytes += taken.size();
    left -= taken.size();
    return taken;
  }
};
