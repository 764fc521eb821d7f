// Shared by the files of the bots: random values, expected datagrams, and the places in chat texts.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <numbers>

#include "bots/bot.h"

inline constexpr float HALF_WORLD = 100;   // units
inline constexpr float WALKING_SPEED = 8;  // units a second
inline constexpr float CAR_SPEED = 30;     // units a second
inline constexpr float TURN_RATE = 2;      // radians a second
inline constexpr float GOAL_RADIUS = 20;   // units

// CMD_CHAT_LINE contains no slot. So each slot has a place, and a bot's chat contains the place of
// its slot.
inline constexpr std::array<const char*, SLOTS> PLACES = {
    "airport", "bakery", "bridge",  "brewery",  "casino",     "cinema", "circus",   "docks",
    "farm",    "ferry",  "forest",  "fountain", "gallery",    "garage", "harbour",  "hospital",
    "hotel",   "kiosk",  "laundry", "library",  "lighthouse", "market", "museum",   "opera",
    "pier",    "quarry", "stadium", "station",  "swamp",      "tunnel", "windmill", "zoo"};

// The random number generator splitmix64.
inline std::uint64_t next_random(Bot& bot) {
  bot.rng += 0x9E37'79B9'7F4A'7C15;
  std::uint64_t z = bot.rng;
  z = (z ^ (z >> 30U)) * 0xBF58'476D'1CE4'E5B9;
  z = (z ^ (z >> 27U)) * 0x94D0'49BB'1331'11EB;
  return z ^ (z >> 31U);
}

inline unsigned random_below(Bot& bot, unsigned limit) {
  return static_cast<unsigned>((next_random(bot) >> 32U) * limit >> 32U);
}

inline std::uint8_t random_byte(Bot& bot) {
  return static_cast<std::uint8_t>(next_random(bot) >> 56U);
}

// Random bits; one time in eight a signalling NaN, which the server must relay unchanged, too.
inline FloatBits random_float(Bot& bot) {
  const auto bits = static_cast<FloatBits>(next_random(bot) >> 32U);
  return random_below(bot, 8) == 0 ? (bits & 0x803F'FFFFU) | 0x7F80'0001U : bits;
}

template <std::size_t count>
inline void fill_random(Bot& bot, std::array<std::uint8_t, count>& bytes) {
  for (std::uint8_t& byte : bytes) byte = random_byte(bot);
}

inline float random_between(Bot& bot, float low, float high) {
  return low + (high - low) * static_cast<float>(random_below(bot, 1U << 20U)) / (1U << 20U);
}

// Bots walk and drive in curves from one goal in a square world to the next; cars are faster. A bot
// near its goal gets a new one: a car cannot turn sharply enough to reach it.
inline Position next_position(Bot& bot) {
  const float seconds = static_cast<float>(fleet.step_ns) / 1e9F;
  const bool in_car = bot.slot != NO_SLOT && fleet.slots[bot.slot].in_car;
  const float step = (in_car ? CAR_SPEED : WALKING_SPEED) * seconds;
  if (std::hypot(bot.goal_x - bot.x, bot.goal_y - bot.y) < GOAL_RADIUS) {
    bot.goal_x = random_between(bot, -HALF_WORLD, HALF_WORLD);
    bot.goal_y = random_between(bot, -HALF_WORLD, HALF_WORLD);
  }
  const float wanted = std::atan2(bot.goal_y - bot.y, bot.goal_x - bot.x);
  const float turn = std::remainder(wanted - bot.heading, 2 * std::numbers::pi_v<float>);
  bot.heading += std::clamp(turn, -TURN_RATE * seconds, TURN_RATE * seconds);
  bot.x += step * std::cos(bot.heading);
  bot.y += step * std::sin(bot.heading);
  return {std::bit_cast<FloatBits>(bot.x), std::bit_cast<FloatBits>(bot.y), random_float(bot)};
}

// The value of state_f2. CMD_PLAYER_STATE_FLOATS contains no slot, so state_f2 contains it.
inline FloatBits slot_tag(const Bot& bot) {
  return static_cast<FloatBits>(fleet.process_tag) << 16U | bot.slot;
}

// The unused bytes are zero, as in the datagrams of the server.
inline CarState random_car(Bot& bot) {
  CarState car;
  car.car_type = random_byte(bot);
  car.car_color1 = random_byte(bot);
  car.car_color2 = random_byte(bot);
  fill_random(bot, car.car_block_a);
  fill_random(bot, car.car_block_b);
  car.car_byte = random_byte(bot);
  car.car_float = random_float(bot);
  return car;
}

// The server must not read unused bytes, so bots send random ones.
inline CarState with_random_unused(Bot& bot, CarState car) {
  fill_random(bot, car.unused_1);
  fill_random(bot, car.unused_2);
  return car;
}

inline Expectation expectation_of(Datagram datagram) {
  Expectation expectation;
  expectation.sent_ns = monotonic_ns();
  expectation.size = static_cast<std::uint8_t>(datagram.size());
  expectation.compared_size = expectation.size;
  std::copy(datagram.begin(), datagram.end(), expectation.bytes.begin());
  return expectation;
}

template <WireRecord Record>
inline void expect_relay(const Bot& bot, const Record& relay) {
  Expectation expectation = expectation_of(relay);
  expectation.required = fleet.in_game & ~bot_bit(bot.number);
  expectation.optional = fleet.maybe_in_game & ~bot_bit(bot.number);
  expect(relay_ring(bot.slot), expectation);
}

inline void expect_answer(const Bot& bot, Datagram answer, std::size_t compared_size) {
  Expectation expectation = expectation_of(answer);
  expectation.compared_size = static_cast<std::uint8_t>(compared_size);
  expectation.required = bot_bit(bot.number);
  expect(answer_ring(bot.number), expectation);
}

// Without in-order delivery, the server may answer with an older state, or not at all. In that
// case, and while the server's state of the slot is unknown, only the first known_size bytes are
// compared.
inline void expect_player_data(const Bot& bot, const SlotModel& model, Datagram answer,
                               std::size_t known_size) {
  const bool exact = fleet.in_order_delivery && model.known;
  Expectation expectation = expectation_of(answer);
  expectation.compared_size = static_cast<std::uint8_t>(exact ? answer.size() : known_size);
  expectation.required = fleet.in_order_delivery ? bot_bit(bot.number) : 0;
  expectation.optional = bot_bit(bot.number);
  expect(answer_ring(bot.number), expectation);
}

// Whether the model knows all used slots of the server.
inline bool knows_slots() {
  return fleet.alone && fleet.in_order_delivery;
}

inline void expect_clock(const Bot& bot) {
  expect_answer(bot, GameClock{}, offsetof(GameClock, hour));
}

inline SlotModel& model_of(const Bot& bot) {
  return fleet.slots[bot.slot];
}

inline void expect_info(const Bot& bot, Slot slot) {
  const SlotModel& model = fleet.slots[slot];
  PlayerInfo info;
  info.slot = slot;
  std::copy_n(fleet.bots[model.bot].name.begin(), NAME_WIDTH, info.name.begin());
  info.state = model.state;
  info.in_car = model.in_car ? 1 : 0;
  if (model.in_car) info.car = model.car;
  expect_player_data(bot, model, info, offsetof(PlayerInfo, state));
}
