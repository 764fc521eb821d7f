// A master server that runs inside the server's own waits, so that neither ever blocks on the
// other.
#pragma once

#include <deque>
#include <string>

#include "tests/bytes.h"

struct Master {
  Master();
  ~Master();

  // Sets the behaviour for the next connection: after this many of the server's waits it sends
  // these pieces, one for each wait, and closes; or it resets the connection at once.
  void script(std::deque<Bytes> pieces_to_send, int waits_before, bool with_reset);
  void take_part();
  void answer();

  int listener, connection = -1;
  std::deque<Bytes> pieces;
  int waits = 0;
  bool resets = false;
};
