// Reads a settings' file with the server's own reader and says what looks otherwise than meant.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

struct Doubt {
  std::size_t line;  // from 1
  std::string text;
};

// Sets server_config, which has to hold the defaults, as the server would. The doubts are in the
// order of the lines.
std::vector<Doubt> read_with_doubts(std::FILE* file);

// Fit for a terminal: in double quotes, without control characters, and not long.
std::string quoted(std::string_view text);
