// The places in one thread's work where it matters what another thread does just then. The product
// links pass_seam as a function that does nothing. The tests link one that lets the other thread's
// work happen there, so that an order of events which luck makes rare is made on purpose.
#pragma once

enum class Seam {
  TIME_OUT_DECIDED,  // ping thread: a player was silent for too long, and its seat is untouched
  PINGING,           // ping thread: a ping is due, and the address of its player is not yet read
  TIMED_OUT,         // ping thread: the seat is LEAVING, and nobody has been told
  ENTERING,          // main thread: the player that enters was found, and its seat is untouched
  RELAYING,          // main thread: a record about the sender is made, and nobody has been told
  ANSWERING,         // main thread: a record about another player is made, and not yet sent
};

void pass_seam(Seam seam);
