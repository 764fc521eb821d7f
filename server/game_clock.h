// The time of day in the game world: one real minute is one game hour.
#pragma once

#include <netinet/in.h>

#include "server/protocol.h"

using namespace zol;

// The time since server_start_ms, modulo 24 hours. Hour and minute come from separate readings of
// the clock. Any thread.
GameClock game_clock();

// Sends the time of day as the answer to a command. Main thread.
void send_game_clock(const sockaddr_in& destination);
