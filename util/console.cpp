#include "util/console.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string_view>

namespace {

// A token bucket limits the waits for a full console to 1 second in a row, and then to 1 percent of
// the time: each millisecond of waiting is available again 100 ms later.
constexpr std::int64_t WAIT_BUDGET_US = 1'000'000;
constexpr std::int64_t WAIT_STEP_US = 10'000;  // one wait
constexpr std::int64_t REFILL_FACTOR = 100;

using Line = std::array<char, 512>;

// How a write to standard output avoids blocking: not at all, by MSG_DONTWAIT, or by a timer.
enum class ConsoleKind { NEVER_BLOCKS, SOCKET, MAY_BLOCK };
constinit ConsoleKind console_kind = ConsoleKind::NEVER_BLOCKS;

// The time at which the budget is full again, in microseconds of CLOCK_MONOTONIC.
constinit std::atomic<std::int64_t> budget_full_at_us = 0;
constinit std::atomic<unsigned> missing_lines = 0;
constinit std::atomic<bool> is_line_cut = false;  // only the start of a line was written

std::int64_t monotonic_us() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1'000;
}

bool has_wait_budget() {
  return budget_full_at_us - monotonic_us() <= (WAIT_BUDGET_US - WAIT_STEP_US) * REFILL_FACTOR;
}

// Two threads that wait at once may be charged for one wait. The cap is for a suspended process.
void charge_wait(std::int64_t since_us) {
  const std::int64_t now_us = monotonic_us();
  const std::int64_t waited_us = std::min(now_us - since_us, WAIT_BUDGET_US);
  budget_full_at_us = std::max(budget_full_at_us.load(), now_us) + waited_us * REFILL_FACTOR;
}

// A timer interrupts a blocked write after each step, with a signal to this thread only. The timer
// repeats, because its first signal may arrive before the write begins.
ssize_t write_interruptibly(std::string_view text) {
  if (!has_wait_budget()) return errno = EAGAIN, -1;
  sigevent event{};
  event.sigev_notify = SIGEV_THREAD_ID;
  event.sigev_signo = SIGALRM;
  event._sigev_un._tid = gettid();
  timer_t timer{};
  if (timer_create(CLOCK_MONOTONIC, &event, &timer) == -1) return -1;
  constexpr timespec STEP{.tv_sec = 0, .tv_nsec = WAIT_STEP_US * 1'000};
  constexpr itimerspec STEPS{.it_interval = STEP, .it_value = STEP};
  const std::int64_t start_us = monotonic_us();
  timer_settime(timer, 0, &STEPS, nullptr);
  const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
  timer_delete(timer);
  charge_wait(start_us);
  return written;
}

ssize_t write_some(std::string_view text) {
  if (console_kind == ConsoleKind::MAY_BLOCK) return write_interruptibly(text);
  if (console_kind == ConsoleKind::SOCKET) {
    return send(STDOUT_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  }
  return write(STDOUT_FILENO, text.data(), text.size());
}

// After a write that failed: whether to try again.
bool wait_for_room() {
  if (errno == EINTR) return true;
  if (errno != EAGAIN || !has_wait_budget()) return false;
  const std::int64_t start_us = monotonic_us();
  // Waits for no event: a pipe counts as writable only when it has room for a whole page.
  poll(nullptr, 0, WAIT_STEP_US / 1'000);
  charge_wait(start_us);
  return true;
}

// False when the console did not take all of the text.
bool write_all(std::string_view text) {
  const std::size_t length = text.size();
  while (!text.empty()) {
    const ssize_t written = write_some(text);
    if (written > 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (written == 0 || !wait_for_room()) {
      if (text.size() < length) is_line_cut = true;
      return false;
    }
  }
  return true;
}

// Prints the number of dropped lines, on a separate line. False when the console has no room.
bool print_missing() {
  const unsigned missing = missing_lines.exchange(0);
  if (missing == 0) return true;
  const bool was_line_cut = is_line_cut.exchange(false);
  Line line;
  std::snprintf(line.data(), line.size(), "%s%u lines are missing here\n", was_line_cut ? "\n" : "",
                missing);
  if (write_all(line.data())) return true;
  missing_lines += missing;
  if (was_line_cut) is_line_cut = true;
  return false;
}

// O_NONBLOCK belongs to the open file description, which other processes share, so standard output
// is opened again. Another user's file cannot be opened, unless it is the controlling terminal.
// Returns the new descriptor, or -1.
int reopen_stdout() {
  constexpr int FLAGS = O_WRONLY | O_NONBLOCK | O_NOCTTY;
  const int handle = open("/proc/self/fd/1", FLAGS);
  if (handle != -1 || tcgetsid(STDOUT_FILENO) != getsid(0)) return handle;
  return open("/dev/tty", FLAGS);
}

// The handler does nothing. Without SA_RESTART, the signal ends a write with EINTR.
void install_timer_signal_handler() {
  struct sigaction action = {};
  action.sa_handler = [](int /*signal*/) {};
  sigemptyset(&action.sa_mask);
  sigaction(SIGALRM, &action, nullptr);
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGALRM);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

ConsoleKind prepare_standard_output() {
  struct stat status = {};
  if (fstat(STDOUT_FILENO, &status) == -1) return ConsoleKind::NEVER_BLOCKS;
  if (S_ISSOCK(status.st_mode)) return ConsoleKind::SOCKET;
  if (!S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)) return ConsoleKind::NEVER_BLOCKS;
  const int handle = reopen_stdout();
  if (handle == -1) {
    install_timer_signal_handler();
    return ConsoleKind::MAY_BLOCK;
  }
  dup2(handle, STDOUT_FILENO);
  close(handle);
  return ConsoleKind::NEVER_BLOCKS;
}

}  // namespace

void console_start() {
  int handle = open("/dev/null", O_RDWR);
  while (handle != -1 && handle <= STDERR_FILENO) handle = open("/dev/null", O_RDWR);
  if (handle != -1) close(handle);
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  console_kind = prepare_standard_output();
}

void console_print(const char* format, ...) {
  Line line{};
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line.data(), line.size(), format, arguments);
  va_end(arguments);
  if (!print_missing() || !write_all(line.data())) ++missing_lines;
}
