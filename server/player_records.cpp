#include "server/player_records.h"

#include <algorithm>

void store_player_state(PlayerSlot& slot, const PlayerState& state) {
  slot.position = state.position;
  slot.state_f1 = state.state_f1;
  slot.state_b = state.state_b;
  slot.state_f2 = state.state_f2;
  slot.state_f3 = state.state_f3;
}

void store_car_state(PlayerSlot& slot, const CarState& car) {
  slot.car_type = car.car_type;
  slot.car_color1 = car.car_color1;
  slot.car_color2 = car.car_color2;
  slot.car_block_a = car.car_block_a;
  slot.car_block_b = car.car_block_b;
  slot.car_byte = car.car_byte;
  slot.car_float = car.car_float;
}

PlayerState player_state_of(const PlayerSlot& slot) {
  return {
      .position = slot.position,
      .state_f1 = slot.state_f1,
      .state_b = slot.state_b,
      .state_f2 = slot.state_f2,
      .state_f3 = slot.state_f3,
  };
}

CarState car_state_of(const PlayerSlot& slot) {
  return {
      .car_type = slot.car_type,
      .car_color1 = slot.car_color1,
      .car_color2 = slot.car_color2,
      .car_block_a = slot.car_block_a,
      .car_block_b = slot.car_block_b,
      .car_byte = slot.car_byte,
      .car_float = slot.car_float,
  };
}

PlayerInfo player_info_of(std::uint8_t number, bool just_entered) {
  const PlayerSlot& slot = player_table[number];
  PlayerInfo info;
  info.slot = number;
  info.just_entered = just_entered ? 1 : 0;
  std::copy(slot.name.begin(), slot.name.end(), info.name.begin());
  info.state = player_state_of(slot);
  if (slot.in_car != 0) {
    info.in_car = 1;
    info.car = car_state_of(slot);
  }
  return info;
}

PlayerStateReply player_state_reply_of(std::uint8_t number) {
  const PlayerSlot& slot = player_table[number];
  PlayerStateReply reply;
  reply.slot = number;
  reply.position = slot.position;
  if (slot.in_car != 0) {
    reply.in_car = 1;
    reply.car = car_state_of(slot);
  }
  return reply;
}
