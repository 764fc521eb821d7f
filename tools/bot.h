// The bots and what they know of the server.
//
// A bot is one UDP socket with a place in the life of a player. What the server stores of a player
// belongs to its slot and outlives the player, so it is kept by slot here too.
//
// The server handles datagrams in the order of their arrival. On the loopback interface that is the
// order in which this one thread sends them, and what every bot must hear follows exactly. Through
// a network (ordered_road is false) the datagrams of two bots may overtake each other: around the
// coming and going of a bot, relays to it are optional then, and records of others are compared
// without their state.
//
// Single-threaded.
#pragma once

#include <array>
#include <cstdint>
#include <ctime>

#include "server/protocol.h"
#include "tools/expectations.h"
#include "tools/histogram.h"
#include "tools/options.h"

inline constexpr std::uint8_t NO_BOT = 255;

enum class Stage : std::uint8_t {
  OUT,
  JOINING,  // has asked and waits for the answer; sends nothing else
  JOINED,
  ENTERING,  // has entered and waits for the answer; sends nothing else
  PLAYING,
};

struct Bot {
  int socket = -1;
  std::uint8_t number = 0;
  Slot slot = NO_SLOT;  // where it sits, while it joins anew where it sat
  Stage stage = Stage::OUT;
  bool has_entered = false;  // at some time
  std::array<char, NAME_WIDTH> name{};
  std::uint64_t random = 0;
  std::uint64_t due_ns = 0;        // when it acts next
  std::uint64_t leave_notice = 0;  // in its slot's ring, while it joins anew
  BotSet witnesses = 0;            // who was in the game then
  std::uint32_t steps = 0;         // along its path
  std::uint16_t serial = 0;        // of its datagrams that carry one
  std::uint8_t deaths = 0;
};

struct SlotModel {
  std::uint8_t bot = NO_BOT;  // who sits there; the server may have seated someone not of ours
  bool known = false;         // state is what the server holds
  bool in_car = false;
  bool has_died = false;
  PlayerState state{};
  CarState car{};  // what the server holds, whenever in_car is set
};

struct Counters {
  std::uint64_t positions = 0;
  std::uint64_t late = 0;  // position updates that were skipped because we were too slow
  std::uint64_t sent = 0;
  std::uint64_t send_failures = 0;
  std::uint64_t joins = 0;
  std::uint64_t refused = 0;
  std::uint64_t foreign = 0;  // datagrams about players who are not of ours
};

struct Fleet {
  std::array<Bot, MAX_BOTS> bots{};
  std::array<SlotModel, SLOTS> slots{};
  unsigned size = 0;
  bool ordered_road = false;
  std::uint16_t mark = 0;  // tells our datagrams and names from those of another zolbots
  std::uint64_t step_ns = 0;

  BotSet in_game = 0;     // must get relays
  BotSet maybe_game = 0;  // may get relays

  // One join at a time, so that last_join_slot is known whenever a bot enters.
  std::uint8_t joining_bot = NO_BOT;
  Slot last_join_slot = NO_SLOT;

  std::uint32_t our_slots = 0;       // bit a slot: one of ours has sat there
  std::uint32_t foreign_slots = 0;   // bit a slot: someone not of ours has sat there
  std::uint32_t presumed_slots = 0;  // bit a slot: named by an answer only, must turn out foreign

  bool accepted_known = false;
  JoinAccepted accepted{};  // the first one

  bool server_stopped = false;
  Counters counters{};
  Histogram delays{};
  Histogram recent_delays{};  // since the last progress line
};

extern Fleet fleet;

inline std::uint64_t monotonic_ns() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 +
         static_cast<std::uint64_t>(now.tv_nsec);
}

template <WireRecord Record>
Bytes bytes_of(const Record& record) {
  return {reinterpret_cast<const std::uint8_t*>(&record), sizeof record};
}

// bot_life: how bots come, stay and go.

// Does what is due and sets when the bot is due again.
void act(Bot& bot, std::uint64_t now_ns);
void set_stage(Bot& bot, Stage stage);
void take_seat(Bot& bot, Slot slot);
void be_refused(Bot& bot);
void leave(Bot& bot);
void send_bytes(const Bot& bot, Bytes datagram);

// bot_actions: what bots do meanwhile.

void act_in_game(Bot& bot);
void act_before_entering(Bot& bot);

// bot_hearing: what bots hear.

void hear(Bot& bot, Bytes datagram, std::uint64_t now_ns);
// To be called at the end, before the wrong ones are shown.
void settle_presumed_slots();
