#include "listing/announcement.h"

#include <algorithm>
#include <charconv>

#include "listing/number.h"
#include "text/names.h"

static constexpr int PROTOCOL = 40;  // the protocol version of the servers that may be listed
static constexpr int MIN_PLAYERS = 2;

std::string_view value_of(std::string_view query, std::string_view key) {
  std::string_view value;
  while (!query.empty()) {
    const std::string_view pair = query.substr(0, query.find('&'));
    query.remove_prefix(std::min(pair.size() + 1, query.size()));
    const std::size_t equals = pair.find('=');
    if (equals != std::string_view::npos && pair.substr(0, equals) == key) {
      value = pair.substr(equals + 1);
    }
  }
  return value;
}

// "+" becomes a blank and %XX a byte; a NUL becomes '?'. Any other "%" does not change.
static std::string decoded(std::string_view value) {
  std::string text;
  for (std::size_t i = 0; i < value.size(); ++i) {
    unsigned byte = 0;
    const char* digits = value.data() + i + 1;
    if (value[i] == '%' && i + 2 < value.size() &&
        std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2) {
      text += byte == 0 ? '?' : static_cast<char>(byte);
      i += 2;
    } else {
      text += value[i] == '+' ? ' ' : value[i];
    }
  }
  return text;
}

std::optional<Announcement> read_announcement(std::string_view query) {
  const auto players = number_of(value_of(query, "p"), 0, MAX_CLIENTS);
  const auto max_players = number_of(value_of(query, "mp"), MIN_PLAYERS, MAX_CLIENTS);
  const auto game_type = number_of(value_of(query, "gt"), DEATHMATCH, CATCH_PINKPANTHER);
  const auto port = number_of(value_of(query, "port"), 1, MAX_PORT);
  const auto version = number_of(value_of(query, "v"), PROTOCOL, PROTOCOL);
  if (!players || !max_players || !game_type || !port || !version || *players > *max_players) {
    return std::nullopt;
  }
  return Announcement{
      .name = printable(decoded(value_of(query, "name")).substr(0, MAX_NAME), MAX_NAME),
      .os = printable(decoded(value_of(query, "os")).substr(0, MAX_OS)),
      .players = *players,
      .max_players = *max_players,
      .game_type = *game_type,
      .port = *port,
      .version = *version,
      .is_removal = value_of(query, "disconnect") == "1",
  };
}
