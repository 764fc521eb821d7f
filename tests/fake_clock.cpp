#include "tests/fake_clock.h"

#include "server/clock.h"

std::atomic<std::uint32_t> fake_now_ms = 0;
std::atomic<std::uint64_t> slept_us = 0;
void (*on_sleep)() = nullptr;

std::uint32_t uptime_ms() {
  return fake_now_ms;
}

void sleep_us(std::uint32_t microseconds) {
  slept_us += microseconds;
  if (on_sleep != nullptr) on_sleep();
}

void sleep_ms(std::uint32_t milliseconds) {
  sleep_us(milliseconds * 1000);
}
