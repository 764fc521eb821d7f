// The players of one measurement, all on one thread. They send updates in turn, and compare every
// datagram that they receive byte for byte with the expected one.
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
  std::uint32_t next = 0;  // the update of the next datagram
};

struct Crowd {
  std::array<Player, MAX_CLIENTS> players;
  unsigned size = 0;
  Update kind = Update::POSITION;
  std::uint32_t sent = 0;   // updates since the start, which number them
  std::uint64_t right = 0;  // expected datagrams, except pings
  std::uint64_t wrong = 0;  // all others
};

using Clock = std::chrono::steady_clock;

// Joins another player, which enters the game unless the server is the floor. False without a
// place.
bool join_player(Crowd& crowd, bool is_floor, const sockaddr_in& server);

// Resets the counts.
void begin_updates(Crowd& crowd, Update kind);
bool send_update(Crowd& crowd);
unsigned datagrams_per_update(const Crowd& crowd);

// Waits until all players have received the updates up to this one; false after ten seconds. It
// polls, because a thread that sleeps would be woken at the expense of the measured program.
bool await_update(Crowd& crowd, std::uint32_t update);

void answer_pings_until(Crowd& crowd, Clock::time_point time);
