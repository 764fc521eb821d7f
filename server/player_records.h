// Between a player's slot and the wire's blocks and records. Main thread.
#pragma once

#include "server/player_table.h"

// As reported, but for the unused bytes, which become zero.
void store_state(PlayerSlot& player, const PlayerState& state);
void store_car(PlayerSlot& player, const CarState& car);

// Both describe the player of a slot; the car is zero while the player is on foot.
PlayerInfo player_info_of(Slot slot, bool just_entered);
PlayerStateReply player_state_reply_of(Slot slot);
