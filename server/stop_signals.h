// The signals that stop the server: SIGINT, SIGHUP and SIGTERM. A signal only sets a flag and ends
// the main loop's wait. The stop itself runs after the main loop, outside signal context.
#pragma once

#include <csignal>

// Makes the signals request a stop. Main thread, before any other thread exists.
void install_shutdown_handler();

// Any thread.
bool stop_requested();

// Waits until the handle is readable or a stop is requested; a request just before the wait ends it
// too. False with errno set when the wait failed. Main thread.
bool wait_for_input_or_stop(int handle);

// Blocks the signals in the calling thread. Returns the thread's mask from before. Any thread.
sigset_t block_stop_signals();
