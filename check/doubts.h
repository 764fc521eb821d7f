// Reads a settings' file with the server's reader, and lists suspicious lines.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

struct Doubt {
  std::size_t line;  // from 1
  std::string text;
};

// Sets server_config as the server would; it must hold the defaults before. Returns the doubts in
// the order of the lines.
std::vector<Doubt> read_with_doubts(std::FILE* file);

// Makes a text printable: in double quotes, without control characters, and cut to a short length.
std::string quoted(std::string_view text);
