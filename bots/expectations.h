// The expected datagrams: every datagram that the server must send because of a bot's datagram.
//
// A relay goes to the other players; an answer goes only to the sender. Each slot has a ring of the
// relays that the bot in it has caused, and each bot has a ring of the answers to it. Both contain
// the datagrams in the order in which the bots sent their causes. Each receiver has a cursor in
// each ring.
//
// A relay is stored once, with one bit for each bot that must or may get it. A missing datagram may
// still be in a socket, so it counts as lost only when its entry is reused, and at the end.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "client/server_connection.h"
#include "server/protocol.h"

using namespace zol;

inline constexpr unsigned SLOTS = MAX_CLIENTS;
inline constexpr unsigned MAX_BOTS = MAX_CLIENTS;
inline constexpr unsigned RINGS = SLOTS + MAX_BOTS;
// Datagrams in a ring. The fastest bots fill one in about three seconds.
inline constexpr std::uint64_t RING_SIZE = 1024;

using BotSet = std::uint32_t;  // one bit per bot

inline BotSet bot_bit(unsigned bot) {
  return BotSet{1} << bot;
}

// The command code of a datagram from the server. The datagram must not be empty.
inline ServerCommand command_of(Datagram datagram) {
  return ServerCommand{datagram[0]};
}

struct Expectation {
  std::uint64_t sent_ns = 0;       // when the bot sent the cause
  BotSet required = 0;             // bots that must get it
  BotSet optional = 0;             // bots that may get it
  BotSet received = 0;             // bots that have received it
  std::uint8_t size = 0;           // bytes
  std::uint8_t compared_size = 0;  // the number of first bytes that must be equal
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
  // The matching entry. For REPEATED and UNEXPECTED: the next required entry, or null.
  Expectation* expectation;
};

inline unsigned relay_ring(Slot slot) {
  return slot;
}

inline unsigned answer_ring(unsigned bot) {
  return SLOTS + bot;
}

// Returns the number of the new entry in its ring.
std::uint64_t expect(unsigned ring, const Expectation& expectation);

Match match(unsigned ring, unsigned receiver, Datagram datagram, std::uint64_t now_ns);

// Makes an entry required for these bots, unless a newer entry has replaced it.
void make_required(unsigned ring, std::uint64_t number, BotSet bots);

// Makes all entries sent since then optional for this bot, unless it has received them already.
void make_optional(unsigned receiver, std::uint64_t since_ns);

// The number of required datagrams that have not arrived yet.
std::uint64_t outstanding();

// Counts the missing datagrams as lost. Call it once, at the end.
void tally_remaining();

extern Tally relay_tally;
extern Tally answer_tally;
