#include "server/stop_signals.h"

#include <poll.h>

#include <atomic>
#include <cerrno>

#include "server/server_state.h"

static constexpr std::array<int, 3> STOP_SIGNALS = {SIGINT, SIGHUP, SIGTERM};

static constinit std::atomic<bool> stop_flag = false;
static_assert(std::atomic<bool>::is_always_lock_free, "written by a signal handler");

static void shutdown_handler(int /*signal*/) {
  if (pthread_equal(pthread_self(), main_thread_id) != 0) stop_flag = true;
}

sigset_t block_stop_signals() {
  sigset_t signals;
  sigset_t saved_signals;
  sigemptyset(&signals);
  for (const int signal : STOP_SIGNALS) sigaddset(&signals, signal);
  pthread_sigmask(SIG_BLOCK, &signals, &saved_signals);
  return saved_signals;
}

void install_shutdown_handler() {
  struct sigaction action = {};
  action.sa_handler = shutdown_handler;
  // No SA_RESTART: a stop signal ends a blocked write to the console.
  sigemptyset(&action.sa_mask);
  for (const int signal : STOP_SIGNALS) sigaction(signal, &action, nullptr);
}

bool stop_requested() {
  return stop_flag;
}

// Blocks the signals before it reads the flag. ppoll(2) unblocks them, so a signal in between ends
// the wait.
bool wait_for_input_or_stop(int handle) {
  const sigset_t saved_signals = block_stop_signals();
  pollfd wait{.fd = handle, .events = POLLIN, .revents = 0};
  const int ready = stop_requested() ? 0 : ppoll(&wait, 1, nullptr, &saved_signals);
  pthread_sigmask(SIG_SETMASK, &saved_signals, nullptr);
  return ready != -1 || errno == EINTR;
}
