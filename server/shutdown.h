// The orderly stop by signal. The signal handler only notes the request, which ends the main loop's
// wait; the stop itself runs on the main loop, outside signal context.
#pragma once

// Makes SIGINT, SIGHUP and SIGTERM request a stop. Main thread, before any other thread exists.
void install_shutdown_handler();

// Any thread.
bool stop_requested();

// Waits until the handle is readable or a stop is requested, without a moment in between in which a
// request could go unnoticed. False with errno set when the wait failed. Main thread.
bool wait_for_input_or_stop(int handle);

// Starts a thread in which the three signals are blocked, so that the kernel hands them to the main
// thread. False when the thread cannot be made.
bool start_worker_thread(void* (*body)(void*));

// Says so on the console and tells every player in the game.
void announce_shutdown();
