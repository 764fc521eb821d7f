// Pings, time-outs and the PinkPanther, and the ping thread beside the main one.

#include "server/liveness.h"

#include <thread>

#include "server/main_loop.h"
#include "tests/game.h"

namespace {

class LivenessTest : public GameTest {
 protected:
  // On a thread of its own, as it always runs.
  static std::string pass() {
    testing::internal::CaptureStdout();
    std::thread([] {
      const int allocated = allocations;
      ping_pass();
      EXPECT_EQ(allocations, allocated);
    }).join();
    return testing::internal::GetCapturedStdout();
  }

  // Any datagram but a join makes a choice that is due.
  std::string stir() { return say(*players[0], {2}); }
};

const Bytes PING = {1};

TEST_F(LivenessTest, TimesOutAfterMoreThan100000MsAcrossTheWrap) {
  for (const std::uint32_t start : {1000U, 0x7FFFFFF0U, 0xFFFFFFF0U}) {
    SCOPED_TRACE(start);
    fake_now_ms = start;
    fill(3);
    player_table[1].is_pinkpanther = 1;
    pinkpanther_slot = 1;
    fake_now_ms = start + 160'000;
    say(*players[0], {2});
    say(*players[2], {2});
    say(*players[1], {41, 1});  // no sign of life
    player_table[1].last_heard = start + 60'000;
    EXPECT_EQ(pass(), "") << "heard 100000 ms ago";
    for (const auto& player : players) EXPECT_EQ(player->received(), std::vector<Bytes>{PING});
    ++fake_now_ms;
    EXPECT_EQ(pass(), "P1, Player [1] timed out\n");
    const Bytes left = {60, 1};
    EXPECT_EQ(players[0]->received(), (std::vector<Bytes>{PING, left}));
    EXPECT_EQ(players[1]->received(), std::vector<Bytes>{});
    EXPECT_EQ(players[2]->received(), (std::vector<Bytes>{left, PING}));
    EXPECT_EQ(player_table[1].in_use + player_table[1].in_game, 0);
    EXPECT_EQ(player_table[1].is_pinkpanther, 1) << "the slot's next player inherits it";
    EXPECT_EQ(pinkpanther_slot, 1);
    EXPECT_EQ(player_count, 2);
    EXPECT_EQ(say(*players[1], {60}), "") << "leaves once only";
    for (const auto& player : players) say(*player, {60});
    EXPECT_EQ(player_count, 0);
    players.clear();
  }
}

TEST_F(LivenessTest, GivesNewcomersAMinuteMoreAndPingsOnlyTheGame) {
  const Player silent;
  join(silent, "Sy");
  silent.received();
  for (const std::uint32_t after : {0U, 60'000U, 160'000U}) {
    fake_now_ms = 1000 + after;
    EXPECT_EQ(pass(), "");
  }
  EXPECT_EQ(player_table[0].ping_sent, 0U);
  fake_now_ms = 1000 + 160'001;
  EXPECT_EQ(pass(), "Sy, Player [0] timed out\n");
  expect_only(silent, {});
  fill(1);
  player_table[0].address.sin_port = 0;
  EXPECT_EQ(pass(), "error writing to socket:Invalid argument\n");
  EXPECT_EQ(player_table[0].ping_sent, fake_now_ms);
}

TEST_F(LivenessTest, AsksForANewPinkPantherEveryTwoMinutes) {
  struct Case {
    std::uint8_t game_type;
    std::uint32_t since, now;
    int players, reselect;
  };
  for (const Case& c : {Case{1, 0, 120'000, 2, 1}, Case{1, 0, 119'999, 2, 0},
                        Case{1, 0, 120'000, 1, 0}, Case{0, 0, 120'000, 2, 0},
                        Case{1, 0xFFFFFFFF, 119'999, 2, 1}, Case{1, 200'000, 120'000, 2, 0}}) {
    server_config.GameType = c.game_type;
    fake_now_ms = c.now;
    player_count = c.players;
    pinkpanther_since = c.since;
    pinkpanther_reselect = 0;
    pass();
    EXPECT_EQ(pinkpanther_reselect, c.reselect) << c.since << " " << c.now;
  }
}

TEST_F(LivenessTest, NamesThePinkPantherInSlotOrder) {
  server_config.GameType = 1;
  server_config.maxClients = 32;
  fake_now_ms = 5000;
  fill(1);
  const Player second;
  EXPECT_EQ(say(second, join_request("Jo")), "Jo, Player [1] Connected!\n") << "not after a join";
  EXPECT_EQ(say(Player(), {200}), "Unknown Command: 200 \nPlayer [0] is the PinkPanther now \n");
  forget_received();
  struct Case {
    std::vector<std::size_t> used;
    std::uint8_t from, to;
  };
  for (const Case& c :
       {Case{{0, 3, 7}, 3, 7}, Case{{0, 3, 7}, 7, 0}, Case{{0, 3, 7}, 0, 3}, Case{{0, 31}, 31, 0},
        Case{{0, 31}, 255, 0}, Case{{31}, 255, 31}, Case{{5}, 5, 5}}) {
    for (PlayerSlot& slot : player_table) slot.in_use = 0, slot.is_pinkpanther = 1;
    for (const std::size_t slot : c.used) player_table[slot].in_use = 1;
    ++roster_version;
    pinkpanther_slot = c.from;
    pinkpanther_reselect = 1;
    player_count = 2;
    EXPECT_EQ(stir(), "Player [" + std::to_string(c.to) + "] is the PinkPanther now \n");
    EXPECT_EQ(pinkpanther_slot, c.to);
    EXPECT_EQ(pinkpanther_since, 5000U);
    int holders = 0;
    for (const PlayerSlot& slot : player_table) holders += slot.is_pinkpanther;
    EXPECT_EQ(holders, 1);
    EXPECT_EQ(player_table[c.to].is_pinkpanther, 1);
    const std::vector<Bytes> told(c.used[0] == 0 ? 1 : 0, Bytes{209, c.to});
    EXPECT_EQ(players[0]->received(), told);
    EXPECT_EQ(stir(), "") << "once";
  }
}

TEST_F(LivenessTest, HandsTheRoleOn) {
  server_config.GameType = 1;
  fill(3);
  EXPECT_EQ(pinkpanther_slot, 0) << "chosen when the second player entered";
  EXPECT_EQ(say(*players[0], {103, 1}),
            "P0, Player [0] died 1 times\nPlayer [1] is the PinkPanther now \n");
  EXPECT_EQ(say(*players[2], {60}), "P2, Player [2] disconnected\n") << "not the holder";
  EXPECT_EQ(say(*players[1], {60}), "P1, Player [1] disconnected\n") << "one is left";
  EXPECT_EQ(pinkpanther_slot, 1);
  EXPECT_EQ(player_table[1].is_pinkpanther, 0);
  const Player late;
  join(late, "late");
  EXPECT_EQ(stir(), "") << "the slot's number stayed, so a join asks for nothing";
  forget_received();

  pinkpanther_reselect = 1;
  player_count = 1;
  pinkpanther_since = 77;
  EXPECT_EQ(stir(), "Too less players. Nobody is the PinkPanther \n");
  EXPECT_EQ(players[0]->received(), std::vector<Bytes>{(Bytes{209, 100})});
  EXPECT_EQ(pinkpanther_slot, 255);
  EXPECT_EQ(pinkpanther_announcement.slot, 100) << "for newcomers";
  EXPECT_EQ(pinkpanther_since, 77U);
  EXPECT_EQ(pinkpanther_reselect, 0);
}

TEST_F(LivenessTest, MakesAPassAtOnceAndOneEveryTenSeconds) {
  fill(1);
  on_sleep = [] {
    if (slept_us >= 30'000'000) throw slept_us.load();
  };
  EXPECT_THROW(ping_thread(nullptr), std::uint64_t);
  on_sleep = nullptr;
  EXPECT_EQ(slept_us, 30'000'000U);
  EXPECT_EQ(players[0]->received(), (std::vector<Bytes>{PING, PING, PING}));
}

// Players come, go, come back and fall silent while passes run as fast as they can. What it proves
// shows under ThreadSanitizer; the counts must agree on every build.
TEST_F(LivenessTest, TheThreadsAgreeOnEveryPlayer) {
  server_config.GameType = 1;
  std::atomic<bool> done = false;
  testing::internal::CaptureStdout();
  std::thread passes([&] {
    while (!done) ping_pass();
  });
  const Player six[6];
  for (unsigned round = 0; round < 3000; ++round) {
    const Player& player = six[round * 7 % 6];
    player.send(join_request("Somebody"));
    player.send(enter_on_foot());
    player.send(datagram(100, 16));
    six[round % 6].send({2});
    if (round % 3 == 0) six[round / 3 % 6].send({60});
    if (round % 5 == 0) fake_now_ms += 100'001 + round % 2 * 60'000;
    drain_socket();
    for (const Player& each : six) each.received();
  }
  done = true;
  passes.join();
  testing::internal::GetCapturedStdout();
  int used = 0;
  for (const PlayerSlot& slot : player_table) used += slot.in_use;
  EXPECT_EQ(player_count, used);
}

}  // namespace
