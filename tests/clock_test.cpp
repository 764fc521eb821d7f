#include "server/clock.h"

#include <gtest/gtest.h>

namespace {

TEST(ClockTest, GoesThroughSinglePrecisionAnd32Bits) {
  struct Case {
    const char* text;
    std::uint32_t ms;
  };
  for (const Case& c : {
           Case{"0.00 0.00\n", 0}, Case{"12.34 99.99\n", 12'340},
           Case{"16777.21 1.00\n", 16'777'211}, Case{"16777.23 1.00\n", 16'777'230},
           Case{"20000.01 1.00\n", 20'000'010}, Case{"100000.01 1.00\n", 100'000'008},
           Case{"2147483.65 1.00\n", 2'147'483'648},
           Case{"4294967.29 1.00\n", 4'294'967'296 - 4'294'967'296}, Case{"4294968.00 1.00\n", 512},
           Case{"31536000.55 1.00\n", 1'471'229'952},  // a year, rounded to 2048 ms
       }) {
    EXPECT_EQ(uptime_text_to_ms(c.text), c.ms) << c.text;
  }
}

}  // namespace
