#include "server/clock.h"

#include <gtest/gtest.h>

namespace {

TEST(ClockTest, RoundsToSinglePrecisionAnd32Bits) {
  struct Case {
    double seconds;
    std::uint32_t ms;
  };
  for (const Case& c : {
           Case{0, 0}, Case{12.34, 12'340}, Case{16777.21, 16'777'211}, Case{16777.23, 16'777'230},
           Case{20000.01, 20'000'010}, Case{100000.01, 100'000'008},
           Case{2147483.65, 2'147'483'648}, Case{4294967.29, 4'294'967'296 - 4'294'967'296},
           Case{4294968.00, 512}, Case{31536000.55, 1'471'229'952},  // a year, rounded to 2048 ms
       }) {
    EXPECT_EQ(seconds_to_ms(c.seconds), c.ms) << c.seconds;
  }
}

}  // namespace
