// Bots that play on a server and check every datagram from it: demo, soak test and load generator.

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
#include "client/stop_signals.h"

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

static int stop_signals = -1;
static bool stop_requested = false;

static bool start_fleet(const Options& options) {
  fleet.size = options.players;
  fleet.alone = options.alone;
  fleet.in_order_delivery = ntohl(options.address.sin_addr.s_addr) >> 24U == 127;
  fleet.process_tag = static_cast<std::uint16_t>(getpid());
  fleet.step_ns = SECOND_NS / options.rate;
  const std::uint64_t start_ns = monotonic_ns();
  for (unsigned i = 0; i < fleet.size; ++i) {
    Bot& bot = fleet.bots[i];
    bot.number = static_cast<std::uint8_t>(i);
    bot.rng = std::uint64_t{options.seed} << 8U | i;
    bot.due_ns = start_ns + fleet.step_ns * i / fleet.size;
    std::snprintf(bot.name.data(), bot.name.size(), "%s", NAMES[i]);
    bot.socket = open_client_socket(options.address);
    if (bot.socket == -1) {
      std::fprintf(stderr, "zolbots: cannot open a socket to %s: %s\n", options.server,
                   std::strerror(errno));
      return false;
    }
  }
  return true;
}

// Handles one batch, so that no socket delays the others.
static void handle_batch(Bot& bot) {
  static Batch batch;
  receive_batch(bot.socket, batch);
  const std::uint64_t now_ns = monotonic_ns();
  for (std::size_t i = 0; i < batch.count; ++i) handle_datagram(bot, batch.datagrams[i], now_ns);
}

// Waits for datagrams and signals, at most until the given time.
static void receive_until(std::uint64_t until_ns) {
  std::array<pollfd, MAX_BOTS + 1> waits;
  for (unsigned i = 0; i < fleet.size; ++i) {
    waits[i] = {.fd = fleet.bots[i].socket, .events = POLLIN, .revents = 0};
  }
  pollfd& signal_wait = waits[fleet.size];
  signal_wait = {.fd = stop_signals, .events = POLLIN, .revents = 0};
  const std::uint64_t now_ns = monotonic_ns();
  const std::uint64_t remaining_ns = until_ns > now_ns ? until_ns - now_ns : 0;
  const timespec timeout = {.tv_sec = static_cast<time_t>(remaining_ns / SECOND_NS),
                            .tv_nsec = static_cast<long>(remaining_ns % SECOND_NS)};
  if (ppoll(waits.data(), fleet.size + 1, &timeout, nullptr) <= 0) return;
  if (signal_wait.revents != 0) stop_requested = take_stop_signal(stop_signals) != 0;
  for (unsigned i = 0; i < fleet.size; ++i) {
    if (waits[i].revents != 0) handle_batch(fleet.bots[i]);
  }
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

static bool is_server_silent(std::uint64_t start_ns, std::uint64_t now_ns) {
  return now_ns - start_ns > JOIN_TIMEOUT_NS && fleet.counters.joins + fleet.counters.refused == 0;
}

static void play(const Options& options) {
  const std::uint64_t start_ns = monotonic_ns();
  const std::uint64_t end_ns = start_ns + options.seconds * SECOND_NS;
  std::uint64_t now_ns = start_ns;
  while (now_ns < end_ns && !stop_requested && !fleet.server_stopped) {
    if (is_server_silent(start_ns, now_ns)) break;
    const std::uint64_t next_ns = act_all(end_ns);
    receive_until(next_ns);
    now_ns = monotonic_ns();
    show_progress(now_ns);
  }
}

// Receives until all required datagrams have arrived, except for already_lost of them, or until no
// more of them arrive. Other datagrams do not prolong this, because they may never end. Waits a
// little longer in any case, to detect datagrams that should not arrive.
static void drain(std::uint64_t already_lost) {
  const std::uint64_t start_ns = monotonic_ns();
  std::uint64_t missing = outstanding();
  std::uint64_t last_wanted_ns = start_ns;
  for (std::uint64_t now_ns = start_ns; now_ns - start_ns < DRAIN_MAX_NS;) {
    receive_until(now_ns + DRAIN_MIN_NS);
    now_ns = monotonic_ns();
    if (outstanding() != missing) last_wanted_ns = now_ns;
    missing = outstanding();
    const bool is_complete = missing <= already_lost;
    if (now_ns - last_wanted_ns >= (is_complete ? DRAIN_MIN_NS : DRAIN_SILENCE_NS)) return;
  }
}

// A bot without a slot also leaves, because the answer to its join may be lost.
static void leave_all() {
  for (unsigned i = 0; i < fleet.size; ++i) {
    Bot& bot = fleet.bots[i];
    bot.slot != NO_SLOT ? leave(bot) : send_bytes(bot, ClientCommand::CMD_PLAYER_LEFT);
  }
}

// The server may have stopped before it handled the bots' last datagrams, so the datagrams that
// these would cause are optional.
static void handle_shutdown(std::uint64_t ended_ns) {
  print_line("the server is shutting down");
  for (unsigned i = 0; i < fleet.size; ++i) make_optional(i, ended_ns - SHUTDOWN_WINDOW_NS);
}

// The result is 0 if the kernel does not count drops.
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

static void end_play() {
  const std::uint64_t ended_ns = monotonic_ns();
  drain(0);
  if (fleet.server_stopped) {
    handle_shutdown(ended_ns);
  } else {
    const std::uint64_t already_lost = outstanding();
    leave_all();
    drain(already_lost);
  }
  tally_remaining();
}

static bool has_no_faults() {
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
  stop_signals = open_stop_signals({SIGINT, SIGTERM});
  if (stop_signals == -1) {
    std::perror("zolbots: cannot receive signals");
    return EXIT_FAILURE;
  }
  if (!start_fleet(options)) return EXIT_FAILURE;

  const std::uint64_t start_ns = monotonic_ns();
  play(options);
  const double seconds = static_cast<double>(monotonic_ns() - start_ns) / 1e9;
  if (fleet.counters.joins == 0) {
    leave_all();
    std::printf("zolbots: no bot could join %s: %s\n", options.server,
                fleet.counters.refused != 0
                    ? "the server is full; wait for a free slot"
                    : "no server answers; check the address, and that the server runs");
    return EXIT_FAILURE;
  }
  end_play();
  show_table(options, seconds, count_socket_drops());
  return has_no_faults() ? EXIT_SUCCESS : EXIT_FAILURE;
}
