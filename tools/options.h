// The command line of zolbots.
#pragma once

#include <netinet/in.h>

#include <cstdint>

struct Options {
  const char* server = "127.0.0.1:16309";
  sockaddr_in address{};  // of server
  unsigned players = 8;
  unsigned rate = 20;     // position updates a second and player
  unsigned seconds = 10;  // of play
  unsigned seed = 1;
};

enum class ParseResult { RUN, HELP_SHOWN, BAD_ARGUMENTS };

// Says on standard error what is wrong with bad arguments.
ParseResult parse_options(int count, char** arguments, Options& options);
