// From the command code of a datagram to its handler.
#pragma once

#include "server/handlers.h"

// Whether the server understands this code. Any thread.
bool is_command(std::uint8_t code);

// Handles one received datagram whole: its handler, or the line about an unknown code, and then
// the PinkPanther step. Senders without a slot reach the join alone. Main thread.
void dispatch_datagram(const ReceivedDatagram& datagram);
