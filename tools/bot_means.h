// What every action of the bots is made of: chance, and notes of what must be heard of it.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "tools/bot.h"

// splitmix64
inline std::uint64_t next_random(Bot& bot) {
  bot.random += 0x9E37'79B9'7F4A'7C15;
  std::uint64_t z = bot.random;
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

// Any pattern, and often a signalling NaN: none may change on its way.
inline std::uint32_t random_bits(Bot& bot) {
  const auto bits = static_cast<std::uint32_t>(next_random(bot) >> 32U);
  return random_below(bot, 8) == 0 ? (bits & 0x803F'FFFFU) | 0x7F80'0001U : bits;
}

template <std::size_t count>
inline void fill_random(Bot& bot, std::array<std::uint8_t, count>& bytes) {
  for (std::uint8_t& byte : bytes) byte = random_byte(bot);
}

// Two floats along a circle of the bot's own, and a third value that means nothing.
inline Position next_position(Bot& bot) {
  const float angle = 0.05F * static_cast<float>(++bot.steps);
  const float radius = 20.0F + static_cast<float>(bot.number);
  return {std::bit_cast<std::uint32_t>(radius * std::cos(angle)),
          std::bit_cast<std::uint32_t>(radius * std::sin(angle)), random_bits(bot)};
}

// Names the slot, as the relay 207 does not.
inline FloatBits mark_bits(const Bot& bot) {
  return static_cast<FloatBits>(fleet.mark) << 16U | bot.slot;
}

// Its unused bytes stay zero, as the server sends them.
inline CarState random_car(Bot& bot) {
  CarState car;
  car.car_type = random_byte(bot);
  car.car_color1 = random_byte(bot);
  car.car_color2 = random_byte(bot);
  fill_random(bot, car.car_block_a);
  fill_random(bot, car.car_block_b);
  car.car_byte = random_byte(bot);
  car.car_float = random_bits(bot);
  return car;
}

// The server is to read no unused byte, so they may hold anything.
inline CarState soil_unused(Bot& bot, CarState car) {
  fill_random(bot, car.unused_1);
  fill_random(bot, car.unused_2);
  return car;
}

inline Expectation expectation_of(Bytes datagram) {
  Expectation expectation;
  expectation.sent_ns = monotonic_ns();
  expectation.length = static_cast<std::uint8_t>(datagram.size());
  expectation.compared = expectation.length;
  std::copy(datagram.begin(), datagram.end(), expectation.bytes.begin());
  return expectation;
}

template <WireRecord Record>
inline void expect_relay(const Bot& bot, const Record& relay) {
  Expectation expectation = expectation_of(bytes_of(relay));
  expectation.required = fleet.in_game & ~only(bot.number);
  expectation.optional = fleet.maybe_game & ~only(bot.number);
  expect(relay_ring(bot.slot), expectation);
}

inline void expect_answer(const Bot& bot, Bytes answer, std::size_t compared) {
  Expectation expectation = expectation_of(answer);
  expectation.compared = static_cast<std::uint8_t>(compared);
  expectation.required = only(bot.number);
  expect(answer_ring(bot.number), expectation);
}

// The server's state of a slot is sure only where the order is, and once one of ours has entered
// there; that there is an answer at all is sure with the order alone.
inline void expect_record(const Bot& bot, const SlotModel& model, Bytes record,
                          std::size_t identified) {
  const bool exact = fleet.ordered_road && model.known;
  Expectation expectation = expectation_of(record);
  expectation.compared = static_cast<std::uint8_t>(exact ? record.size() : identified);
  expectation.required = fleet.ordered_road ? only(bot.number) : 0;
  expectation.optional = only(bot.number);
  expect(answer_ring(bot.number), expectation);
}

inline void expect_clock(const Bot& bot) {
  expect_answer(bot, bytes_of(GameClock{}), offsetof(GameClock, hour));
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
  expect_record(bot, model, bytes_of(info), offsetof(PlayerInfo, state));
}
