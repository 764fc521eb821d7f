// Position and state floats: stored, relayed at once, never logged.

#include "server/game_clock.h"
#include "server/handlers.h"
#include "server/player_table.h"
#include "server/sending.h"

void handle_position_update(Slot slot, const Datagram& datagram) {
  const auto update = read_record<PositionUpdate>(datagram);
  player_table[slot].state.position = update.position;
  relay_to_others(PlayerPosition{.slot = slot, .position = update.position}, slot);
}

// From its death to its next join a player is told the time with each of its updates.
void handle_state_floats(Slot slot, const Datagram& datagram) {
  const auto update = read_record<StateFloats>(datagram);
  PlayerSlot& player = player_table[slot];
  if (player.has_died != 0) send_game_clock(datagram.sender);
  player.state.state_f2 = update.state_f2;
  player.state.state_f3 = update.state_f3;
  relay_to_others(PlayerStateFloats{.state_f2 = update.state_f2, .state_f3 = update.state_f3},
                  slot);
}
