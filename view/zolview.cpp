// zolview: shows a running game.

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "client/monotonic.h"
#include "client/server_connection.h"
#include "client/stop_signals.h"
#include "view/alive.h"
#include "view/once.h"
#include "view/options.h"
#include "view/role.h"
#include "view/screen.h"

static constexpr int FRAME_MS = 100;

static void show_event(ViewState& view, SessionEvent event) {
  switch (event) {
    case SessionEvent::NONE:
      return;
    case SessionEvent::JOINED:
    case SessionEvent::ENTERED:
      view.status = view.session.picture.welcome.data();
      return;
    case SessionEvent::REFUSED:
      view.status = std::string("refused, will try again: ") + view.session.refusal.data();
      return;
    case SessionEvent::STOPPED:
      view.status = "the server has stopped; trying to join again";
      return;
    case SessionEvent::FORGOTTEN:
      view.status = "the server is silent; trying to join again";
      return;
  }
}

// Handles only one batch, because datagrams may arrive faster than they are handled. Signals, keys
// and the screen have their turn between batches.
static void handle_datagrams(ViewState& view) {
  static Batch batch;
  receive_batch(view.socket, batch);
  for (std::size_t i = 0; i < batch.count; ++i) {
    show_event(view, session_hear(view.session, batch.datagrams[i], monotonic_ms()));
  }
}

// False when the user quits.
static bool handle_keys(ViewState& view) {
  KeyResult result = KeyResult::TAKEN;
  while (result == KeyResult::TAKEN) result = screen_handle_key(view);
  return result != KeyResult::QUIT;
}

static void run(ViewState& view, int stop_signals) {
  std::uint64_t drawn_ms = 0;
  while (take_stop_signal(stop_signals) == 0) {
    pollfd waits[] = {{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0},
                      {.fd = view.socket, .events = POLLIN, .revents = 0},
                      {.fd = stop_signals, .events = POLLIN, .revents = 0}};
    poll(waits, std::size(waits), FRAME_MS);
    const bool has_terminal = (waits[0].revents & (POLLHUP | POLLERR)) == 0;
    if (!has_terminal || !handle_keys(view)) return;
    handle_datagrams(view);
    const std::uint64_t now_ms = monotonic_ms();
    show_event(view, session_step(view.session, now_ms));
    pass_on_role(view.session, view.passed_ms, now_ms);
    send_outbox(view.socket, view.session.outbox);
    if (now_ms - drawn_ms < FRAME_MS) continue;
    drawn_ms = now_ms;
    screen_draw(view, now_ms);
  }
}

static int show_game(const ViewOptions& options, int stop_signals) {
  static ViewState view;
  view.socket = open_client_socket(options.server);
  if (view.socket == -1) {
    std::fprintf(stderr, "zolview: cannot send to %s: %s\n", options.server_text,
                 std::strerror(errno));
    return EXIT_FAILURE;
  }
  std::copy(options.name.begin(), options.name.end(), view.session.name.begin());
  view.status = std::string("joining ") + options.server_text;
  screen_open();
  run(view, stop_signals);
  session_leave(view.session);  // before screen_close, which may block
  send_outbox(view.socket, view.session.outbox);
  screen_close();
  return EXIT_SUCCESS;
}

int main(int count, char** arguments) {
  ViewOptions options;
  switch (parse_view_options(count, arguments, options)) {
    case ParseResult::HELP_SHOWN:
      return EXIT_SUCCESS;
    case ParseResult::BAD_ARGUMENTS:
      return 2;
    case ParseResult::RUN:
      break;
  }
  const int stop_signals = open_stop_signals({SIGHUP, SIGINT, SIGQUIT, SIGTERM});
  if (stop_signals == -1) {
    std::perror("zolview: cannot receive signals");
    return EXIT_FAILURE;
  }
  if (options.alive) return ask_alive(options, stop_signals);
  return options.once ? show_once(options, stop_signals) : show_game(options, stop_signals);
}
