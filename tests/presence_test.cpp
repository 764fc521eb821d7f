#include "tests/game.h"

namespace {

class PresenceTest : public GameTest {};

Bytes reply_16(std::uint8_t slot, std::uint8_t hour, std::uint8_t minute) {
  return {16, slot, hour, minute};
}

TEST_F(PresenceTest, EnteringAnnouncesTheNewcomerAndTellsItOfEveryJoinedPlayer) {
  fill(1);
  const Player joined_only;
  join(joined_only, "Jo");
  joined_only.received();
  player_table[1].state_b = 77;  // left by an earlier player
  const Player bob;
  join(bob, "Bob");
  bob.received();
  player_table[2].last_heard = 0;
  fake_now_ms = 1000 + 61 * 60'000 + 30'000;
  EXPECT_EQ(
      say(bob, datagram(15, 100, {{1, {9, 9, 9}}, {4, STATE}, {32, {7, 9, 9, 9}}, {36, CAR}})), "");
  EXPECT_EQ(player_table[2].last_heard, fake_now_ms);
  EXPECT_EQ(player_table[2].in_game, 1);

  Bytes announced = info_on_foot(2, 1, "Bob");
  const Bytes car = clean_car(CAR);
  announced[96] = 1;
  std::copy(car.begin(), car.end(), announced.begin() + 100);
  EXPECT_EQ(players[0]->received(), std::vector<Bytes>{announced});
  EXPECT_EQ(joined_only.received(), std::vector<Bytes>{});
  const Bytes joined_record = datagram(42, 164, {{1, {1}}, {3, text("Jo")}, {84, {77}}});
  expect_only(bob, {reply_16(2, 13, 30), info_on_foot(0, 0, "P0"), joined_record});

  EXPECT_EQ(say(bob, enter_on_foot()), "") << "once more, on foot: the slot keeps the car";
  EXPECT_EQ(players[0]->received(), std::vector<Bytes>{info_on_foot(2, 1, "Bob")});
  EXPECT_EQ(player_table[2].car_type, 101);
}

TEST_F(PresenceTest, EnteringGoesByTheLatestJoinNotByTheSender) {
  server_config.maxClients = 2;
  const Player bob;
  const Player ann;
  join(bob, "Bob");
  join(ann, "Ann");
  bob.received();
  player_table[0].last_heard = player_table[1].last_heard = 0;
  say(bob, enter_on_foot());
  EXPECT_EQ(bob.received(), (std::vector<Bytes>{reply_16(1, 0, 0), info_on_foot(0, 0, "Bob")}));
  EXPECT_EQ(player_table[0].last_heard, 0U);
  EXPECT_EQ(player_table[1].last_heard, 1000U);

  const Player late;
  join(late, "late");
  ASSERT_EQ(last_join_slot, -1);
  fake_now_ms = 2000;
  say(bob, enter_on_foot());
  const Bytes ann_joined = datagram(42, 164, {{1, {1}}, {3, text("Ann")}});
  EXPECT_EQ(bob.received(),
            (std::vector<Bytes>{reply_16(255, 0, 1), info_on_foot(0, 0, "Bob"), ann_joined}));
  EXPECT_EQ(player_table[1].last_heard, 1000U) << "no slot, no time-stamp";
}

TEST_F(PresenceTest, GameClockWraps) {
  struct Case {
    std::uint32_t elapsed;
    std::uint8_t hour, minute;
  };
  fill(1);
  for (const Case& c : {Case{3'599'999, 11, 59}, Case{86'400'000, 0, 0}, Case{24 * 60'000, 0, 0},
                        Case{59'999, 0, 59}, Case{0xFFFFFFFF, 14, 47}}) {
    fake_now_ms = server_start_ms + c.elapsed;
    say(*players[0], enter_on_foot());
    expect_only(*players[0], {reply_16(0, c.hour, c.minute)});
  }
}

TEST_F(PresenceTest, QueriesTellOfOthersInTheGameOnly) {
  fill(2);
  const Player joined_only;
  join(joined_only, "Jo");
  joined_only.received();
  say(joined_only, {41, 0});
  const Bytes position(STATE.begin(), STATE.begin() + 12);
  expect_only(joined_only, {datagram(43, 80, {{1, {0}}, {4, position}})});
  for (const std::uint8_t target : Bytes{0, 2, 3, 16, 31, 32, 200, 255}) {
    for (const std::uint8_t code : Bytes{40, 41}) EXPECT_EQ(say(*players[0], {code, target}), "");
  }
  player_table[1].in_use = 0;
  say(*players[0], {40, 1});
  expect_only(*players[0], {});
}

// What comes in with junk in its unused bytes and a signalling NaN in its floats goes out to all
// others in the game, bit for bit and clean.
TEST_F(PresenceTest, ReportsGoToAllOthersBitForBit) {
  server_config.maxClients = 32;
  fill(31);
  const Player joined_only;
  join(joined_only, "Jo");
  joined_only.received();
  const Bytes nan = {0x01, 0x00, 0xA0, 0x7F};
  const Bytes position = {0xFF, 0xFF, 0xA0, 0x7F, 1, 0, 0x80, 0xFF, 0, 0, 0, 0x80};
  const Bytes updates[][2] = {
      {datagram(100, 16, {{1, {9, 9, 9}}, {4, position}}),
       datagram(200, 16, {{1, {30}}, {4, position}})},
      {datagram(43, 80, {{1, {7, 9, 9}}, {4, position}, {16, CAR}}),
       datagram(204, 80, {{1, {30}}, {4, position}, {16, clean_car(CAR)}})},
      {datagram(124, 8, {{1, {77, 9, 9}}, {4, nan}}), datagram(208, 8, {{2, {77}}, {4, nan}})},
  };
  for (const auto& [update, relay] : updates) {
    say(*players[30], update);
    for (std::size_t i = 0; i < 30; ++i)
      EXPECT_EQ(players[i]->received(), (std::vector<Bytes>{relay}));
    expect_only(joined_only, {});
  }
}

TEST_F(PresenceTest, ChatIsPrintedWholeAndCutOnTheWire) {
  fill(2);
  const std::string x255(255, 'x');
  struct Case {
    std::string said, printed, line;
  };
  for (const Case& c : {
           Case{x255, x255, x255.substr(0, 60)},
           Case{std::string("hi\0xx", 5), "hi", "hi"},
           Case{"no end", "no end", "no end"},
           Case{"", "", ""},
           Case{"%s%n\xFF", "%s%n\xFF", "%s%n\xFF"},
       }) {
    Bytes chat = text(c.said);
    chat.insert(chat.begin(), 31);
    EXPECT_EQ(say(*players[1], chat), "Message from \"P1\": \"" + c.printed + "\"\n");
    expect_only(*players[0], {datagram(30, 65, {{1, text("P1: " + c.line)}})});
  }
  EXPECT_EQ(say(*players[1], {}), "Message from \"P1\": \"\"\n") << "of no bytes at all";
}

}  // namespace
