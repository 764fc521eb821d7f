// The ping thread: pings, time-outs and the PinkPanther's term of two minutes.
#pragma once

// The thread's function: a pass at the start, then one every ten seconds. It never returns.
void* ping_thread(void* unused);

// Times out players that were silent for too long, pings the other players in the game, and asks
// for a new PinkPanther when the term is over. Ping thread.
void ping_pass();
