// The signals that end a client, as a file descriptor that a loop polls beside its sockets.
#pragma once

#include <initializer_list>

namespace zol {

// Blocks these signals for good. Returns a descriptor that is readable while one of them waits, or
// -1 with errno set.
int open_stop_signals(std::initializer_list<int> signals);

// Takes a signal that waits, and returns its number; 0 if none waits.
int take_stop_signal(int handle);

}  // namespace zol
