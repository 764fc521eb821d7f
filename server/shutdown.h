// The orderly stop by signal. The signal handler only notes the request and wakes the main loop;
// the stop itself runs outside signal context.
#pragma once

// Makes SIGINT, SIGHUP and SIGTERM request a stop. False with errno set when the handle that wakes
// the main loop cannot be made. Main thread, before any other thread exists.
bool install_shutdown_handler();

// Any thread.
bool stop_requested();

// Becomes readable, for good, once a stop is requested. For poll(2) in the main loop.
int stop_handle();

// Starts a thread in which the three signals are blocked, so that the kernel hands them to the main
// thread. False when the thread cannot be made.
bool start_worker_thread(void* (*body)(void*));

// Says so on the console and tells every player in the game.
void announce_shutdown();
