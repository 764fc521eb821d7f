#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <limits>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "bots/histogram.h"
#include "client/reports.h"
#include "client/server_connection.h"
#include "tests/bytes.h"
#include "tests/loopback.h"
#include "text/names.h"
#include "view/map.h"
#include "view/role.h"

namespace {

std::string line_of(const GamePicture& picture, Slot slot) {
  const PlayerPicture& player = picture.players[slot];
  if (!player.has_record) return player.is_present ? "no record" : "";
  const auto place = map_point_of(player.state.position).value_or(MapPoint{-1, -1});
  char line[128];
  std::snprintf(line, sizeof line, "%s (%g,%g) %s%d gun %d died %d", player.name.data(), place.x,
                place.y, player.in_car ? "car " : "foot", player.in_car ? player.car.car_type : 0,
                player.state.state_b, player.death_count.value_or(255));
  return line;
}

void apply_words(GamePicture& picture, const std::string& words, std::uint64_t now_ms = 5'000) {
  picture_apply(picture, bytes_of(words), now_ms);
}

// Floats: 1, 2, 4 and 8.
#define ONE " 00*2 80 3f "
#define TWO " 00*3 40 "
#define FOUR " 00*2 80 40 "
#define EIGHT " 00*3 41 "

const char* const BOB = "2a 05 00 \"Bob\" ..68 " ONE TWO "00*4 00*4 07 00*11 00*4 00*64";

TEST(PictureTest, AppliesEachDatagram) {
  struct Step {
    std::string words;
    std::string expected;  // the state of slot 5
  };
  const Step steps[] = {
      {"c8 05 00*2" ONE ONE "00*4", "no record"},
      {BOB, "Bob (1,2) foot0 gun 7 died 255"},
      {"c8 05 00*2" FOUR EIGHT "00*4", "Bob (4,8) foot0 gun 7 died 255"},
      {"ce 05 63", "Bob (4,8) foot0 gun 99 died 255"},
      {"cc 05 00*2" ONE ONE "00*4 09 01 02 00*61", "Bob (1,1) car 9 gun 99 died 255"},
      {"cd 05 00*2" TWO TWO "00*4 00*4", "Bob (2,2) foot0 gun 99 died 255"},
      {"ca 05 00*2 00*28", "Bob (2,2) car 9 gun 99 died 255"},
      {"c9 05 00*2 00*4", "Bob (2,2) foot0 gun 99 died 255"},
      {"cb 05 00*2 00*24", "Bob (2,2) car 9 gun 99 died 255"},
      {"dc 05 03", "Bob (2,2) foot0 gun 99 died 3"},
      {"2b 05 01 00" FOUR FOUR "00*4 0b 00*63", "Bob (4,4) car 11 gun 99 died 3"},
      {"2a 05 01 \"Bob\" ..68 " ONE TWO "00*4 00*4 07 00*11 01 00*3 08 00*63",
       "Bob (1,2) car 8 gun 7 died 3"},
      {"2a 05 00 61*64 ..164", std::string(63, 'a') + " (0,0) foot0 gun 0 died 255"},
      {"3c 05", ""},
  };
  GamePicture picture;
  for (const Step& step : steps) {
    const std::string before = line_of(picture, 5);
    Bytes bytes = bytes_of(step.words);
    bytes.push_back(0);
    picture_apply(picture, bytes, 5'000);
    bytes.resize(bytes.size() - 2);
    picture_apply(picture, bytes, 5'000);
    EXPECT_EQ(line_of(picture, 5), before) << "too long or too short: " << step.words;
    apply_words(picture, step.words);
    EXPECT_EQ(line_of(picture, 5), step.expected) << step.words;
  }
}

TEST(PictureTest, StoresClockChatAndPinkPanther) {
  GamePicture picture;
  apply_words(picture, "10 ff 17 3b", 5'000);  // 23:59
  EXPECT_EQ(game_minutes(picture, 6'999), 0U);
  apply_words(picture, "48 0d 02", 6'000);
  EXPECT_EQ(game_minutes(picture, 7'000), 13U * 60 + 3);
  apply_words(picture, "d1 05");
  EXPECT_EQ(picture.pinkpanther, 5);
  apply_words(picture, "3c 05");
  EXPECT_EQ(picture.pinkpanther, NOBODY);
  for (std::size_t i = 0; i < CHAT_LINES; ++i) apply_words(picture, "1e \"old\" ..65");
  apply_words(picture, "1e 78*64");
  EXPECT_EQ(picture.chat_count, CHAT_LINES + 1);
  EXPECT_EQ(picture.chat[0].data(), std::string(64, 'x'));
  EXPECT_STREQ(picture.chat[1].data(), "old");
}

// The times and slots of all questions, as "TIME:SLOT ": about known players, or about unknown
// slots.
std::string questions(GamePicture& picture, std::uint64_t from_ms, std::uint64_t to_ms,
                      bool of_known = true) {
  std::string asked;
  for (std::uint64_t now_ms = from_ms; now_ms <= to_ms; now_ms += 100) {
    for (Slot slot = 0; (slot = next_question(picture, now_ms)) != NO_SLOT;) {
      if (picture.players[slot].is_present == of_known) {
        asked += std::to_string(now_ms) + ":" + std::to_string(slot) + " ";
      }
    }
  }
  return asked;
}

TEST(PictureTest, AsksForMissingRecords) {
  GamePicture picture{.own_slot = 2};
  apply_words(picture, "c8 09 ..16", 100);  // the clock may start at 0
  EXPECT_EQ(questions(picture, 100, 1'200), "100:9 1100:9 ");
  picture = {.own_slot = 2};
  apply_words(picture, "2a 02 00 ..164");  // its own slot, for which it never asks
  apply_words(picture, BOB, 5'000);
  EXPECT_EQ(questions(picture, 5'000, 9'900), "") << "the record is known and recent";
  EXPECT_EQ(questions(picture, 10'000, 11'000), "10000:5 11000:5 ");
  apply_words(picture, BOB, 11'100);
  apply_words(picture, "10 09 00 00", 11'100);  // slot 9 joined last
  EXPECT_EQ(questions(picture, 11'100, 13'000), "11100:9 12100:9 ");
  apply_words(picture, "c8 09 ..16", 13'050);  // a relay instead of an answer
  EXPECT_EQ(questions(picture, 13'100, 16'000), "13100:9 14100:9 15100:9 ");
  EXPECT_EQ(questions(picture, 16'100, 17'000), "16100:5 16100:9 ");
  EXPECT_EQ(line_of(picture, 9), "no record");
  questions(picture, 17'100, 22'100);
  EXPECT_EQ(line_of(picture, 9), "no record");
  EXPECT_EQ(questions(picture, 23'100, 23'100, false), "23100:8 ") << "no eleventh question";
  EXPECT_EQ(line_of(picture, 9), "") << "ten questions without an answer";
  questions(picture, 23'200, 50'000);
  EXPECT_EQ(line_of(picture, 5), "");
}

TEST(PictureTest, AsksForUnknownSlots) {
  GamePicture picture{.own_slot = 2, .unknown_slot = 28};
  apply_words(picture, BOB, 5'000);
  EXPECT_EQ(questions(picture, 5'000, 9'900, false),
            "5000:29 5500:30 6000:31 6500:0 7000:1 7500:3 8000:4 8500:6 9000:7 9500:8 ");
}

TEST(PictureTest, IgnoresAnswersOlderThanALeave) {
  GamePicture picture;
  apply_words(picture, BOB, 5'000);
  apply_words(picture, "3c 05", 6'000);
  apply_words(picture, BOB, 6'999);
  EXPECT_EQ(line_of(picture, 5), "");
  apply_words(picture, BOB, 7'000);
  EXPECT_NE(line_of(picture, 5), "");
  apply_words(picture, "3c 05", 8'000);
  apply_words(picture, "2a 05 01 \"Rob\" ..164", 8'100);
  EXPECT_NE(line_of(picture, 5), "") << "a player that has just entered";
}

// Relays without a slot: which player gets the values, and whether the relay fits several players,
// so that the picture asks for their records.
TEST(PictureTest, AssignsRelaysWithoutASlot) {
  const char* const ANN = "2a 06 00 \"Ann\" ..68 00*4 00*4 00*4 00*4 00*4 " ONE FOUR " 00*68";
  const char* const DRIVER = "cc 06 00*2 00*4 00*4 00*4 00*56 03 00*3 " ONE;
  struct Case {
    std::vector<const char*> datagrams;
    std::uint32_t state_f2;  // the state of slot 5
    unsigned car_byte;       // the state of slot 6
    bool is_ambiguous;
  };
  const Case cases[] = {
      {{BOB, "cf 00*3" TWO FOUR}, 0x40000000, 0, false},
      {{BOB, ANN, "cf 00*3" ONE FOUR}, 0, 0, false},
      {{BOB, ANN, "cf 00*3" TWO FOUR}, 0, 0, true},
      {{BOB, ANN, "cf 00*3" ONE TWO}, 0, 0, true},
      {{BOB, DRIVER, "d0 00 09 00" ONE}, 0, 9, false},
      {{BOB, DRIVER, "d0 00 03 00" ONE}, 0, 3, false},
      {{BOB, "d0 00 09 00" ONE}, 0, 0, true},
  };
  for (const Case& each : cases) {
    GamePicture picture{.own_slot = 7};
    std::uint64_t now_ms = 5'000;
    for (const char* words : each.datagrams) apply_words(picture, words, now_ms++);
    EXPECT_EQ(picture.players[5].state.state_f2, each.state_f2) << each.datagrams.back();
    EXPECT_EQ(picture.players[6].car.car_byte, each.car_byte) << each.datagrams.back();
    EXPECT_EQ(picture.ambiguous_ms > 0, each.is_ambiguous) << each.datagrams.back();
    const std::string asked = questions(picture, 7'100, 7'100);
    EXPECT_EQ(asked.find(":5 ") != std::string::npos, each.is_ambiguous) << asked;
  }
}

// Whether the player plays, and when it was last active. Each step is one second later.
TEST(PictureTest, KnowsWhichPlayersPlay) {
  GamePicture picture;
  const std::tuple<const char*, bool, std::uint64_t> steps[] = {
      {BOB, false, 100},
      {"dc 05 01", false, 1'100},
      {"ce 05 63", true, 2'100},
      {BOB, true, 2'100},
      {"2a 05 01 \"Bob\" ..164", false, 4'100},
      {"ce 05 63", true, 5'100},
      {"2a 05 00 \"Rob\" ..164", false, 6'100}};
  std::uint64_t now_ms = 100;
  for (const auto& [words, is_playing, last_active_ms] : steps) {
    apply_words(picture, words, now_ms);
    now_ms += 1'000;
    EXPECT_TRUE(picture.players[5].is_present) << words;
    EXPECT_EQ(picture.players[5].is_playing, is_playing) << words;
    EXPECT_EQ(picture.players[5].last_active_ms, last_active_ms) << words;
  }
}

TEST(PictureTest, IgnoresInvalidSlotsAndItsOwn) {
  GamePicture picture{.own_slot = 0, .pinkpanther = 0};
  for (const char* words : {"c8 20 ..16", "c8 ff ..16", "3c ff", "10 ff 00 00", "2a 20 00 ..164",
                            "c8 00 ..16", "2a 00 01 ..164", "dc 00 01", "3c 00"}) {
    apply_words(picture, words);
  }
  for (const PlayerPicture& player : picture.players) EXPECT_FALSE(player.is_present);
  EXPECT_EQ(picture.pinkpanther, 0);
}

const char* const ACCEPTED = "11 03 01 \"Hi\" ..67";
const char* const PLACED = "29 03";
const char* const ENTERED = "10 03 00 00";

class SessionTest : public testing::Test {
 public:
  // The codes of the datagrams in the outbox; "join" and "enter" for those two.
  std::string sent() {
    std::string all;
    for (Datagram datagram = outbox_take(session.outbox); !datagram.empty();
         datagram = outbox_take(session.outbox)) {
      const int code = datagram[0];
      if (code != 40)
        all += code == 10 ? "join " : code == 15 ? "enter " : std::to_string(code) + " ";
      latest.assign(datagram.begin(), datagram.end());
    }
    return all;
  }
  // Steps every 500 ms. Returns the times and codes of the sent datagrams.
  std::string pass(std::uint64_t from_ms, std::uint64_t to_ms) {
    std::string all;
    for (std::uint64_t now_ms = from_ms; now_ms <= to_ms; now_ms += 500) {
      session_step(session, now_ms);
      const std::string now = sent();
      if (!now.empty()) all += std::to_string(now_ms) + " " + now;
    }
    return all;
  }
  SessionEvent handle_words(const std::string& words, std::uint64_t now_ms) {
    return session_hear(session, bytes_of(words), now_ms);
  }
  // The times at which each code is sent. Other players are active, so that only repeats are due.
  std::map<std::string, std::string> repeats(std::uint64_t from_ms, std::uint64_t to_ms) {
    std::map<std::string, std::string> times;
    for (std::uint64_t now_ms = from_ms; now_ms <= to_ms; now_ms += 500) {
      handle_words("c8 04 ..16", now_ms);
      session_step(session, now_ms);
      std::istringstream codes(sent());
      for (std::string code; codes >> code;) times[code] += std::to_string(now_ms) + " ";
    }
    return times;
  }
  void play(std::uint64_t now_ms) {
    pass(now_ms, now_ms);
    EXPECT_EQ(handle_words(ACCEPTED, now_ms), SessionEvent::JOINED);
    handle_words(PLACED, now_ms);
    EXPECT_EQ(handle_words(ENTERED, now_ms), SessionEvent::ENTERED);
    pass(now_ms + 1'000, now_ms + 1'000);
    handle_words(PLACED, now_ms + 1'000);
    sent();
  }

  ClientSession session{.name = {'M', 'e'}};
  Bytes latest;
};

TEST_F(SessionTest, JoinsAndEnters) {
  EXPECT_EQ(pass(1'000, 95'000),
            "1000 join 2000 join 4000 join 8000 join 16000 join 32000 join "
            "62000 join 92000 join ");
  EXPECT_EQ(handle_words(ACCEPTED, 100'000), SessionEvent::JOINED);
  EXPECT_STREQ(session.picture.welcome.data(), "Hi");
  EXPECT_EQ(pass(100'000, 102'500), "100000 120 101000 120 102000 120 ") << "which slot?";
  handle_words(PLACED, 102'500);
  EXPECT_EQ(pass(102'500, 103'500), "102500 enter 103500 120 enter ");
  handle_words(PLACED, 103'600);
  EXPECT_EQ(pass(104'000, 117'500),
            "105500 enter 109500 enter 116000 120 117000 120 117500 enter ");
  EXPECT_EQ(handle_words(ENTERED, 118'000), SessionEvent::ENTERED);
  EXPECT_EQ(handle_words("01", 130'000), SessionEvent::NONE);
  EXPECT_EQ(sent(), "2 ") << "a ping is answered";
}

TEST_F(SessionTest, JoinsAgainAfterSilenceOrShutdown) {
  play(1'000);
  EXPECT_EQ(pass(2'500, 26'500),
            "14000 120 15000 120 16000 120 17000 120 18000 120 19000 120 20000 120 21000 120 "
            "22000 120 23000 120 enter 24000 120 enter 25000 120 26000 120 enter ");
  EXPECT_EQ(session_step(session, 27'000), SessionEvent::NONE);
  sent();
  EXPECT_EQ(session_step(session, 27'001), SessionEvent::FORGOTTEN);
  EXPECT_EQ(pass(27'500, 28'500), "27500 join 28500 join ");
  play(30'000);
  EXPECT_EQ(handle_words("13", 32'000), SessionEvent::STOPPED);
  EXPECT_EQ(handle_words("c8 04 ..16", 32'000), SessionEvent::NONE);
  EXPECT_FALSE(session.picture.players[4].is_present) << "the session has left the game";
  EXPECT_EQ(pass(32'000, 34'000), "33000 join 34000 join ");
}

// Whether a datagram shows that the client has a slot, and whether it shows that it is in the game.
TEST_F(SessionTest, RecognizesDatagramsThatConfirmTheSlot) {
  const std::tuple<const char*, bool, bool> signs[] = {
      {"01", true, true},           {"c8 04 ..16", true, true},     {"1e ..65", true, true},
      {"29 03", true, false},       {"48 00 00", true, false},      {"2a 05 00 ..164", true, false},
      {"2b 05 ..80", true, false},  {"2a 05 01 ..164", true, true}, {"0c ..65", false, false},
      {"63", false, false},         {"c8 04", false, false},        {"01 00", false, false},
      {"c8 20 ..16", false, false}, {"10 ff 00 00", true, true},    {"10 20 00 00", false, false},
      {"d1 64", true, true},        {"d1 65", false, false}};
  play(1'000);
  std::uint64_t now_ms = 3'000;
  for (const auto& [words, has_slot, is_in_game] : signs) {
    handle_words(words, ++now_ms);
    EXPECT_EQ(session.slot_confirmed_ms == now_ms, has_slot) << words;
    EXPECT_EQ(session.in_game_ms == now_ms, is_in_game) << words;
  }
}

TEST_F(SessionTest, LeavesAFullServerBeforeTheNextTry) {
  pass(1'000, 1'000);
  for (const std::uint64_t now_ms : {1'100U, 2'100U}) {
    const bool is_first = now_ms < 2'000;
    EXPECT_EQ(handle_words(is_first ? "0c 78*64" : "0c \"Full\" ..65", now_ms),
              SessionEvent::REFUSED);
    EXPECT_EQ(session.refusal.data(), is_first ? std::string(64, 'x') : "Full");
    EXPECT_EQ(handle_words(ACCEPTED, now_ms), SessionEvent::NONE) << "it leaves that slot";
    EXPECT_EQ(sent(), "60 ");
    EXPECT_EQ(pass(2'000, 2'000), is_first ? "2000 join " : "");
  }
  play(4'000);
  EXPECT_EQ(handle_words("0c \"Full\" ..65", 5'500), SessionEvent::NONE) << "an old refusal";
  EXPECT_EQ(sent(), "");
  session_leave(session);
  EXPECT_EQ(sent(), "60 60 60 ");
}

// Answers about others show a slot, and hide that a join moved the client to another one.
TEST_F(SessionTest, AsksForItsSlotWhenItEntersAgain) {
  play(1'000);
  std::string all;
  for (std::uint64_t now_ms = 2'000; now_ms <= 26'000; now_ms += 500) {
    handle_words("2b 05 ..80", now_ms);
    all += pass(now_ms, now_ms);
  }
  EXPECT_EQ(all, "23000 enter 24000 120 enter 25000 120 26000 120 enter ");
}

// The network repeats or reorders joins. The datagrams that arrive while the client plays in slot
// 3, the codes that it then sends, and its slot at the end.
TEST_F(SessionTest, FindsItsSlot) {
  struct Case {
    std::vector<const char*> datagrams;
    const char* sent;
    int own_slot;
  };
  const Case cases[] = {{{"11 03 01 ..67"}, "", 3},
                        {{"11 05 01 ..67"}, "120 ", 3},
                        {{"11 05 01 ..67", PLACED}, "", 3},
                        {{"11 05 01 ..67", "29 05"}, "enter ", 5},
                        {{"29 05"}, "enter ", 5},
                        {{"29 05", PLACED}, "enter ", 3},
                        {{"29 20"}, "", 3},
                        {{"11 20 01 ..67"}, "", 3}};
  for (const Case& each : cases) {
    session = {.name = {'M', 'e'}};
    play(1'000);
    for (const char* words : each.datagrams) handle_words(words, 2'500);
    session_step(session, 2'500);
    EXPECT_EQ(sent(), each.sent) << each.datagrams.back();
    EXPECT_EQ(session.picture.own_slot, each.own_slot) << each.datagrams.back();
  }
}

// A server that has the player in a car does not answer these questions.
TEST_F(SessionTest, ADriverStopsAskingForItsSlot) {
  play(1'000);
  session.own.in_car = true;
  handle_words("11 05 01 ..67", 2'500);
  EXPECT_EQ(pass(2'500, 15'500),
            "2500 120 3500 120 4500 120 5500 120 6500 120 14000 101 15000 101 ");
}

TEST_F(SessionTest, IgnoresDatagramsOfWrongSize) {
  pass(1'000, 1'000);
  for (const char* words : {"11 03 01 ..68", "0c ..64", "13 00", "01 00"}) {
    EXPECT_EQ(handle_words(words, 1'000), SessionEvent::NONE) << words;
  }
  EXPECT_EQ(sent(), "");
  handle_words(ACCEPTED, 1'000);
  handle_words("29 03 00", 1'000);
  EXPECT_EQ(session.state, SessionState::PLACING);
  handle_words(PLACED, 1'000);
  EXPECT_EQ(handle_words("10 03 00 00 00", 1'000), SessionEvent::NONE);
  EXPECT_EQ(session.state, SessionState::ENTERING);
}

const CarState CAR{.car_type = 7};
const Position PLACE{1, 2, 3};
#define PLACE_WORDS " 01 00*3 02 00*3 03 00*3 "
#define CAR_WORDS " 07 00*63"

// Each report, in order, starting on foot: the words of its datagram. Before the client is in the
// game, it sends only the question.
TEST_F(SessionTest, ReportsEverything) {
  struct Case {
    std::function<void(ClientSession&)> report;
    std::string words;
  };
  const Case cases[] = {
      {[](auto& s) { report_position(s, PLACE); }, "64 00*3" PLACE_WORDS},
      {[](auto& s) { report_weapon(s, 9); }, "7a 09"},
      {[](auto& s) { report_state_floats(s, 1, 2); }, "7b 00*3 01 00*3 02 00*3"},
      {[](auto& s) { report_on_foot(s, 4); }, "6e 00*3 04 00*3"},
      {[](auto& s) { report_got_in(s, PLACE, CAR); }, "2b 01 00*2" PLACE_WORDS CAR_WORDS},
      {[](auto& s) { report_got_in(s, PLACE, CAR); }, "65 00*3" PLACE_WORDS CAR_WORDS},
      {[](auto& s) { report_car_block_a(s, {5}); }, "78 00*3 05 00*27"},
      {[](auto& s) { report_car_block_b(s, {6}); }, "79 00*3 06 00*23"},
      {[](auto& s) { report_car_status(s, 8, 9); }, "7c 08 00*2 09 00*3"},
      {[](auto& s) { report_got_out(s, PLACE); }, "2b 00*3" PLACE_WORDS "00*64"},
      {[](auto& s) { report_car_block_a(s, {5}); }, ""},
      {[](auto& s) { report_car_block_b(s, {6}); }, ""},
      {[](auto& s) { report_car_status(s, 8, 9); }, ""},
      {[](auto& s) { report_car(s, PLACE, CAR); }, "65 00*3" PLACE_WORDS CAR_WORDS},
      {[](auto& s) { report_left_car(s); }, "66"},
      {[](auto& s) { report_car(s, PLACE, CAR); }, "65 00*3" PLACE_WORDS CAR_WORDS},
      {[](auto& s) { report_death(s, 2); }, "67 02"},
      {[](auto& s) { report_car_block_a(s, {5}); }, ""},
      {[](auto& s) { ask_player_state(s, 6); }, "29 06"},
  };
  for (const bool is_early : {true, false}) {
    session = {.name = {'M', 'e'}};
    is_early ? void(pass(1'000, 1'000)) : play(1'000);
    for (const Case& each : cases) {
      latest.clear();
      each.report(session);
      sent();
      const bool is_question = each.words == "29 06";
      EXPECT_EQ(latest, is_early && !is_question ? Bytes() : bytes_of(each.words)) << each.words;
    }
  }
}

TEST_F(SessionTest, EntersWithEarlierReports) {
  pass(1'000, 1'000);
  report_weapon(session, 9);
  report_on_foot(session, 4);
  report_state_floats(session, 1, 2);
  report_got_in(session, PLACE, CAR);
  handle_words(ACCEPTED, 1'000);
  handle_words(PLACED, 1'000);
  EXPECT_EQ(pass(1'000, 1'000), "1000 enter ");
  EXPECT_EQ(latest,
            bytes_of("0f 00*3" PLACE_WORDS "04 00*3 09 00*3 01 00*3 02 00*3 01 00*3" CAR_WORDS));
  handle_words(ENTERED, 1'000);
  handle_words(PLACED, 1'000);
  sent();
  EXPECT_EQ(repeats(1'000, 62'000)["101"], "61000 ") << "the entry contained the car";
  EXPECT_EQ(repeats(62'000, 122'000)["122"], "121000 ");
}

// The times of the repeats of each code in 16 seconds.
TEST_F(SessionTest, RepeatsItsState) {
  struct Case {
    std::function<void(ClientSession&)> report;
    const char* datagrams;  // after the report
    std::map<std::string, std::string> repeats;
  };
  const std::string pace = "5000 8000 11000 14000 17000 ";
  const std::map<std::string, std::string> on_foot = {{"100", pace}, {"123", pace}, {"110", pace}};
  const std::map<std::string, std::string> in_car = {
      {"100", pace}, {"123", pace}, {"120", pace}, {"121", pace}, {"124", pace}};
  const std::string sooner = "4000 7000 10000 13000 16000 ";
  const std::map<std::string, std::string> after_a_ride = {
      {"100", sooner}, {"123", sooner}, {"110", sooner}};
  const char* const deaths = "4000 6000 8000 10000 12000 14000 16000 ";
  const auto with = [](auto repeats, const char* code, const char* times) {
    repeats[code] = times;
    return repeats;
  };
  const Case cases[] = {
      {[](auto&) {}, "01", {}},
      {[](auto& s) { report_position(s, PLACE); }, "01", on_foot},
      {[](auto& s) { report_weapon(s, 9); }, "01", with(on_foot, "122", "4000 6000 8000 10000 ")},
      {[](auto& s) { report_got_in(s, PLACE, CAR); }, "01",
       with(in_car, "101", "4000 6000 8000 10000 12000 14000 16000 ")},
      {[](auto& s) { report_got_in(s, PLACE, CAR); }, "48 00 00", in_car},
      {[](auto& s) { report_car(s, PLACE, CAR), report_on_foot(s, 0); }, "01", after_a_ride},
      {[](auto& s) { report_death(s, 0); }, "01", with(on_foot, "103", deaths)},
      {[](auto& s) { s.picture.pinkpanther = 3, report_death(s, 0); }, "01",
       with(on_foot, "103", deaths)},
      {[](auto& s) { report_death(s, 0); }, "d1 03", on_foot},  // a repeat would end the role
      {[](auto& s) { report_death(s, 0); }, "d1 01", with(on_foot, "103", deaths)},
      {[](auto& s) { report_death(s, 0), report_car(s, PLACE, CAR); }, "48 00 00",
       with(with(in_car, "103", "4000 6000 8000 10000 12000 14000 "), "101",
            "4000 4000 6000 6000 8000 8000 10000 10000 12000 12000 14000 14000 16000 ")},
  };
  for (const Case& each : cases) {
    session = {.name = {'M', 'e'}};
    play(1'000);
    each.report(session);
    handle_words(each.datagrams, 2'000);
    sent();
    EXPECT_EQ(repeats(2'000, 18'000), each.repeats);
  }
}

// The server prints a line for each of these reports, so the client repeats them rarely after a
// while.
TEST_F(SessionTest, RepeatsLoggedReportsEveryMinute) {
  play(1'000);
  report_weapon(session, 9);
  report_car(session, PLACE, CAR);
  handle_words("48 00 00", 2'000);
  sent();
  auto times = repeats(2'000, 124'000);
  EXPECT_EQ(times["101"], "62000 122000 ");
  EXPECT_EQ(times["122"], "4000 6000 8000 10000 70000 ");
}

TEST_F(SessionTest, RepeatsItsCarWhenTheServerLacksIt) {
  play(1'000);
  handle_words(PLACED, 3'000);
  EXPECT_EQ(sent(), "") << "on foot";
  report_car(session, PLACE, CAR);
  sent();
  for (const std::uint64_t now_ms : {3'000U, 3'499U, 3'500U}) handle_words(PLACED, now_ms);
  EXPECT_EQ(sent(), "101 101 ") << "at most two a second";
}

TEST_F(SessionTest, CutsChatLikeTheServer) {
  session_say(session, "Hi" + std::string(100, 'x'));
  sent();
  EXPECT_EQ(latest, bytes_of("1f \"Hi\" 78*58 00"));
  EXPECT_EQ(session.picture.chat[0].data(), "Me: Hi" + std::string(58, 'x'));
  session.name.fill('n');
  session.name.back() = '\0';
  session_say(session, "x");
  sent();
  EXPECT_EQ(latest.size(), 2U) << "no room after a long name";
  EXPECT_EQ(session.picture.chat[1].data(), std::string(63, 'n') + ":");
}

TEST(OutboxTest, DropsDatagramsThatDoNotFit) {
  Outbox outbox;
  outbox_add(outbox, bytes_of("00*257"));
  for (unsigned i = 0; i < OUTBOX_SIZE + 10; ++i) {
    outbox_add(outbox, Died{.death_count = static_cast<std::uint8_t>(i)});
    if (i < 5) {
      EXPECT_EQ(outbox_take(outbox)[1], i);
    }
  }
  unsigned taken = 5;
  for (Datagram datagram = outbox_take(outbox); !datagram.empty(); datagram = outbox_take(outbox)) {
    EXPECT_EQ(datagram[1], taken++);
  }
  EXPECT_EQ(taken, OUTBOX_SIZE + 5);
}

// When a spectator in slot 3 passes the role on. Each step is one second later.
TEST_F(SessionTest, PassesTheRoleOnIfSomebodyPlays) {
  const std::pair<const char*, const char*> steps[] = {{"d1 03", ""},    {"2a 05 01 ..164", ""},
                                                       {"dc 05 01", ""}, {"ce 05 63", "103 "},
                                                       {"d1 05", ""},    {"d1 03", ""},
                                                       {"01", ""},       {"01", ""},
                                                       {"01", ""},       {"01", ""},
                                                       {"01", ""},       {"01", ""},
                                                       {"01", ""},       {"01", "103 "},
                                                       {"3c 05", ""}};
  std::uint64_t passed_ms = 0;
  std::uint64_t now_ms = 20'000;
  pass_on_role(session, passed_ms, now_ms);
  EXPECT_EQ(sent(), "") << "not in the game";
  play(1'000);
  for (const auto& [words, expected] : steps) {
    handle_words(words, now_ms += 1'000);
    sent();
    pass_on_role(session, passed_ms, now_ms);
    EXPECT_EQ(sent(), expected) << words << " at " << now_ms;
  }
  EXPECT_EQ(latest, bytes_of("67 00"));
}

GamePicture picture_of_players(const std::vector<MapPoint>& places) {
  GamePicture picture;
  for (std::size_t i = 0; i < places.size(); ++i) {
    picture.players[i].has_record = true;
    picture.players[i].state.position = {std::bit_cast<FloatBits>(places[i].x),
                                         std::bit_cast<FloatBits>(places[i].y), 0};
  }
  return picture;
}

TEST(MapTest, ChangesItsScaleRarely) {
  constexpr float NONE = std::numeric_limits<float>::quiet_NaN();
  constexpr float FAR = std::numeric_limits<float>::infinity();
  MapView view;
  fit_view(view, picture_of_players({{NONE, 0}, {0, FAR}, {-1e30F, 0}}), 0);
  EXPECT_EQ(view.side, 0) << "no valid position";
  fit_view(view, picture_of_players({{3, 4}}), 500);
  EXPECT_FLOAT_EQ(view.side, 26) << "the minimum";
  fit_view(view, picture_of_players({{-100, 0}, {100, 40}, {NONE, NONE}}), 1'000);
  EXPECT_FLOAT_EQ(view.side, 260);
  EXPECT_FLOAT_EQ(view.middle.y, 20);
  fit_view(view, picture_of_players({{-120, 0}, {120, 40}}), 1'100);
  EXPECT_FLOAT_EQ(view.side, 260) << "all players are inside";
  fit_view(view, picture_of_players({{100, 0}, {140, 0}}), 1'200);
  EXPECT_FLOAT_EQ(view.side, 260) << "it moves and keeps its scale";
  EXPECT_FLOAT_EQ(view.middle.x, 120);
  fit_view(view, picture_of_players({{100, 0}, {140, 0}}), 1'300);
  fit_view(view, picture_of_players({{0, 0}, {240, 0}}), 4'000);
  fit_view(view, picture_of_players({{100, 0}, {140, 0}}), 4'100);
  fit_view(view, picture_of_players({{100, 0}, {140, 0}}), 9'000);
  EXPECT_FLOAT_EQ(view.side, 260);
  fit_view(view, picture_of_players({{100, 0}, {140, 0}}), 9'100);
  EXPECT_FLOAT_EQ(view.side, 52) << "too large for five seconds";
}

TEST(MapTest, UsesOneScaleForBothAxes) {
  const MapView view{.middle = {10, 10}, .side = 100};
  struct Case {
    MapPoint point;
    int column, row;
  };
  const Case cases[] = {{{10, 10}, 40, 10}, {{20, 10}, 44, 10},    {{10, 20}, 40, 8},
                        {{-40, 60}, 20, 0}, {{1e6, -1e6}, 79, 19}, {{-1e6, 1e6}, 0, 0}};
  for (const Case& at : cases) {
    const MapCell cell = cell_of(view, at.point, 80, 20);
    EXPECT_EQ(cell.column, at.column) << at.point.x;
    EXPECT_EQ(cell.row, at.row) << at.point.y;
  }
}

TEST(TextTest, EscapesAnyBytes) {
  const std::string any("J\xF6 \x1B[2J\x7F\x9F\xA0\xAD\"\\\n\0x", 17);
  EXPECT_EQ(printable(any), "Jö ?[2J??\u00A0?\"\\?");
  EXPECT_EQ(json_string(any), "\"Jö \\u001b[2J\\u007f\\u009f\u00A0\\u00ad\\\"\\\\\\u000a\"");
  EXPECT_EQ(json_string("車\u202E\U000E0041🚗"), "\"車\\u202e\\udb40\\udc41🚗\"");
  EXPECT_EQ(latin1_of("Jö Ā\u0800€\xF0\x9F\x9A\x97 ÿ"), "J\xF6 ???? \xFF");
  for (const char* no_utf8 : {"J\xF6", "J\xF6 x", "\xC3", "\xFF\xFF", "\xC3\xB6\x80", "\xC1\xBF",
                              "\xC3\xB6\xF5\xBF\xBF\xBF"}) {
    EXPECT_EQ(latin1_of(no_utf8), no_utf8);
  }
}

TEST(HistogramTest, ComputesPercentiles) {
  EXPECT_EQ(histogram_percentile(Histogram(), 50), 0U);
  for (const std::uint64_t scale : {1U, 1'000U, 1'000'000'000U}) {
    Histogram histogram;
    for (std::uint64_t i = 1; i <= 101; ++i) histogram_add(histogram, i * scale);
    for (const unsigned percent : {1U, 30U, 50U, 62U, 99U, 100U}) {
      const std::uint64_t exact = (percent + 1) * scale;
      const std::uint64_t found = histogram_percentile(histogram, percent);
      EXPECT_GE(found, exact) << percent;
      EXPECT_LE(found, exact < 64 ? exact : exact + exact / 32) << percent;
    }
    EXPECT_EQ(histogram.max_ns, 101 * scale);
  }
}

TEST(ConnectionTest, TruncatesLongDatagrams) {
  const int server = bind_loopback(SOCK_DGRAM);
  const int client = open_client_socket(local_address(server));
  const sockaddr_in to = local_address(client);
  const Bytes sent[] = {Bytes(2 * RECEIVE_BUFFER_SIZE, 'a'), {'b'}, {'c'}};
  for (const Bytes& each : sent) {
    sendto(server, each.data(), each.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  }
  Batch batch;
  receive_batch(client, batch, 2);
  ASSERT_EQ(batch.count, 2U);
  EXPECT_EQ(batch.datagrams[0].size(), RECEIVE_BUFFER_SIZE);
  EXPECT_EQ(batch.datagrams[1][0], 'b');
  receive_batch(client, batch);
  receive_batch(client, batch);
  EXPECT_EQ(batch.count, 0U) << "no more datagrams";
  close(client);
  close(server);
}

// The limit of each text is its length, so its last character may be incomplete.
TEST(TextTest, DecodesUtf8OrElseLatin1) {
  struct Case {
    const char* bytes;
    const char* expected;
  };
  const Case cases[] = {
      {"Jörg 車 🚗 \u0800\uFFFD\U0010FFFD", "Jörg 車 🚗 \u0800\uFFFD\U0010FFFD"},
      // Incomplete characters of 2, 3 and 4 bytes, at the end and elsewhere.
      {"J\xC3", "J"},
      {"J\xE8\xBB", "J"},
      {"J\xE8", "J"},
      {"J\xE0\xA0", "J"},
      {"J\xED\x9F", "J"},
      {"J\xF0\x9F\x9A", "J"},
      {"J\xF0\x90", "J"},
      {"J\xF4\x8F", "J"},
      {"J\xF0", "J"},
      {"J\xC3ö", "JÃÃ¶"},
      {"J\xC3 ", "JÃ "},
      // Overlong encodings, surrogates and values above U+10FFFF, complete and incomplete.
      {"\xC1\xA1", "Á¡"},
      {"\xE0\x9F\xBF", "à?¿"},
      {"\xE0\x9F", "à?"},
      {"\xF0\x8F\xBF\xBF", "ð?¿¿"},
      {"\xF0\x8F", "ð?"},
      {"\xED\xA0\xA1", "í\u00A0¡"},
      {"\xED\xA0", "í\u00A0"},
      {"\xF4\xBF\xBF\xBF", "ô¿¿¿"},
      {"\xF5\xA1", "õ¡"},
      {"\xBF", "¿"},
      // Control characters, invisible characters, and characters that change the direction.
      {"a\u0080\u009Bb\u00ADc", "a??b?c"},
      {"\uFEFFa\u061C\u200B\u200E\u200F\u2028\u202A\u202Eb\u2066\u2069", "?a???????b??"},
      {"\U000E0001\uFFFE\uFDD0\u2060\u3164", "?????"},
      {"می\u200Cخ ❤\uFE0F👩\u200D🚀", "می\u200Cخ ❤\uFE0F👩\u200D🚀"},
  };
  for (const Case& each : cases) {
    EXPECT_EQ(printable(each.bytes, std::strlen(each.bytes)), each.expected) << each.bytes;
  }
}

// The last byte of a name in Latin-1 may look like an incomplete UTF-8 character.
TEST(TextTest, DropsIncompleteCharactersOnlyOfCutTexts) {
  EXPECT_EQ(printable("Caf\xE9"), "Café");
  EXPECT_EQ(printable("Caf\xE9", 31), "Café");
  EXPECT_EQ(printable("Caf\xE9", 4), "Caf");
  EXPECT_EQ(printable("車\xE9"), "車") << "the text before is UTF-8";
  EXPECT_EQ(printable_wide("車\xE8\xBB"), L"車");
}

TEST(TextTest, RecognizesBlankTexts) {
  for (const char* blank : {"", " ", "  \u00A0", "\u2003\u3000\u200D\u2800"}) {
    EXPECT_TRUE(is_blank(blank)) << blank;
  }
  for (const char* text : {".", " a ", "?", "\u3000車"}) EXPECT_FALSE(is_blank(text)) << text;
}

TEST(ConnectionTest, ReadsHostAndPort) {
  sockaddr_in server{};
  std::string error_text;
  EXPECT_TRUE(resolve_server("127.0.0.1", server, error_text));
  EXPECT_EQ(ntohs(server.sin_port), 16309);
  EXPECT_TRUE(resolve_server("localhost:65535", server, error_text));
  EXPECT_EQ(ntohs(server.sin_port), 65535);
  for (const char* text : {"", ":1", "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536", "a.invalid"}) {
    EXPECT_FALSE(resolve_server(text, server, error_text)) << text;
    EXPECT_NE(error_text.find(std::string(text).substr(0, 9)), std::string::npos) << error_text;
  }
  EXPECT_FALSE(resolve_server("::1:5", server, error_text)) << "only IPv4";
}

}  // namespace
