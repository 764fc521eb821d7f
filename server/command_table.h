// Finds the handler of a datagram by its command code.
#pragma once

#include "server/handlers.h"

// Whether the server understands this code. Any thread.
bool is_command(std::uint8_t code);

// Calls the handler of a datagram, or prints a line about an unknown code. Then runs the
// PinkPanther step, except after a join. Ignores every other command of a sender without a slot.
// Main thread.
void dispatch_datagram(const ReceivedDatagram& datagram);
