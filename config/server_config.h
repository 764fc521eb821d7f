// The server's settings, and the reader of the file that sets them.
//
// config_load writes the record before any other thread exists. It never changes afterwards, so
// every thread may read it.
#pragma once

#include "server/protocol.h"

using namespace zol;

inline constexpr std::int32_t MIN_CLIENTS = 2;  // to MAX_CLIENTS

struct ServerConfig {
  std::int32_t maxClients = 16;     // MIN_CLIENTS to MAX_CLIENTS: slots that are given to players
  std::uint8_t AnnounceServer = 0;  // 1: listed on the master server
  std::uint8_t GameType = DEATHMATCH;
  char Port[26] = "16309";  // as written; the socket layer turns it into a number
  char ServerName[32] = "Unnamed Server";
  char WelcomeMessage[64] = "Welcome to this Harn Tor Multiplayer Server - have fun";
};

inline constinit ServerConfig server_config;

// Reads "zolserver.cfg", or else "zolserver.conf", in the working directory into server_config and
// prints what it has to say about it. A missing file or a bad value keeps what is there.
void config_load();
