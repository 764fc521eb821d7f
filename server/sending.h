// The server's sends, in terms of the protocol's records. Any thread may call, but for
// relay_to_others.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "server/broadcast.h"
#include "server/protocol.h"

// What a failed send prints: "error writing to socket: <reason>" with a blank before the reason, or
// the same without. Each sender of a datagram has its fixed one.
enum class SendErrorText { WITH_BLANK, WITHOUT_BLANK };

template <WireRecord Record>
std::span<const std::byte> bytes_of(const Record& record) {
  return std::as_bytes(std::span(&record, 1));
}

// False when the send failed and its line was printed; the caller may carry on.
bool send_bytes(const sockaddr_in& destination, std::span<const std::byte> datagram,
                SendErrorText error_text);

template <WireRecord Record>
bool send_record(const sockaddr_in& destination, const Record& record, SendErrorText error_text) {
  return send_bytes(destination, bytes_of(record), error_text);
}

// The common last step of the handlers: everyone in the game but the sender gets the record.
template <WireRecord Record>
void relay_to_others(const Record& record, std::uint8_t sender_slot) {
  broadcast_except_slot(bytes_of(record), sender_slot);
}
