#include "view/options.h"

#include <unistd.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "client/server_connection.h"
#include "text/names.h"

static constexpr const char* HELP =
    "usage: zolview [--name NAME] HOST[:PORT]\n"
    "       zolview --once [--json] HOST[:PORT]\n"
    "       zolview --alive HOST[:PORT]\n"
    "\n"
    "Shows a running game of a ZOL Server: a map of the players, a list of them, the chat.\n"
    "\n"
    "  --name NAME  the name that the others see, \"Spectator\" by default\n"
    "  --once       prints one table of the players and exits\n"
    "  --json       prints the table as one JSON object\n"
    "  --alive      checks whether a server answers, without taking a slot\n"
    "\n"
    "Keys: Enter begins and sends a line of chat, Esc discards it, q quits.\n"
    "Exit status: 0 success, 1 no server answers, 2 bad arguments, 3 the server refused,\n"
    "128 + N: signal N arrived before the answers (with --once and --alive).\n";

static ParseResult print_error(const std::string& text) {
  std::fprintf(stderr, "zolview: %s\n", text.c_str());
  return ParseResult::BAD_ARGUMENTS;
}

static ParseResult check_options(ViewOptions& options) {
  if (options.server_text == nullptr) return print_error("HOST is missing; see --help");
  if (options.json && !options.once) return print_error("--json needs --once; see --help");
  if (options.alive && (options.once || options.name != ViewOptions{}.name)) {
    return print_error("--alive takes no other option; see --help");
  }
  if (options.name.empty() || options.name.size() >= NAME_WIDTH) {
    return print_error("--name takes 1 to 63 characters");
  }
  std::string error_text;
  const bool needs_terminal = !options.once && !options.alive;
  if (needs_terminal && (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0)) {
    return print_error("the view needs a terminal; --once prints a table without one");
  }
  if (!resolve_server(options.server_text, options.server, error_text))
    return print_error(error_text);
  return ParseResult::RUN;
}

ParseResult parse_view_options(int count, char** arguments, ViewOptions& options) {
  for (int i = 1; i < count; ++i) {
    const std::string_view argument = arguments[i];
    if (argument == "--help") {
      std::fputs(HELP, stdout);
      return ParseResult::HELP_SHOWN;
    }
    if (argument == "--once") {
      options.once = true;
    } else if (argument == "--json") {
      options.json = true;
    } else if (argument == "--alive") {
      options.alive = true;
    } else if (argument == "--name") {
      if (++i == count) return print_error("--name needs a value; see --help");
      options.name = latin1_of(arguments[i]);
    } else if (argument.starts_with('-') || options.server_text != nullptr) {
      return print_error("unknown argument \"" + std::string(argument) + "\"; see --help");
    } else {
      options.server_text = arguments[i];
    }
  }
  return check_options(options);
}
