#include "announce/announce_thread.h"

#include "announce/master_requests.h"
#include "config/server_config.h"
#include "server/clock.h"
#include "server/player_table.h"
#include "server/server_state.h"
#include "util/console.h"

static void say_refused() {
  console_print("Could not announce server at the zol master server - Check your config...\n");
}

// Once listed, a server of CatchPinkPanther begins with a new choice.
static void ask_for_first_pinkpanther() {
  for (Slot slot = 0; slot < slots_in_play(); ++slot) player_table[slot].is_pinkpanther = 0;
  pinkpanther_reselect = server_config.GameType == CATCH_PINKPANTHER ? 1 : 0;
}

bool announce_first(AnnounceState& state) {
  state.last_announce_ms = uptime_ms();
  console_print("Announcing server at the zol master server...\n");
  switch (master_announce()) {
    case MASTER_RESULT_NO_ANSWER:
      return false;
    case MASTER_RESULT_REFUSED:
      say_refused();
      return false;
    case MASTER_RESULT_LISTED:
      console_print("This server is now listed on the zol server list\n");
      break;
    case MASTER_RESULT_UPDATED:
      console_print("This server was updated on the zol server list\n");
      break;
    default:
      break;
  }
  state.previous_count = static_cast<std::uint32_t>(count_used_slots());
  ask_for_first_pinkpanther();
  return true;
}

void announce_check(AnnounceState& state) {
  const auto count = static_cast<std::uint32_t>(count_used_slots());
  const std::uint32_t now = uptime_ms();
  if (count != state.previous_count || now - state.last_announce_ms >= ANNOUNCE_PERIOD_MS) {
    state.last_announce_ms = now;
    if (master_announce() == MASTER_RESULT_REFUSED) say_refused();
  }
  state.previous_count = count;
}

void* announce_thread(void* /*unused*/) {
  AnnounceState state;
  if (!announce_first(state)) return nullptr;
  for (;;) {
    announce_check(state);
    sleep_us(ANNOUNCE_CHECK_PERIOD_US);
  }
}
