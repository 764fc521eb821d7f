#include "listing/bans.h"

#include <arpa/inet.h>

#include <algorithm>
#include <optional>

#include "listing/number.h"
#include "text/names.h"

static constexpr int ADDRESS_BITS = 32;
static constexpr std::size_t MAX_SHOWN = 60;  // bytes of a wrong line in an error

static std::optional<std::uint32_t> address_of(const std::string& text) {
  in_addr address{};
  if (text.find('\0') != std::string::npos) return std::nullopt;
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) return std::nullopt;
  return ntohl(address.s_addr);
}

// Handles 0 separately, because a shift by 32 bits is undefined.
static std::uint32_t mask_of(int bits) {
  return bits == 0 ? 0 : ~std::uint32_t{0} << static_cast<unsigned>(ADDRESS_BITS - bits);
}

static std::optional<Ban> ban_of(std::string_view line) {
  const std::size_t end = std::min(line.find_first_of("/:"), line.size());
  const auto address = address_of(std::string(line.substr(0, end)));
  if (!address) return std::nullopt;
  if (end == line.size()) return Ban{.network = *address, .mask = mask_of(ADDRESS_BITS)};
  const bool is_network = line[end] == '/';
  const auto number = is_network ? number_of(line.substr(end + 1), 0, ADDRESS_BITS)
                                 : number_of(line.substr(end + 1), 1, MAX_PORT);
  if (!number) return std::nullopt;
  if (!is_network) return Ban{.network = *address, .mask = mask_of(ADDRESS_BITS), .port = *number};
  return Ban{.network = *address & mask_of(*number), .mask = mask_of(*number)};
}

// Returns the line without its comment and without the blanks at both ends.
static std::string_view stripped(std::string_view line) {
  static constexpr const char* BLANKS = " \t\r";
  line = line.substr(0, line.find('#'));
  const std::size_t first = line.find_first_not_of(BLANKS);
  if (first == std::string_view::npos) return {};
  return line.substr(first, line.find_last_not_of(BLANKS) - first + 1);
}

Bans read_bans(std::string_view text, const std::string& file) {
  Bans found;
  for (int number = 1; !text.empty(); ++number) {
    const std::string_view whole = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(whole.size() + 1, text.size()));
    const std::string_view line = stripped(whole);
    if (line.empty()) continue;
    if (const auto ban = ban_of(line)) {
      found.bans.push_back(*ban);
    } else {
      found.errors.push_back(file + ":" + std::to_string(number) + ": \"" +
                             printable(line.substr(0, MAX_SHOWN)) +
                             "\" is ignored; write ADDRESS, ADDRESS/BITS or ADDRESS:PORT");
    }
  }
  return found;
}

bool is_banned(const std::vector<Ban>& bans, const std::string& address, int port) {
  const auto number = address_of(address);
  return number && std::any_of(bans.begin(), bans.end(), [&](const Ban& ban) {
           return (*number & ban.mask) == ban.network && (ban.port == 0 || ban.port == port);
         });
}
