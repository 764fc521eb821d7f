// A queue of datagrams to the server. Only one thread at a time may use an outbox.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "server/protocol.h"

namespace zol {

inline constexpr std::size_t OUTBOX_SIZE = 64;  // datagrams

struct Outbox {
  std::array<std::array<std::uint8_t, RECEIVE_BUFFER_SIZE>, OUTBOX_SIZE> datagrams{};
  std::array<std::size_t, OUTBOX_SIZE> sizes{};  // bytes
  std::size_t first = 0;
  std::size_t count = 0;
};

// A full outbox drops the datagram, as the network may.
inline void outbox_add(Outbox& outbox, Datagram datagram) {
  if (outbox.count == OUTBOX_SIZE || datagram.size() > RECEIVE_BUFFER_SIZE) return;
  const std::size_t index = (outbox.first + outbox.count++) % OUTBOX_SIZE;
  std::copy(datagram.begin(), datagram.end(), outbox.datagrams[index].begin());
  outbox.sizes[index] = datagram.size();
}

// Removes and returns the oldest datagram; an empty datagram when the outbox is empty. The bytes
// are valid until the next outbox_add.
inline Datagram outbox_take(Outbox& outbox) {
  if (outbox.count == 0) return {};
  const std::size_t index = outbox.first;
  outbox.first = (outbox.first + 1) % OUTBOX_SIZE;
  --outbox.count;
  return Datagram(outbox.datagrams[index]).first(outbox.sizes[index]);
}

}  // namespace zol
