#include "bots/report.h"

#include <unistd.h>

#include <bit>
#include <cinttypes>
#include <cstdio>

static constexpr unsigned MAX_WRONG_SHOWN = 10;
static constexpr std::uint64_t TERMINAL_PERIOD_NS = 500'000'000;
static constexpr std::uint64_t PLAIN_PERIOD_NS = 10'000'000'000;

static const bool ON_TERMINAL = isatty(STDOUT_FILENO) == 1;

static unsigned wrong_shown;
static std::uint64_t last_progress_ns;
static bool on_progress_line;  // the terminal's cursor is at the end of a progress line

static void end_progress_line() {
  if (on_progress_line) std::printf("\n");
  on_progress_line = false;
}

void print_line(const char* text) {
  end_progress_line();
  std::printf("%s\n", text);
}

static void print_bytes(const char* title, Datagram bytes) {
  std::printf("    %-10s", title);
  for (const std::uint8_t byte : bytes) std::printf("%02x", byte);
  std::printf("\n");
}

void report_wrong(const Bot& bot, Datagram datagram, Tally& tally, const char* reason,
                  const Expectation* due) {
  ++tally.wrong;
  if (wrong_shown == MAX_WRONG_SHOWN) return;
  ++wrong_shown;
  end_progress_line();
  std::printf("wrong: %zu bytes to %s (slot %d): %s\n", datagram.size(), bot.name.data(),
              bot.slot == NO_SLOT ? -1 : bot.slot, reason);
  print_bytes("received", datagram);
  if (due == nullptr) {
    std::printf("    no datagram was expected\n");
  } else {
    print_bytes("expected", Datagram(due->bytes).first(due->size));
  }
}

static double in_ms(std::uint64_t ns) {
  return static_cast<double>(ns) / 1e6;
}

static unsigned players_in_game() {
  unsigned count = 0;
  for (const Bot& bot : fleet.bots) count += bot.stage == Stage::PLAYING ? 1 : 0;
  return count;
}

void show_progress(std::uint64_t now_ns) {
  if (last_progress_ns == 0) last_progress_ns = now_ns;
  const std::uint64_t passed = now_ns - last_progress_ns;
  if (passed < (ON_TERMINAL ? TERMINAL_PERIOD_NS : PLAIN_PERIOD_NS)) return;
  last_progress_ns = now_ns;
  const Histogram& delays = fleet.recent_delays;
  const double rate = static_cast<double>(delays.total) * 1e9 / static_cast<double>(passed);
  std::printf("%s%2u in the game  %7.0f relays/s  delay p50 %.2f ms  p99 %.2f ms  wrong %" PRIu64
              "%s",
              ON_TERMINAL ? "\r" : "", players_in_game(), rate,
              in_ms(histogram_percentile(delays, 50)), in_ms(histogram_percentile(delays, 99)),
              relay_tally.wrong + answer_tally.wrong, ON_TERMINAL ? "\x1b[K" : "\n");
  std::fflush(stdout);
  on_progress_line = ON_TERMINAL;
  fleet.recent_delays = {};
}

static void show_tally(const char* title, const Tally& tally) {
  std::printf("%-8s %12" PRIu64 " %12" PRIu64 " %10" PRIu64 " %10" PRIu64 "\n", title,
              tally.expected, tally.received, tally.lost, tally.wrong);
}

static void show_count(std::uint64_t count, const char* text) {
  if (count != 0) std::printf("%" PRIu64 " %s\n", count, text);
}

static void show_others() {
  const int others = std::popcount(fleet.other_slots);
  if (others != 0) {
    std::printf("%d other player%s watched or played\n", others, others == 1 ? "" : "s");
  } else {
    show_count(
        fleet.counters.not_judged,
        "unexpected datagrams, not judged: other players may have caused them (see --alone)");
  }
}

// Prints a line for each kind of event that is not in the table.
static void show_events(std::uint64_t socket_drops) {
  const Counters& counters = fleet.counters;
  show_count(counters.refused, "joins refused, the server was full");
  show_others();
  show_count(counters.skipped, "position updates skipped: the bots were too slow, not the server");
  show_count(socket_drops, "datagrams dropped at the bots' own sockets: the bots were too slow");
  show_count(counters.send_failures, "datagrams could not be sent");
  if (relay_tally.lost + answer_tally.lost != 0) {
    std::printf(
        "if a bot's own update was lost, later datagrams about that bot may be wrong too\n");
  }
}

void show_table(const Options& options, double seconds, std::uint64_t socket_drops) {
  end_progress_line();
  const Counters& counters = fleet.counters;
  std::printf("\n%u players at %u Hz on %s for %.1f s, seed %u\n", options.players, options.rate,
              options.server, seconds, options.seed);
  std::printf("%" PRIu64 " joins, %" PRIu64 " datagrams sent, %" PRIu64
              " of them position updates\n\n",
              counters.joins, counters.sent, counters.positions);
  std::printf("%-8s %12s %12s %10s %10s\n", "", "expected", "received", "lost", "wrong");
  show_tally("relays", relay_tally);
  show_tally("answers", answer_tally);
  const Histogram& delays = fleet.delays;
  std::printf("\ndelay of a relay: p50 %.3f ms, p99 %.3f ms, max %.3f ms\n",
              in_ms(histogram_percentile(delays, 50)), in_ms(histogram_percentile(delays, 99)),
              in_ms(delays.max_ns));
  show_events(socket_drops);
}
