#include "server/pinkpanther.h"

#include <cstdio>

#include "config/server_config.h"
#include "server/clock.h"
#include "server/sending.h"
#include "server/server_state.h"

static void name_pinkpanther(std::uint8_t slot) {
  pinkpanther_slot = slot;
  player_table[slot].is_pinkpanther = 1;
  std::printf("Player [%d] is the PinkPanther now \n", slot);
  pinkpanther_announcement.slot = slot;
  broadcast_all(bytes_of(pinkpanther_announcement));
  pinkpanther_since = uptime_ms();
}

static void name_nobody() {
  pinkpanther_slot = NO_SLOT;
  std::printf("Too less players. Nobody is the PinkPanther \n");
  pinkpanther_announcement.slot = NOBODY;
  broadcast_all(bytes_of(pinkpanther_announcement));
}

// A player who has not entered the game may be chosen, and the holder again when it is alone.
void run_pinkpanther_step(std::uint8_t handled_code) {
  if (server_config.GameType != CATCH_PINKPANTHER || pinkpanther_reselect == 0 ||
      handled_code == CMD_JOIN) {
    return;
  }
  const std::int8_t candidate = next_used_slot(pinkpanther_slot);
  for (PlayerSlot& slot : player_table) slot.is_pinkpanther = 0;
  if (candidate >= 0 && player_count > 1) {
    name_pinkpanther(static_cast<std::uint8_t>(candidate));
  } else {
    name_nobody();
  }
  pinkpanther_reselect = 0;
}

void give_up_pinkpanther(PlayerSlot& slot) {
  if (slot.is_pinkpanther != 1) return;
  if (player_count > 1) pinkpanther_reselect = 1;
  slot.is_pinkpanther = 0;
}
