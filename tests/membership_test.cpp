#include <unistd.h>

#include "server/broadcast.h"
#include "server/command_table.h"
#include "server/main_loop.h"
#include "tests/game.h"

namespace {

class MembershipTest : public GameTest {};

Bytes accepted(std::uint8_t slot, std::uint8_t game_type, const std::string& welcome) {
  return datagram(17, 67, {{1, {slot, game_type}}, {3, text(welcome)}});
}

TEST_F(MembershipTest, JoinTakesTheFirstFreeSlotAndResetsOnlyWhatBelongsToTheJoin) {
  server_config.GameType = 1;
  fake_now_ms = 5000;
  PlayerSlot& old = player_table[0];
  old.state_b = 7, old.car_type = 8, old.is_pinkpanther = 1;
  old.in_car = old.death_count = old.has_died = old.in_game = 1;
  const Player bob;
  EXPECT_EQ(say(bob, join_request("B%s")), "B%s, Player [0] Connected!\n");
  expect_only(bob, {accepted(0, 1, "Welcome to this Harn Tor Multiplayer Server - have fun")});
  EXPECT_EQ(old.in_game + old.in_car + old.death_count + old.has_died, 0);
  EXPECT_EQ(old.last_heard, 65000U);
  EXPECT_EQ(old.state_b + old.car_type + old.is_pinkpanther, 7 + 8 + 1);
  EXPECT_EQ(std::memcmp(&old.address, &bob.address, sizeof old.address), 0);
  EXPECT_EQ(player_count, 1);
  EXPECT_EQ(pinkpanther_reselect, 0);
  const Player ann;
  join(ann, "Ann");
  EXPECT_EQ(pinkpanther_reselect, 1) << "two players and no PinkPanther";
}

TEST_F(MembershipTest, RefusesWrongVersionsFirstThenAFullTable) {
  server_config.maxClients = 2;
  const Player stranger;
  const Bytes wrong_version = datagram(14, 65, {{1, text("You need Version 0.4")}});
  Bytes high_byte = join_request("x");
  high_byte[67] = 1;
  last_join_slot = 9;
  for (const Bytes& request : {join_request("x", 39), join_request("x", 41), high_byte}) {
    EXPECT_EQ(say(stranger, request), "");
    expect_only(stranger, {wrong_version});
    EXPECT_EQ(last_join_slot, 0) << "the search comes before the refusal";
  }
  fill(2);
  EXPECT_EQ(say(stranger, join_request("x")), "");
  expect_only(stranger, {datagram(12, 65, {{1, text("Maximum allowed players: 2")}})});
  EXPECT_EQ(last_join_slot, -1);
  say(stranger, join_request("x", 39));
  expect_only(stranger, {wrong_version});
  EXPECT_EQ(say(*players[1], join_request("x")), "") << "a reconnect finds no slot either";
  expect_only(*players[1], {datagram(12, 65, {{1, text("Maximum allowed players: 2")}})});
  EXPECT_EQ(player_count, 2);
}

TEST_F(MembershipTest, ReconnectMovesToAnotherSlotAndKeepsTheOldFlag) {
  fill(2);
  player_table[1].is_pinkpanther = 1;
  EXPECT_EQ(say(*players[1], join_request("New")),
            "Player 1 reconnected\nNew, Player [2] Connected!\n");
  EXPECT_EQ(players[0]->received(), std::vector<Bytes>{datagram(60, 2, {{1, {1}}})});
  expect_only(*players[1], {accepted(2, 0, server_config.WelcomeMessage)});
  EXPECT_EQ(player_table[1].in_use + player_table[1].in_game, 0);
  EXPECT_EQ(player_table[1].is_pinkpanther, 1);
  EXPECT_EQ(player_count, 2);
}

TEST_F(MembershipTest, ThirtyTwoPlayersFillTheTableAndThePortTellsThemApart) {
  server_config.maxClients = 32;
  fill(32);
  const Player late;
  join(late, "late");
  expect_only(late, {datagram(12, 65, {{1, text("Maximum allowed players: 32")}})});
  say(*players[31], {60});
  forget_received();
  join(late, "late");
  expect_only(late, {accepted(31, 0, server_config.WelcomeMessage)});

  // The same port at another address is another player's.
  const Player elsewhere("127.0.0.2", late.address.sin_port);
  EXPECT_EQ(say(elsewhere, {60}), "");
  player_table[0].address = elsewhere.address;
  say(late, enter_on_foot());
  EXPECT_EQ(elsewhere.received().size(), 1U) << "and is not left out";
  forget_received();
  broadcast_text({'h', 'i'});
  EXPECT_EQ(elsewhere.received(), std::vector<Bytes>{datagram(30, 65, {{1, text("hi")}})});
}

TEST_F(MembershipTest, UnknownCodesAndStrangersChangeNothing) {
  fill(2);
  for (const unsigned code : {0U, 1U, 3U, 11U, 50U, 104U, 125U, 200U, 255U}) {
    EXPECT_EQ(say(Player(), {static_cast<std::uint8_t>(code)}),
              "Unknown Command: " + std::to_string(code) + " \n");
  }
  for (const std::uint8_t code : Bytes{2, 15, 40, 41, 60, 100, 123}) {
    EXPECT_EQ(say(Player(), datagram(code, 100)), "");
  }
  expect_only(*players[0], {});
}

TEST_F(MembershipTest, ShortDatagramsAreReadWithTheBytesThatEarlierOnesLeft) {
  const Player bob;
  const Player ann;
  join(bob, "Robert");
  EXPECT_EQ(say(ann, {10, 'A'}), "Aobert, Player [1] Connected!\n");
  EXPECT_EQ(say(ann, {}), "Player 1 reconnected\nAobert, Player [2] Connected!\n");
}

TEST_F(MembershipTest, AFailedBroadcastEndsTheProcess) {
  fill(2);
  player_table[1].address.sin_port = 0;  // sending there fails with EINVAL
  players[0]->send(datagram(100, 16));
  EXPECT_EXIT((dup2(STDERR_FILENO, STDOUT_FILENO), drain_socket()), testing::ExitedWithCode(1),
              "^error writing to socket:Invalid argument\n$");
}

// Each answer that fails prints its own of two texts, and the handler goes on.
TEST_F(MembershipTest, FailedAnswersAreReportedInTheirOwnWords) {
  server_config.GameType = 1;
  pinkpanther_slot = 0;
  fill(1);
  const std::string blank = "error writing to socket: Invalid argument\n";
  const std::string plain = "error writing to socket:Invalid argument\n";
  struct Case {
    Bytes sent;
    std::string printed;
  };
  for (const Case& c : {
           Case{join_request("x", 41), blank},
           Case{join_request("Bob"), "Bob, Player [1] Connected!\n" + plain},
           Case{enter_on_foot(), blank + plain + plain},
           Case{{40, 0}, plain},
           Case{{41, 0}, plain},
           Case{datagram(120, 32), blank},
       }) {
    Datagram from_nowhere{.bytes = receive_buffer, .received = 256, .sender = players[0]->address};
    from_nowhere.sender.sin_port = 0;  // sending there fails with EINVAL
    std::copy(c.sent.begin(), c.sent.end(), receive_buffer.begin());
    testing::internal::CaptureStdout();
    dispatch_datagram(from_nowhere);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed) << int{c.sent[0]};
    player_table[1].in_game = 0;
    ++roster_version;
  }
  EXPECT_EQ(player_count, 2);
}

}  // namespace
