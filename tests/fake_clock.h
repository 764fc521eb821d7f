// The clock that tests set, waits that return at once, and a server that begins anew.
#pragma once

#include <atomic>
#include <cstdint>

extern std::atomic<std::uint32_t> fake_now_ms;
extern std::atomic<std::uint64_t> slept_us;  // all waits together
extern void (*on_sleep)();                   // called in each wait, unless it is null

// The server's state as it is before the first datagram, on a clock that shows this time.
void reset_server(std::uint32_t now_ms);
