// The server's only source of time, and its waits. The tests link a version with a clock that they
// set and waits that return at once. Any thread may call.
#pragma once

#include <cstdint>

// Milliseconds since the machine started, modulo 2^32: the value wraps every 49.7 days, so only
// differences (ms_between) have a meaning. It is rounded to single precision, whose steps grow with
// the uptime: 2 ms after five hours, 256 ms after 25 days.
std::uint32_t uptime_ms();

// Converts an uptime to the value of uptime_ms.
std::uint32_t seconds_to_ms(double seconds);

// Signed: negative when since is later than now. Correct across the wrap.
inline std::int32_t ms_between(std::uint32_t since, std::uint32_t now) {
  return static_cast<std::int32_t>(now - since);
}

void sleep_us(std::uint32_t microseconds);
void sleep_ms(std::uint32_t milliseconds);
