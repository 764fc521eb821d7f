// How the bots come, stay and go.

#include <sys/socket.h>

#include <algorithm>

#include "tools/bot_means.h"

Fleet fleet;

static constexpr std::uint64_t MS = 1'000'000;  // ns
static constexpr std::uint64_t RETRY_NS = 2 * MS;
static constexpr unsigned LONGEST_PAUSE_MS = 500;   // out of the game
static constexpr unsigned LONGEST_LINGER_MS = 200;  // between joining and entering
static constexpr std::uint64_t ANSWER_WAIT_NS = 5'000 * MS;
// The longest that one bot's datagram may take longer than another's on a road without order.
static constexpr std::uint64_t OVERTAKING_NS = 1'000 * MS;

void set_stage(Bot& bot, Stage stage) {
  const bool joins_anew = stage == Stage::JOINING && bot.slot != NO_SLOT;
  const bool in_game = stage == Stage::PLAYING || (stage == Stage::ENTERING && fleet.ordered_road);
  const bool maybe = !in_game && (joins_anew || !fleet.ordered_road);
  bot.stage = stage;
  fleet.in_game = (fleet.in_game & ~only(bot.number)) | (in_game ? only(bot.number) : 0);
  fleet.maybe_game = (fleet.maybe_game & ~only(bot.number)) | (maybe ? only(bot.number) : 0);
}

// An error here is that of an earlier datagram (ECONNREFUSED, see udp(7)), so once more is enough.
void send_bytes(const Bot& bot, Bytes datagram) {
  ++fleet.counters.sent;
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (send(bot.socket, datagram.data(), datagram.size(), 0) != -1) return;
  }
  ++fleet.counters.send_failures;
}

// Which record the server leaves out goes by the last join, so when others than ours may have
// joined, none of the records is sure to come.
static void expect_records(const Bot& bot) {
  if (fleet.foreign_slots != 0) return;
  for (Slot slot = 0; slot < SLOTS; ++slot) {
    if (fleet.slots[slot].bot == NO_BOT || slot == fleet.last_join_slot) continue;
    expect_info(bot, slot);
  }
}

// Also done by a bot that is in the game already; not while a join is on its way.
static void enter_game(Bot& bot) {
  if (fleet.joining_bot != NO_BOT) return;
  SlotModel& model = model_of(bot);
  EnterGame report;
  report.state.position = next_position(bot);
  report.state.state_f1 = random_bits(bot);
  report.state.state_b = random_byte(bot);
  report.state.state_f2 = mark_bits(bot);
  report.state.state_f3 = random_bits(bot);
  model.state = report.state;
  model.known = true;
  model.in_car = random_below(bot, 4) == 0;
  if (model.in_car) {
    report.in_car = static_cast<std::uint8_t>(1 + random_below(bot, 255));
    model.car = random_car(bot);
    report.car = soil_unused(bot, model.car);
  }

  const EnterGameReply reply{.last_join_slot = fleet.last_join_slot};
  expect_answer(bot, bytes_of(reply), offsetof(EnterGameReply, last_join_slot));
  PlayerInfo relay;
  relay.slot = bot.slot;
  relay.just_entered = 1;
  std::copy_n(bot.name.begin(), NAME_WIDTH, relay.name.begin());
  relay.state = model.state;
  relay.in_car = model.in_car ? 1 : 0;
  if (model.in_car) relay.car = model.car;
  expect_relay(bot, relay);
  expect_records(bot);
  bot.has_entered = true;
  set_stage(bot, Stage::ENTERING);
  bot.due_ns = monotonic_ns() + ANSWER_WAIT_NS;
  send_bytes(bot, bytes_of(report));
}

// Others may hear that the bot leaves its slot; that they must, require_leave_notice says.
static void allow_leave_notice(Bot& bot) {
  const PlayerLeft notice{.slot = bot.slot};
  Expectation expectation = expectation_of(bytes_of(notice));
  bot.witnesses = fleet.in_game & ~only(bot.number);
  expectation.optional = (fleet.in_game | fleet.maybe_game) & ~only(bot.number);
  bot.leave_notice = expect(relay_ring(bot.slot), expectation);
}

// What is in flight to the bot may meet it gone.
static void excuse_in_flight(const Bot& bot) {
  if (!fleet.ordered_road) excuse(bot.number, monotonic_ns() - OVERTAKING_NS);
}

// On a road without order a join could overtake the entering of another bot.
static bool may_join() {
  if (fleet.joining_bot != NO_BOT) return false;
  return fleet.ordered_road ||
         std::none_of(fleet.bots.begin(), fleet.bots.end(),
                      [](const Bot& bot) { return bot.stage == Stage::ENTERING; });
}

// A bot that sits already moves to another slot if there is room, and stays where it is if there is
// none.
static void join(Bot& bot) {
  if (!may_join()) return;
  excuse_in_flight(bot);
  set_stage(bot, Stage::JOINING);
  if (bot.slot != NO_SLOT) allow_leave_notice(bot);
  const JoinAccepted answer;
  expect_answer(bot, bytes_of(answer), offsetof(JoinAccepted, slot));

  JoinRequest request;
  request.name = bot.name;
  request.version = {PROTOCOL_VERSION & 0xFFU, PROTOCOL_VERSION >> 8U};
  fleet.joining_bot = bot.number;
  bot.due_ns = monotonic_ns() + ANSWER_WAIT_NS;
  send_bytes(bot, bytes_of(request));
}

void leave(Bot& bot) {
  excuse_in_flight(bot);
  const PlayerLeft notice{.slot = bot.slot};
  expect_relay(bot, notice);
  model_of(bot).bot = NO_BOT;
  bot.slot = NO_SLOT;
  set_stage(bot, Stage::OUT);
  bot.due_ns = monotonic_ns() + MS * random_below(bot, LONGEST_PAUSE_MS);
  send_bytes(bot, bytes_of(ClientCommand::CMD_PLAYER_LEFT));
}

static void skip_missed_steps(Bot& bot, std::uint64_t now_ns) {
  bot.due_ns += fleet.step_ns;
  if (bot.due_ns > now_ns) return;
  const std::uint64_t missed = (now_ns - bot.due_ns) / fleet.step_ns + 1;
  fleet.counters.late += missed;
  bot.due_ns += missed * fleet.step_ns;
}

// Of a thousand steps one bot ends with leaving, joining anew or entering again this often.
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

// No slot came of it: refused, or the answer is overdue and the bot goes on as if it had not asked.
static void end_join(Bot& bot) {
  fleet.joining_bot = NO_BOT;
  set_stage(bot, bot.slot == NO_SLOT ? Stage::OUT : Stage::PLAYING);
  const std::uint64_t pause = bot.slot == NO_SLOT ? LONGEST_PAUSE_MS * MS : fleet.step_ns;
  bot.due_ns = monotonic_ns() + pause;
}

void be_refused(Bot& bot) {
  ++fleet.counters.refused;
  fleet.last_join_slot = NO_SLOT;
  end_join(bot);
}

// On a road without order a witness may have left in the meantime.
static void require_leave_notice(const Bot& bot) {
  const BotSet witnesses = fleet.ordered_road ? bot.witnesses : bot.witnesses & fleet.in_game;
  require(relay_ring(bot.slot), bot.leave_notice, witnesses);
}

void take_seat(Bot& bot, Slot slot) {
  if (bot.slot != NO_SLOT) {
    require_leave_notice(bot);
    model_of(bot).bot = NO_BOT;
  }
  bot.slot = slot;
  model_of(bot).bot = bot.number;
  model_of(bot).in_car = false;
  model_of(bot).has_died = false;
  ++fleet.counters.joins;
  fleet.our_slots |= 1U << slot;
  fleet.last_join_slot = slot;
  fleet.joining_bot = NO_BOT;
  set_stage(bot, Stage::JOINED);
  bot.due_ns = monotonic_ns() + MS * random_below(bot, LONGEST_LINGER_MS);
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
    case Stage::JOINING:
      end_join(bot);
      break;
    case Stage::JOINED:
      enter_first_time(bot, now_ns);
      break;
    case Stage::ENTERING:
      set_stage(bot, Stage::PLAYING);
      bot.due_ns = now_ns;
      break;
    case Stage::PLAYING:
      play(bot, now_ns);
      break;
  }
}
