// The time of day in the game world: one real minute is one game hour.
#pragma once

#include <netinet/in.h>

#include "server/protocol.h"

// Since server_start_ms; each reads the clock anew. Any thread.
std::uint8_t game_hour();    // 0..23
std::uint8_t game_minute();  // 0..59

// CMD_GAME_CLOCK, the answer that some commands give their sender.
void send_game_clock(const sockaddr_in& destination);
