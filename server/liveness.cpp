#include "server/liveness.h"

#include <pthread.h>

#include <cstdio>

#include "config/server_config.h"
#include "server/clock.h"
#include "server/player_table.h"
#include "server/sending.h"
#include "server/server_state.h"

static constexpr std::int32_t SILENCE_LIMIT_MS = 100'000;
static constexpr std::int32_t PINKPANTHER_TERM_MS = 119'999;

// Signed, so that a time ahead of now, as a join sets it, counts as negative; it holds across the
// wrap of the 32-bit clock.
static std::int32_t ms_between(std::uint32_t since, std::uint32_t now) {
  return static_cast<std::int32_t>(now - since);
}

// Flags of the role stay with the slot; only a choice moves them.
static void time_out(PlayerSlot& slot, std::uint8_t number) {
  const std::array<char, NAME_WIDTH> name = copy_name(slot);
  const sockaddr_in address = copy_address(slot);
  if (!free_slot(slot)) return;
  std::printf("%s, Player [%d] timed out\n", name.data(), number);
  PlayerLeft notice;
  notice.slot = number;
  broadcast_except_sender(bytes_of(notice), address);
  --player_count;
}

static void ping(PlayerSlot& slot, std::uint32_t now) {
  send_record(copy_address(slot), Ping{}, SendErrorText::WITHOUT_BLANK);
  if (slot.ping_sent < slot.last_heard) slot.ping_sent = now;
}

static void rotate_pinkpanther(std::uint32_t now) {
  if (server_config.GameType == CATCH_PINKPANTHER &&
      ms_between(pinkpanther_since, now) > PINKPANTHER_TERM_MS && pinkpanther_reselect == 0 &&
      player_count > 1) {
    pinkpanther_reselect = 1;
  }
}

void ping_pass() {
  const std::uint32_t now = uptime_ms();
  std::uint8_t number = 0;
  for (PlayerSlot& slot : playable_slots()) {
    if (slot.in_use != 0) {
      if (ms_between(slot.last_heard, now) > SILENCE_LIMIT_MS) {
        time_out(slot, number);
      } else if (slot.in_game != 0) {
        ping(slot, now);
      }
    }
    ++number;
  }
  rotate_pinkpanther(now);
}

void* ping_thread(void* /*unused*/) {
  pthread_setname_np(pthread_self(), "zol-ping");
  for (;;) {
    ping_pass();
    sleep_us(PING_PERIOD_US);
  }
}
