// Loads the server, or relay_floor, with players on loopback. Reads one measurement per line from
// standard input, and answers each with one line of JSON:
//
//   KIND COUNT AHEAD SPACING_NS   COUNT updates of a kind, at least SPACING_NS apart; each is sent
//                                 when at most AHEAD updates before it have not arrived
//   idle MS 0 0                   no updates for MS milliseconds; only answers pings

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "bench/crowd.h"
#include "client/server_connection.h"

struct Order {
  std::string kind;
  std::uint32_t count = 0;
  std::uint32_t ahead = 0;
  std::int64_t spacing_ns = 0;
};

// Indexed by Update.
static constexpr std::array<std::string_view, 4> KINDS = {"position", "car_state", "death",
                                                          "state_floats"};

static std::int64_t ns_since(Clock::time_point time) {
  return std::chrono::nanoseconds(Clock::now() - time).count();
}

// Returns the median delay of an update in ns, from its send until the last player has received it.
static std::int64_t run_updates(Crowd& crowd, const Order& order) {
  std::vector<std::int64_t> delays{0};
  const std::uint32_t first = crowd.sent;
  const Clock::time_point start = Clock::now();
  bool is_complete = true;
  while (is_complete && crowd.sent < first + order.count) {
    std::this_thread::sleep_until(
        start + std::chrono::nanoseconds(order.spacing_ns * (crowd.sent - first)));
    const Clock::time_point sent = Clock::now();
    is_complete = send_update(crowd);
    if (crowd.sent - first <= order.ahead) continue;
    is_complete = is_complete && await_update(crowd, crowd.sent - 1 - order.ahead);
    delays.push_back(ns_since(sent));
  }
  if (is_complete) await_update(crowd, crowd.sent - 1);
  std::sort(delays.begin(), delays.end());
  return delays[delays.size() / 2];
}

static bool carry_out(Crowd& crowd, const Order& order) {
  const auto* kind = std::find(KINDS.begin(), KINDS.end(), order.kind);
  const bool is_idle = order.kind == "idle";
  if (!is_idle && kind == KINDS.end()) return false;
  begin_updates(crowd, is_idle ? Update::POSITION : static_cast<Update>(kind - KINDS.begin()));
  const std::uint32_t first = crowd.sent;
  const Clock::time_point start = Clock::now();
  if (is_idle) answer_pings_until(crowd, start + std::chrono::milliseconds(order.count));
  const std::int64_t delay = is_idle ? 0 : run_updates(crowd, order);
  const std::uint64_t expected = std::uint64_t{crowd.sent - first} * datagrams_per_update(crowd);
  std::cout << "{\"missing\":" << expected - crowd.right << ",\"wrong\":" << crowd.wrong
            << ",\"elapsed_ns\":" << ns_since(start) << ",\"delay_ns\":" << delay << "}"
            << std::endl;
  return true;
}

int main(int count, char** arguments) {
  const unsigned players = count == 4 ? static_cast<unsigned>(std::atoi(arguments[3])) : 0;
  sockaddr_in server{};
  std::string error_text;
  if (players < 2 || players > MAX_CLIENTS || !resolve_server(arguments[2], server, error_text)) {
    std::cerr << "usage: zolload server|floor HOST:PORT PLAYERS(2..32)\n" << error_text << "\n";
    return EXIT_FAILURE;
  }
  static Crowd crowd;
  while (crowd.size < players) {
    if (!join_player(crowd, std::string_view(arguments[1]) == "floor", server)) return EXIT_FAILURE;
  }
  Order order;
  while (std::cin >> order.kind >> order.count >> order.ahead >> order.spacing_ns) {
    if (!carry_out(crowd, order)) return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
