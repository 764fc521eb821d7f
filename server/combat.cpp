// Weapons and deaths.

#include <cstdio>

#include "server/handlers.h"
#include "server/pinkpanther.h"
#include "server/player_table.h"
#include "server/sending.h"

void handle_weapon(std::uint8_t slot, const Datagram& datagram) {
  const auto report = read_record<Weapon>(datagram);
  player_table[slot].state_b = report.state_b;
  std::printf("Got Weapon from Player [%d] - Type: %d\n", slot, report.state_b);

  PlayerWeapon relay;
  relay.slot = slot;
  relay.state_b = report.state_b;
  relay_to_others(relay, slot);
}

// The client counts its deaths; the server takes the number as it stands. A car ride ends without a
// word about it.
void handle_died(std::uint8_t slot, const Datagram& datagram) {
  const auto report = read_record<Died>(datagram);
  PlayerSlot& player = player_table[slot];
  player.in_car = 0;
  player.death_count = report.death_count;
  player.has_died = 1;
  std::printf("%s, Player [%d] died %d times\n", player.name.data(), slot, player.death_count);

  PlayerDied relay;
  relay.slot = slot;
  relay.death_count = player.death_count;
  relay_to_others(relay, slot);
  give_up_pinkpanther(player);
}
