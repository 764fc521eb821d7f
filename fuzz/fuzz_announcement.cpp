// Any query of a server's request to the list: the announcement read from it must be fit to be
// stored and shown.

#include "fuzz/check.h"
#include "listing/announcement.h"

static void check_text(const std::string& text, std::size_t most) {
  std::size_t characters = 0;
  for (const char each : text) {
    const auto byte = static_cast<unsigned char>(each);
    check(byte >= ' ' && byte != 0x7F, "no control characters");
    check(byte < 0x80 || (byte & 0xC0U) == 0x80 || byte == 0xC2 || byte == 0xC3,
          "Latin-1 in UTF-8");
    characters += (byte & 0xC0U) != 0x80 ? 1 : 0;
  }
  check(characters <= most, "a text of limited length");
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto server = read_announcement({reinterpret_cast<const char*>(data), size});
  if (!server) return 0;
  check_text(server->name, MAX_NAME);
  check_text(server->os, MAX_OS);
  check(server->port >= 1 && server->port <= 65'535, "a port");
  check(server->players >= 0 && server->players <= server->max_players, "players of most");
  check(server->max_players >= 2 && server->max_players <= 32, "most players");
  check(server->game_type == 0 || server->game_type == 1, "a game type");
  return 0;
}
