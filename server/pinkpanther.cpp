#include "server/pinkpanther.h"

#include "server/server_state.h"

void give_up_pinkpanther(PlayerSlot& slot) {
  if (slot.is_pinkpanther != 1) return;
  if (player_count > 1) pinkpanther_reselect = 1;
  slot.is_pinkpanther = 0;
}
