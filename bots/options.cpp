#include "bots/options.h"

#include <charconv>
#include <cstdio>
#include <string>
#include <string_view>

#include "bots/expectations.h"
#include "client/server_connection.h"

using namespace zol;

static constexpr const char* HELP =
    "usage: zolbots [--server HOST[:PORT]] [--players N] [--rate HZ] [--seconds S] [--seed N]\n"
    "               [--alone]\n"
    "\n"
    "Bots that play on a ZOL Server over UDP and check every datagram they get from it.\n"
    "\n"
    "  --server HOST[:PORT] the server, 127.0.0.1:16309 by default\n"
    "  --players N         bots, 1 to 32, 8 by default\n"
    "  --rate HZ           position updates a second of each bot, 1 to 200, 20 by default\n"
    "  --seconds S         how long to play, 1 to 1000000, 10 by default\n"
    "  --seed N            seed of the bots' random choices, 0 to 4294967295, 1 by default\n"
    "  --alone             nobody else plays: every unexpected datagram is wrong, while\n"
    "                      otherwise it may be about another player and is not judged\n"
    "\n"
    "SIGINT and SIGTERM end the run early: the bots leave, and zolbots prints the table.\n"
    "Exit status: 0 success, 1 a datagram was wrong or lost, or no bot could join,\n"
    "2 bad arguments.\n";

using NumberField = unsigned Options::*;

struct NumberOption {
  std::string_view name;
  NumberField value;
  unsigned min;
  unsigned max;
};

static constexpr NumberOption NUMBER_OPTIONS[] = {
    {"--players", &Options::players, 1, MAX_BOTS},
    {"--rate", &Options::rate, 1, 200},
    {"--seconds", &Options::seconds, 1, 1'000'000},
    {"--seed", &Options::seed, 0, 0xFFFF'FFFF},
};

static bool read_number(std::string_view text, unsigned min, unsigned max, unsigned& number) {
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end && number >= min && number <= max;
}

static bool set_number(const NumberOption& option, const char* text, Options& options) {
  if (read_number(text, option.min, option.max, options.*option.value)) return true;
  std::fprintf(stderr, "zolbots: %s takes a number from %u to %u, not \"%s\"\n", option.name.data(),
               option.min, option.max, text);
  return false;
}

static const NumberOption* find_number_option(std::string_view name) {
  for (const NumberOption& option : NUMBER_OPTIONS) {
    if (name == option.name) return &option;
  }
  return nullptr;
}

ParseResult parse_options(int count, char** arguments, Options& options) {
  for (int i = 1; i < count; ++i) {
    const std::string_view name = arguments[i];
    if (name == "--help") {
      std::fputs(HELP, stdout);
      return ParseResult::HELP_SHOWN;
    }
    if (name == "--alone") {
      options.alone = true;
      continue;
    }
    const NumberOption* number_option = find_number_option(name);
    if (number_option == nullptr && name != "--server") {
      std::fprintf(stderr, "zolbots: unknown argument \"%s\"; see --help\n", arguments[i]);
      return ParseResult::BAD_ARGUMENTS;
    }
    if (++i == count) {
      std::fprintf(stderr, "zolbots: %s needs a value; see --help\n", name.data());
      return ParseResult::BAD_ARGUMENTS;
    }
    if (number_option == nullptr) {
      options.server = arguments[i];
    } else if (!set_number(*number_option, arguments[i], options)) {
      return ParseResult::BAD_ARGUMENTS;
    }
  }
  std::string error_text;
  if (resolve_server(options.server, options.address, error_text)) return ParseResult::RUN;
  std::fprintf(stderr, "zolbots: %s\n", error_text.c_str());
  return ParseResult::BAD_ARGUMENTS;
}
