// The server's sends, in terms of the protocol's records: to one address, to everyone in the game,
// to everyone but one. Any thread may call.
//
// A broadcast that cannot be sent to one of its players means a broken socket: the error is printed
// and the process ends with status 1.
//
// The ping thread may time a player out while the main thread sends a record about that player. A
// notice that arrives before the record would leave a ghost, so both relay_to_others and
// send_record_about look at the seat after the send and repeat the notice when the player is gone.
#pragma once

#include <netinet/in.h>

#include "server/player_table.h"

using namespace zol;

// What a failed send prints: "error writing to socket: <reason>" with a blank before the reason, or
// without it. Each datagram to one address has its fixed text.
enum class SendErrorText { WITH_BLANK, WITHOUT_BLANK };

// A failed send prints its line, and the caller carries on.
void send_record(const sockaddr_in& destination, Datagram record, SendErrorText error_text);

// To every player in the game, in slot order.
void broadcast_all(Datagram record);

// To every player in the game except the one in this slot. NO_SLOT leaves out nobody.
void broadcast_except_sender(Datagram record, Slot slot);

// The common last step of the handlers: the other players get the record, which is about the player
// in this slot. Main thread.
void relay_to_others(Datagram record, Slot slot);

// A record about the player that was seen in this seat, to one address. Main thread.
void send_record_about(Slot slot, Seat seen, const sockaddr_in& destination, Datagram record);

// A line of the server's own to every player in the game.
void broadcast_text(const std::array<char, TEXT_WIDTH>& text);
