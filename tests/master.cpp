#include "tests/master.h"

#include <cstdio>

#include "announce/master_server.h"
#include "tests/game.h"
#include "tests/loopback.h"

static char service_text[8];
const char* const MASTER_HOST = "127.0.0.1";
const char* const MASTER_SERVICE = service_text;

static const std::string HEADERS =
    " HTTP/1.1\nHost: 127.0.0.1\nUser-Agent: ZOL/0.1 (127.0.0.1)\nAccept: */*;q=0.1\n"
    "Accept-Charset: *;q=0.7\nKeep-Alive: 300\nConnection: keep-alive\n\n";

Master::Master() : listener(bind_loopback(SOCK_STREAM | SOCK_NONBLOCK)) {
  EXPECT_EQ(listen(listener, 8), 0);
  std::snprintf(service_text, sizeof service_text, "%d", ntohs(local_address(listener).sin_port));
}

Master::~Master() {
  script({}, 0, false);
  close(listener);
}

void Master::script(std::deque<Bytes> pieces_to_send, int waits_before, bool with_reset) {
  if (connection != -1) close(connection);
  connection = -1;
  pieces = std::move(pieces_to_send), waits = waits_before, resets = with_reset;
}

// Called in each sleep of the server. Does not count its allocations as allocations of the server.
void Master::run_in_wait() {
  const int allocated = allocations;
  answer();
  allocations = allocated;
}

void Master::answer() {
  if (connection == -1) connection = accept(listener, nullptr, nullptr);
  if (connection == -1) return;
  char buffer[2048];
  const ssize_t size = recv(connection, buffer, sizeof buffer, MSG_DONTWAIT);
  if (size > 0) {
    const std::string request(buffer, static_cast<std::size_t>(size));
    EXPECT_TRUE(request.ends_with(HEADERS)) << request;
    std::printf("M| %s\n", request.substr(0, request.size() - HEADERS.size()).c_str());
  }
  if (waits-- > 0) return;
  const linger now{.l_onoff = resets ? 1 : 0, .l_linger = 0};
  setsockopt(connection, SOL_SOCKET, SO_LINGER, &now, sizeof now);
  if (!pieces.empty() && !resets) {
    send(connection, pieces.front().data(), pieces.front().size(), MSG_NOSIGNAL);
    pieces.pop_front();
  } else {
    close(connection);
    connection = -1;
  }
}
