#include "announce/master_requests.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "announce/master_server.h"
#include "config/server_config.h"
#include "net/sflsock.h"
#include "server/clock.h"
#include "server/player_table.h"
#include "util/console.h"

namespace {

// Attempts to write or read while the connection is not ready, PAUSE_US apart.
constexpr int BUDGET = 1000;
constexpr std::uint32_t PAUSE_US = 10'000;
constexpr std::size_t REPLY_SIZE = 512;  // bytes; only the first read is parsed
constexpr std::string_view VERDICT_MARKER = "  \r\n";

using Request = std::array<char, 1024>;

void print_no_connection() {
  console_print("Could not connect to zol master server!\n");
}

using Reply = std::array<char, REPLY_SIZE + 1>;

// last: the last parameter of the query; only this differs between the two requests. Lines end with
// a line feed alone. The name is not escaped, except for its blanks.
Request make_request(std::int32_t players, const char* last) {
  char name[sizeof server_config.ServerName];
  std::ranges::replace_copy(server_config.ServerName, name, ' ', '+');
  Request request;
  std::snprintf(request.data(), request.size(),
                "GET /cgi-bin/zol.pl?name=%s&p=%d&mp=%d&gt=%d&port=%s&v=%d&%s HTTP/1.1\n"
                "Host: %s\n"
                "User-Agent: ZOL/0.1 (%s)\n"
                "Accept: */*;q=0.1\n"
                "Accept-Charset: *;q=0.7\n"
                "Keep-Alive: 300\n"
                "Connection: keep-alive\n"
                "\n",
                name, players, server_config.maxClients, server_config.GameType, server_config.Port,
                PROTOCOL_VERSION, last, MASTER_HOST, MASTER_HOST);
  return request;
}

// Repeats an attempt that returns -1. Fails once the budget is used up, even after a success.
template <typename Attempt>
bool retry(Attempt attempt) {
  int budget = BUDGET;
  while (attempt() == -1 && budget > 0) {
    sleep_us(PAUSE_US);
    --budget;
  }
  return budget > 0;
}

// Sends a request and makes one successful read of the reply, and adds a NUL. Returns the bytes
// read; or prints a line, leaves the connection open and returns -1.
int exchange(std::int32_t players, const char* last, Reply& reply) {
  if (socket_layer_start() == -1) {
    console_print("Error setting up network connection - Error message: %s\n", system_error_text());
    return -1;
  }
  const Request request = make_request(players, last);
  const auto length = static_cast<unsigned>(std::strlen(request.data()));
  const int handle = tcp_connect(MASTER_HOST, MASTER_SERVICE);
  int received = -1;
  const auto write = [&] { return tcp_write(handle, request.data(), length); };
  const auto read = [&] { return received = tcp_read(handle, reply.data(), REPLY_SIZE); };
  if (handle == -1 || !retry(write) || !retry(read)) {
    print_no_connection();
    return -1;
  }
  socket_close(handle);
  socket_layer_stop();
  reply[static_cast<std::size_t>(received)] = '\0';
  return received;
}

}  // namespace

std::int8_t master_announce() {
  Reply reply;
  const int received = exchange(count_used_slots(), "os=lin", reply);
  if (received == -1) return MASTER_RESULT_NO_ANSWER;
  const std::string_view text(reply.data(), static_cast<std::size_t>(received));
  const std::size_t marker = text.find(VERDICT_MARKER);
  if (marker == std::string_view::npos) {
    print_no_connection();
    return MASTER_RESULT_NO_ANSWER;
  }
  return static_cast<std::int8_t>(reply[marker + VERDICT_MARKER.size()] - '0');
}

void master_remove_server() {
  Reply reply;
  console_print("Removing server from master list: ");
  if (exchange(0, "disconnect=1", reply) != -1) console_print("success\n");
}
