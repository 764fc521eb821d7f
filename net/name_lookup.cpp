#include <arpa/inet.h>
#include <netdb.h>

#include <algorithm>
#include <cstring>

#include "net/socket_layer_state.h"
#include "util/assertion.h"
#include "util/number.h"

// Room for one entry of the services or protocols database with its aliases, in bytes.
static constexpr std::size_t DATABASE_ENTRY_SIZE = 4096;

// Room for a host's names and addresses, in bytes. More than that counts as not found.
static constexpr std::size_t HOST_ENTRY_SIZE = 8192;

std::optional<std::uint16_t> find_service_port(const char* service, const char* protocol) {
  servent entry{};
  servent* found = nullptr;
  std::array<char, DATABASE_ENTRY_SIZE> work;
  getservbyname_r(service, protocol, &entry, work.data(), work.size(), &found);
  if (found == nullptr) return std::nullopt;
  return ntohs(static_cast<std::uint16_t>(found->s_port));
}

std::optional<int> find_protocol_number(const char* protocol) {
  protoent entry{};
  protoent* found = nullptr;
  std::array<char, DATABASE_ENTRY_SIZE> work;
  getprotobyname_r(protocol, &entry, work.data(), work.size(), &found);
  if (found == nullptr) return std::nullopt;
  return found->p_proto;
}

static bool look_up_host(const char* name, in_addr& address) {
  hostent entry{};
  hostent* found = nullptr;
  int error = 0;
  std::array<char, HOST_ENTRY_SIZE> work;
  gethostbyname_r(name, &entry, work.data(), work.size(), &found, &error);
  if (found == nullptr || found->h_addr_list[0] == nullptr) return false;
  const auto length = static_cast<std::size_t>(std::max(found->h_length, 0));
  std::memcpy(&address, found->h_addr_list[0], std::min(length, sizeof address));
  return true;
}

int resolve_endpoint(const char* host, const char* service, const char* protocol,
                     sockaddr_in* endpoint) {
  check_argument(is_text(service), SFLSOCK_MODULE);
  check_argument(is_text(protocol), SFLSOCK_MODULE);
  check_argument(endpoint != nullptr, SFLSOCK_MODULE);
  socket_layer_state.last_error = SOCKERR_NONE;
  *endpoint = {};
  endpoint->sin_family = AF_INET;
  const auto number = static_cast<std::uint16_t>(text_to_int32(service));
  endpoint->sin_port = htons(find_service_port(service, protocol).value_or(number));

  if (!is_text(host)) host = "127.0.0.1";
  // inet_addr(3) returns the address of all ones for "no address", so that is looked up as a name.
  endpoint->sin_addr.s_addr = inet_addr(host);
  if (endpoint->sin_addr.s_addr != INADDR_NONE) return 0;
  return look_up_host(host, endpoint->sin_addr) ? 0 : fail(SOCKERR_BAD_HOST);
}
