#include "client/stop_signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>

namespace zol {

int open_stop_signals(std::initializer_list<int> signals) {
  sigset_t blocked;
  sigemptyset(&blocked);
  for (const int signal : signals) sigaddset(&blocked, signal);
  const int handle = signalfd(-1, &blocked, SFD_NONBLOCK | SFD_CLOEXEC);
  if (handle != -1) sigprocmask(SIG_BLOCK, &blocked, nullptr);
  return handle;
}

int take_stop_signal(int handle) {
  signalfd_siginfo info{};
  return read(handle, &info, sizeof info) == sizeof info ? static_cast<int>(info.ssi_signo) : 0;
}

}  // namespace zol
