// Cars, weapons, deaths, chat: what each command prints, answers and relays, in one game of three
// players, of whom slot 1 speaks, and one who has only joined.

#include "tests/game.h"

namespace {

struct Step {
  Bytes sent;
  std::string printed;
  std::vector<Bytes> answers;
  std::vector<Bytes> relays;
};

class CommandsTest : public GameTest {
 protected:
  CommandsTest() {
    fill(3);
    join(joined_only, "Jo");
    joined_only.received();
    fake_now_ms = server_start_ms + 61'000;
  }

  void expect_steps(const std::vector<Step>& steps) {
    for (const Step& step : steps) {
      SCOPED_TRACE(testing::PrintToString(step.sent));
      EXPECT_EQ(say(*players[1], step.sent), step.printed);
      EXPECT_EQ(players[0]->received(), step.relays);
      EXPECT_EQ(players[1]->received(), step.answers);
      EXPECT_EQ(players[2]->received(), step.relays);
      EXPECT_EQ(joined_only.received(), std::vector<Bytes>{});
    }
  }

  const Player joined_only;
};

const Bytes POSITION_A = counting(1, 12);
const Bytes POSITION_B = counting(21, 12);
const Bytes OTHER_CAR = counting(11, 64);
const Bytes NAN_FLOAT = {0x01, 0x00, 0xA0, 0x7F};  // signalling
const Bytes STATE_F1(STATE.begin() + 12, STATE.begin() + 16);
const Bytes JUNK = {9, 9, 9};
const Bytes CLOCK = {72, 1, 1};
const std::string OUT = "Player [1] Left his Car\n";

Bytes vehicle(std::uint8_t got_in, const Bytes& position, const Bytes& car) {
  return datagram(43, 80, {{1, {got_in, 9, 9}}, {4, position}, {16, car}});
}
Bytes car_state(const Bytes& position, const Bytes& car) {
  return datagram(101, 80, {{1, JUNK}, {4, position}, {16, car}});
}
Bytes got_car(const Bytes& position, const Bytes& car) {
  return datagram(204, 80, {{1, {1}}, {4, position}, {16, clean_car(car)}});
}
Bytes left_car(const Bytes& position, const Bytes& f1) {
  return datagram(205, 20, {{1, {1}}, {4, position}, {16, f1}});
}
std::string in_line(int type) {
  return "Got Car from Player [1] - Type: " + std::to_string(type) +
         " Color1: " + std::to_string(type + 1) + " Color2: " + std::to_string(type + 2) + "\n";
}

TEST_F(CommandsTest, CarsAreEnteredAndLeft) {
  const Bytes foot = datagram(110, 8, {{1, JUNK}, {4, NAN_FLOAT}});
  const Bytes foot_relay = datagram(201, 8, {{1, {1}}, {4, NAN_FLOAT}});
  expect_steps({
      {vehicle(0, POSITION_A, CAR), "", {}, {}},
      {vehicle(7, POSITION_A, CAR), in_line(101), {}, {got_car(POSITION_A, CAR)}},
      {vehicle(1, POSITION_B, OTHER_CAR), "", {}, {}},
      {vehicle(0, POSITION_B, OTHER_CAR), OUT, {}, {left_car(POSITION_B, STATE_F1)}},
      {car_state(POSITION_A, CAR), in_line(101), {CLOCK}, {got_car(POSITION_A, CAR)}},
      {car_state(POSITION_B, OTHER_CAR), in_line(11), {CLOCK}, {got_car(POSITION_B, OTHER_CAR)}},
      {foot, "Player [1] has Left his Car\n", {}, {left_car(POSITION_B, STATE_F1), foot_relay}},
      {foot, "", {}, {foot_relay}},
      {{102}, OUT, {CLOCK}, {left_car(POSITION_B, NAN_FLOAT)}},
      {{102}, OUT, {CLOCK}, {left_car(POSITION_B, NAN_FLOAT)}},
      {vehicle(0, POSITION_A, CAR), "", {}, {}},
  });
  EXPECT_EQ(std::memcmp(&player_table[1].position, POSITION_A.data(), 12), 0);
  EXPECT_EQ(player_table[1].car_type, 11) << "the slot keeps the last car";
  say(*players[0], {41, 1});
  EXPECT_EQ(players[0]->received(),
            std::vector<Bytes>{datagram(43, 80, {{1, {1}}, {4, POSITION_A}})});
}

TEST_F(CommandsTest, PartialCarUpdatesAreStoredAlwaysAndRelayedFromACar) {
  const Bytes block_a = counting(200, 28);
  const Bytes block_b = counting(50, 24);
  const Bytes update_a = datagram(120, 32, {{1, JUNK}, {4, block_a}});
  const Bytes update_b = datagram(121, 28, {{1, JUNK}, {4, block_b}});
  const Bytes status = datagram(124, 8, {{1, {77, 9, 9}}, {4, NAN_FLOAT}});
  const std::vector<Bytes> not_in_car = {{41, 1}};
  expect_steps({{update_a, "", not_in_car, {}},
                {update_b, "", not_in_car, {}},
                {status, "", not_in_car, {}}});
  const PlayerSlot& slot = player_table[1];
  EXPECT_EQ(std::memcmp(&slot.car_block_a, block_a.data(), 28), 0);
  EXPECT_EQ(std::memcmp(&slot.car_block_b, block_b.data(), 24), 0);
  EXPECT_EQ(std::memcmp(&slot.car_float, NAN_FLOAT.data(), 4), 0);
  EXPECT_EQ(slot.car_byte, 77);
  expect_steps({
      {vehicle(1, POSITION_A, CAR), in_line(101), {}, {got_car(POSITION_A, CAR)}},
      {update_a, "", {}, {datagram(202, 32, {{1, {1}}, {4, block_a}})}},
      {update_b, "", {}, {datagram(203, 28, {{1, {1}}, {4, block_b}})}},
      {status, "", {}, {datagram(208, 8, {{2, {77}}, {4, NAN_FLOAT}})}},
  });
  Bytes driven = CAR;
  std::copy(block_a.begin(), block_a.end(), driven.begin() + 4);
  std::copy(block_b.begin(), block_b.end(), driven.begin() + 32);
  driven[56] = 77;
  std::copy(NAN_FLOAT.begin(), NAN_FLOAT.end(), driven.begin() + 60);
  say(*players[0], {41, 1});
  EXPECT_EQ(players[0]->received(),
            std::vector<Bytes>{
                datagram(43, 80, {{1, {1, 1}}, {4, POSITION_A}, {16, clean_car(driven)}})});
}

TEST_F(CommandsTest, WeaponsAndDeaths) {
  const Bytes floats = datagram(123, 12, {{4, NAN_FLOAT}});
  const Bytes floats_relay = datagram(207, 12, {{4, NAN_FLOAT}});
  expect_steps({
      {floats, "", {}, {floats_relay}},
      {{122, 200}, "Got Weapon from Player [1] - Type: 200\n", {}, {{206, 1, 200}}},
      {vehicle(1, POSITION_A, CAR), in_line(101), {}, {got_car(POSITION_A, CAR)}},
      {{103, 3}, "P1, Player [1] died 3 times\n", {}, {{220, 1, 3}}},
      {{103, 255}, "P1, Player [1] died 255 times\n", {}, {{220, 1, 255}}},
      {{103, 1}, "P1, Player [1] died 1 times\n", {}, {{220, 1, 1}}},
      {floats, "", {CLOCK}, {floats_relay}},
      {floats, "", {CLOCK}, {floats_relay}},
  });
  EXPECT_EQ(player_table[1].in_car, 0);
  EXPECT_EQ(player_table[1].state_b, 200);
  EXPECT_EQ(player_table[1].death_count, 1);
}

TEST_F(CommandsTest, ChatIsPrintedWholeAndCutOnTheWire) {
  const auto said = [](const std::string& what) {
    return "Message from \"P1\": \"" + what + "\"\n";
  };
  const auto line = [](const std::string& what) { return datagram(30, 65, {{1, text(what)}}); };
  const auto chat = [](const std::string& what) {
    Bytes bytes = text(what);
    bytes.insert(bytes.begin(), 31);
    return bytes;
  };
  const std::string x255(255, 'x');
  expect_steps({
      {chat(x255), said(x255), {}, {line("P1: " + x255.substr(0, 60))}},
      {chat(std::string("hi\0xx", 5)), said("hi"), {}, {line("P1: hi")}},
      {chat("no end"), said("no end"), {}, {line("P1: no end")}},
      {chat(""), said(""), {}, {line("P1: ")}},
      {{}, said(""), {}, {line("P1: ")}},
      {chat("%s%n\xFF"), said("%s%n\xFF"), {}, {line("P1: %s%n\xFF")}},
      {chat(x255.substr(0, 59)), said(x255.substr(0, 59)), {}, {line("P1: " + x255.substr(0, 59))}},
  });
  EXPECT_EQ(say(joined_only, chat("me too")), "Message from \"Jo\": \"me too\"\n");
  EXPECT_EQ(players[0]->received(), std::vector<Bytes>{line("Jo: me too")});
}

}  // namespace
