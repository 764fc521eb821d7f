#include "server/game_clock.h"

#include "server/clock.h"
#include "server/sending.h"
#include "server/server_state.h"

static std::uint32_t elapsed_ms() {
  return uptime_ms() - server_start_ms;
}

GameClock game_clock() {
  return {.hour = static_cast<std::uint8_t>(elapsed_ms() / 60'000 % 24),
          .minute = static_cast<std::uint8_t>(elapsed_ms() / 1'000 % 60)};
}

void send_game_clock(const sockaddr_in& destination) {
  send_record(destination, game_clock(), SendErrorText::WITHOUT_BLANK);
}
