// Input: the query of a server's request to the list. The announcement in it must be safe to store
// and show.

#include "fuzz/check.h"
#include "listing/announcement.h"
#include "text/names.h"

static void check_text(const std::string& text, std::size_t most) {
  std::size_t characters = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    check(byte >= ' ' && byte != 0x7F, "no control characters");
    const bool is_c1 = byte == 0xC2 && static_cast<unsigned char>(text[i + 1]) < 0xA0;
    check(!is_c1, "no control characters of C1");
    characters += (byte & 0xC0U) != 0x80 ? 1 : 0;
  }
  check(characters <= most, "a text of limited length");
  check(text.find("\u202E") == std::string::npos, "no character changes the direction");
  check(printable(text) == text, "valid UTF-8 that needs no change");
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto server = read_announcement({reinterpret_cast<const char*>(data), size});
  if (!server) return 0;
  check_text(server->name, MAX_NAME);
  check_text(server->os, MAX_OS);
  check(server->port >= 1 && server->port <= 65'535, "a port");
  check(server->players >= 0 && server->players <= server->max_players,
        "players within the maximum");
  check(server->max_players >= 2 && server->max_players <= 32, "the maximum of players");
  check(server->game_type == 0 || server->game_type == 1, "a game type");
  return 0;
}
