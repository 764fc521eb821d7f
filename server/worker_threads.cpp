#include "server/worker_threads.h"

#include <pthread.h>

#include "server/stop_signals.h"

bool start_worker_thread(const char* name, void* (*body)(void*)) {
  const sigset_t saved_signals = block_stop_signals();
  pthread_t thread{};
  const bool started = pthread_create(&thread, nullptr, body, nullptr) == 0;
  pthread_sigmask(SIG_SETMASK, &saved_signals, nullptr);
  if (!started) return false;
  pthread_setname_np(thread, name);
  pthread_detach(thread);
  return true;
}
