// The time of day in the game world: one real minute is one game hour.
#pragma once

#include <netinet/in.h>

#include "server/protocol.h"

using namespace zol;

// The time since server_start_ms; hour and minute each read the clock anew. Any thread.
GameClock game_clock();

// The answer that some commands give their sender.
void send_game_clock(const sockaddr_in& destination);
