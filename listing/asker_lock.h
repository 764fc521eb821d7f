// Shows whether zolask is running: it holds a lock on a file beside the list. The system releases
// the lock when the process ends for any reason. Nothing is written to the file.
#pragma once

#include <string>

// Returns a file descriptor that holds the lock until it is closed. -1 with errno set: EAGAIN when
// another zolask for this list holds the lock.
int acquire_asker_lock(const std::string& list_path);

// False after the file was deleted: other processes do not see the lock then.
bool is_asker_lock_visible(int handle);

// False also when the file cannot be opened.
bool is_asker_running(const std::string& list_path);
