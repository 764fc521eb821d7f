// What the bots must hear: every datagram that the server owes them because of one of theirs.
//
// There is one ring for each slot, with the relays caused by the bot in that slot, and one for each
// bot, with the answers to it alone. Both hold their datagrams in the order in which the bots sent
// what caused them, so each receiver walks each ring with a cursor of its own.
//
// A relay is stored once, with a bit for each bot that must or may get it. What was to be received
// and was not is lost, but only when its place in the ring is needed again or at the end, so that
// nothing is called lost that still lies in a socket.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "server/protocol.h"

inline constexpr unsigned MAX_BOTS = 32;
inline constexpr unsigned SLOTS = 32;
inline constexpr unsigned RINGS = SLOTS + MAX_BOTS;
// Datagrams a ring holds: the fastest bots fill one in about three seconds.
inline constexpr std::uint64_t RING_SIZE = 1024;

using BotSet = std::uint32_t;  // one bit a bot
using Bytes = std::span<const std::uint8_t>;

// Of a datagram from the server.
inline ServerCommand command_of(Bytes datagram) {
  return ServerCommand{datagram[0]};
}

inline BotSet only(unsigned bot) {
  return BotSet{1} << bot;
}

struct Expectation {
  std::uint64_t sent_ns = 0;  // when its cause was sent
  BotSet required = 0;        // who must get it
  BotSet optional = 0;        // who may get it
  BotSet received = 0;
  std::uint8_t length = 0;
  std::uint8_t compared = 0;  // leading bytes that are known; the rest is judged by its code
  std::array<std::uint8_t, sizeof(PlayerInfo)> bytes{};
};

struct Tally {
  std::uint64_t expected = 0;
  std::uint64_t received = 0;
  std::uint64_t lost = 0;
  std::uint64_t wrong = 0;
};

enum class Verdict { EXPECTED, OUT_OF_ORDER, REPEATED, UNEXPECTED };

struct Match {
  Verdict verdict;
  Expectation* expectation;  // matched; with REPEATED and UNEXPECTED the next one due, or null
};

inline unsigned relay_ring(Slot slot) {
  return slot;
}

inline unsigned answer_ring(unsigned bot) {
  return SLOTS + bot;
}

// Returns its number in the ring.
std::uint64_t expect(unsigned ring, const Expectation& expectation);

Match match(unsigned ring, unsigned receiver, Bytes datagram, std::uint64_t now_ns);

// Makes what was optional for these bots required, unless it has left the ring.
void require(unsigned ring, std::uint64_t number, BotSet bots);

// What was sent since then and the bot has not received yet, it need not receive any more.
void excuse(unsigned receiver, std::uint64_t since_ns);

// How many datagrams must still come.
std::uint64_t outstanding();

// To be called at the end: whatever has not come is lost.
void settle_expectations();

extern Tally relay_tally;
extern Tally answer_tally;
