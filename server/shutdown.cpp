#include "server/shutdown.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
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

static void shutdown_handler(int /*signal*/) {
  if (on_main_thread()) stop_flag = true;
}

static sigset_t stop_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : STOP_SIGNALS) sigaddset(&signals, signal);
  return signals;
}

void install_shutdown_handler() {
  struct sigaction action {};
  action.sa_handler = shutdown_handler;
  // Without SA_RESTART: the signal frees the main thread from writing to a pipe that nobody reads.
  sigemptyset(&action.sa_mask);
  for (const int signal : STOP_SIGNALS) sigaction(signal, &action, nullptr);
}

bool stop_requested() {
  return stop_flag;
}

// The signals are blocked from the look at the flag until ppoll(2) lets them in.
bool wait_for_input_or_stop(int handle) {
  const sigset_t signals = stop_signals();
  sigset_t kept_signals;
  pthread_sigmask(SIG_BLOCK, &signals, &kept_signals);
  pollfd wait{.fd = handle, .events = POLLIN, .revents = 0};
  const int ready = stop_requested() ? 0 : ppoll(&wait, 1, nullptr, &kept_signals);
  pthread_sigmask(SIG_SETMASK, &kept_signals, nullptr);
  return ready != -1 || errno == EINTR;
}

bool start_worker_thread(void* (*body)(void*)) {
  const sigset_t signals = stop_signals();
  sigset_t kept_signals;
  pthread_sigmask(SIG_BLOCK, &signals, &kept_signals);
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
