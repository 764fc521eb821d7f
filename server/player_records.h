// Between a slot's fields and the blocks and records that carry them on the wire. Main thread.
#pragma once

#include <cstdint>

#include "server/player_table.h"
#include "server/protocol.h"

void store_player_state(PlayerSlot& slot, const PlayerState& state);
void store_car_state(PlayerSlot& slot, const CarState& car);

// All that the slot holds, whether or not the player sits in the car; unused bytes are zero.
PlayerState player_state_of(const PlayerSlot& slot);
CarState car_state_of(const PlayerSlot& slot);

// The car is zero in both when the player is on foot.
PlayerInfo player_info_of(std::uint8_t number, bool just_entered);
PlayerStateReply player_state_reply_of(std::uint8_t number);
