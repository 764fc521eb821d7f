// The command line of zolview.
#pragma once

#include <netinet/in.h>

#include <string>

#include "client/server_connection.h"

using namespace zol;

struct ViewOptions {
  std::string name = "Spectator";  // in Latin-1
  const char* server_text = nullptr;
  sockaddr_in server{};
  bool once = false;
  bool alive = false;
  bool json = false;
};

enum class ParseResult { RUN, HELP_SHOWN, BAD_ARGUMENTS };

// Prints the reason for BAD_ARGUMENTS to standard error.
ParseResult parse_view_options(int count, char** arguments, ViewOptions& options);
