// The signals that stop the server: SIGINT, SIGHUP and SIGTERM. A signal sets a flag and ends the
// main loop's wait. The server stops after the main loop, outside signal context.
#pragma once

#include <csignal>

// Makes the signals request a stop. Main thread, before any other thread exists.
void install_shutdown_handler();

// Any thread.
bool stop_requested();

// Waits until the file descriptor is readable or a stop is requested. A stop signal that arrives
// just before the wait ends it, too. False with errno set when the wait failed. Main thread.
bool wait_for_input_or_stop(int handle);

// Blocks the signals in the calling thread. Returns the thread's previous mask. Any thread.
sigset_t block_stop_signals();
