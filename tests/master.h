// A master server for tests. It runs inside the sleeps of the server, on the same thread, so that
// neither blocks the other.
#pragma once

#include <deque>
#include <string>

#include "tests/bytes.h"

struct Master {
  Master();
  ~Master();

  // Sets the behaviour for the next connection. After waits_before sleeps of the server, it sends
  // one piece in each sleep and then closes the connection; or it resets the connection.
  void script(std::deque<Bytes> pieces_to_send, int waits_before, bool with_reset);
  void run_in_wait();
  void answer();

  int listener, connection = -1;
  std::deque<Bytes> pieces;
  int waits = 0;
  bool resets = false;
};
