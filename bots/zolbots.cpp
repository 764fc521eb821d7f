// Bots that play on a server and check all they receive: a demo, a soak test and a load generator.

#include <linux/sock_diag.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bots/bot.h"
#include "bots/expectations.h"
#include "bots/options.h"
#include "bots/report.h"

static constexpr std::uint64_t SECOND_NS = 1'000'000'000;
static constexpr std::uint64_t JOIN_TIMEOUT_NS = 3 * SECOND_NS;
static constexpr std::uint64_t SHUTDOWN_WINDOW_NS = SECOND_NS;  // see handle_shutdown
static constexpr std::uint64_t DRAIN_MIN_NS = SECOND_NS / 5;
static constexpr std::uint64_t DRAIN_SILENCE_NS = SECOND_NS;
static constexpr std::uint64_t DRAIN_MAX_NS = 10 * SECOND_NS;

static constexpr const char* NAMES[MAX_BOTS] = {
    "Ada",     "Bruno", "Cleo",  "Dora",  "Emil", "Frida", "Gus",   "Hedy",
    "Ivo",     "Jette", "Kurt",  "Lola",  "Milo", "Nora",  "Otto",  "Pina",
    "Quinn",   "Rosa",  "Sven",  "Tilda", "Udo",  "Vera",  "Willi", "Xenia",
    "Yannick", "Zoe",   "Anton", "Berta", "Carl", "Dunja", "Egon",  "Fanny"};

static volatile std::sig_atomic_t stop_requested = 0;

static void on_signal(int /*signal*/) {
  stop_requested = 1;
}

// The signals are delivered only while ppoll waits, so none is missed between the test of
// stop_requested and the wait.
static void catch_signals(sigset_t& ppoll_mask) {
  sigset_t blocked;
  sigemptyset(&blocked);
  for (const int signal : {SIGINT, SIGTERM}) {
    sigaddset(&blocked, signal);
    struct sigaction action {};
    action.sa_handler = on_signal;
    sigaction(signal, &action, nullptr);
  }
  sigprocmask(SIG_BLOCK, &blocked, &ppoll_mask);
  sigdelset(&ppoll_mask, SIGINT);
  sigdelset(&ppoll_mask, SIGTERM);
}

static bool start_fleet(const Options& options) {
  fleet.size = options.players;
  fleet.in_order_delivery = ntohl(options.address.sin_addr.s_addr) >> 24U == 127;
  fleet.process_tag = static_cast<std::uint16_t>(getpid());
  fleet.step_ns = SECOND_NS / options.rate;
  const std::uint64_t start_ns = monotonic_ns();
  for (unsigned i = 0; i < fleet.size; ++i) {
    Bot& bot = fleet.bots[i];
    bot.number = static_cast<std::uint8_t>(i);
    bot.rng = std::uint64_t{options.seed} << 8U | i;
    bot.due_ns = start_ns + fleet.step_ns * i / fleet.size;
    std::snprintf(bot.name.data(), bot.name.size(), "%s-%u", NAMES[i], unsigned{fleet.process_tag});
    bot.socket = open_client_socket(options.address);
    if (bot.socket == -1) {
      std::perror("zolbots: cannot open a socket to the server");
      return false;
    }
  }
  return true;
}

// Hears one batch, so that no socket keeps the others waiting. Returns the number of datagrams.
static std::size_t hear_batch(Bot& bot) {
  const Batch& batch = receive_batch(bot.socket);
  const std::uint64_t now_ns = monotonic_ns();
  for (std::size_t i = 0; i < batch.count; ++i) hear(bot, batch.datagrams[i], now_ns);
  return batch.count;
}

// Waits for datagrams until the given time at most. Returns the number of datagrams received.
static std::size_t receive_until(std::uint64_t until_ns, const sigset_t& ppoll_mask) {
  std::array<pollfd, MAX_BOTS> waits;
  for (unsigned i = 0; i < fleet.size; ++i) {
    waits[i] = {.fd = fleet.bots[i].socket, .events = POLLIN, .revents = 0};
  }
  const std::uint64_t now_ns = monotonic_ns();
  const std::uint64_t rest_ns = until_ns > now_ns ? until_ns - now_ns : 0;
  const timespec rest = {.tv_sec = static_cast<time_t>(rest_ns / SECOND_NS),
                         .tv_nsec = static_cast<long>(rest_ns % SECOND_NS)};
  if (ppoll(waits.data(), fleet.size, &rest, &ppoll_mask) <= 0) return 0;
  std::size_t received = 0;
  for (unsigned i = 0; i < fleet.size; ++i) {
    if (waits[i].revents != 0) received += hear_batch(fleet.bots[i]);
  }
  return received;
}

static std::uint64_t act_all(std::uint64_t end_ns) {
  std::uint64_t next_ns = end_ns;
  for (unsigned i = 0; i < fleet.size; ++i) {
    Bot& bot = fleet.bots[i];
    const std::uint64_t now_ns = monotonic_ns();
    if (bot.due_ns <= now_ns) act(bot, now_ns);
    next_ns = std::min(next_ns, bot.due_ns);
  }
  return next_ns;
}

static bool nobody_answers(std::uint64_t start_ns, std::uint64_t now_ns) {
  return now_ns - start_ns > JOIN_TIMEOUT_NS && fleet.counters.joins + fleet.counters.refused == 0;
}

static void play(const Options& options, const sigset_t& ppoll_mask) {
  const std::uint64_t start_ns = monotonic_ns();
  const std::uint64_t end_ns = start_ns + options.seconds * SECOND_NS;
  std::uint64_t now_ns = start_ns;
  while (now_ns < end_ns && stop_requested == 0 && !fleet.server_stopped) {
    if (nobody_answers(start_ns, now_ns)) break;
    const std::uint64_t next_ns = act_all(end_ns);
    receive_until(next_ns, ppoll_mask);
    now_ns = monotonic_ns();
    show_progress(now_ns);
  }
}

// Receives until all that is required has come, or nothing comes any more. Waits a little longer in
// any case, for datagrams that should not come.
static void drain(const sigset_t& ppoll_mask) {
  const std::uint64_t start_ns = monotonic_ns();
  std::uint64_t last_received_ns = start_ns;
  for (std::uint64_t now_ns = start_ns; now_ns - start_ns < DRAIN_MAX_NS;) {
    if (receive_until(now_ns + DRAIN_MIN_NS, ppoll_mask) != 0) last_received_ns = monotonic_ns();
    now_ns = monotonic_ns();
    if (now_ns - last_received_ns > DRAIN_SILENCE_NS) return;
    if (outstanding() == 0 && now_ns - last_received_ns >= DRAIN_MIN_NS) return;
  }
}

static void leave_all() {
  for (unsigned i = 0; i < fleet.size; ++i) {
    if (fleet.bots[i].slot != NO_SLOT) leave(fleet.bots[i]);
  }
}

// The server may have stopped without handling what the bots sent last: nothing is required of
// that.
static void handle_shutdown(std::uint64_t ended_ns) {
  print_line("the server is shutting down");
  for (unsigned i = 0; i < fleet.size; ++i) make_optional(i, ended_ns - SHUTDOWN_WINDOW_NS);
}

// 0 where the kernel does not count them.
static std::uint64_t count_socket_drops() {
  std::uint64_t drops = 0;
  for (unsigned i = 0; i < fleet.size; ++i) {
    std::array<std::uint32_t, SK_MEMINFO_VARS> values{};
    socklen_t length = sizeof values;
    getsockopt(fleet.bots[i].socket, SOL_SOCKET, SO_MEMINFO, values.data(), &length);
    drops += values[SK_MEMINFO_DROPS];
  }
  return drops;
}

static void end_play(const sigset_t& ppoll_mask) {
  const std::uint64_t ended_ns = monotonic_ns();
  drain(ppoll_mask);
  if (fleet.server_stopped) {
    handle_shutdown(ended_ns);
  } else {
    leave_all();
    drain(ppoll_mask);
  }
  tally_remaining();
  count_unconfirmed_slots();
}

static bool all_was_well() {
  return relay_tally.lost + relay_tally.wrong + answer_tally.lost + answer_tally.wrong == 0;
}

int main(int count, char** arguments) {
  Options options;
  switch (parse_options(count, arguments, options)) {
    case ParseResult::HELP_SHOWN:
      return EXIT_SUCCESS;
    case ParseResult::BAD_ARGUMENTS:
      return 2;
    case ParseResult::RUN:
      break;
  }
  sigset_t ppoll_mask;
  catch_signals(ppoll_mask);
  if (!start_fleet(options)) return EXIT_FAILURE;

  const std::uint64_t start_ns = monotonic_ns();
  play(options, ppoll_mask);
  const double seconds = static_cast<double>(monotonic_ns() - start_ns) / 1e9;
  if (fleet.counters.joins == 0) {
    std::printf("zolbots: no bot could join %s: %s\n", options.server,
                fleet.counters.refused != 0 ? "the server is full" : "nobody answers");
    return EXIT_FAILURE;
  }
  end_play(ppoll_mask);
  show_table(options, seconds, count_socket_drops());
  return all_was_well() ? EXIT_SUCCESS : EXIT_FAILURE;
}
