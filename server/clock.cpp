#include "server/clock.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cfloat>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <thread>

// Seconds. No machine runs so long; the limit keeps the sums below within 64 bits.
static constexpr double MAX_UPTIME = 1e12;

// The machine's uptime in seconds, -1 when it cannot be read. The file is one line of two decimal
// numbers (proc(5)); one read(2) returns all of it.
static double read_uptime_file() {
  char text[64];
  const int file = open("/proc/uptime", O_RDONLY | O_CLOEXEC);
  if (file == -1) return -1;
  const ssize_t length = read(file, text, sizeof text - 1);
  close(file);
  if (length <= 0) return -1;
  text[length] = '\0';
  const double seconds = std::strtod(text, nullptr);
  return seconds >= 0 && seconds <= MAX_UPTIME ? seconds : -1;  // rejects NaN
}

static_assert(FLT_EVAL_METHOD == 0, "float arithmetic must round to single precision");

// Converts through 64 bits, because a direct conversion of 2^32 ms or more is undefined. A double
// is precise enough: it and the decimal number in the file round to the same float.
std::uint32_t seconds_to_ms(double seconds) {
  const float milliseconds = static_cast<float>(seconds) * 1000.0F;
  return static_cast<std::uint32_t>(static_cast<std::int64_t>(milliseconds));
}

// /proc/uptime minus CLOCK_BOOTTIME, in hundredths of a second; 0 except in some containers.
static constinit std::atomic<std::int64_t> uptime_file_offset = 0;

// When /proc/uptime cannot be read, for example because no file descriptor is free, the time
// continues from the last reading.
std::uint32_t uptime_ms() {
  const double seconds = read_uptime_file();
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  const std::int64_t boot = std::int64_t{now.tv_sec} * 100 + now.tv_nsec / 10'000'000;
  if (seconds == -1) return seconds_to_ms(static_cast<double>(boot + uptime_file_offset) / 100);
  uptime_file_offset = std::llround(seconds * 100) - boot;
  return seconds_to_ms(seconds);
}

void sleep_us(std::uint32_t microseconds) {
  std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
}

void sleep_ms(std::uint32_t milliseconds) {
  sleep_us(milliseconds * 1000);
}
