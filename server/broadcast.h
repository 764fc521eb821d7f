// One datagram to many players, in slot order. An address that cannot be served means a broken
// socket: the error is printed and the process ends with status 1.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "server/protocol.h"

// To every player in the game. Any thread.
void broadcast_all(std::span<const std::byte> datagram);

// To every player in the game but the one at this address. Any thread; the handlers, which know the
// slot, have the quicker way below.
void broadcast_except_sender(std::span<const std::byte> datagram, const sockaddr_in& sender);

// The same by the sender's slot, which the handlers know. Main thread.
void broadcast_except_slot(std::span<const std::byte> datagram, std::uint8_t sender);

// Sends a line of the server's own to every player in the game. Any thread.
void broadcast_text(const std::array<char, TEXT_WIDTH>& text);
