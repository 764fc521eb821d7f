// Reads a settings' file with the server's reader, and reports suspicious lines. Single-threaded.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

struct Diagnostic {
  std::size_t line;  // from 1
  std::string text;
};

// Sets server_config as the server would set it; before the call it must hold the defaults. Returns
// at most 100 diagnostics, in the order of the lines.
std::vector<Diagnostic> read_with_diagnostics(std::FILE* file);

// The text in double quotes, cut to 63 bytes, with '?' for control characters.
std::string quoted(std::string_view text);
