// The orderly stop by signal, and the threads beside the main one. A signal only sets a flag and
// ends the main loop's wait; the stop itself runs behind the main loop, outside signal context.
#pragma once

// Makes SIGINT, SIGHUP and SIGTERM request a stop. Main thread, before any other thread exists.
void install_shutdown_handler();

// Any thread.
bool stop_requested();

// Waits until the handle is readable or a stop is requested; a request just before the wait ends it
// too. False with errno set when the wait failed. Main thread.
bool wait_for_input_or_stop(int handle);

// Starts a thread with a name of at most 15 characters. The three signals are blocked in it, so
// that the kernel hands them to the main thread; nobody joins it. False when it cannot be made.
bool start_worker_thread(const char* name, void* (*body)(void*));

// Prints that the server stops and tells every player in the game. Main thread.
void tell_of_stop();
