// Weapons and deaths.

#include "server/handlers.h"
#include "server/pinkpanther.h"
#include "server/player_table.h"
#include "server/sending.h"
#include "util/console.h"

void handle_weapon(Slot slot, const Datagram& datagram) {
  const auto report = read_record<Weapon>(datagram);
  player_table[slot].state.state_b = report.state_b;
  console_print("Got Weapon from Player [%d] - Type: %d\n", slot, report.state_b);
  relay_to_others(PlayerWeapon{.slot = slot, .state_b = report.state_b}, slot);
}

// The client counts its deaths; the server takes the number as it stands. A death ends a car ride,
// and no line or datagram says so.
void handle_died(Slot slot, const Datagram& datagram) {
  const auto report = read_record<Died>(datagram);
  PlayerSlot& player = player_table[slot];
  player.in_car = 0;
  player.death_count = report.death_count;
  player.has_died = 1;
  console_print("%s, Player [%d] died %d times\n", player.name, slot, player.death_count);
  relay_to_others(PlayerDied{.slot = slot, .death_count = player.death_count}, slot);
  give_up_pinkpanther(player);
}
