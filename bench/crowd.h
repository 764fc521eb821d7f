// The players of one measurement, each a socket of its own, all on one thread.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "server/protocol.h"

inline constexpr unsigned MAX_PLAYERS = 32;

enum class Target { SERVER, FLOOR };

// What came in since the crowd was last reset. A datagram that the measurement does not expect, by
// code or by size, is wrong.
struct Tally {
  std::uint64_t relays = 0;
  std::uint64_t answers = 0;  // CMD_GAME_CLOCK to the sender of an update
  std::uint64_t pings = 0;    // each was answered
  std::uint64_t wrong = 0;
};

// One kind of update that the players send, and what becomes of it.
struct Exchange {
  std::size_t relay_size;  // bytes
  unsigned answers;        // that the sender gets
  std::uint8_t command;
  std::uint8_t relay_command;
};

struct Crowd {
  std::array<int, MAX_PLAYERS> handles;
  std::array<std::uint8_t, MAX_PLAYERS> slots;
  unsigned size = 0;
  pid_t target_pid = 0;
  std::uint32_t updates_sent = 0;  // numbers the updates, across all measurements
  Tally tally;
};

// Monotonic, in nanoseconds.
std::int64_t now_ns();
void sleep_until(std::int64_t time_ns);

// Joins this many players, one after the other. False with a line on standard error when one of
// them got no place within 20 seconds.
bool join_crowd(Crowd& crowd, Target target, std::uint16_t port, unsigned size);

// Null when the players have no such update.
const Exchange* find_exchange(std::uint8_t command);

// The next update: the players take turns. False when the socket refused it.
bool send_update(Crowd& crowd, std::uint8_t command);

// Takes whatever waits at any player, without waiting for it. Never sleeping on a socket keeps the
// cost of waking this process out of the target's account.
void collect(Crowd& crowd, const Exchange& exchange);

// Collects until this many relays and answers are in. False when nothing came for a second.
bool collect_until(Crowd& crowd, const Exchange& exchange, std::uint64_t expected);

// Waits for every other player to have the relay of the update just sent, byte for byte right.
bool await_last_update(Crowd& crowd);

// Sleeps until the time has come, answering pings.
void answer_pings_until(Crowd& crowd, std::int64_t time_ns);
