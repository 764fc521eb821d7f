#include <gtest/gtest.h>

#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "client/client_session.h"
#include "tests/bytes.h"
#include "tests/loopback.h"
#include "text/latin1.h"
#include "view/map.h"

namespace {

std::string line_of(const GamePicture& picture, Slot slot) {
  const PlayerPicture& player = picture.players[slot];
  if (!player.has_record) return player.is_here ? "heard of" : "";
  const auto place = place_of(player.state.position).value_or(MapPoint{-1, -1});
  char line[128];
  std::snprintf(line, sizeof line, "%s (%g,%g) %s%d gun %d died %d", player.name.data(), place.x,
                place.y, player.in_car ? "car " : "foot", player.in_car ? player.car.car_type : 0,
                player.state.state_b, player.death_count.value_or(255));
  return line;
}

void hear_words(GamePicture& picture, const std::string& words, std::uint64_t now_ms = 5'000) {
  picture_hear(picture, bytes_of(words), now_ms);
}

// Floats: 1, 2, 4 and 8.
#define ONE " 00*2 80 3f "
#define TWO " 00*3 40 "
#define FOUR " 00*2 80 40 "
#define EIGHT " 00*3 41 "

const char* const BOB = "2a 05 00 \"Bob\" ..68 " ONE TWO "00*4 00*4 07 00*11 00*4 00*64";

TEST(PictureTest, BelievesEachDatagram) {
  struct Step {
    std::string words;
    std::string expected;  // of slot 5
  };
  const Step steps[] = {
      {"c8 05 00*2" ONE ONE "00*4", "heard of"},
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
      {"2a 05 00 \"Rob\" ..68 " ONE TWO "00*4 00*4 07 00*11 01 00*3 08 00*63",
       "Rob (1,2) car 8 gun 7 died 3"},
      {"2a 05 01 61*64 ..164", std::string(63, 'a') + " (0,0) foot0 gun 0 died 255"},
      {"3c 05", ""},
  };
  GamePicture picture;
  for (const Step& step : steps) {
    const std::string before = line_of(picture, 5);
    Bytes bytes = bytes_of(step.words);
    bytes.push_back(0);
    picture_hear(picture, bytes, 5'000);
    bytes.resize(bytes.size() - 2);
    picture_hear(picture, bytes, 5'000);
    EXPECT_EQ(line_of(picture, 5), before) << "too long or too short: " << step.words;
    hear_words(picture, step.words);
    EXPECT_EQ(line_of(picture, 5), step.expected) << step.words;
  }
}

TEST(PictureTest, KeepsClockChatAndPinkPanther) {
  GamePicture picture;
  hear_words(picture, "10 ff 17 3b", 5'000);  // 23:59
  EXPECT_EQ(game_minutes(picture, 6'999), 0U);
  hear_words(picture, "48 0d 02", 6'000);
  EXPECT_EQ(game_minutes(picture, 7'000), 13U * 60 + 3);
  hear_words(picture, "d1 05");
  EXPECT_EQ(picture.pinkpanther, 5);
  hear_words(picture, "3c 05");
  EXPECT_EQ(picture.pinkpanther, NOBODY);
  for (std::size_t i = 0; i < CHAT_LINES; ++i) hear_words(picture, "1e \"old\" ..65");
  hear_words(picture, "1e 78*64");
  EXPECT_EQ(picture.chat_count, CHAT_LINES + 1);
  EXPECT_EQ(picture.chat[0].data(), std::string(64, 'x'));
  EXPECT_STREQ(picture.chat[1].data(), "old");
}

// The slots asked for, with the times.
std::string questions(GamePicture& picture, std::uint64_t from_ms, std::uint64_t to_ms) {
  std::string asked;
  for (std::uint64_t now_ms = from_ms; now_ms <= to_ms; now_ms += 100) {
    for (Slot slot = 0; (slot = next_question(picture, now_ms)) != NO_SLOT;) {
      asked += std::to_string(now_ms) + ":" + std::to_string(slot) + " ";
    }
  }
  return asked;
}

TEST(PictureTest, AsksForWhatItMisses) {
  GamePicture picture{.own_slot = 2};
  hear_words(picture, "2a 02 00 ..164");  // its own, which is never asked for
  hear_words(picture, BOB, 5'000);
  EXPECT_EQ(questions(picture, 5'000, 9'900), "") << "known, and young enough";
  EXPECT_EQ(questions(picture, 10'000, 11'000), "10000:5 11000:5 ");
  hear_words(picture, BOB, 11'100);
  hear_words(picture, "10 09 00 00", 11'100);  // another player joined last and is not sent
  EXPECT_EQ(questions(picture, 11'100, 13'000), "11100:9 12100:9 ");
  hear_words(picture, "c8 09 ..16", 13'050);  // never answers, but does something
  EXPECT_EQ(questions(picture, 13'100, 16'000), "13100:9 14100:9 15100:9 ");
  EXPECT_EQ(questions(picture, 16'100, 17'000), "16100:5 16100:9 ");
  EXPECT_EQ(line_of(picture, 9), "heard of");
  EXPECT_EQ(questions(picture, 17'100, 50'000), "17100:5 18100:5 19100:5 ");
  EXPECT_EQ(line_of(picture, 9), "") << "four questions without an answer";
  EXPECT_EQ(line_of(picture, 5), "");
}

TEST(PictureTest, TakesNoSlotForAPlayer) {
  GamePicture picture{.own_slot = 0};
  for (const char* words : {"c8 20 ..16", "c8 ff ..16", "3c ff", "10 ff 00 00", "2a 20 00 ..164"}) {
    hear_words(picture, words);
  }
  for (const PlayerPicture& player : picture.players) EXPECT_FALSE(player.is_here);
}

class SessionTest : public testing::Test {
 public:
  SessionTest() : server(bind_loopback(SOCK_DGRAM | SOCK_NONBLOCK)) {
    session.socket = open_client_socket(local_address(server));
    session.name = {'M', 'e'};
  }
  ~SessionTest() override {
    close(server);
    close(session.socket);
  }

  // What the client has sent meanwhile, a word each.
  std::string sent() {
    std::string all;
    std::uint8_t bytes[300];
    while (recv(server, bytes, sizeof bytes, 0) > 0) {
      all += bytes[0] == 10 ? "join " : bytes[0] == 15 ? "enter " : std::to_string(bytes[0]) + " ";
    }
    return all;
  }
  // Steps until then; says when something was sent.
  std::string pass(std::uint64_t from_ms, std::uint64_t to_ms) {
    std::string all;
    for (std::uint64_t now_ms = from_ms; now_ms <= to_ms; now_ms += 500) {
      last_event = session_step(session, now_ms);
      const std::string now = sent();
      if (!now.empty()) all += std::to_string(now_ms) + " " + now;
    }
    return all;
  }
  SessionEvent hear(const std::string& words, std::uint64_t now_ms) {
    return session_hear(session, bytes_of(words), now_ms);
  }
  void play() {
    pass(1'000, 1'000);
    EXPECT_EQ(hear("11 03 01 \"Hi\" ..67", 1'000), SessionEvent::JOINED);
    EXPECT_EQ(pass(1'000, 4'000), "1000 enter 2000 enter 3000 enter 4000 enter ");
    EXPECT_EQ(hear("10 03 00 00", 4'000), SessionEvent::ENTERED);
  }

  int server;
  ClientSession session;
  SessionEvent last_event = SessionEvent::NONE;
};

TEST_F(SessionTest, JoinsAndStays) {
  EXPECT_EQ(pass(1'000, 95'000),
            "1000 join 2000 join 4000 join 8000 join 16000 join 32000 join "
            "62000 join 92000 join ");
  play();
  EXPECT_EQ(session.picture.own_slot, 3);
  EXPECT_STREQ(session.picture.welcome.data(), "Hi");
  EXPECT_EQ(hear("01", 20'000), SessionEvent::NONE);
  EXPECT_EQ(sent(), "2 ") << "a ping is answered";
  EXPECT_EQ(pass(20'000, 45'000), "");
  EXPECT_EQ(session_step(session, 45'001), SessionEvent::FORGOTTEN);
  EXPECT_EQ(pass(45'500, 46'500), "45500 join 46500 join ");
  play();
  EXPECT_EQ(hear("13", 10'000), SessionEvent::STOPPED);
  EXPECT_EQ(hear("c8 04 ..16", 10'000), SessionEvent::NONE);
  EXPECT_FALSE(session.picture.players[4].is_here) << "it is not in the game any more";
  EXPECT_EQ(pass(10'000, 12'000), "11000 join 12000 join ");
}

TEST_F(SessionTest, MakesRoomForItselfOnAFullServer) {
  pass(1'000, 1'000);
  EXPECT_EQ(hear("0c \"Full\" ..65", 1'000), SessionEvent::REFUSED);
  EXPECT_STREQ(session.refusal.data(), "Full");
  EXPECT_EQ(sent(), "60 ");
  EXPECT_EQ(pass(1'000, 2'000), "2000 join ");
}

TEST_F(SessionTest, TheLatestAnswerToAJoinCounts) {
  play();
  EXPECT_EQ(hear("11 05 01 ..67", 5'000), SessionEvent::JOINED);
  EXPECT_EQ(pass(5'000, 5'000), "5000 enter ");
  EXPECT_EQ(session.picture.own_slot, 5);
}

TEST_F(SessionTest, TakesNoDatagramOfAnotherSize) {
  pass(1'000, 1'000);
  for (const char* words : {"11 03 01 ..68", "0c ..64", "13 00", "01 00"}) {
    EXPECT_EQ(hear(words, 1'000), SessionEvent::NONE) << words;
  }
  EXPECT_EQ(sent(), "");
  hear("11 03 01 ..67", 1'000);
  EXPECT_EQ(hear("10 03 00 00 00", 1'000), SessionEvent::NONE);
  EXPECT_EQ(session.state, SessionState::ENTERING);
}

TEST_F(SessionTest, SaysWhatOthersSee) {
  session_say(session, std::string(100, 'x'));
  std::uint8_t bytes[300];
  EXPECT_EQ(recv(server, bytes, sizeof bytes, 0), 62) << "the code, 60 letters, NUL";
  EXPECT_EQ(session.picture.chat[0].data(), "Me: " + std::string(60, 'x'));
  session.name.fill('n');
  session.name.back() = '\0';
  session_say(session, "x");
  EXPECT_EQ(recv(server, bytes, sizeof bytes, 0), 2) << "no room behind a long name";
  EXPECT_EQ(session.picture.chat[1].data(), std::string(63, 'n') + ":");
}

GamePicture crowd(const std::vector<MapPoint>& places) {
  GamePicture picture;
  for (std::size_t i = 0; i < places.size(); ++i) {
    picture.players[i].has_record = true;
    picture.players[i].state.position = {std::bit_cast<FloatBits>(places[i].x),
                                         std::bit_cast<FloatBits>(places[i].y), 0};
  }
  return picture;
}

TEST(MapTest, FitsCalmly) {
  constexpr float NONE = std::numeric_limits<float>::quiet_NaN();
  constexpr float FAR = std::numeric_limits<float>::infinity();
  MapView view;
  fit_view(view, crowd({{NONE, 0}, {0, FAR}, {-1e30F, 0}}), 0);
  EXPECT_EQ(view.side, 0) << "nobody is anywhere";
  fit_view(view, crowd({{3, 4}}), 500);
  EXPECT_FLOAT_EQ(view.side, 26) << "at least so much";
  fit_view(view, crowd({{-100, 0}, {100, 40}, {NONE, NONE}}), 1'000);
  EXPECT_FLOAT_EQ(view.side, 260);
  EXPECT_FLOAT_EQ(view.middle.y, 20);
  fit_view(view, crowd({{-120, 0}, {120, 40}}), 1'100);
  EXPECT_FLOAT_EQ(view.side, 260) << "all are still on it";
  fit_view(view, crowd({{100, 0}, {140, 0}}), 1'200);
  EXPECT_FLOAT_EQ(view.side, 260) << "it moves, and keeps its scale";
  EXPECT_FLOAT_EQ(view.middle.x, 120);
  fit_view(view, crowd({{100, 0}, {140, 0}}), 1'300);
  fit_view(view, crowd({{0, 0}, {240, 0}}), 4'000);
  fit_view(view, crowd({{100, 0}, {140, 0}}), 4'100);
  fit_view(view, crowd({{100, 0}, {140, 0}}), 9'000);
  EXPECT_FLOAT_EQ(view.side, 260);
  fit_view(view, crowd({{100, 0}, {140, 0}}), 9'100);
  EXPECT_FLOAT_EQ(view.side, 52) << "too large for five seconds";
}

TEST(MapTest, HasOneScaleForBothAxes) {
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

TEST(TextTest, ShowsAnyBytes) {
  const std::string any("J\xF6 \x1B[2J\x7F\x9F\xA0\xAD\"\\\n\0x", 17);
  EXPECT_EQ(printable(any), "Jö ?[2J??\u00A0?\"\\?");
  EXPECT_EQ(json_string(any), "\"Jö \\u001b[2J\\u007f\\u009f\u00A0\\u00ad\\\"\\\\\\u000a\"");
  EXPECT_EQ(latin1_of("Jö Ā\u0800€\xF0\x9F\x9A\x97 ÿ"), "J\xF6 ???? \xFF");
  for (const char* no_utf8 : {"J\xF6", "J\xF6 x", "\xC3", "\xFF\xFF", "\xC3\xB6\x80", "\xC1\xBF",
                              "\xC3\xB6\xF5\xBF\xBF\xBF"}) {
    EXPECT_EQ(latin1_of(no_utf8), no_utf8);
  }
}

TEST(ConnectionTest, ReadsHostAndPort) {
  sockaddr_in server{};
  std::string complaint;
  EXPECT_TRUE(resolve_server("127.0.0.1", server, complaint));
  EXPECT_EQ(ntohs(server.sin_port), 16309);
  EXPECT_TRUE(resolve_server("localhost:65535", server, complaint));
  EXPECT_EQ(ntohs(server.sin_port), 65535);
  for (const char* text : {"", ":1", "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536", "a.invalid"}) {
    EXPECT_FALSE(resolve_server(text, server, complaint)) << text;
    EXPECT_NE(complaint.find(std::string(text).substr(0, 9)), std::string::npos) << complaint;
  }
}

}  // namespace
