// The signals that end a client, as a file descriptor that a loop polls with its sockets. Call
// before other threads exist.
#pragma once

#include <initializer_list>

namespace zol {

// Blocks these signals permanently. Returns a file descriptor that is readable while one of them is
// pending, or -1 with errno set.
int open_stop_signals(std::initializer_list<int> signals);

// Takes a pending signal and returns its number; 0 if none is pending.
int take_stop_signal(int handle);

}  // namespace zol
