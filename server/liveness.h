// The ping thread: pings, time-outs and the PinkPanther's term of two minutes.
#pragma once

// The thread's entry point: a pass at the start, then a pass every ten seconds. It never returns.
void* ping_thread(void* unused);

// Times out players that were silent for over 100 seconds, pings the other players in the game, and
// requests a new PinkPanther when the term is over. Ping thread.
void ping_pass();
