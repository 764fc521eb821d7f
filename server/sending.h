// The server's sends, in terms of the protocol's records: to one address, to everyone in the game,
// to everyone but one. Any thread may call.
//
// A broadcast that cannot be sent to one of its players means a broken socket: the error is printed
// and the process ends with status 1.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <span>

#include "server/protocol.h"

// What a failed send prints: "error writing to socket: <reason>" with a blank before the reason, or
// without it. Each datagram to one address has its fixed text.
enum class SendErrorText { WITH_BLANK, WITHOUT_BLANK };

template <WireRecord Record>
std::span<const std::byte> bytes_of(const Record& record) {
  return std::as_bytes(std::span(&record, 1));
}

// A failed send prints its line, and the caller carries on.
void send_bytes(const sockaddr_in& destination, std::span<const std::byte> datagram,
                SendErrorText error_text);

template <WireRecord Record>
void send_record(const sockaddr_in& destination, const Record& record, SendErrorText error_text) {
  send_bytes(destination, bytes_of(record), error_text);
}

// To every player in the game, in slot order, but the excluded one; NO_SLOT excludes nobody.
void broadcast(std::span<const std::byte> datagram, Slot excluded);

template <WireRecord Record>
void broadcast_all(const Record& record) {
  broadcast(bytes_of(record), NO_SLOT);
}

// The common last step of the handlers: everyone in the game but this player gets the record.
template <WireRecord Record>
void relay_to_others(const Record& record, Slot slot) {
  broadcast(bytes_of(record), slot);
}

// A line of the server's own to every player in the game.
void broadcast_text(const std::array<char, TEXT_WIDTH>& text);
