// A histogram of delays: one bucket per nanosecond below 64 ns, and 32 buckets for each power of
// two above. So a percentile is at most 1/32 too high. Only one thread at a time may use a
// histogram.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

inline constexpr unsigned PRECISION_BITS = 5;
inline constexpr unsigned BUCKETS_PER_POWER = 1U << PRECISION_BITS;
inline constexpr unsigned BUCKETS = (64 - PRECISION_BITS + 1) * BUCKETS_PER_POWER;

struct Histogram {
  std::array<std::uint64_t, BUCKETS> counts{};
  std::uint64_t total = 0;
  std::uint64_t max_ns = 0;
};

inline void histogram_add(Histogram& histogram, std::uint64_t delay_ns) {
  const auto width = static_cast<unsigned>(std::bit_width(delay_ns));
  const unsigned shift = width > PRECISION_BITS + 1 ? width - PRECISION_BITS - 1 : 0;
  const auto leading_bits = static_cast<unsigned>(delay_ns >> shift);
  ++histogram.counts[std::size_t{shift} * BUCKETS_PER_POWER + leading_bits];
  ++histogram.total;
  histogram.max_ns = std::max(histogram.max_ns, delay_ns);
}

// The upper end of the bucket with this percentile, in ns; 0 for an empty histogram.
inline std::uint64_t histogram_percentile(const Histogram& histogram, unsigned percent) {
  std::uint64_t rank = (histogram.total * percent + 99) / 100;
  for (unsigned bucket = 0; bucket < BUCKETS && rank != 0; ++bucket) {
    if (histogram.counts[bucket] < rank) {
      rank -= histogram.counts[bucket];
      continue;
    }
    const unsigned shift = bucket < 2 * BUCKETS_PER_POWER ? 0 : bucket / BUCKETS_PER_POWER - 1;
    const std::uint64_t leading_bits = bucket - std::uint64_t{shift} * BUCKETS_PER_POWER;
    return std::min(((leading_bits + 1) << shift) - 1, histogram.max_ns);
  }
  return 0;
}
