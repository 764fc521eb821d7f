// Position and state floats: stored, relayed at once, never logged.

#include "server/game_clock.h"
#include "server/handlers.h"
#include "server/player_table.h"
#include "server/sending.h"

void handle_position_update(std::uint8_t slot, const Datagram& datagram) {
  const auto update = read_record<PositionUpdate>(datagram);
  player_table[slot].position = update.position;

  PlayerPosition relay;
  relay.slot = slot;
  relay.position = update.position;
  relay_to_others(relay, slot);
}

// From its death to its next join a player is told the time with each of its updates.
void handle_state_floats(std::uint8_t slot, const Datagram& datagram) {
  const auto update = read_record<StateFloats>(datagram);
  PlayerSlot& player = player_table[slot];
  if (player.has_died != 0) send_game_clock(datagram.sender);
  player.state_f2 = update.state_f2;
  player.state_f3 = update.state_f3;

  PlayerStateFloats relay;
  relay.state_f2 = player.state_f2;
  relay.state_f3 = player.state_f3;
  relay_to_others(relay, slot);
}
