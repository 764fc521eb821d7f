// The state of the bots, and their model of the server's state.
//
// Each bot is one player, with one UDP socket. The server keeps the state of a slot when its player
// leaves, so the model is kept by slot, too.
//
// The server handles datagrams in the order of their arrival. On the loopback interface, datagrams
// arrive in the order in which this process sends them, so the bots know exactly which datagrams
// each bot must receive. On a network (in_order_delivery is false), a datagram of one bot may
// overtake a datagram of another bot. Then relays to a bot that joins or leaves are optional, and
// the bots do not compare the state of another player in the server's answers.
//
// "Others" are players that are not bots of this process. The bots do not know what others send. So
// they do not judge an unexpected datagram that others may have caused, unless the caller promises
// with the option --alone that there are no others. The expected datagram that such a datagram
// replaces counts as lost in any case.
//
// Only one thread may use this module.
#pragma once

#include <array>
#include <cstdint>

#include "bots/expectations.h"
#include "bots/histogram.h"
#include "bots/options.h"
#include "client/monotonic.h"
#include "server/protocol.h"

using namespace zol;

inline constexpr std::uint8_t NO_BOT = 255;

enum class Stage : std::uint8_t {
  OUT,
  JOINING,  // waits for the answer to its join request and sends nothing else
  JOINED,
  ENTERING,  // waits for the answer to CMD_ENTER_GAME and sends nothing else
  PLAYING,
};

struct Bot {
  int socket = -1;
  std::uint8_t number = 0;
  Slot slot = NO_SLOT;  // the old slot while it joins again
  Stage stage = Stage::OUT;
  bool has_entered = false;  // at least once, even if it has left since
  std::array<char, NAME_WIDTH> name{};
  std::uint64_t rng = 0;
  std::uint64_t due_ns = 0;           // the time of its next action
  std::uint64_t leave_notice = 0;     // while it joins again: number in the relay ring of its slot
  BotSet leave_notice_receivers = 0;  // bots in the game at the time of that join request
  float x = 0;                        // position and goal, in units of the world
  float y = 0;
  float goal_x = 0;
  float goal_y = 0;
  float heading = 0;           // radians
  std::uint16_t sequence = 0;  // number of its next car status
  std::uint8_t death_count = 0;
};

// The model of the server's state of one slot.
struct SlotModel {
  std::uint8_t bot = NO_BOT;  // the bot in the slot
  bool known = false;  // a bot has entered here, and no other player can have been here since
  bool in_car = false;
  bool has_died = false;
  PlayerState state{};
  CarState car{};  // valid while in_car is set
};

struct Counters {
  std::uint64_t positions = 0;
  std::uint64_t skipped = 0;  // position updates not sent, because the bots were too slow
  std::uint64_t sent = 0;
  std::uint64_t send_failures = 0;
  std::uint64_t joins = 0;
  std::uint64_t refused = 0;
  std::uint64_t not_judged = 0;  // unexpected datagrams that others may have caused
};

struct Fleet {
  std::array<Bot, MAX_BOTS> bots{};
  std::array<SlotModel, SLOTS> slots{};
  unsigned size = 0;
  bool alone = false;  // there are no others
  bool in_order_delivery = false;
  std::uint16_t process_tag = 0;  // distinguishes the datagrams of two zolbots processes
  std::uint64_t step_ns = 0;      // between two position updates of a bot

  BotSet in_game = 0;        // bots that must get relays
  BotSet maybe_in_game = 0;  // bots that may get relays

  // Only one bot joins at a time, so last_join_slot is known whenever a bot enters.
  std::uint8_t joining_bot = NO_BOT;
  Slot last_join_slot = NO_SLOT;

  std::uint32_t other_slots = 0;  // one bit per slot that others have used

  bool first_accepted_known = false;
  JoinAccepted first_accepted{};

  bool server_stopped = false;
  Counters counters{};
  Histogram delays{};
  Histogram recent_delays{};  // since the last progress line
};

extern Fleet fleet;

// bot_life.cpp: how bots join, enter and leave.

// Does the action that is due, and sets due_ns for the next one.
void act(Bot& bot, std::uint64_t now_ns);
void set_stage(Bot& bot, Stage stage);
void take_slot(Bot& bot, Slot slot);
void handle_refusal(Bot& bot);
void leave(Bot& bot);
void send_bytes(const Bot& bot, Datagram datagram);

// bot_actions.cpp: the actions of bots between joining and leaving.

void act_in_game(Bot& bot);
void act_before_entering(Bot& bot);

// bot_receive.cpp: how bots check the datagrams that they receive.

void handle_datagram(Bot& bot, Datagram datagram, std::uint64_t now_ns);
