// The players of one measurement, all on one thread. They take turns sending updates, and every
// datagram that comes back is compared byte for byte with what it has to be.
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
  std::uint32_t next = 0;  // the update that the next datagram has to be of
};

struct Crowd {
  std::array<Player, MAX_CLIENTS> players;
  unsigned size = 0;
  Update kind = Update::POSITION;
  std::uint32_t sent = 0;   // updates since the start, which numbers them
  std::uint64_t right = 0;  // datagrams that came as they should, pings not counted
  std::uint64_t wrong = 0;  // all others
};

using Clock = std::chrono::steady_clock;

// Joins one more player, who enters the game unless it is the floor. False when it got no place.
bool join_player(Crowd& crowd, bool is_floor, const sockaddr_in& server);

// Starts the counts anew.
void begin_updates(Crowd& crowd, Update kind);
bool send_update(Crowd& crowd);
unsigned datagrams_per_update(const Crowd& crowd);

// Waits until all players have what the updates up to this one bring them; false after ten seconds.
// It asks again and again: a thread that slept would be woken by the program under measurement, at
// that program's expense.
bool await_update(Crowd& crowd, std::uint32_t update);

void answer_pings_until(Crowd& crowd, Clock::time_point time);
