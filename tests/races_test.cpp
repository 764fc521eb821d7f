// Orders of events between the main and the ping thread that luck makes rare, made on purpose: at a
// seam of one thread's work the other's is done.

#include <thread>

#include "server/handlers.h"
#include "server/liveness.h"
#include "server/main_loop.h"
#include "tests/game.h"
#include "tests/seams.h"

namespace {

class RacesTest : public GameTest {
 public:
  // Four places, three players in the game; the one in slot 1 was silent for too long.
  RacesTest() {
    self = this;
    server_config.maxClients = 4;
    for (const Player& player : players) enter(player, "P");
    for (const Player& player : players) player.received();
    silence(1);
  }

  ~RacesTest() override { on_seam = nullptr; }

  static void silence(Slot silent) {
    fake_now_ms += 200'000;
    for (Slot slot = 0; slot < 4; ++slot) {
      if (slot != silent) player_table[slot].last_heard = fake_now_ms.load();
    }
  }

  // What is done at this seam, once.
  static void at(Seam seam, void (*work)()) {
    wanted = seam, work_at_seam = work;
    on_seam = [](Seam reached) {
      if (reached == wanted) on_seam = nullptr, work_at_seam();
    };
  }

  static void arrive(const Player& player, const Bytes& bytes) {
    player.send(bytes);
    drain_socket();
  }

  // The first bytes of what a player was told, without the pings.
  static std::vector<Bytes> told_to(const Player& player) {
    std::vector<Bytes> all = player.received();
    std::erase(all, Bytes{1});
    for (Bytes& bytes : all) bytes.resize(std::min<std::size_t>(bytes.size(), 3));
    return all;
  }

  std::vector<Bytes> told() { return told_to(players[0]); }

  static SeatState state_of(Slot slot) { return player_table[slot].seat.load().state; }

  static RacesTest* self;
  static Seam wanted;
  static void (*work_at_seam)();
  Player players[3];
  Player newcomer;
};

RacesTest* RacesTest::self = nullptr;
Seam RacesTest::wanted;
void (*RacesTest::work_at_seam)() = nullptr;

TEST_F(RacesTest, ATimeOutMissesWhoTookTheSlotMeanwhile) {
  at(Seam::TIME_OUT_DECIDED, [] {
    arrive(self->players[1], {60});
    arrive(self->newcomer, join_request("New"));
    arrive(self->newcomer, enter_on_foot());
  });
  ping_pass();
  EXPECT_EQ(find_slot_by_address(newcomer.address), 1);
  EXPECT_EQ(state_of(1), SeatState::IN_GAME) << "as before, but it is another player's";
  EXPECT_EQ(player_count, 3);
  EXPECT_EQ(told(), (std::vector<Bytes>{Bytes{60, 1}, {42, 1, 1}}));
}

TEST_F(RacesTest, APingMissesWhoTookTheSlotMeanwhile) {
  silence(NO_SLOT);
  at(Seam::PINGING, [] {
    arrive(self->players[0], {60});
    arrive(self->newcomer, join_request("New"));
  });
  ping_pass();
  EXPECT_EQ(find_slot_by_address(newcomer.address), 0);
  EXPECT_EQ(newcomer.received().size(), 1U) << "the acceptance alone";
}

TEST_F(RacesTest, ATimeOutIsMadeOnceWhenThePlayerLeavesMeanwhile) {
  at(Seam::TIME_OUT_DECIDED, [] { arrive(self->players[1], {60}); });
  ping_pass();
  EXPECT_EQ(player_count, 2);
  EXPECT_EQ(told(), std::vector<Bytes>{(Bytes{60, 1})});
  at(Seam::TIMED_OUT, [] { arrive(self->players[2], {60}); });
  silence(2);
  ping_pass();
  EXPECT_EQ(state_of(2), SeatState::FREE);
  EXPECT_EQ(player_count, 1);
  EXPECT_EQ(told(), std::vector<Bytes>{(Bytes{60, 2})});
}

TEST_F(RacesTest, ASlotIsTakenOnlyAfterTheNoticeOfItsLastPlayer) {
  at(Seam::TIMED_OUT, [] {
    arrive(self->newcomer, join_request("New"));
    arrive(self->newcomer, enter_on_foot());
    arrive(self->players[1], join_request("Old"));
  });
  ping_pass();
  EXPECT_EQ(told(), (std::vector<Bytes>{Bytes{42, 3, 1}, {60, 1}}));
  EXPECT_EQ(state_of(1), SeatState::FREE);
  EXPECT_EQ(state_of(3), SeatState::IN_GAME);
  EXPECT_EQ(player_count, 3);
  EXPECT_EQ(players[1].received()[0][0], 12) << "the last free slot was taken";
  arrive(players[1], join_request("Old"));
  EXPECT_EQ(find_slot_by_address(players[1].address), 1);
}

// As if they were timed out between the look-up of the sender and what is done for it.
TEST_F(RacesTest, WhoIsGoneNeitherLeavesNorReconnectsOnceMore) {
  ping_pass();
  const ReceivedDatagram datagram{
      .bytes = receive_buffer, .received = 1, .sender = newcomer.address};
  EXPECT_EQ(printed_by([&] { handle_leave(1, datagram); }), "");
  EXPECT_EQ(player_count, 2);
  const Bytes request = join_request("New");
  std::copy(request.begin(), request.end(), receive_buffer.begin());
  EXPECT_EQ(printed_by([&] { handle_join(1, datagram); }), "New, Player [1] Connected!\n");
  EXPECT_EQ(player_count, 3);
  EXPECT_EQ(told(), std::vector<Bytes>{(Bytes{60, 1})});
}

// The player who enters again is timed out at this seam.
TEST_F(RacesTest, NobodyIsToldOfWhoTimesOutWhileEntering) {
  at(Seam::ENTERING, ping_pass);
  arrive(players[1], enter_on_foot());
  EXPECT_EQ(state_of(1), SeatState::FREE);
  EXPECT_EQ(told(), std::vector<Bytes>{(Bytes{60, 1})});
  EXPECT_EQ(player_count, 2);
}

// The sender is timed out before its report is relayed, so the notice that it left arrives first.
TEST_F(RacesTest, ARelayOfAGonePlayerIsFollowedByAnotherNotice) {
  for (const Bytes& report : {enter_on_foot(), bytes_of("64 ..16"), bytes_of("2b 01 ..80")}) {
    at(Seam::RELAYING, ping_pass);
    arrive(players[1], report);
    EXPECT_EQ(state_of(1), SeatState::FREE);
    const std::vector<Bytes> all = told();
    ASSERT_EQ(all.size(), 3U);
    EXPECT_EQ(all[1][1], 1) << "the relay";
    EXPECT_EQ(all[0], (Bytes{60, 1}));
    EXPECT_EQ(all[2], (Bytes{60, 1}));
    EXPECT_EQ(player_count, 2);
    enter(players[1], "P");
    told();
    silence(1);
  }
}

// A player is timed out before the record about it is sent to a newcomer or to a player who asked.
TEST_F(RacesTest, ARecordOfAGonePlayerIsFollowedByAnotherNotice) {
  struct Case {
    const Player& receiver;
    Bytes request;
    std::vector<Bytes> told;
  };
  arrive(newcomer, join_request("New"));
  newcomer.received();
  const Bytes gone{60, 0};
  for (const Case& c : {
           Case{newcomer,
                enter_on_foot(),
                {{16, 3, 6}, gone, {42, 0, 0}, gone, {42, 1, 0}, {42, 2, 0}}},
           Case{players[1], {40, 0}, {gone, {42, 0, 0}, gone}},
           Case{players[1], {41, 0}, {gone, {43, 0, 0}, gone}},
       }) {
    silence(0);
    at(Seam::ANSWERING, ping_pass);
    told_to(c.receiver);
    arrive(c.receiver, c.request);
    EXPECT_EQ(told_to(c.receiver), c.told);
    enter(players[0], "P");
  }
}

// Players come, go, come back and fall silent while passes run as fast as they can. What it proves
// shows under ThreadSanitizer; the counts must agree on every build. Nobody reads what is sent: the
// passes send faster than it could be read, and the system drops what finds no room.
TEST_F(RacesTest, TheThreadsAgreeOnEveryPlayer) {
  server_config.GameType = 1;
  server_config.maxClients = 16;
  std::atomic<bool> done = false;
  testing::internal::CaptureStdout();
  std::thread passes([&] {
    while (!done) ping_pass();
  });
  const Player six[6];
  for (unsigned round = 0; round < 500; ++round) {
    const Player& player = six[round * 7 % 6];
    for (const Bytes& bytes : {join_request("Somebody"), enter_on_foot(), bytes_of("64 ..16")}) {
      player.send(bytes);
    }
    six[round % 6].send({2});
    if (round % 3 == 0) six[round / 3 % 6].send({60});
    if (round % 5 == 0) fake_now_ms += 100'001 + round % 2 * 60'000;
    drain_socket();
  }
  done = true;
  passes.join();
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(player_count, count_used_slots());
}

}  // namespace
