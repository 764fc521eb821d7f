// What the bots do in the game: each action changes the model of the slot as the server will change
// its own, notes what everyone must hear of it, and sends.

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "tools/bot_means.h"

static constexpr const char* PHRASES[] = {
    "hello everybody",
    "nice car!",
    "",
    "who is the PinkPanther?",
    "meet me at the bridge, bring the big one, and do not tell a soul about it, please",
    "100% %s %n {}",
};

static void expect_got_car(const Bot& bot) {
  PlayerGotCar relay;
  relay.slot = bot.slot;
  relay.position = model_of(bot).state.position;
  relay.car = model_of(bot).car;
  expect_relay(bot, relay);
}

static void expect_left_car(const Bot& bot) {
  PlayerLeftCar relay;
  relay.slot = bot.slot;
  relay.position = model_of(bot).state.position;
  relay.state_f1 = model_of(bot).state.state_f1;
  expect_relay(bot, relay);
}

template <WireRecord Record>
static void expect_car_relay(const Bot& bot, const Record& relay) {
  if (model_of(bot).in_car) {
    expect_relay(bot, relay);
    return;
  }
  const NotInCar answer{.slot = bot.slot};
  expect_answer(bot, bytes_of(answer), sizeof answer);
}

static void send_position(Bot& bot) {
  PositionUpdate update;
  fill_random(bot, update.unused_1);
  update.position = next_position(bot);
  model_of(bot).state.position = update.position;

  PlayerPosition relay;
  relay.slot = bot.slot;
  relay.position = update.position;
  expect_relay(bot, relay);
  send_bytes(bot, bytes_of(update));
}

static void send_state_floats(Bot& bot) {
  StateFloats update;
  update.state_f2 = mark_bits(bot);
  update.state_f3 = random_bits(bot);
  model_of(bot).state.state_f2 = update.state_f2;
  model_of(bot).state.state_f3 = update.state_f3;

  if (model_of(bot).has_died) expect_clock(bot);
  PlayerStateFloats relay;
  relay.state_f2 = update.state_f2;
  relay.state_f3 = update.state_f3;
  expect_relay(bot, relay);
  send_bytes(bot, bytes_of(update));
}

// Ends a ride as well.
static void send_foot_update(Bot& bot) {
  SlotModel& model = model_of(bot);
  FootUpdate update;
  update.state_f1 = random_bits(bot);
  if (model.in_car) expect_left_car(bot);
  model.in_car = false;
  model.state.state_f1 = update.state_f1;

  PlayerFootUpdate relay;
  relay.slot = bot.slot;
  relay.state_f1 = update.state_f1;
  expect_relay(bot, relay);
  send_bytes(bot, bytes_of(update));
}

// From within a car only the position counts.
static void get_in(Bot& bot) {
  SlotModel& model = model_of(bot);
  const CarState car = random_car(bot);
  Vehicle report;
  report.got_in = static_cast<std::uint8_t>(1 + random_below(bot, 255));
  report.position = next_position(bot);
  report.car = soil_unused(bot, car);
  model.state.position = report.position;
  if (!model.in_car) {
    model.car = car;
    model.in_car = true;
    expect_got_car(bot);
  }
  send_bytes(bot, bytes_of(report));
}

// From on foot only the position counts.
static void get_out(Bot& bot) {
  SlotModel& model = model_of(bot);
  Vehicle report;
  report.position = next_position(bot);
  report.car = random_car(bot);
  model.state.position = report.position;
  if (model.in_car) expect_left_car(bot);
  model.in_car = false;
  send_bytes(bot, bytes_of(report));
}

static void send_car_state(Bot& bot) {
  SlotModel& model = model_of(bot);
  const CarState car = random_car(bot);
  CarStateReport report;
  report.position = next_position(bot);
  report.car = soil_unused(bot, car);
  model.state.position = report.position;
  model.car = car;
  model.in_car = true;
  expect_clock(bot);
  expect_got_car(bot);
  send_bytes(bot, bytes_of(report));
}

static void leave_car(Bot& bot) {
  model_of(bot).in_car = false;
  expect_clock(bot);
  expect_left_car(bot);
  send_bytes(bot, bytes_of(ClientCommand::CMD_LEAVE_CAR));
}

static void send_car_block_a(Bot& bot) {
  CarBlockAUpdate update;
  fill_random(bot, update.car_block_a);
  model_of(bot).car.car_block_a = update.car_block_a;

  PlayerCarBlockA relay;
  relay.slot = bot.slot;
  relay.car_block_a = update.car_block_a;
  expect_car_relay(bot, relay);
  send_bytes(bot, bytes_of(update));
}

static void send_car_block_b(Bot& bot) {
  CarBlockBUpdate update;
  fill_random(bot, update.car_block_b);
  model_of(bot).car.car_block_b = update.car_block_b;

  PlayerCarBlockB relay;
  relay.slot = bot.slot;
  relay.car_block_b = update.car_block_b;
  expect_car_relay(bot, relay);
  send_bytes(bot, bytes_of(update));
}

// Names the slot in the car byte and the process in the float, as the relay 208 names neither.
static void send_car_status(Bot& bot) {
  CarStatus update;
  update.car_byte = bot.slot;
  update.car_float = static_cast<FloatBits>(fleet.mark) << 16U | bot.serial++;
  model_of(bot).car.car_byte = update.car_byte;
  model_of(bot).car.car_float = update.car_float;

  PlayerCarStatus relay;
  relay.car_byte = update.car_byte;
  relay.car_float = update.car_float;
  expect_car_relay(bot, relay);
  send_bytes(bot, bytes_of(update));
}

static void change_weapon(Bot& bot) {
  Weapon update;
  update.state_b = random_byte(bot);
  model_of(bot).state.state_b = update.state_b;

  PlayerWeapon relay;
  relay.slot = bot.slot;
  relay.state_b = update.state_b;
  expect_relay(bot, relay);
  send_bytes(bot, bytes_of(update));
}

// The ride ends without a word.
static void die(Bot& bot) {
  Died report;
  report.death_count = ++bot.deaths;
  model_of(bot).in_car = false;
  model_of(bot).has_died = true;

  PlayerDied relay;
  relay.slot = bot.slot;
  relay.death_count = report.death_count;
  expect_relay(bot, relay);
  send_bytes(bot, bytes_of(report));
}

// The text begins with the slot, as the relay names the player only. Half of the texts end with the
// datagram instead of a NUL.
static void chat(Bot& bot) {
  std::array<char, RECEIVE_BUFFER_SIZE> report{};
  report[0] = static_cast<char>(ClientCommand::CMD_CHAT);
  const char* phrase = PHRASES[random_below(bot, std::size(PHRASES))];
  const int length = std::snprintf(&report[1], report.size() - 1, "%u.%u %s", unsigned{bot.slot},
                                   unsigned{bot.serial++}, phrase);

  std::array<char, 2 * RECEIVE_BUFFER_SIZE> line{};
  std::snprintf(line.data(), line.size(), "%s: %s", bot.name.data(), &report[1]);
  ChatLine relay;
  std::copy_n(line.begin(), relay.text.size(), relay.text.begin());
  expect_relay(bot, relay);
  const std::size_t size = 1 + static_cast<std::size_t>(length) + random_below(bot, 2);
  send_bytes(bot, {reinterpret_cast<const std::uint8_t*>(report.data()), size});
}

static void expect_state(const Bot& bot, Slot slot) {
  const SlotModel& model = fleet.slots[slot];
  PlayerStateReply reply;
  reply.slot = slot;
  reply.in_car = model.in_car ? 1 : 0;
  reply.position = model.state.position;
  if (model.in_car) reply.car = model.car;
  expect_record(bot, model, bytes_of(reply), offsetof(PlayerStateReply, in_car));
}

// Only players in the game are told of, and nobody of itself. Numbers beyond the table are asked
// for as well, and slots whose player is about to change are not.
static void query(Bot& bot) {
  SlotQuery question;
  const bool asks_info = random_below(bot, 2) == 0;
  question.command =
      asks_info ? ClientCommand::CMD_GET_PLAYER_INFO : ClientCommand::CMD_GET_PLAYER_STATE;
  question.slot = static_cast<Slot>(random_below(bot, fleet.size + 2));
  if (question.slot > fleet.size) question.slot = random_byte(bot) | 32U;
  const std::uint8_t target = question.slot < SLOTS ? fleet.slots[question.slot].bot : NO_BOT;
  if (target != NO_BOT && target != bot.number) {
    const BotSet target_bit = only(target);
    if ((fleet.maybe_game & target_bit) != 0) return;
    if ((fleet.in_game & target_bit) != 0) {
      asks_info ? expect_info(bot, question.slot) : expect_state(bot, question.slot);
    }
  }
  send_bytes(bot, bytes_of(question));
}

// What a bot does besides its position updates: how often in a thousand of them.
struct Habit {
  unsigned per_mille;
  void (*act)(Bot& bot);
};

static constexpr Habit ANYWHERE[] = {
    {250, send_state_floats}, {30, change_weapon}, {50, query}, {12, chat}, {6, die},
};
static constexpr Habit ON_FOOT[] = {
    {80, send_foot_update}, {50, get_in},          {10, send_car_state},  {4, get_out},
    {4, leave_car},         {4, send_car_block_a}, {4, send_car_block_b}, {4, send_car_status},
};
static constexpr Habit IN_CAR[] = {
    {150, send_car_block_a},
    {150, send_car_block_b},
    {150, send_car_status},
    {15, send_car_state},
    {5, get_in},
    {10, get_out},
    {8, leave_car},
    {8, send_foot_update},
};
static constexpr Habit BEFORE_ENTERING[] = {
    {300, send_car_status},
    {200, chat},
    {200, query},
    {100, send_state_floats},
};

static void follow_habit(Bot& bot, std::span<const Habit> habits) {
  unsigned drawn = random_below(bot, 1'000);
  for (const Habit& habit : habits) {
    if (drawn < habit.per_mille) return habit.act(bot);
    drawn -= habit.per_mille;
  }
}

void act_in_game(Bot& bot) {
  ++fleet.counters.positions;
  send_position(bot);
  follow_habit(bot, model_of(bot).in_car ? IN_CAR : ON_FOOT);
  follow_habit(bot, ANYWHERE);
}

// The server takes them from a player who has not entered too.
void act_before_entering(Bot& bot) {
  follow_habit(bot, BEFORE_ENTERING);
}
