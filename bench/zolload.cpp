// Drives the server, or a floor, with players on loopback and prints one line of JSON a
// measurement. The process that is measured is read through /proc and, for bursts, stopped and
// continued; nothing else is done to it.
//
// Times are in nanoseconds unless a name says otherwise. relays counts datagrams that other players
// got of the updates that were sent; lost is what is missing of them, answers included.

#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "bench/crowd.h"

static constexpr std::int64_t SECOND_NS = 1'000'000'000;
static constexpr std::int64_t MILLISECOND_NS = 1'000'000;

// A running task's account is brought up to date when it leaves the processor: before it is read,
// the target gets time to go back to its wait.
static constexpr std::int64_t SETTLE_NS = 20 * MILLISECOND_NS;

static std::string read_small_file(const std::string& path) {
  std::string text(1024, '\0');
  std::FILE* file = std::fopen(path.c_str(), "r");
  if (file == nullptr) return {};
  text.resize(std::fread(text.data(), 1, text.size(), file));
  std::fclose(file);
  return text;
}

// What the scheduler has booked to the threads of a process.
struct ProcessorTime {
  std::int64_t used_ns = 0;
  std::int64_t waited_ns = 0;  // for the core, while others had it

  ProcessorTime operator-(const ProcessorTime& since) const {
    return {used_ns - since.used_ns, waited_ns - since.waited_ns};
  }
};

static void add_task(ProcessorTime& sum, const std::string& task) {
  const std::string schedstat = read_small_file(task + "/schedstat");
  char* waited = nullptr;
  sum.used_ns += std::strtoll(schedstat.c_str(), &waited, 10);
  sum.waited_ns += std::strtoll(waited, nullptr, 10);
  if (*waited != '\0') return;
  std::fprintf(stderr, "zolload: cannot read %s/schedstat\n", task.c_str());
  std::exit(EXIT_FAILURE);
}

static ProcessorTime processor_time(pid_t pid) {
  sleep_until(now_ns() + SETTLE_NS);
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  ProcessorTime sum;
  DIR* directory = opendir(tasks.c_str());
  while (directory != nullptr) {
    const dirent* entry = readdir(directory);
    if (entry == nullptr) break;
    if (entry->d_name[0] != '.') add_task(sum, tasks + "/" + entry->d_name);
  }
  if (directory != nullptr) closedir(directory);
  return sum;
}

static std::uint64_t relays_per_update(const Crowd& crowd, const Exchange& exchange) {
  return crowd.size - 1 + exchange.answers;
}

struct Account {
  const char* name;
  const Exchange* exchange;
  std::uint64_t updates = 0;
  ProcessorTime processor{};
  std::int64_t elapsed_ns = 0;
};

static void print_account(const Account& account, const Crowd& crowd) {
  const Tally& tally = crowd.tally;
  const std::uint64_t expected = account.updates * relays_per_update(crowd, *account.exchange);
  const std::uint64_t arrived = tally.relays + tally.answers;
  std::printf("{\"measure\":\"%s\",\"command\":%d,\"players\":%u,\"updates\":%" PRIu64
              ",\"relays\":%" PRIu64 ",\"answers\":%" PRIu64 ",\"lost\":%" PRId64
              ",\"wrong\":%" PRIu64 ",\"cpu_ns\":%" PRId64 ",\"waited_ns\":%" PRId64
              ",\"elapsed_ns\":%" PRId64 "}\n",
              account.name, account.exchange->command, crowd.size, account.updates, tally.relays,
              tally.answers, static_cast<std::int64_t>(expected - arrived), tally.wrong,
              account.processor.used_ns, account.processor.waited_ns, account.elapsed_ns);
}

// CMD_STATE_FLOATS is measured of players who have died.
static bool prepare_players(Crowd& crowd, std::uint8_t command) {
  if (command != CMD_STATE_FLOATS) return true;
  const Exchange& death = *find_exchange(CMD_DIED);
  crowd.tally = {};
  for (unsigned i = 0; i < crowd.size; ++i) send_update(crowd, CMD_DIED);
  return collect_until(crowd, death, crowd.size * relays_per_update(crowd, death));
}

// One update at a time, evenly spaced: players who know nothing of each other.
static bool measure_paced(Crowd& crowd, const Exchange& exchange, std::int64_t rate,
                          std::int64_t duration_ms) {
  Account account{.name = "paced", .exchange = &exchange};
  const std::uint64_t per_update = relays_per_update(crowd, exchange);
  const std::int64_t total = rate * duration_ms / 1000;
  const ProcessorTime before = processor_time(crowd.target_pid);
  const std::int64_t start = now_ns();
  bool complete = true;
  for (std::int64_t i = 0; i < total && complete; ++i) {
    sleep_until(start + i * SECOND_NS / rate);
    complete = send_update(crowd, exchange.command) &&
               collect_until(crowd, exchange, ++account.updates * per_update);
  }
  account.elapsed_ns = now_ns() - start;
  account.processor = processor_time(crowd.target_pid) - before;
  print_account(account, crowd);
  return true;
}

// As fast as it goes with this many updates under way: the target never runs out of work, and its
// receive buffer never runs over.
static bool measure_full(Crowd& crowd, const Exchange& exchange, std::int64_t window,
                         std::int64_t duration_ms) {
  Account account{.name = "full", .exchange = &exchange};
  const std::uint64_t per_update = relays_per_update(crowd, exchange);
  const auto ahead = static_cast<std::uint64_t>(window);
  const ProcessorTime before = processor_time(crowd.target_pid);
  const std::int64_t start = now_ns();
  bool complete = true;
  while (complete && now_ns() < start + duration_ms * MILLISECOND_NS) {
    complete = send_update(crowd, exchange.command);
    ++account.updates;
    if (account.updates > ahead) {
      complete = complete && collect_until(crowd, exchange, (account.updates - ahead) * per_update);
    }
  }
  collect_until(crowd, exchange, account.updates * per_update);
  account.elapsed_ns = now_ns() - start;
  account.processor = processor_time(crowd.target_pid) - before;
  print_account(account, crowd);
  return true;
}

// The state letter of proc(5) stat, behind the name in parentheses.
static bool is_stopped(pid_t pid) {
  const std::string stat = read_small_file("/proc/" + std::to_string(pid) + "/stat");
  const std::size_t name_end = stat.rfind(')');
  if (name_end == std::string::npos || name_end + 2 >= stat.size()) return false;
  return stat[name_end + 2] == 'T' || stat[name_end + 2] == 't';
}

static bool stop_target(pid_t pid) {
  if (kill(pid, SIGSTOP) == -1) return false;
  const std::int64_t limit = now_ns() + SECOND_NS;
  while (!is_stopped(pid)) {
    if (now_ns() > limit) return false;
    sleep_until(now_ns() + MILLISECOND_NS);
  }
  return true;
}

// All updates of a burst wait in the target's receive buffer before it handles the first: what it
// then does is the same however the two processes are scheduled.
static bool measure_burst(Crowd& crowd, const Exchange& exchange, std::int64_t length,
                          std::int64_t repeats) {
  Account account{.name = "burst", .exchange = &exchange};
  const std::int64_t start = now_ns();
  bool complete = true;
  for (std::int64_t burst = 0; burst < repeats && complete; ++burst) {
    // A stop that comes while the target still drains would find it amid the burst before.
    sleep_until(now_ns() + SETTLE_NS);
    if (!stop_target(crowd.target_pid)) return false;
    for (std::int64_t i = 0; i < length; ++i) {
      if (!send_update(crowd, exchange.command)) complete = false;
      ++account.updates;
    }
    if (kill(crowd.target_pid, SIGCONT) == -1) return false;
    const std::uint64_t expected = account.updates * relays_per_update(crowd, exchange);
    complete = collect_until(crowd, exchange, expected) && complete;
  }
  account.elapsed_ns = now_ns() - start;
  print_account(account, crowd);
  return true;
}

static double percentile_us(const std::vector<std::int64_t>& sorted, std::size_t percent) {
  return static_cast<double>(sorted[(sorted.size() - 1) * percent / 100]) / 1000.0;
}

// One update, until the last of the others has it. The pauses differ, so that they cannot fall in
// step with a target that sleeps by the clock.
static bool measure_delay(Crowd& crowd, const Exchange& exchange, std::int64_t count,
                          std::int64_t pause_us) {
  std::vector<std::int64_t> delays;
  std::uint32_t lottery = 1;
  for (std::int64_t i = 0; i < count; ++i) {
    lottery = lottery * 1664525U + 1013904223U;
    sleep_until(now_ns() + pause_us * 1000 + (lottery >> 16U) * pause_us / 65);
    const std::int64_t sent = now_ns();
    if (!send_update(crowd, exchange.command) || !await_last_update(crowd)) break;
    delays.push_back(now_ns() - sent);
  }
  std::sort(delays.begin(), delays.end());
  if (delays.empty()) return false;
  std::printf(
      "{\"measure\":\"delay\",\"players\":%u,\"updates\":%zu,\"lost\":%zu,"
      "\"wrong\":%" PRIu64 ",\"p50_us\":%.2f,\"p99_us\":%.2f}\n",
      crowd.size, delays.size(), static_cast<std::size_t>(count) - delays.size(), crowd.tally.wrong,
      percentile_us(delays, 50), percentile_us(delays, 99));
  return true;
}

static bool measure_idle(Crowd& crowd, const Exchange& /*exchange*/, std::int64_t duration_ms,
                         std::int64_t /*unused*/) {
  const ProcessorTime before = processor_time(crowd.target_pid);
  const std::int64_t start = now_ns();
  answer_pings_until(crowd, start + duration_ms * MILLISECOND_NS);
  const std::int64_t elapsed = now_ns() - start;
  std::printf("{\"measure\":\"idle\",\"players\":%u,\"pings\":%" PRIu64 ",\"wrong\":%" PRIu64
              ",\"cpu_ns\":%" PRId64 ",\"elapsed_ns\":%" PRId64 "}\n",
              crowd.size, crowd.tally.pings, crowd.tally.wrong,
              (processor_time(crowd.target_pid) - before).used_ns, elapsed);
  return true;
}

struct Measurement {
  std::string_view name;
  bool (*run)(Crowd& crowd, const Exchange& exchange, std::int64_t first, std::int64_t second);
};

static constexpr Measurement MEASUREMENTS[] = {
    {"paced", measure_paced}, {"full", measure_full}, {"burst", measure_burst},
    {"delay", measure_delay}, {"idle", measure_idle},
};

// NAME:COMMAND:FIRST:SECOND, the numbers positive.
static bool run_measurement(Crowd& crowd, std::string_view text) {
  std::array<std::int64_t, 3> numbers{};
  const std::string_view name = text.substr(0, text.find(':'));
  const char* at = text.data() + name.size();
  const char* end = text.data() + text.size();
  for (std::int64_t& number : numbers) {
    if (at == end || *at != ':') return false;
    at = std::from_chars(at + 1, end, number).ptr;
    if (number <= 0) return false;
  }
  const Exchange* exchange = find_exchange(static_cast<std::uint8_t>(numbers[0]));
  if (at != end || exchange == nullptr) return false;
  for (const Measurement& measurement : MEASUREMENTS) {
    if (measurement.name != name) continue;
    if (!prepare_players(crowd, exchange->command)) return false;
    crowd.tally = {};
    return measurement.run(crowd, *exchange, numbers[1], numbers[2]);
  }
  return false;
}

static int show_usage() {
  std::fputs(
      "usage: zolload server|floor PORT PID PLAYERS(2..32) MEASUREMENT...\n"
      "  paced:COMMAND:RATE:MS      updates a second, evenly spaced\n"
      "  full:COMMAND:WINDOW:MS     as fast as it goes, this many updates under way\n"
      "  burst:COMMAND:COUNT:TIMES  updates that all wait before the first is handled\n"
      "  delay:100:COUNT:PAUSE_US   lone updates, until the last player has it\n"
      "  idle:100:MS:1              nobody sends; pings are answered\n",
      stderr);
  return EXIT_FAILURE;
}

int main(int count, char** arguments) {
  if (count < 6) return show_usage();
  const bool is_server = std::strcmp(arguments[1], "server") == 0;
  if (!is_server && std::strcmp(arguments[1], "floor") != 0) return show_usage();
  const int port = std::atoi(arguments[2]);
  const int players = std::atoi(arguments[4]);
  if (port <= 0 || port > UINT16_MAX || players < 2 || players > static_cast<int>(MAX_PLAYERS)) {
    return show_usage();
  }
  static Crowd crowd;
  crowd.target_pid = std::atoi(arguments[3]);
  if (crowd.target_pid <= 0) return show_usage();
  const Target target = is_server ? Target::SERVER : Target::FLOOR;
  if (!join_crowd(crowd, target, static_cast<std::uint16_t>(port),
                  static_cast<unsigned>(players))) {
    return EXIT_FAILURE;
  }
  for (int i = 5; i < count; ++i) {
    if (!run_measurement(crowd, arguments[i])) {
      std::fprintf(stderr, "zolload: failed: %s\n", arguments[i]);
      return EXIT_FAILURE;
    }
    std::fflush(stdout);
  }
  return EXIT_SUCCESS;
}
