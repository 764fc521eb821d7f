// Test hooks, at points where the work of another thread may interfere. The product links a
// pass_seam that does nothing. The tests link a pass_seam that runs the other thread's work there,
// to force rare orders of events.
#pragma once

enum class Seam {
  TIME_OUT_DECIDED,  // ping thread: a player was silent for too long; its seat is unchanged
  PINGING,           // ping thread: before it reads the address of a player to ping
  TIMED_OUT,         // ping thread: the seat is LEAVING; no notice is sent yet
  ENTERING,          // main thread: the sender's slot is known; its seat is unchanged
  RELAYING,          // main thread: a record about the sender is ready; nothing is sent yet
  ANSWERING,         // main thread: a record about another player is ready; nothing is sent
};

void pass_seam(Seam seam);
