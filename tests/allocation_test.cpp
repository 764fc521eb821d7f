// Nothing of the server's asks for heap while the game runs. Counted is every form of new in the
// code that is linked here; malloc and its like are wrapped by nothing, so a use does not even
// link.

#include <sys/socket.h>
#include <unistd.h>

#include <new>

#include "announce/master_requests.h"
#include "announce/master_server.h"
#include "server/liveness.h"
#include "server/main_loop.h"
#include "tests/game.h"

static char service_text[8];
constinit const char* const MASTER_HOST = "127.0.0.1";
constinit const char* const MASTER_SERVICE = service_text;
static int allocations, listener;

extern "C" void* __real_malloc(std::size_t size);

void* operator new(std::size_t size) {
  return ++allocations, __real_malloc(size);
}

// The delete that belongs to it is the library's.
extern "C" const char* __asan_default_options() {
  return "alloc_dealloc_mismatch=0";
}

template <typename Call>
static int allocations_in(Call call) {
  const int before = allocations;
  call();
  return allocations - before;
}

using AllocationTest = GameTest;

TEST_F(AllocationTest, TheGameNeedsNoHeap) {
  EXPECT_EQ(allocations_in([] { operator delete(operator new(1)); }), 1) << "what counts";
  server_config.GameType = 1;
  fill(2);
  for (const std::uint8_t code :
       Bytes{2, 10, 15, 31, 40, 41, 43, 120, 121, 124, 100, 101, 102, 103, 110, 122, 123, 60}) {
    players[0]->send(code == 10 ? join_request("Al") : datagram(code, 100, {{1, {1}}}));
    EXPECT_EQ(allocations_in(drain_socket), 0) << "command " << int{code};
  }
  EXPECT_EQ(players[1]->received().size(), 15U) << "it was played";
  EXPECT_EQ(allocations_in(ping_pass), 0);
  EXPECT_EQ(players[1]->received(), std::vector<Bytes>{{1}});
}

// The master server takes its part in a wait of the server's.
TEST_F(AllocationTest, TheAnnouncerNeedsNoHeap) {
  listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  ASSERT_EQ(listen(listener, 2), 0);
  sockaddr_in address{};
  socklen_t length = sizeof address;
  getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
  std::snprintf(service_text, sizeof service_text, "%d", ntohs(address.sin_port));
  on_sleep = [] { send(accept(listener, nullptr, nullptr), "  \r\n1", 5, MSG_NOSIGNAL); };
  EXPECT_EQ(allocations_in([] { EXPECT_EQ(master_announce(), MASTER_RESULT_LISTED); }), 0);
  EXPECT_EQ(allocations_in(master_remove_server), 0);
}
