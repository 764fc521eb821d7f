// Sends the protocol's records: to one address, to every player in the game, or to all except one.
// Any thread may call.
//
// When a broadcast fails, the server prints the error and exits with status 1.
//
// The ping thread may time a player out while the main thread sends a record about it. A client
// that gets the notice first would show a player that has left. So relay_to_others and
// send_record_about check the seat after the send, and repeat the notice when the player has left.
#pragma once

#include <netinet/in.h>

#include "server/player_table.h"

using namespace zol;

// Whether a blank follows "error writing to socket:". Each kind of datagram has one of the forms.
enum class SendErrorText { WITH_BLANK, WITHOUT_BLANK };

// Sends to one address. Prints a line when the send fails.
void send_record(const sockaddr_in& destination, Datagram record, SendErrorText error_text);

// Sends to every player in the game, in slot order.
void broadcast_all(Datagram record);

// Sends to every player in the game except the one in this slot. NO_SLOT excludes nobody.
void broadcast_except_sender(Datagram record, Slot slot);

// The last step of most handlers: sends the other players a record about this slot. Main thread.
void relay_to_others(Datagram record, Slot slot);

// Sends a record about another player to one address. `seen` is that player's seat when the record
// was made. Main thread.
void send_record_about(Slot slot, Seat seen, const sockaddr_in& destination, Datagram record);

// Sends a chat line of the server to every player in the game.
void broadcast_text(const std::array<char, TEXT_WIDTH>& text);
