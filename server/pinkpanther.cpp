#include "server/pinkpanther.h"

#include "config/server_config.h"
#include "server/clock.h"
#include "server/sending.h"
#include "server/server_state.h"
#include "util/console.h"

PinkPanther pinkpanther_notice() {
  return {.slot = pinkpanther_slot == NO_SLOT ? NOBODY : pinkpanther_slot};
}

static void name_pinkpanther(Slot slot) {
  pinkpanther_slot = slot;
  player_table[slot].is_pinkpanther = 1;
  console_print("Player [%d] is the PinkPanther now \n", slot);
  broadcast_all(pinkpanther_notice());
  pinkpanther_since = uptime_ms();
}

static void name_nobody() {
  pinkpanther_slot = NO_SLOT;
  console_print("Too less players. Nobody is the PinkPanther \n");
  broadcast_all(pinkpanther_notice());
}

// A player who has not entered the game may be chosen, and the holder again when it is alone.
void run_pinkpanther_step(std::uint8_t handled_code) {
  if (server_config.GameType != CATCH_PINKPANTHER || pinkpanther_reselect == 0 ||
      ClientCommand{handled_code} == ClientCommand::CMD_JOIN) {
    return;
  }
  const Slot candidate = next_used_slot(pinkpanther_slot);
  for (PlayerSlot& player : player_table) player.is_pinkpanther = 0;
  if (candidate != NO_SLOT && player_count > 1) {
    name_pinkpanther(candidate);
  } else {
    name_nobody();
  }
  pinkpanther_reselect = 0;
}

void give_up_pinkpanther(PlayerSlot& player) {
  if (player.is_pinkpanther != 1) return;
  if (player_count > 1) pinkpanther_reselect = 1;
  player.is_pinkpanther = 0;
}
