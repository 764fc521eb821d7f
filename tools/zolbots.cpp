// Bots that play on a server and check all they hear: demo, soak test and load in one.

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

#include "tools/bot.h"
#include "tools/expectations.h"
#include "tools/options.h"
#include "tools/report.h"

static constexpr std::uint64_t SECOND_NS = 1'000'000'000;
static constexpr int SOCKET_BUFFER = 4 << 20;  // bytes, for bursts and while we are not scheduled
static constexpr unsigned BATCH = 32;          // datagrams taken off one socket at a time
static constexpr std::uint64_t JOIN_PATIENCE_NS = 3 * SECOND_NS;
static constexpr std::uint64_t STOP_GRACE_NS = SECOND_NS;  // for what the server leaves unhandled
static constexpr std::uint64_t DRAIN_MIN_NS = SECOND_NS / 5;
static constexpr std::uint64_t DRAIN_SILENCE_NS = SECOND_NS;
static constexpr std::uint64_t DRAIN_MAX_NS = 10 * SECOND_NS;

static constexpr const char* NAMES[MAX_BOTS] = {
    "Ada",     "Bruno", "Cleo",  "Dora",  "Emil", "Frida", "Gus",   "Hedy",
    "Ivo",     "Jette", "Kurt",  "Lola",  "Milo", "Nora",  "Otto",  "Pina",
    "Quinn",   "Rosa",  "Sven",  "Tilda", "Udo",  "Vera",  "Willi", "Xenia",
    "Yannick", "Zoe",   "Anton", "Berta", "Carl", "Dunja", "Egon",  "Fanny"};

static volatile std::sig_atomic_t stop_signal = 0;

static void on_signal(int signal) {
  stop_signal = signal;
}

// The signals are let in only while ppoll waits, so none is missed between test and wait.
static void catch_signals(sigset_t& while_waiting) {
  sigset_t blocked;
  sigemptyset(&blocked);
  for (const int signal : {SIGINT, SIGTERM}) {
    sigaddset(&blocked, signal);
    struct sigaction action {};
    action.sa_handler = on_signal;
    sigaction(signal, &action, nullptr);
  }
  sigprocmask(SIG_BLOCK, &blocked, &while_waiting);
  sigdelset(&while_waiting, SIGINT);
  sigdelset(&while_waiting, SIGTERM);
}

static int open_bot_socket(const sockaddr_in& server) {
  const int handle = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (handle == -1) return -1;
  if (setsockopt(handle, SOL_SOCKET, SO_RCVBUFFORCE, &SOCKET_BUFFER, sizeof SOCKET_BUFFER) == -1) {
    setsockopt(handle, SOL_SOCKET, SO_RCVBUF, &SOCKET_BUFFER, sizeof SOCKET_BUFFER);
  }
  if (connect(handle, reinterpret_cast<const sockaddr*>(&server), sizeof server) == -1) return -1;
  return handle;
}

static bool make_fleet(const Options& options) {
  fleet.size = options.players;
  fleet.ordered_road = ntohl(options.address.sin_addr.s_addr) >> 24U == 127;
  fleet.mark = static_cast<std::uint16_t>(getpid());
  fleet.step_ns = SECOND_NS / options.rate;
  const std::uint64_t start_ns = monotonic_ns();
  for (unsigned i = 0; i < fleet.size; ++i) {
    Bot& bot = fleet.bots[i];
    bot.number = static_cast<std::uint8_t>(i);
    bot.random = std::uint64_t{options.seed} << 8U | i;
    bot.due_ns = start_ns + fleet.step_ns * i / fleet.size;
    std::snprintf(bot.name.data(), bot.name.size(), "%s-%u", NAMES[i], unsigned{fleet.mark});
    bot.socket = open_bot_socket(options.address);
    if (bot.socket == -1) {
      std::perror("zolbots: cannot open a socket to the server");
      return false;
    }
  }
  return true;
}

// One batch, so that no socket keeps the others waiting. Returns the number of datagrams.
static unsigned hear_batch(Bot& bot) {
  static std::array<std::array<std::uint8_t, RECEIVE_BUFFER_SIZE>, BATCH> buffers;
  static std::array<mmsghdr, BATCH> messages;
  static std::array<iovec, BATCH> vectors;
  for (unsigned i = 0; i < BATCH; ++i) {
    vectors[i] = {buffers[i].data(), buffers[i].size()};
    messages[i] = {};
    messages[i].msg_hdr.msg_iov = &vectors[i];
    messages[i].msg_hdr.msg_iovlen = 1;
  }
  const int received = recvmmsg(bot.socket, messages.data(), BATCH, MSG_DONTWAIT, nullptr);
  const std::uint64_t now_ns = monotonic_ns();
  for (int i = 0; i < received; ++i) {
    const auto index = static_cast<unsigned>(i);
    hear(bot, Bytes(buffers[index]).first(messages[index].msg_len), now_ns);
  }
  return static_cast<unsigned>(std::max(received, 0));
}

// Waits for datagrams until the given time at most, and hears what has come.
static unsigned hear_until(std::uint64_t until_ns, const sigset_t& while_waiting) {
  std::array<pollfd, MAX_BOTS> waits;
  for (unsigned i = 0; i < fleet.size; ++i) {
    waits[i] = {.fd = fleet.bots[i].socket, .events = POLLIN, .revents = 0};
  }
  const std::uint64_t now_ns = monotonic_ns();
  const std::uint64_t rest_ns = until_ns > now_ns ? until_ns - now_ns : 0;
  const timespec rest = {.tv_sec = static_cast<time_t>(rest_ns / SECOND_NS),
                         .tv_nsec = static_cast<long>(rest_ns % SECOND_NS)};
  if (ppoll(waits.data(), fleet.size, &rest, &while_waiting) <= 0) return 0;
  unsigned heard = 0;
  for (unsigned i = 0; i < fleet.size; ++i) {
    if (waits[i].revents != 0) heard += hear_batch(fleet.bots[i]);
  }
  return heard;
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
  return now_ns - start_ns > JOIN_PATIENCE_NS && fleet.counters.joins + fleet.counters.refused == 0;
}

static void play(const Options& options, const sigset_t& while_waiting) {
  const std::uint64_t start_ns = monotonic_ns();
  const std::uint64_t end_ns = start_ns + options.seconds * SECOND_NS;
  std::uint64_t now_ns = start_ns;
  while (now_ns < end_ns && stop_signal == 0 && !fleet.server_stopped) {
    if (nobody_answers(start_ns, now_ns)) break;
    const std::uint64_t next_ns = act_all(end_ns);
    hear_until(next_ns, while_waiting);
    now_ns = monotonic_ns();
    show_progress(now_ns);
  }
}

// Hears what is in flight: until all that is due has come, or nothing comes any more. A little
// longer in any case, for what is not due.
static void drain(const sigset_t& while_waiting) {
  const std::uint64_t start_ns = monotonic_ns();
  std::uint64_t heard_ns = start_ns;
  for (std::uint64_t now_ns = start_ns; now_ns - start_ns < DRAIN_MAX_NS;) {
    if (hear_until(now_ns + DRAIN_MIN_NS, while_waiting) != 0) heard_ns = monotonic_ns();
    now_ns = monotonic_ns();
    if (now_ns - heard_ns > DRAIN_SILENCE_NS) return;
    if (outstanding() == 0 && now_ns - heard_ns >= DRAIN_MIN_NS) return;
  }
}

static void leave_all() {
  for (unsigned i = 0; i < fleet.size; ++i) {
    if (fleet.bots[i].slot != NO_SLOT) leave(fleet.bots[i]);
  }
}

// What the server had no time to handle is not lost.
static void be_told_of_stop(std::uint64_t ended_ns) {
  print_line("the server is shutting down");
  for (unsigned i = 0; i < fleet.size; ++i) excuse(i, ended_ns - STOP_GRACE_NS);
}

// 0 where the kernel does not tell.
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

static void end_play(const sigset_t& while_waiting) {
  const std::uint64_t ended_ns = monotonic_ns();
  drain(while_waiting);
  if (fleet.server_stopped) {
    be_told_of_stop(ended_ns);
  } else {
    leave_all();
    drain(while_waiting);
  }
  settle_expectations();
  settle_presumed_slots();
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
  sigset_t while_waiting;
  catch_signals(while_waiting);
  if (!make_fleet(options)) return EXIT_FAILURE;

  const std::uint64_t start_ns = monotonic_ns();
  play(options, while_waiting);
  const double seconds = static_cast<double>(monotonic_ns() - start_ns) / 1e9;
  if (fleet.counters.joins == 0) {
    std::printf("zolbots: no bot could join %s: %s\n", options.server,
                fleet.counters.refused != 0 ? "the server is full" : "nobody answers");
    return EXIT_FAILURE;
  }
  end_play(while_waiting);
  show_table(options, seconds, count_socket_drops());
  return all_was_well() ? EXIT_SUCCESS : EXIT_FAILURE;
}
