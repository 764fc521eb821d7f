#include "server/clock.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cfloat>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>

// Reads the machine's uptime in seconds, as text, into the buffer. proc(5) gives the file as one
// line of two decimal numbers; one read(2) takes it whole.
static bool read_uptime_text(char* text, std::size_t size) {
  const int file = open("/proc/uptime", O_RDONLY | O_CLOEXEC);
  if (file == -1) return false;
  const ssize_t length = read(file, text, size - 1);
  close(file);
  if (length <= 0) return false;
  text[length] = '\0';
  return true;
}

// What the file is ahead of the kernel's boot clock, in hundredths of a second. In a container that
// hides how long the machine has run the two differ.
static constinit std::atomic<std::int64_t> file_ahead = 0;

static bool read_boot_clock(std::int64_t& hundredths) {
  timespec now{};
  if (clock_gettime(CLOCK_BOOTTIME, &now) == -1) return false;
  hundredths = std::int64_t{now.tv_sec} * 100 + now.tv_nsec / 10'000'000;
  return true;
}

// Where the file cannot be read, for want of a descriptor say, time goes on from its last reading.
static bool read_clock(char* text, std::size_t size) {
  const bool has_file = read_uptime_text(text, size);
  std::int64_t boot = 0;
  if (!read_boot_clock(boot)) return has_file;
  if (has_file) {
    file_ahead = std::llround(std::strtod(text, nullptr) * 100) - boot;
  } else {
    const std::int64_t now = boot + file_ahead;
    std::snprintf(text, size, "%" PRId64 ".%02d", now / 100, static_cast<int>(now % 100));
  }
  return true;
}

bool clock_works() {
  char text[64];
  return read_clock(text, sizeof text);
}

static_assert(FLT_EVAL_METHOD == 0, "single precision must not be widened on the way");

// By way of 64 bits, since beyond 2^32 ms a direct conversion to 32 bits would be undefined.
std::uint32_t uptime_text_to_ms(const char* text) {
  const float seconds = std::strtof(text, nullptr);
  return static_cast<std::uint32_t>(static_cast<std::int64_t>(seconds * 1000.0F));
}

std::uint32_t uptime_ms() {
  char text[64] = "";
  read_clock(text, sizeof text);
  return uptime_text_to_ms(text);
}

void sleep_us(std::uint32_t microseconds) {
  timespec left{};
  left.tv_sec = static_cast<time_t>(microseconds / 1'000'000);
  left.tv_nsec = static_cast<long>(microseconds % 1'000'000) * 1000;
  while (nanosleep(&left, &left) == -1 && errno == EINTR) {
  }
}

void sleep_ms(std::uint32_t milliseconds) {
  sleep_us(milliseconds * 1000);
}
