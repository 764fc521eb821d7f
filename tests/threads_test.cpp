// The loops of the ping and the announce thread. What a pass and a check do stands in the sessions.

#include "announce/announce_thread.h"
#include "server/liveness.h"
#include "tests/game.h"
#include "tests/master.h"

namespace {

class ThreadsTest : public GameTest {
 public:
  ThreadsTest() { self = this; }
  ~ThreadsTest() override { on_sleep = nullptr; }

  // Lets a thread go on until it has slept for so long; what it printed.
  static std::string run(void* (*body)(void*), std::uint64_t seconds) {
    end_us = seconds * 1'000'000;
    slept_us = 0;
    fake_now_ms = server_start_ms;
    on_sleep = [] {
      fake_now_ms = server_start_ms + static_cast<std::uint32_t>(slept_us / 1000);
      self->master.take_part();
      if (slept_us >= end_us) throw slept_us.load();
    };
    return printed_by([body] { EXPECT_THROW(body(nullptr), std::uint64_t); });
  }

  static ThreadsTest* self;
  static std::uint64_t end_us;
  Master master;
};

ThreadsTest* ThreadsTest::self = nullptr;
std::uint64_t ThreadsTest::end_us = 0;

TEST_F(ThreadsTest, ThePingThreadMakesAPassAtOnceAndOneEveryTenSeconds) {
  fill(1);
  run(ping_thread, 30);
  EXPECT_EQ(slept_us, 30'000'000U);
  EXPECT_EQ(players[0]->received(), (std::vector<Bytes>{{1}, {1}, {1}}));
}

TEST_F(ThreadsTest, TheAnnounceThreadChecksEveryFiveSecondsAndAnnouncesEveryFiveMinutes) {
  const Bytes listed = bytes_of("20*2 0d 0a \"1\"");
  const std::string request =
      "M| GET /cgi-bin/zol.pl?name=Unnamed+Server&p=0&mp=16&gt=0&port=16309&v=40&os=lin\n";
  master.script({listed}, 0, false);
  const std::string first = "Announcing server at the zol master server...\n" + request +
                            "This server is now listed on the zol server list\n";
  EXPECT_EQ(run(announce_thread, 299), first);
  master.script({listed}, 0, false);
  EXPECT_EQ(run(announce_thread, 301),
            first + request + "Could not connect to zol master server!\n");
  EXPECT_LT(slept_us, 306'000'000U);
}

}  // namespace
