// What a server says of itself to the list, taken from the query of its request.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "server/protocol.h"

using namespace zol;

inline constexpr std::size_t MAX_NAME = 31;  // bytes, as servers cut their own
inline constexpr std::size_t MAX_OS = 8;

struct Announcement {
  std::string name;  // UTF-8, without control characters
  std::string os;    // the same
  int players = 0;
  int max_players = 0;
  int game_type = DEATHMATCH;
  int port = 0;
  int version = 0;
  bool is_removal = false;
};

// Nothing when a value is missing or not allowed. Where a key is given twice, the last one counts:
// servers do not escape their name, which comes first, so a '&' in it may add keys.
std::optional<Announcement> read_announcement(std::string_view query);

// The raw value of the last pair with this key; empty without one.
std::string_view value_of(std::string_view query, std::string_view key);
