#include "server/liveness.h"

#include "server/clock.h"
#include "server/handlers.h"
#include "server/pinkpanther.h"
#include "server/player_table.h"
#include "server/seams.h"
#include "server/sending.h"
#include "util/console.h"

static constexpr std::uint32_t PING_PERIOD_US = 10'000'000;
static constexpr std::int32_t SILENCE_LIMIT_MS = 100'000;

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
  pass_seam(Seam::PINGING);
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

void ping_pass() {
  const std::uint32_t now = uptime_ms();
  for (Slot slot = 0; slot < slot_limit(); ++slot) check_player(slot, now);
  rotate_pinkpanther(now);
}

void* ping_thread(void* /*unused*/) {
  for (;;) {
    ping_pass();
    sleep_us(PING_PERIOD_US);
  }
}
