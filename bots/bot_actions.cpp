// The actions of bots between joining and leaving. An action changes the model of the slot in the
// same way as the server will change its state, adds the expected datagrams, and sends its
// datagram.

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <utility>

#include "bots/bot_common.h"

// The text before and after the place. The first sentence is so long that the server must cut it.
// In the third, "% s" would be a conversion if the server used a chat text as a format string.
static constexpr std::pair<const char*, const char*> SENTENCES[] = {
    {"Meet me at the ", ". Bring the big one, and do not tell a soul about it, please"},
    {"Nice car! Did you get it at the ", "?"},
    {"I am 100% sure that I parked at the ", ""},
    {"Who was first at the ", "?"},
    {"Race you to the ", "!"},
};

static void expect_got_car(const Bot& bot) {
  expect_relay(bot, PlayerGotCar{.slot = bot.slot,
                                 .position = model_of(bot).state.position,
                                 .car = model_of(bot).car});
}

static void expect_left_car(const Bot& bot) {
  expect_relay(bot, PlayerLeftCar{.slot = bot.slot,
                                  .position = model_of(bot).state.position,
                                  .state_f1 = model_of(bot).state.state_f1});
}

template <WireRecord Record>
static void expect_car_relay(const Bot& bot, const Record& relay) {
  if (model_of(bot).in_car) {
    expect_relay(bot, relay);
    return;
  }
  expect_answer(bot, NotInCar{.slot = bot.slot}, sizeof(NotInCar));
}

static void send_position(Bot& bot) {
  PositionUpdate update;
  fill_random(bot, update.unused_1);
  update.position = next_position(bot);
  model_of(bot).state.position = update.position;

  expect_relay(bot, PlayerPosition{.slot = bot.slot, .position = update.position});
  send_bytes(bot, update);
}

static void send_state_floats(Bot& bot) {
  StateFloats update;
  update.state_f2 = slot_tag(bot);
  update.state_f3 = random_float(bot);
  model_of(bot).state.state_f2 = update.state_f2;
  model_of(bot).state.state_f3 = update.state_f3;

  if (model_of(bot).has_died) expect_clock(bot);
  expect_relay(bot, PlayerStateFloats{.state_f2 = update.state_f2, .state_f3 = update.state_f3});
  send_bytes(bot, update);
}

// A foot update also takes the player out of its car.
static void send_foot_update(Bot& bot) {
  SlotModel& model = model_of(bot);
  FootUpdate update;
  update.state_f1 = random_float(bot);
  if (model.in_car) expect_left_car(bot);
  model.in_car = false;
  model.state.state_f1 = update.state_f1;

  expect_relay(bot, PlayerFootUpdate{.slot = bot.slot, .state_f1 = update.state_f1});
  send_bytes(bot, update);
}

// If the player is already in a car, the server stores only the position.
static void get_in(Bot& bot) {
  SlotModel& model = model_of(bot);
  const CarState car = random_car(bot);
  Vehicle report;
  report.got_in = static_cast<std::uint8_t>(1 + random_below(bot, 255));
  report.position = next_position(bot);
  report.car = with_random_unused(bot, car);
  model.state.position = report.position;
  if (!model.in_car) {
    model.car = car;
    model.in_car = true;
    expect_got_car(bot);
  }
  send_bytes(bot, report);
}

// If the player is already on foot, the server stores only the position.
static void get_out(Bot& bot) {
  SlotModel& model = model_of(bot);
  Vehicle report;
  report.position = next_position(bot);
  report.car = random_car(bot);
  model.state.position = report.position;
  if (model.in_car) expect_left_car(bot);
  model.in_car = false;
  send_bytes(bot, report);
}

static void send_car_state(Bot& bot) {
  SlotModel& model = model_of(bot);
  const CarState car = random_car(bot);
  CarStateReport report;
  report.position = next_position(bot);
  report.car = with_random_unused(bot, car);
  model.state.position = report.position;
  model.car = car;
  model.in_car = true;
  expect_clock(bot);
  expect_got_car(bot);
  send_bytes(bot, report);
}

static void leave_car(Bot& bot) {
  model_of(bot).in_car = false;
  expect_clock(bot);
  expect_left_car(bot);
  send_bytes(bot, ClientCommand::CMD_LEAVE_CAR);
}

static void send_car_block_a(Bot& bot) {
  CarBlockAUpdate update;
  fill_random(bot, update.car_block_a);
  model_of(bot).car.car_block_a = update.car_block_a;

  expect_car_relay(bot, PlayerCarBlockA{.slot = bot.slot, .car_block_a = update.car_block_a});
  send_bytes(bot, update);
}

static void send_car_block_b(Bot& bot) {
  CarBlockBUpdate update;
  fill_random(bot, update.car_block_b);
  model_of(bot).car.car_block_b = update.car_block_b;

  expect_car_relay(bot, PlayerCarBlockB{.slot = bot.slot, .car_block_b = update.car_block_b});
  send_bytes(bot, update);
}

// CMD_PLAYER_CAR_STATUS contains no slot, so car_byte contains it, and car_float the process tag.
static void send_car_status(Bot& bot) {
  CarStatus update;
  update.car_byte = bot.slot;
  update.car_float = static_cast<FloatBits>(fleet.process_tag) << 16U | bot.sequence++;
  model_of(bot).car.car_byte = update.car_byte;
  model_of(bot).car.car_float = update.car_float;

  expect_car_relay(bot,
                   PlayerCarStatus{.car_byte = update.car_byte, .car_float = update.car_float});
  send_bytes(bot, update);
}

static void change_weapon(Bot& bot) {
  Weapon update;
  update.state_b = random_byte(bot);
  model_of(bot).state.state_b = update.state_b;

  expect_relay(bot, PlayerWeapon{.slot = bot.slot, .state_b = update.state_b});
  send_bytes(bot, update);
}

// A death ends the car ride, but the server sends no CMD_PLAYER_LEFT_CAR.
static void die(Bot& bot) {
  Died report;
  report.death_count = ++bot.death_count;
  model_of(bot).in_car = false;
  model_of(bot).has_died = true;

  expect_relay(bot, PlayerDied{.slot = bot.slot, .death_count = report.death_count});
  send_bytes(bot, report);
}

// Half of the texts end with the datagram instead of a NUL.
static void chat(Bot& bot) {
  Chat report;
  const auto& [before, after] = SENTENCES[random_below(bot, std::size(SENTENCES))];
  const int length = std::snprintf(report.text.data(), report.text.size(), "%s%s%s", before,
                                   PLACES[bot.slot], after);

  std::array<char, 2 * RECEIVE_BUFFER_SIZE> line{};
  std::snprintf(line.data(), line.size(), "%s: %s", bot.name.data(), report.text.data());
  ChatLine relay;
  std::copy_n(line.begin(), relay.text.size(), relay.text.begin());
  expect_relay(bot, relay);
  const std::size_t size = 1 + static_cast<std::size_t>(length) + random_below(bot, 2);
  send_bytes(bot, Datagram(report).first(size));
}

static void expect_state(const Bot& bot, Slot slot) {
  const SlotModel& model = fleet.slots[slot];
  PlayerStateReply reply;
  reply.slot = slot;
  reply.in_car = model.in_car ? 1 : 0;
  reply.position = model.state.position;
  if (model.in_car) reply.car = model.car;
  expect_player_data(bot, model, reply, offsetof(PlayerStateReply, in_car));
}

// The server answers only about players in the game, except the asker. Bots also ask about slots
// that do not exist. They do not ask about a bot that may or may not be in the game.
static void query(Bot& bot) {
  const bool asks_info = random_below(bot, 2) == 0;
  auto slot = static_cast<Slot>(random_below(bot, fleet.size + 2));
  if (slot > fleet.size) slot = random_byte(bot) | 32U;
  const std::uint8_t target = slot < SLOTS ? fleet.slots[slot].bot : NO_BOT;
  if (target != NO_BOT && target != bot.number) {
    const BotSet target_bit = bot_bit(target);
    if ((fleet.maybe_in_game & target_bit) != 0) return;
    if ((fleet.in_game & target_bit) != 0) {
      asks_info ? expect_info(bot, slot) : expect_state(bot, slot);
    }
  }
  send_bytes(bot, asks_info ? Datagram(GetPlayerInfo{.slot = slot})
                            : Datagram(GetPlayerState{.slot = slot}));
}

// An action and its probability in thousandths. With the rest of the probability, the bot does
// nothing.
struct WeightedAction {
  unsigned per_mille;
  void (*act)(Bot& bot);
};

static constexpr WeightedAction ANYWHERE[] = {
    {250, send_state_floats}, {30, change_weapon}, {50, query}, {12, chat}, {6, die},
};
static constexpr WeightedAction ON_FOOT[] = {
    {80, send_foot_update}, {50, get_in},          {10, send_car_state},  {4, get_out},
    {4, leave_car},         {4, send_car_block_a}, {4, send_car_block_b}, {4, send_car_status},
};
static constexpr WeightedAction IN_CAR[] = {
    {150, send_car_block_a},
    {150, send_car_block_b},
    {150, send_car_status},
    {15, send_car_state},
    {5, get_in},
    {10, get_out},
    {8, leave_car},
    {8, send_foot_update},
};
static constexpr WeightedAction BEFORE_ENTERING[] = {
    {300, send_car_status},
    {200, chat},
    {200, query},
    {100, send_state_floats},
};

static void act_at_random(Bot& bot, std::span<const WeightedAction> actions) {
  unsigned drawn = random_below(bot, 1'000);
  for (const WeightedAction& action : actions) {
    if (drawn < action.per_mille) return action.act(bot);
    drawn -= action.per_mille;
  }
}

void act_in_game(Bot& bot) {
  ++fleet.counters.positions;
  send_position(bot);
  act_at_random(bot, model_of(bot).in_car ? IN_CAR : ON_FOOT);
  act_at_random(bot, ANYWHERE);
}

// The server accepts these actions from a player that has not entered yet.
void act_before_entering(Bot& bot) {
  act_at_random(bot, BEFORE_ENTERING);
}
