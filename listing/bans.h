// The addresses that the operator bans from the list. A file of bans has one ban per line; "#"
// begins a comment:
//
//   198.51.100.7            all servers of an address
//   203.0.113.0/24          all servers of a network
//   192.0.2.80:16309        one server
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct Ban {
  std::uint32_t network = 0;  // host byte order
  std::uint32_t mask = 0;     // host byte order
  int port = 0;               // 0: all ports
};

struct Bans {
  std::vector<Ban> bans;
  std::vector<std::string> errors;  // one for each line that is not a ban
};

// file: the name of the file, for the errors.
Bans read_bans(std::string_view text, const std::string& file);
// False when address is not an IPv4 address.
bool is_banned(const std::vector<Ban>& bans, const std::string& address, int port);
