// A clock that tests set, waits that return at once, and a reset of the server.
#pragma once

#include <atomic>
#include <cstdint>

extern std::atomic<std::uint32_t> fake_now_ms;
extern std::atomic<std::uint64_t> slept_us;  // the sum of all waits
extern void (*on_sleep)();                   // called in each wait, unless it is null

// Resets the server's state to that before the first datagram, at this time.
void reset_server(std::uint32_t now_ms);
