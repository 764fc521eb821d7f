// Rare orders of events of the main thread and the ping thread: at a test hook in one thread, the
// test runs the work of the other thread.

#include <thread>

#include "server/handlers.h"
#include "server/liveness.h"
#include "server/main_loop.h"
#include "tests/game.h"
#include "tests/seams.h"

namespace {

class RacesTest : public GameTest {
 public:
  // Four slots, three players in the game. The player in slot 1 has been silent for too long.
  RacesTest() {
    self = this;
    server_config.maxClients = 4;
    for (const Player& player : players) enter(player, "P");
    for (const Player& player : players) player.received();
    keep_silent(1);
  }

  ~RacesTest() override { on_seam = nullptr; }

  static void keep_silent(Slot silent) {
    fake_now_ms += 200'000;
    for (Slot slot = 0; slot < 4; ++slot) {
      if (slot != silent) player_table[slot].last_heard = fake_now_ms.load();
    }
  }

  // Runs this work once, when a thread reaches this seam.
  static void run_at(Seam seam, void (*work)()) {
    wanted = seam, work_at_seam = work;
    on_seam = [](Seam reached) {
      if (reached == wanted) on_seam = nullptr, work_at_seam();
    };
  }

  static void handle(const Player& player, const Bytes& bytes) {
    player.send(bytes);
    drain_socket();
  }

  static void join_and_enter(const Player& player) {
    handle(player, join_request("New"));
    handle(player, enter_on_foot());
  }

  // The first three bytes of each datagram that the player has received, without pings.
  static std::vector<Bytes> received_by(const Player& player) {
    std::vector<Bytes> all = player.received();
    std::erase(all, Bytes{1});
    for (Bytes& bytes : all) bytes.resize(std::min<std::size_t>(bytes.size(), 3));
    return all;
  }

  std::vector<Bytes> received() { return received_by(players[0]); }

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

// A pass times the silent player out, and this work runs at the seam.
TEST_F(RacesTest, ATimeOutRemovesOnlyTheSilentPlayer) {
  struct Case {
    Seam seam;
    Slot silent;
    void (*work)();
    std::vector<Bytes> expected;
    int player_count;
  };
  const auto two_join = [] {
    join_and_enter(self->newcomer);
    handle(self->players[1], join_request("Old"));
  };
  const auto take_slot_1 = [] {
    handle(self->newcomer, {60});
    handle(self->players[1], {60});
    join_and_enter(self->newcomer);
  };
  for (const Case& c : {
           Case{Seam::TIME_OUT_DECIDED, 1, [] { handle(self->players[1], {60}); }, {{60, 1}}, 2},
           Case{Seam::TIMED_OUT, 2, [] { handle(self->players[2], {60}); }, {{60, 2}}, 2},
           // No join takes the slot before the notice, so the newcomer gets the last free slot.
           Case{Seam::TIMED_OUT, 1, two_join, {{42, 3, 1}, {60, 1}}, 3},
           // A new player has taken the slot, and is in the same state as the old player.
           Case{Seam::TIME_OUT_DECIDED, 1, take_slot_1, {{60, 3}, {60, 1}, {42, 1, 1}}, 3},
       }) {
    keep_silent(c.silent);
    run_at(c.seam, c.work);
    ping_pass();
    EXPECT_EQ(received(), c.expected);
    EXPECT_EQ(player_count, c.player_count);
    enter(players[c.silent], "P");
    received();
  }
}

TEST_F(RacesTest, DoesNotPingANewPlayerOfTheSlot) {
  keep_silent(NO_SLOT);
  run_at(Seam::PINGING, [] {
    handle(self->players[0], {60});
    handle(self->newcomer, join_request("New"));
  });
  ping_pass();
  EXPECT_EQ(find_slot_by_address(newcomer.address), 0);
  EXPECT_EQ(newcomer.received().size(), 1U) << "only the acceptance";
}

// The player was timed out after the look-up of the sender and before the handler.
TEST_F(RacesTest, ARemovedPlayerNeitherLeavesNorReconnects) {
  ping_pass();
  const ReceivedDatagram datagram{
      .bytes = receive_buffer, .received = 1, .sender = newcomer.address};
  EXPECT_EQ(printed_by([&] { handle_leave(1, datagram); }), "");
  EXPECT_EQ(player_count, 2);
  const Bytes request = join_request("New");
  std::copy(request.begin(), request.end(), receive_buffer.begin());
  EXPECT_EQ(printed_by([&] { handle_join(1, datagram); }), "New, Player [1] Connected!\n");
  EXPECT_EQ(player_count, 3);
  EXPECT_EQ(received(), std::vector<Bytes>{(Bytes{60, 1})});
}

// The player is timed out at this seam: before it enters, before its report is relayed, or before a
// record about it is sent. The notice then precedes that datagram, so the server repeats the notice
// after it.
TEST_F(RacesTest, NoClientKeepsARemovedPlayer) {
  struct Case {
    Seam seam;
    Slot silent;
    const Player &sender, &watcher;
    Bytes request;
    std::vector<Bytes> expected;
  };
  handle(newcomer, join_request("New"));
  newcomer.received();
  const Bytes zero{60, 0}, one{60, 1};
  const std::vector<Bytes> all{{16, 3, 6}, zero, {42, 0, 0}, zero, {42, 1, 0}, {42, 2, 0}};
  const Player &first = players[0], &second = players[1];
  for (const Case& c : {
           Case{Seam::ANSWERING, 0, newcomer, newcomer, enter_on_foot(), all},
           Case{Seam::ANSWERING, 0, second, second, {40, 0}, {zero, {42, 0, 0}, zero}},
           Case{Seam::ANSWERING, 0, second, second, {41, 0}, {zero, {43, 0, 0}, zero}},
           // Entering resets last_heard of last_join_slot, which is not the player's slot here.
           Case{Seam::ENTERING, 2, players[2], first, enter_on_foot(), {{60, 2}}},
           Case{Seam::RELAYING, 1, second, first, enter_on_foot(), {one, {42, 1, 1}, one}},
           Case{Seam::RELAYING, 1, second, first, bytes_of("64 ..16"), {one, {200, 1, 0}, one}},
           Case{Seam::RELAYING, 1, second, first, bytes_of("2b 01 ..80"), {one, {204, 1, 0}, one}},
       }) {
    keep_silent(c.silent);
    run_at(c.seam, ping_pass);
    received_by(c.watcher);
    handle(c.sender, c.request);
    EXPECT_EQ(received_by(c.watcher), c.expected);
    EXPECT_EQ(state_of(c.silent), SeatState::FREE);
    EXPECT_EQ(player_count, 3);
    enter(players[c.silent], "P");
  }
}

// Players join, leave, join again and stop sending, while passes run as fast as they can. With
// ThreadSanitizer this finds data races; the counts must agree in every build. The test does not
// read the sent datagrams: the system drops those for which the receive buffers have no room.
TEST_F(RacesTest, BothThreadsCountTheSamePlayers) {
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
