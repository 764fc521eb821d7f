#include "server/game_clock.h"

#include "server/clock.h"
#include "server/sending.h"
#include "server/server_state.h"

static std::uint32_t elapsed_ms() {
  return uptime_ms() - server_start_ms;
}

std::uint8_t game_hour() {
  return static_cast<std::uint8_t>(elapsed_ms() / 60'000 % 24);
}

std::uint8_t game_minute() {
  return static_cast<std::uint8_t>(elapsed_ms() / 1'000 % 60);
}

void send_game_clock(const sockaddr_in& destination) {
  const GameClock answer{.hour = game_hour(), .minute = game_minute()};
  send_record(destination, answer, SendErrorText::WITHOUT_BLANK);
}
