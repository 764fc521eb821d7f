// The server's only clock, and its sleeps. The tests link a fake clock. Any thread may call.
#pragma once

#include <cstdint>

// Milliseconds since the machine started, modulo 2^32: the value wraps every 49.7 days, so only
// differences (ms_between) have a meaning. It is rounded to single precision, whose steps grow with
// the uptime: 2 ms after five hours, 256 ms after 25 days.
std::uint32_t uptime_ms();

// Converts an uptime in seconds to the value that uptime_ms returns.
std::uint32_t seconds_to_ms(double seconds);

// Negative when `since` is later than `now`. Correct when the value has wrapped in between.
inline std::int32_t ms_between(std::uint32_t since, std::uint32_t now) {
  return static_cast<std::int32_t>(now - since);
}

void sleep_us(std::uint32_t microseconds);
void sleep_ms(std::uint32_t milliseconds);
