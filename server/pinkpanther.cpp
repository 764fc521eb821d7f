#include "server/pinkpanther.h"

#include "server/clock.h"
#include "server/sending.h"
#include "server/server_state.h"
#include "util/console.h"

static constexpr std::int32_t TERM_MS = 119'999;

static bool is_catch_pinkpanther() {
  return server_config.GameType == CATCH_PINKPANTHER;
}

static PinkPanther pinkpanther_notice() {
  return {.slot = pinkpanther_slot == NO_SLOT ? NOBODY : pinkpanther_slot};
}

// Does not check the game type; run_pinkpanther_step does.
void request_pinkpanther_after_join() {
  if (player_count > 1 && pinkpanther_slot == NO_SLOT) pinkpanther_reselect = 1;
}

void release_pinkpanther(PlayerSlot& player) {
  if (player.is_pinkpanther != 1) return;
  if (player_count > 1) pinkpanther_reselect = 1;
  player.is_pinkpanther = 0;
}

// Reads reselect before since. The main thread sets since and then clears reselect, so the other
// order could combine the old time with the cleared flag.
void rotate_pinkpanther(std::uint32_t now) {
  if (is_catch_pinkpanther() && pinkpanther_reselect == 0 &&
      ms_between(pinkpanther_since, now) > TERM_MS && player_count > 1) {
    pinkpanther_reselect = 1;
  }
}

void restart_pinkpanther() {
  for (Slot slot = 0; slot < slot_limit(); ++slot) player_table[slot].is_pinkpanther = 0;
  pinkpanther_reselect = is_catch_pinkpanther() ? 1 : 0;
}

// The choice includes players that have not entered the game.
void run_pinkpanther_step() {
  if (!is_catch_pinkpanther() || pinkpanther_reselect == 0) return;
  const Slot candidate = next_used_slot(pinkpanther_slot);
  for (PlayerSlot& player : player_table) player.is_pinkpanther = 0;
  pinkpanther_slot = player_count > 1 ? candidate : NO_SLOT;
  if (pinkpanther_slot != NO_SLOT) {
    player_table[pinkpanther_slot].is_pinkpanther = 1;
    console_print("Player [%d] is the PinkPanther now \n", pinkpanther_slot);
  } else {
    console_print("Too less players. Nobody is the PinkPanther \n");
  }
  broadcast_all(pinkpanther_notice());
  if (pinkpanther_slot != NO_SLOT) pinkpanther_since = uptime_ms();
  pinkpanther_reselect = 0;
}

void send_pinkpanther(const sockaddr_in& newcomer) {
  if (!is_catch_pinkpanther() || player_count <= 1) return;
  send_record(newcomer, pinkpanther_notice(), SendErrorText::WITHOUT_BLANK);
}
