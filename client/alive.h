// A question to an address, and the answer that shows that a server runs there. Takes no slot.
#pragma once

#include <cstdint>

#include "server/protocol.h"

namespace zol {

// Datagrams may be lost. All tries together take less than two seconds.
inline constexpr int ALIVE_TRIES = 3;
inline constexpr std::uint64_t ALIVE_TRY_MS = 650;

// A join with a version that no server has. Every server refuses it, and a refusal takes no slot
// and prints nothing.
inline constexpr JoinRequest ALIVE_QUESTION{.version = 0};
static_assert(ALIVE_QUESTION.version != PROTOCOL_VERSION);

inline bool is_alive_answer(Datagram datagram) {
  constexpr auto CODE = static_cast<std::uint8_t>(ServerCommand::CMD_JOIN_REFUSED_VERSION);
  return datagram.size() == sizeof(JoinRefusedVersion) && datagram.front() == CODE;
}

}  // namespace zol
