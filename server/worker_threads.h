// The threads other than the main thread.
#pragma once

// Starts a detached thread with a name of at most 15 characters. It blocks the stop signals, so the
// kernel delivers them to the main thread. False when the thread cannot be created. Main thread.
bool start_worker_thread(const char* name, void* (*body)(void*));
