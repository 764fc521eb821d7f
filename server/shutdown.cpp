#include "server/shutdown.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>

#include "server/player_table.h"
#include "server/sending.h"
#include "server/server_state.h"

static constexpr std::array<int, 3> STOP_SIGNALS = {SIGINT, SIGHUP, SIGTERM};

static constinit std::atomic<bool> stop_flag = false;
static_assert(std::atomic<bool>::is_always_lock_free, "written by a signal handler");
static constinit int wake_handle = -1;

static void shutdown_handler(int /*signal*/) {
  if (!on_main_thread()) return;
  const int kept_errno = errno;
  stop_flag = true;
  const std::uint64_t one = 1;
  // Cannot fail in a way that matters: a full counter is readable as well.
  [[maybe_unused]] const ssize_t written = write(wake_handle, &one, sizeof one);
  errno = kept_errno;
}

bool install_shutdown_handler() {
  wake_handle = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (wake_handle == -1) return false;
  struct sigaction action {};
  action.sa_handler = shutdown_handler;
  // Without SA_RESTART: the signal frees the main thread from writing to a pipe that nobody reads.
  sigemptyset(&action.sa_mask);
  for (const int signal : STOP_SIGNALS) sigaction(signal, &action, nullptr);
  return true;
}

bool stop_requested() {
  return stop_flag;
}

int stop_handle() {
  return wake_handle;
}

bool start_worker_thread(void* (*body)(void*)) {
  sigset_t stop_signals;
  sigset_t kept_signals;
  sigemptyset(&stop_signals);
  for (const int signal : STOP_SIGNALS) sigaddset(&stop_signals, signal);
  pthread_sigmask(SIG_BLOCK, &stop_signals, &kept_signals);
  pthread_t thread{};
  const bool started = pthread_create(&thread, nullptr, body, nullptr) == 0;
  pthread_sigmask(SIG_SETMASK, &kept_signals, nullptr);
  return started;
}

// Where nobody reads the lines, the last ones would hold up the stop.
static void give_up_a_full_console() {
  pollfd console{.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
  if (poll(&console, 1, 0) != 0) return;
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (nowhere != -1) dup2(nowhere, STDOUT_FILENO);
}

void announce_shutdown() {
  give_up_a_full_console();
  std::printf("Exitting...\n");
  broadcast_all(bytes_of(ServerShutdown{}));
}
