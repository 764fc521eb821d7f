// A master server that plays its part inside the server's own waits, so that neither side ever
// waits for the other.
#pragma once

#include <deque>
#include <string>

#include "tests/bytes.h"

struct Master {
  Master();
  ~Master();

  // What becomes of the next connection: so many of the server's waits later, these pieces are sent
  // one a wait, and then it is closed; or it is closed at once with a reset.
  void script(std::deque<Bytes> pieces_to_send, int waits_before, bool with_reset);
  void take_part();
  void answer();

  int listener, connection = -1;
  std::deque<Bytes> pieces;
  int waits = 0;
  bool resets = false;
};
