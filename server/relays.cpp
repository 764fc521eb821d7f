// Commands that store and relay a player's reports and chat. The frequent ones print nothing.

#include <algorithm>
#include <cstdio>

#include "server/game_clock.h"
#include "server/handlers.h"
#include "server/pinkpanther.h"
#include "server/player_table.h"
#include "server/sending.h"
#include "util/console.h"

void handle_position_update(Slot slot, const ReceivedDatagram& datagram) {
  const auto update = record_of<PositionUpdate>(datagram.bytes);
  player_table[slot].state.position = update.position;
  relay_to_others(PlayerPosition{.slot = slot, .position = update.position}, slot);
}

// After a death, the server answers each of these updates with the time of day until the next join.
void handle_state_floats(Slot slot, const ReceivedDatagram& datagram) {
  const auto update = record_of<StateFloats>(datagram.bytes);
  PlayerSlot& player = player_table[slot];
  if (player.has_died != 0) send_game_clock(datagram.sender);
  player.state.state_f2 = update.state_f2;
  player.state.state_f3 = update.state_f3;
  relay_to_others(PlayerStateFloats{.state_f2 = update.state_f2, .state_f3 = update.state_f3},
                  slot);
}

void handle_weapon(Slot slot, const ReceivedDatagram& datagram) {
  const auto report = record_of<Weapon>(datagram.bytes);
  player_table[slot].state.state_b = report.state_b;
  console_print("Got Weapon from Player [%d] - Type: %d\n", slot, report.state_b);
  relay_to_others(PlayerWeapon{.slot = slot, .state_b = report.state_b}, slot);
}

// The client counts its deaths; the server stores the number unchecked. A death also ends a car
// ride, but the server does not report the end of the ride.
void handle_died(Slot slot, const ReceivedDatagram& datagram) {
  const auto report = record_of<Died>(datagram.bytes);
  PlayerSlot& player = player_table[slot];
  player.in_car = 0;
  player.death_count = report.death_count;
  player.has_died = 1;
  console_print("%s, Player [%d] died %d times\n", player.name, slot, player.death_count);
  relay_to_others(PlayerDied{.slot = slot, .death_count = player.death_count}, slot);
  release_pinkpanther(player);
}

// The only command of variable length: the text ends at its first NUL or at the end of the
// datagram.
void handle_chat(Slot slot, const ReceivedDatagram& datagram) {
  const char* name = player_table[slot].name;
  const auto* text = reinterpret_cast<const char*>(&datagram.bytes[1]);
  const int length = std::max(static_cast<int>(datagram.received) - 1, 0);
  console_print("Message from \"%s\": \"%.*s\"\n", name, length, text);

  // One byte more than the field on the wire, for the NUL of snprintf: the line may fill the field.
  std::array<char, TEXT_WIDTH + 1> formatted{};
  std::snprintf(formatted.data(), formatted.size(), "%s: %.*s", name, length, text);
  ChatLine line;
  std::copy_n(formatted.begin(), line.text.size(), line.text.begin());
  relay_to_others(line, slot);
}
