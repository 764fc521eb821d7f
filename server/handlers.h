// One function a command, each on the main thread. A handler gets the sender's slot, which is in
// use; the join gets NO_SLOT from a stranger. It reads its fixed offsets whatever the length of the
// datagram, and it stores, logs, answers and relays in that order unless it says otherwise.
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

// movement.cpp
void handle_position_update(std::uint8_t slot, const Datagram& datagram);
void handle_state_floats(std::uint8_t slot, const Datagram& datagram);
