// The command line of zolbots.
#pragma once

#include <netinet/in.h>

struct Options {
  const char* server = "127.0.0.1:16309";
  sockaddr_in address{};  // of server
  unsigned players = 8;
  unsigned rate = 20;     // position updates per second and bot
  unsigned seconds = 10;  // how long to play
  unsigned seed = 1;      // of the bots' random choices
  bool alone = false;     // no other players: every unexpected datagram is wrong
};

enum class ParseResult { RUN, HELP_SHOWN, BAD_ARGUMENTS };

// Prints the reason for BAD_ARGUMENTS to standard error.
ParseResult parse_options(int count, char** arguments, Options& options);
