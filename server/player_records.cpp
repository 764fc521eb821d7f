#include "server/player_records.h"

#include <algorithm>

void store_state(PlayerSlot& player, const PlayerState& state) {
  player.state = state;
  player.state.unused_1 = {};
}

void store_car(PlayerSlot& player, const CarState& car) {
  player.car = car;
  player.car.unused_1 = {};
  player.car.unused_2 = {};
}

PlayerInfo player_info_of(Slot slot, bool just_entered) {
  const PlayerSlot& player = player_table[slot];
  PlayerInfo info{.slot = slot, .state = player.state};
  info.just_entered = just_entered ? 1 : 0;
  std::copy(player.name.begin(), player.name.end(), info.name.begin());
  if (player.in_car != 0) {
    info.in_car = 1;
    info.car = player.car;
  }
  return info;
}

PlayerStateReply player_state_reply_of(Slot slot) {
  const PlayerSlot& player = player_table[slot];
  PlayerStateReply reply{.slot = slot, .position = player.state.position};
  if (player.in_car != 0) {
    reply.in_car = 1;
    reply.car = player.car;
  }
  return reply;
}
