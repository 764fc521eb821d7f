// Tells whether the asker runs: it holds a lock on a file beside the list. The system releases the
// lock when the asker ends in whatever way, and nothing is written.
#pragma once

#include <string>

// The descriptor that holds the lock until it is closed. -1 with errno set: EAGAIN when another
// asker of this list holds it.
int hold_asker_lock(const std::string& list_path);

// False after somebody has deleted the file, so that nobody else can see the lock.
bool is_asker_lock_visible(int handle);

bool does_asker_run(const std::string& list_path);
