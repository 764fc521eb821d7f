// The threads beside the main one.
#pragma once

// Starts a thread with a name of at most 15 characters. The stop signals are blocked in it, so that
// the kernel hands them to the main thread. Nothing joins it. False when it cannot be made. Main
// thread.
bool start_worker_thread(const char* name, void* (*body)(void*));
