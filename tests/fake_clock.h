// The clock that tests set, and waits that return at once.
#pragma once

#include <atomic>
#include <cstdint>

extern std::atomic<std::uint32_t> fake_now_ms;
extern std::atomic<std::uint64_t> slept_us;  // all waits together
extern void (*on_sleep)();                   // called in each wait, unless it is null
