// The players of a measurement, all on one thread. They send updates in turn, and compare every
// received datagram byte for byte with the expected datagram.
#pragma once

#include <netinet/in.h>

#include <array>
#include <chrono>
#include <cstdint>

#include "server/protocol.h"

using namespace zol;

enum class Update { POSITION, CAR_STATE, DEATH, STATE_FLOATS };

struct Player {
  int handle = -1;
  std::uint8_t slot = 0;
  std::uint32_t next = 0;  // the number of the update that must arrive next
};

struct Crowd {
  std::array<Player, MAX_CLIENTS> players;
  unsigned size = 0;
  Update kind = Update::POSITION;
  std::uint32_t sent = 0;   // updates since the start; also the number of the next update
  std::uint64_t right = 0;  // received datagrams that were expected, without pings
  std::uint64_t wrong = 0;  // received datagrams that were not expected, without pings
};

using Clock = std::chrono::steady_clock;

// Joins one more player. The player enters the game, unless the server is relay_floor. False when a
// datagram cannot be sent or an answer does not arrive within ten seconds.
bool join_player(Crowd& crowd, bool is_floor, const sockaddr_in& server);

// Sets the kind of the next updates and resets the counts.
void begin_updates(Crowd& crowd, Update kind);
bool send_update(Crowd& crowd);  // false when the datagram cannot be sent
unsigned datagrams_per_update(const Crowd& crowd);

// Waits until all players have received the updates up to this number; false after ten seconds. It
// polls, because the wake-up of a sleeping thread would cost the measured program time.
bool await_update(Crowd& crowd, std::uint32_t update);

void answer_pings_until(Crowd& crowd, Clock::time_point time);
