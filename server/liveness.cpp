#include "server/liveness.h"

#include "config/server_config.h"
#include "server/clock.h"
#include "server/membership.h"
#include "server/player_table.h"
#include "server/seams.h"
#include "server/sending.h"
#include "server/server_state.h"
#include "util/console.h"

static constexpr std::int32_t SILENCE_LIMIT_MS = 100'000;
static constexpr std::int32_t PINKPANTHER_TERM_MS = 119'999;

// Signed, so that a time ahead of now, as a join sets it, counts as negative; it holds across the
// wrap of the 32-bit clock.
static std::int32_t ms_between(std::uint32_t since, std::uint32_t now) {
  return static_cast<std::int32_t>(now - since);
}

static void time_out(Slot slot, Seat seen) {
  PlayerSlot& player = player_table[slot];
  pass_seam(Seam::TIME_OUT_DECIDED);
  if (!change_seat(player, seen, SeatState::LEAVING)) return;
  pass_seam(Seam::TIMED_OUT);
  console_print("%s, Player [%d] timed out\n", player.name, slot);
  finish_leaving(slot);
}

static void ping(PlayerSlot& player, Seat seen, std::uint32_t now) {
  sockaddr_in address;
  if (!read_address(player, seen, address)) return;
  send_record(address, Ping{}, SendErrorText::WITHOUT_BLANK);
  if (player.ping_sent < player.last_heard) player.ping_sent = now;
}

static void check_player(Slot slot, std::uint32_t now) {
  PlayerSlot& player = player_table[slot];
  const Seat seen = player.seat;
  if (!is_used(seen)) return;
  if (ms_between(player.last_heard, now) > SILENCE_LIMIT_MS) {
    time_out(slot, seen);
  } else if (seen.state == SeatState::IN_GAME) {
    ping(player, seen, now);
  }
}

// reselect is read before since: the main thread clears it after a choice, behind since. The other
// way round this could see the time from before a choice and the flag from after it.
static void rotate_pinkpanther(std::uint32_t now) {
  if (server_config.GameType == CATCH_PINKPANTHER && pinkpanther_reselect == 0 &&
      ms_between(pinkpanther_since, now) > PINKPANTHER_TERM_MS && player_count > 1) {
    pinkpanther_reselect = 1;
  }
}

void ping_pass() {
  const std::uint32_t now = uptime_ms();
  for (Slot slot = 0; slot < slots_in_play(); ++slot) check_player(slot, now);
  rotate_pinkpanther(now);
}

void* ping_thread(void* /*unused*/) {
  for (;;) {
    ping_pass();
    sleep_us(PING_PERIOD_US);
  }
}
