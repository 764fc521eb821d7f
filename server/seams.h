// Points in the work of one thread at which the work of another matters. The product links a
// pass_seam that does nothing. The tests link one that runs the other thread's work there, to force
// rare orders of events.
#pragma once

enum class Seam {
  TIME_OUT_DECIDED,  // ping thread: a player was silent for too long; its seat is unchanged
  PINGING,           // ping thread: a ping is due; the address is not read yet
  TIMED_OUT,         // ping thread: the seat is LEAVING; no notice is sent yet
  ENTERING,          // main thread: the player that enters was found; its seat is unchanged
  RELAYING,          // main thread: a record about the sender is made; nothing is sent yet
  ANSWERING,         // main thread: a record about another player is made; nothing is sent yet
};

void pass_seam(Seam seam);
