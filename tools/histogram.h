// Delays counted in fixed buckets: exact below 32 ns, from there 32 buckets to each power of two,
// so that a percentile is at most 1/32 too high.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

inline constexpr unsigned HISTOGRAM_STEP_BITS = 5;
inline constexpr unsigned HISTOGRAM_STEPS = 1U << HISTOGRAM_STEP_BITS;
inline constexpr unsigned HISTOGRAM_BUCKETS = (64 - HISTOGRAM_STEP_BITS + 1) * HISTOGRAM_STEPS;

struct Histogram {
  std::array<std::uint64_t, HISTOGRAM_BUCKETS> counts{};
  std::uint64_t total = 0;
  std::uint64_t max_ns = 0;
};

inline void histogram_add(Histogram& histogram, std::uint64_t delay_ns) {
  const auto width = static_cast<unsigned>(std::bit_width(delay_ns));
  const unsigned shift = width > HISTOGRAM_STEP_BITS + 1 ? width - HISTOGRAM_STEP_BITS - 1 : 0;
  const auto step = static_cast<unsigned>(delay_ns >> shift);
  ++histogram.counts[std::size_t{shift} * HISTOGRAM_STEPS + step];
  ++histogram.total;
  histogram.max_ns = std::max(histogram.max_ns, delay_ns);
}

// The upper end of the bucket that holds the percentile, in ns; 0 when nothing was counted.
inline std::uint64_t histogram_percentile(const Histogram& histogram, unsigned percent) {
  std::uint64_t wanted = (histogram.total * percent + 99) / 100;
  for (unsigned bucket = 0; bucket < HISTOGRAM_BUCKETS && wanted != 0; ++bucket) {
    if (histogram.counts[bucket] < wanted) {
      wanted -= histogram.counts[bucket];
      continue;
    }
    const unsigned shift = bucket < 2 * HISTOGRAM_STEPS ? 0 : bucket / HISTOGRAM_STEPS - 1;
    const std::uint64_t step = bucket - std::uint64_t{shift} * HISTOGRAM_STEPS;
    return std::min(((step + 1) << shift) - 1, histogram.max_ns);
  }
  return 0;
}
