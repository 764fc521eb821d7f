// The announcement of a server, read from the query of its HTTP request. Any thread may call.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "server/protocol.h"

using namespace zol;

inline constexpr std::size_t MAX_NAME = 31;  // bytes, as in the server's settings
inline constexpr std::size_t MAX_OS = 8;     // bytes

struct Announcement {
  std::string name;  // UTF-8, without control characters
  std::string os;    // UTF-8, without control characters
  int players = 0;
  int max_players = 0;
  int game_type = DEATHMATCH;
  int port = 0;
  int version = 0;
  bool is_removal = false;
};

// Nothing when a value is missing or not allowed. If a key occurs twice, the last value counts:
// servers send their name first and do not escape it, so a '&' in the name may add keys.
std::optional<Announcement> read_announcement(std::string_view query);

// The undecoded value of the last pair with this key; empty if there is no such pair.
std::string_view value_of(std::string_view query, std::string_view key);
