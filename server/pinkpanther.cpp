#include "server/pinkpanther.h"

#include "config/server_config.h"
#include "server/clock.h"
#include "server/sending.h"
#include "server/server_state.h"
#include "util/console.h"

PinkPanther pinkpanther_notice() {
  return {.slot = pinkpanther_slot == NO_SLOT ? NOBODY : pinkpanther_slot};
}

// A player who has not entered the game may be chosen, and the holder again when it is alone.
void run_pinkpanther_step() {
  if (server_config.GameType != CATCH_PINKPANTHER || pinkpanther_reselect == 0) return;
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

void give_up_pinkpanther(PlayerSlot& player) {
  if (player.is_pinkpanther != 1) return;
  if (player_count > 1) pinkpanther_reselect = 1;
  player.is_pinkpanther = 0;
}
