// A bot made with this library: it joins, drives in circles, prints the events of its session, and
// leaves on SIGINT or SIGTERM.
//   zolexample HOST[:PORT]

#include <poll.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "client/client_session.h"
#include "client/monotonic.h"
#include "client/reports.h"
#include "client/server_connection.h"
#include "client/stop_signals.h"

using namespace zol;

static constexpr int STEP_MS = 50;  // 20 positions a second

static void play(ClientSession& session, std::uint64_t now_ms) {
  const float angle = static_cast<float>(now_ms % 10'000) / 10'000 * 6.2832F;
  const Position place = {bits_of(40 * std::cos(angle)), bits_of(40 * std::sin(angle)), 0};
  if (!session.own.in_car) report_got_in(session, place, CarState{.car_type = 7});
  report_position(session, place);
}

static void print_event(const ClientSession& session, SessionEvent event) {
  const char* const texts[] = {"",
                               "accepted",
                               "in the game",
                               "refused, will try again: ",
                               "the server has stopped; trying to join again",
                               "the server is silent; trying to join again"};
  const char* reason = event == SessionEvent::REFUSED ? session.refusal.data() : "";
  if (event != SessionEvent::NONE) std::printf("%s%s\n", texts[static_cast<int>(event)], reason);
}

int main(int count, char** arguments) {
  sockaddr_in server{};
  std::string error_text = "usage: zolexample HOST[:PORT]";
  if (count != 2 || !resolve_server(arguments[1], server, error_text)) {
    return std::fprintf(stderr, "zolexample: %s\n", error_text.c_str()), 2;
  }
  const int socket = open_client_socket(server);
  const int stop_signals = open_stop_signals({SIGINT, SIGTERM});
  static ClientSession session{.name = {"Example"}};
  static Batch batch;
  pollfd waits[] = {{.fd = socket, .events = POLLIN, .revents = 0},
                    {.fd = stop_signals, .events = POLLIN, .revents = 0}};
  for (std::uint64_t played_ms = 0; take_stop_signal(stop_signals) == 0;) {
    poll(waits, 2, STEP_MS);
    const std::uint64_t now_ms = monotonic_ms();
    receive_batch(socket, batch);
    for (std::size_t i = 0; i < batch.count; ++i) {
      print_event(session, session_hear(session, batch.datagrams[i], now_ms));
    }
    print_event(session, session_step(session, now_ms));
    if (session.state == SessionState::PLAYING && now_ms - played_ms >= STEP_MS) {
      play(session, played_ms = now_ms);
    }
    send_outbox(socket, session.outbox);
  }
  session_leave(session);
  send_outbox(socket, session.outbox);
}
