// The server's only source of time, and its waits. A link unit of its own: the tests link a clock
// that they set and waits that return at once. Any thread may call.
#pragma once

#include <cstdint>

// Milliseconds since the machine started, kept to 32 bits: it wraps every 49.7 days, so only
// differences in 32-bit arithmetic mean anything. The reading goes through single precision, which
// makes it coarser the longer the machine runs: 2 ms after five hours, 256 ms after 25 days.
std::uint32_t uptime_ms();

// The milliseconds that uptime_ms makes of an uptime.
std::uint32_t seconds_to_ms(double seconds);

// Signed, so that a time ahead of now counts as negative. It holds across the wrap.
inline std::int32_t ms_between(std::uint32_t since, std::uint32_t now) {
  return static_cast<std::int32_t>(now - since);
}

void sleep_us(std::uint32_t microseconds);
void sleep_ms(std::uint32_t milliseconds);
