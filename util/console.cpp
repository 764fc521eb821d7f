#include "util/console.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <string_view>

namespace {

constexpr int PATIENCE_MS = 1000;
constexpr int WAIT_MS = 10;

using Line = std::array<char, 512>;

// What a write to standard output needs so that it cannot block.
enum class ConsoleKind { NEVER_BLOCKS, SOCKET, MAY_BLOCK };
constinit ConsoleKind console_kind = ConsoleKind::NEVER_BLOCKS;

// How long the console is still waited for. Waits use it up, and each line that leaves at once
// gives a little back: a reader that takes a line now and then cannot hold up the game for ever.
constinit std::atomic<int> patience_ms = PATIENCE_MS;
constinit std::atomic<unsigned> missing_lines = 0;

ssize_t write_some(std::string_view text) {
  if (console_kind == ConsoleKind::SOCKET) {
    return send(STDOUT_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  }
  pollfd console{.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
  if (console_kind == ConsoleKind::MAY_BLOCK && poll(&console, 1, 0) == 0)
    return errno = EAGAIN, -1;
  return write(STDOUT_FILENO, text.data(), text.size());
}

// False when the console did not take all of it.
bool write_all(std::string_view text) {
  bool waited = false;
  while (!text.empty()) {
    const ssize_t written = write_some(text);
    if (written > 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (written == -1 && errno == EAGAIN) {
      if (patience_ms <= 0) return false;
      patience_ms -= WAIT_MS;
      waited = true;
      // For no event: a pipe that has room for the line, but not for a page, is not "ready".
      poll(nullptr, 0, WAIT_MS);
    } else if (written == 0 || errno != EINTR) {
      return false;
    }
  }
  if (!waited && patience_ms < PATIENCE_MS) patience_ms += WAIT_MS;
  return true;
}

void print_missing() {
  const unsigned missing = missing_lines.exchange(0);
  if (missing == 0) return;
  Line line;
  std::snprintf(line.data(), line.size(), "%u lines are missing here\n", missing);
  if (!write_all(line.data())) missing_lines += missing;
}

// A pipe or a terminal is opened anew: not to block is a setting of the opened file, which other
// processes share. It may belong to another user, who alone could open it.
ConsoleKind prepare_standard_output() {
  struct stat status {};
  if (fstat(STDOUT_FILENO, &status) == -1) return ConsoleKind::NEVER_BLOCKS;
  if (S_ISSOCK(status.st_mode)) return ConsoleKind::SOCKET;
  if (!S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)) return ConsoleKind::NEVER_BLOCKS;
  const int anew = open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY);
  if (anew == -1) return ConsoleKind::MAY_BLOCK;
  dup2(anew, STDOUT_FILENO);
  close(anew);
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
  print_missing();
  if (!write_all(line.data())) ++missing_lines;
}
