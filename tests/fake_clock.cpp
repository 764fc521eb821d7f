#include "tests/fake_clock.h"

#include <cstring>

#include "server/clock.h"
#include "server/pinkpanther.h"
#include "server/player_table.h"
#include "server/server_state.h"

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

void reset_server(std::uint32_t now_ms) {
  std::memset(static_cast<void*>(&player_table), 0, sizeof player_table);
  server_config = ServerConfig{};
  receive_buffer = {};
  player_count = last_join_slot = 0;
  pinkpanther_slot = NO_SLOT;
  pinkpanther_since = pinkpanther_reselect = 0;
  fake_now_ms = server_start_ms = now_ms;
  slept_us = 0;
}
