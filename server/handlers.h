// A received datagram, and one handler for each command. Main thread, except finish_leaving.
//
// A handler gets the slot of the sender. Only handle_join also runs for a sender without a slot,
// with NO_SLOT. A handler reads fixed offsets, even in a short datagram. It stores before it
// relays.
#pragma once

#include <netinet/in.h>

#include "server/protocol.h"

using namespace zol;

struct ReceivedDatagram {
  // The receive buffer. The bytes from index `received` on are from earlier datagrams.
  const std::array<std::uint8_t, RECEIVE_BUFFER_SIZE>& bytes;
  std::size_t received;  // bytes; only handle_chat uses it
  sockaddr_in sender;
};

// membership.cpp. The thread that has changed a seat to LEAVING calls finish_leaving. This sends
// the notice to every player in the game and makes the slot FREE.
void handle_join(Slot slot, const ReceivedDatagram& datagram);
void handle_leave(Slot slot, const ReceivedDatagram& datagram);
void finish_leaving(Slot slot);

// presence.cpp
void handle_ping_reply(Slot slot, const ReceivedDatagram& datagram);
void handle_enter_game(Slot slot, const ReceivedDatagram& datagram);
void handle_get_player_info(Slot slot, const ReceivedDatagram& datagram);
void handle_get_player_state(Slot slot, const ReceivedDatagram& datagram);

// vehicles.cpp
void handle_vehicle(Slot slot, const ReceivedDatagram& datagram);
void handle_car_state(Slot slot, const ReceivedDatagram& datagram);
void handle_leave_car(Slot slot, const ReceivedDatagram& datagram);
void handle_foot_update(Slot slot, const ReceivedDatagram& datagram);
void handle_car_block_a(Slot slot, const ReceivedDatagram& datagram);
void handle_car_block_b(Slot slot, const ReceivedDatagram& datagram);
void handle_car_status(Slot slot, const ReceivedDatagram& datagram);

// relays.cpp
void handle_position_update(Slot slot, const ReceivedDatagram& datagram);
void handle_state_floats(Slot slot, const ReceivedDatagram& datagram);
void handle_weapon(Slot slot, const ReceivedDatagram& datagram);
void handle_died(Slot slot, const ReceivedDatagram& datagram);
void handle_chat(Slot slot, const ReceivedDatagram& datagram);
