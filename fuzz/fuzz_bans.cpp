// Input: a file of bans. Each line must give a ban or an error, and a ban must match its addresses.

#include <arpa/inet.h>

#include "fuzz/check.h"
#include "listing/bans.h"

static std::string text_of(std::uint32_t address) {
  const in_addr number{.s_addr = htonl(address)};
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &number, text, sizeof text);
  return text;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const Bans found = read_bans(text, "bans");
  const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
  check(found.bans.size() + found.errors.size() <= lines, "at most one result per line");
  for (const std::string& error : found.errors) {
    check(error.find('\n') == std::string::npos, "an error is one line");
  }
  for (const Ban& ban : found.bans) {
    check(ban.port >= 0 && ban.port <= 65'535, "a port");
    check((ban.mask | (ban.mask - 1)) == ~std::uint32_t{0} || ban.mask == 0, "a mask");
    const std::string last = text_of(ban.network | ~ban.mask);
    check(is_banned({ban}, text_of(ban.network), ban.port), "its first address is banned");
    check(is_banned({ban}, last, ban.port), "its last address is banned");
    check(ban.mask == 0 || !is_banned({ban}, text_of(ban.network - 1), ban.port),
          "the address before is not banned");
    check(ban.port == 0 || !is_banned({ban}, last, ban.port - 1), "the port before is not banned");
  }
  check(!is_banned(found.bans, {text.begin(), text.end()}, 1) || text.size() <= 15,
        "a long text is not an address");
  return 0;
}
