// A received datagram as the handlers see it.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "server/protocol.h"

struct Datagram {
  // The receive buffer: behind the received bytes lie those of earlier datagrams.
  const std::array<std::uint8_t, RECEIVE_BUFFER_SIZE>& bytes;
  std::size_t received;  // bytes; only the chat looks at it
  sockaddr_in sender;
};

// The datagram as one of the protocol's records, whatever its length.
template <WireRecord Record>
Record read_record(const Datagram& datagram) {
  Record record;
  std::memcpy(&record, datagram.bytes.data(), sizeof record);
  return record;
}
