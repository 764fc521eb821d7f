// A fake of server/clock.h: the tests set the time, and sleeps return at once.
#pragma once

#include <atomic>
#include <cstdint>

extern std::atomic<std::uint32_t> fake_now_ms;
extern std::atomic<std::uint64_t> slept_us;  // the sum of all sleeps
extern void (*on_sleep)();                   // called in each sleep, unless it is null

// Sets the time, and resets the server's state as before its first datagram.
void reset_server(std::uint32_t now_ms);
