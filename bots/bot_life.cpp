// How the bots join, enter and leave.

#include <algorithm>

#include "bots/bot_common.h"

Fleet fleet;

static constexpr std::uint64_t MS = 1'000'000;       // ns
static constexpr std::uint64_t RETRY_NS = 2 * MS;    // wait while another bot joins
static constexpr unsigned MAX_PAUSE_MS = 500;        // between leaving and joining
static constexpr unsigned MAX_ENTER_DELAY_MS = 200;  // between joining and entering
static constexpr std::uint64_t ANSWER_TIMEOUT_NS = 5'000 * MS;
// Without in-order delivery, a datagram may arrive this much later than a datagram sent after it.
static constexpr std::uint64_t REORDER_WINDOW_NS = 1'000 * MS;

void set_stage(Bot& bot, Stage stage) {
  const BotSet bit = bot_bit(bot.number);
  const bool joins_again = stage == Stage::JOINING && bot.slot != NO_SLOT;
  const bool in_game =
      stage == Stage::PLAYING || (stage == Stage::ENTERING && fleet.in_order_delivery);
  const bool maybe = !in_game && (joins_again || !fleet.in_order_delivery);
  bot.stage = stage;
  fleet.in_game = in_game ? fleet.in_game | bit : fleet.in_game & ~bit;
  fleet.maybe_in_game = maybe ? fleet.maybe_in_game | bit : fleet.maybe_in_game & ~bit;
}

void send_bytes(const Bot& bot, Datagram datagram) {
  ++fleet.counters.sent;
  if (!send_datagram(bot.socket, datagram)) ++fleet.counters.send_failures;
}

// The server does not send the record of the latest join's slot. If a player that is no bot has
// joined since, the server omits that player's slot, and the record of last_join_slot is
// unexpected.
static void expect_other_players(const Bot& bot) {
  for (Slot slot = 0; slot < SLOTS; ++slot) {
    if (fleet.slots[slot].bot == NO_BOT || slot == fleet.last_join_slot) continue;
    expect_info(bot, slot);
  }
}

// A bot in the game may enter again. No bot enters while another bot joins, because the reply
// contains the slot of the latest join.
static void enter_game(Bot& bot) {
  if (fleet.joining_bot != NO_BOT) return;
  SlotModel& model = model_of(bot);
  EnterGame report;
  report.state.position = next_position(bot);
  report.state.state_f1 = random_float(bot);
  report.state.state_b = random_byte(bot);
  report.state.state_f2 = slot_tag(bot);
  report.state.state_f3 = random_float(bot);
  model.state = report.state;
  model.known = true;
  model.in_car = random_below(bot, 4) == 0;
  if (model.in_car) {
    report.in_car = static_cast<std::uint8_t>(1 + random_below(bot, 255));
    model.car = random_car(bot);
    report.car = with_random_unused(bot, model.car);
  }

  const EnterGameReply reply{.last_join_slot = fleet.last_join_slot};
  expect_answer(
      bot, reply,
      fleet.alone ? offsetof(EnterGameReply, hour) : offsetof(EnterGameReply, last_join_slot));
  PlayerInfo relay;
  relay.slot = bot.slot;
  relay.just_entered = 1;
  std::copy_n(bot.name.begin(), NAME_WIDTH, relay.name.begin());
  relay.state = model.state;
  relay.in_car = model.in_car ? 1 : 0;
  if (model.in_car) relay.car = model.car;
  expect_relay(bot, relay);
  expect_other_players(bot);
  bot.has_entered = true;
  set_stage(bot, Stage::ENTERING);
  bot.due_ns = monotonic_ns() + ANSWER_TIMEOUT_NS;
  send_bytes(bot, report);
}

// A bot with a slot that joins again leaves its slot only if the server gives it another slot. So
// the notice to the other players is optional until the answer arrives.
static void expect_leave_notice(Bot& bot) {
  const PlayerLeft notice{.slot = bot.slot};
  Expectation expectation = expectation_of(notice);
  bot.leave_notice_receivers = fleet.in_game & ~bot_bit(bot.number);
  expectation.optional = (fleet.in_game | fleet.maybe_in_game) & ~bot_bit(bot.number);
  bot.leave_notice = expect(relay_ring(bot.slot), expectation);
}

// Without in-order delivery, the next datagram of this bot may reach the server before earlier
// datagrams of other bots. The server then does not relay those datagrams to this bot.
static void make_recent_optional(const Bot& bot) {
  if (!fleet.in_order_delivery) make_optional(bot.number, monotonic_ns() - REORDER_WINDOW_NS);
}

// Without in-order delivery, a join may overtake the CMD_ENTER_GAME of another bot.
static bool may_join() {
  if (fleet.joining_bot != NO_BOT) return false;
  return fleet.in_order_delivery ||
         std::none_of(fleet.bots.begin(), fleet.bots.end(),
                      [](const Bot& bot) { return bot.stage == Stage::ENTERING; });
}

static Slot first_free_slot() {
  for (Slot slot = 0; slot < SLOTS; ++slot) {
    if (fleet.slots[slot].bot == NO_BOT) return slot;
  }
  return NO_SLOT;
}

// A bot with a slot moves to a free slot; without a free slot, it keeps its slot.
static void join(Bot& bot) {
  if (!may_join()) return;
  make_recent_optional(bot);
  set_stage(bot, Stage::JOINING);
  if (bot.slot != NO_SLOT) expect_leave_notice(bot);
  expect_answer(bot, JoinAccepted{.slot = first_free_slot()}, offsetof(JoinAccepted, slot));

  JoinRequest request;
  request.name = bot.name;
  request.version = PROTOCOL_VERSION;
  fleet.joining_bot = bot.number;
  bot.due_ns = monotonic_ns() + ANSWER_TIMEOUT_NS;
  send_bytes(bot, request);
}

void leave(Bot& bot) {
  make_recent_optional(bot);
  expect_relay(bot, PlayerLeft{.slot = bot.slot});
  model_of(bot).bot = NO_BOT;
  bot.slot = NO_SLOT;
  set_stage(bot, Stage::OUT);
  bot.due_ns = monotonic_ns() + MS * random_below(bot, MAX_PAUSE_MS);
  send_bytes(bot, ClientCommand::CMD_PLAYER_LEFT);
}

static void skip_missed_steps(Bot& bot, std::uint64_t now_ns) {
  bot.due_ns += fleet.step_ns;
  if (bot.due_ns > now_ns) return;
  const std::uint64_t missed = (now_ns - bot.due_ns) / fleet.step_ns + 1;
  fleet.counters.skipped += missed;
  bot.due_ns += missed * fleet.step_ns;
}

// The number of steps in a thousand at which a bot leaves, joins again or enters again.
static constexpr unsigned LEAVES_PER_MILLE = 4;
static constexpr unsigned JOINS_PER_MILLE = 3;
static constexpr unsigned ENTERS_PER_MILLE = 4;

static void play(Bot& bot, std::uint64_t now_ns) {
  skip_missed_steps(bot, now_ns);
  act_in_game(bot);
  const unsigned drawn = random_below(bot, 1'000);
  if (drawn < LEAVES_PER_MILLE) {
    leave(bot);
  } else if (drawn < LEAVES_PER_MILLE + JOINS_PER_MILLE) {
    join(bot);
  } else if (drawn < LEAVES_PER_MILLE + JOINS_PER_MILLE + ENTERS_PER_MILLE) {
    enter_game(bot);
  }
}

// The bot got no new slot: the server refused it, or no answer came in time.
static void end_join(Bot& bot) {
  fleet.joining_bot = NO_BOT;
  set_stage(bot, bot.slot == NO_SLOT ? Stage::OUT : Stage::PLAYING);
  const std::uint64_t pause = bot.slot == NO_SLOT ? MAX_PAUSE_MS * MS : fleet.step_ns;
  bot.due_ns = monotonic_ns() + pause;
}

void handle_refusal(Bot& bot) {
  ++fleet.counters.refused;
  fleet.last_join_slot = NO_SLOT;
  end_join(bot);
}

// Without in-order delivery, a receiver that has left the game since may not have got the notice.
static void require_leave_notice(const Bot& bot) {
  BotSet receivers = bot.leave_notice_receivers;
  if (!fleet.in_order_delivery) receivers &= fleet.in_game;
  make_required(relay_ring(bot.slot), bot.leave_notice, receivers);
}

void take_slot(Bot& bot, Slot slot) {
  if (bot.slot != NO_SLOT) {
    require_leave_notice(bot);
    model_of(bot).bot = NO_BOT;
  }
  bot.slot = slot;
  model_of(bot).bot = bot.number;
  model_of(bot).known &= fleet.alone;
  model_of(bot).in_car = false;
  model_of(bot).has_died = false;
  ++fleet.counters.joins;
  fleet.last_join_slot = slot;
  fleet.joining_bot = NO_BOT;
  set_stage(bot, Stage::JOINED);
  bot.due_ns = monotonic_ns() + MS * random_below(bot, MAX_ENTER_DELAY_MS);
}

static void enter_first_time(Bot& bot, std::uint64_t now_ns) {
  bot.due_ns = now_ns + RETRY_NS;
  if (fleet.joining_bot != NO_BOT) return;
  act_before_entering(bot);
  enter_game(bot);
}

void act(Bot& bot, std::uint64_t now_ns) {
  switch (bot.stage) {
    case Stage::OUT:
      bot.due_ns = now_ns + RETRY_NS;
      join(bot);
      break;
    case Stage::JOINING:  // no answer came in time
      end_join(bot);
      break;
    case Stage::JOINED:
      enter_first_time(bot, now_ns);
      break;
    case Stage::ENTERING:  // no answer came in time
      set_stage(bot, Stage::PLAYING);
      bot.due_ns = now_ns;
      break;
    case Stage::PLAYING:
      play(bot, now_ns);
      break;
  }
}
