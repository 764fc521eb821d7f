// Pings, time-outs and the PinkPanther's two minutes: the ping thread.
#pragma once

// The thread's body: one pass at once, then one every ten seconds. It never returns.
void* ping_thread(void* unused);

// Times out the players that were silent for too long, pings the others that are in the game, and
// asks for a new PinkPanther when the role was held long enough. Ping thread.
void ping_pass();
