#include "announce/master_requests.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "announce/master_server.h"
#include "config/server_config.h"
#include "net/sflsock.h"
#include "server/clock.h"
#include "server/player_table.h"
#include "server/protocol.h"

namespace {

constexpr int BUDGET =
    1000;  // repetitions of a write or a read that finds the connection not ready
constexpr std::uint32_t PAUSE_US = 10'000;
constexpr std::size_t REPLY_SIZE = 512;  // bytes of the one read that is judged
constexpr std::string_view VERDICT_MARKER = "  \r\n";

using Request = std::array<char, 1024>;

void say_no_connection() {
  std::printf("Could not connect to zol master server!\n");
}

struct Reply {
  std::array<char, REPLY_SIZE + 1> bytes;  // a NUL behind the last one read
  std::size_t length;
};

// The name as the query carries it: nothing but its blanks is replaced.
using QueryName = std::array<char, sizeof server_config.ServerName>;

QueryName query_name() {
  QueryName name;
  std::replace_copy(std::begin(server_config.ServerName), std::end(server_config.ServerName),
                    name.begin(), ' ', '+');
  return name;
}

// What both requests say behind their first line of this length. Lines end in bare line feeds.
void append_headers(Request& request, int length) {
  const auto used = static_cast<std::size_t>(length);
  std::snprintf(request.data() + used, request.size() - used,
                "Host: %s\n"
                "User-Agent: ZOL/0.1 (%s)\n"
                "Accept: */*;q=0.1\n"
                "Accept-Charset: *;q=0.7\n"
                "Keep-Alive: 300\n"
                "Connection: keep-alive\n"
                "\n",
                MASTER_HOST, MASTER_HOST);
}

void build_announce(Request& request) {
  const int length =
      std::snprintf(request.data(), request.size(),
                    "GET /cgi-bin/zol.pl?name=%s&p=%d&mp=%d&gt=%d&port=%s&v=%d&os=lin HTTP/1.1\n",
                    query_name().data(), count_used_slots(), server_config.maxClients,
                    server_config.GameType, server_config.Port, PROTOCOL_VERSION);
  append_headers(request, length);
}

void build_removal(Request& request) {
  const int length = std::snprintf(
      request.data(), request.size(),
      "GET /cgi-bin/zol.pl?name=%s&p=0&mp=%d&gt=%d&port=%s&v=%d&disconnect=1 HTTP/1.1\n",
      query_name().data(), server_config.maxClients, server_config.GameType, server_config.Port,
      PROTOCOL_VERSION);
  append_headers(request, length);
}

// Repeats an attempt while it gives -1 and the budget lasts. The budget decides: an attempt that
// only succeeds when it is used up has failed.
template <typename Attempt>
bool succeeds_in_time(Attempt attempt) {
  int budget = BUDGET;
  while (attempt() == -1 && budget > 0) {
    sleep_us(PAUSE_US);
    --budget;
  }
  return budget > 0;
}

// Sends a request and takes the first piece of the reply. False when that failed, its line printed;
// a connection that was made is then left open.
bool exchange(const Request& request, Reply& reply) {
  if (socket_layer_start() == -1) {
    std::printf("Error setting up network connection - Error message: %s\n", system_error_text());
    return false;
  }
  const auto length = static_cast<unsigned>(std::strlen(request.data()));
  const int handle = tcp_connect(MASTER_HOST, MASTER_SERVICE);
  int received = -1;
  if (handle == -1 ||
      !succeeds_in_time([&] { return tcp_write(handle, request.data(), length); }) ||
      !succeeds_in_time(
          [&] { return received = tcp_read(handle, reply.bytes.data(), REPLY_SIZE); })) {
    say_no_connection();
    return false;
  }
  socket_close(handle);
  socket_layer_stop();
  reply.length = static_cast<std::size_t>(received);
  reply.bytes[reply.length] = '\0';
  return true;
}

}  // namespace

std::int8_t master_announce() {
  Request request;
  Reply reply;
  build_announce(request);
  if (!exchange(request, reply)) return MASTER_RESULT_NO_ANSWER;
  const std::string_view read(reply.bytes.data(), reply.length);
  const std::size_t marker = read.find(VERDICT_MARKER);
  if (marker == std::string_view::npos) {
    say_no_connection();
    return MASTER_RESULT_NO_ANSWER;
  }
  return static_cast<std::int8_t>(reply.bytes[marker + VERDICT_MARKER.size()] - '0');
}

void master_remove_server() {
  Request request;
  Reply reply;
  std::printf("Removing server from master list: ");
  std::fflush(stdout);
  build_removal(request);
  if (exchange(request, reply)) std::printf("success\n");
}
