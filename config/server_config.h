// The server's settings, and the function that reads their file.
//
// config_load writes the record before any other thread exists. The record never changes
// afterwards, so every thread may read it.
#pragma once

#include "server/protocol.h"

using namespace zol;

inline constexpr std::int32_t MIN_CLIENTS = 2;  // slots

struct ServerConfig {
  std::int32_t maxClients = 16;     // slots for players, MIN_CLIENTS to MAX_CLIENTS
  std::uint8_t AnnounceServer = 0;  // 1: listed on the master server
  std::uint8_t GameType = DEATHMATCH;
  char Port[26] = "16309";  // as written; port_to_bind converts it
  char ServerName[32] = "Unnamed Server";
  char WelcomeMessage[64] = "Welcome to this Harn Tor Multiplayer Server - have fun";
};

inline constinit ServerConfig server_config;

// Reads "zolserver.cfg", or else "zolserver.conf", in the working directory into server_config, and
// prints lines about wrong values. A setting without a valid value does not change.
void config_load();
