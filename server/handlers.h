// One function a command, each on the main thread. A handler gets the sender's slot, which is in
// use; the join gets NO_SLOT from a stranger. It reads its fixed offsets whatever the length of the
// datagram, whatever came with it, and stores before it relays.
#pragma once

#include <cstdint>

#include "server/datagram.h"

// membership.cpp
void handle_join(std::uint8_t slot, const Datagram& datagram);
void handle_leave(std::uint8_t slot, const Datagram& datagram);

// presence.cpp
void handle_ping_reply(std::uint8_t slot, const Datagram& datagram);
void handle_enter_game(std::uint8_t slot, const Datagram& datagram);
void handle_get_player_info(std::uint8_t slot, const Datagram& datagram);
void handle_get_player_state(std::uint8_t slot, const Datagram& datagram);

// chat.cpp
void handle_chat(std::uint8_t slot, const Datagram& datagram);

// vehicles.cpp
void handle_vehicle(std::uint8_t slot, const Datagram& datagram);
void handle_car_state(std::uint8_t slot, const Datagram& datagram);
void handle_leave_car(std::uint8_t slot, const Datagram& datagram);
void handle_foot_update(std::uint8_t slot, const Datagram& datagram);
void handle_car_block_a(std::uint8_t slot, const Datagram& datagram);
void handle_car_block_b(std::uint8_t slot, const Datagram& datagram);
void handle_car_status(std::uint8_t slot, const Datagram& datagram);

// combat.cpp
void handle_weapon(std::uint8_t slot, const Datagram& datagram);
void handle_died(std::uint8_t slot, const Datagram& datagram);

// movement.cpp
void handle_position_update(std::uint8_t slot, const Datagram& datagram);
void handle_state_floats(std::uint8_t slot, const Datagram& datagram);
