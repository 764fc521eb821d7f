// The ping thread's loop. What a pass does stands in sessions/liveness.session.

#include "server/liveness.h"

#include "tests/game.h"

namespace {

class LivenessTest : public GameTest {};

TEST_F(LivenessTest, MakesAPassAtOnceAndOneEveryTenSeconds) {
  fill(1);
  on_sleep = [] {
    if (slept_us >= 30'000'000) throw slept_us.load();
  };
  EXPECT_THROW(ping_thread(nullptr), std::uint64_t);
  on_sleep = nullptr;
  EXPECT_EQ(slept_us, 30'000'000U);
  EXPECT_EQ(players[0]->received(), (std::vector<Bytes>{{1}, {1}, {1}}));
}

}  // namespace
