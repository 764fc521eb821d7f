// The server's settings, and the reader of the file that sets them.
//
// The record is written by config_load alone, before any other thread exists; from then on every
// thread may read it without further ado.
#pragma once

#include <cstdint>

inline constexpr std::int32_t MIN_CLIENTS = 2;
inline constexpr std::int32_t MAX_CLIENTS = 32;

enum GameType : std::uint8_t { DEATHMATCH = 0, CATCH_PINKPANTHER = 1 };

struct ServerConfig {
  std::int32_t maxClients = 16;     // MIN_CLIENTS to MAX_CLIENTS: slots that are given to players
  std::uint8_t AnnounceServer = 0;  // 1: listed on the master server
  std::uint8_t GameType = DEATHMATCH;
  char Port[26] = "16309";  // kept as written; the socket layer makes the port number of it
  char ServerName[32] = "Unnamed Server";
  char WelcomeMessage[64] = "Welcome to this Harn Tor Multiplayer Server - have fun";
};

extern ServerConfig server_config;

// Reads "zolserver.cfg", or else "zolserver.conf", in the working directory into server_config and
// prints what it has to say about it. A missing file or a bad value keeps what is there.
void config_load();
