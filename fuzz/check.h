// What the fuzz targets share.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>

// A broken promise of the server ends the run; the fuzzer keeps the input.
inline void check(bool holds, const char* promise) {
  if (!holds) std::fprintf(stderr, "broken: %s\n", promise), std::abort();
}

// The input from the front, byte by byte; zeros when it is used up.
struct Input {
  const std::uint8_t* bytes;
  std::size_t left;
  std::uint8_t next() { return left == 0 ? 0 : (--left, *bytes++); }
  // At most so many of the bytes that are left.
  std::span<const std::uint8_t> take(std::size_t most) {
    const std::span<const std::uint8_t> taken(bytes, std::min(most, left));
    bytes += taken.size();
    left -= taken.size();
    return taken;
  }
};
