#include <arpa/inet.h>
#include <netdb.h>

#include <cstring>

#include "net/socket_layer_state.h"
#include "util/assertion.h"
#include "util/number.h"

// Bytes for one entry of a database, including its aliases. A larger entry counts as not found.
static constexpr std::size_t ENTRY_SIZE = 8192;

// The port of a service in host byte order; none when the services database does not have it.
static std::optional<std::uint16_t> find_service_port(const char* service, const char* protocol) {
  servent entry{};
  servent* found = nullptr;
  std::array<char, ENTRY_SIZE> work;
  getservbyname_r(service, protocol, &entry, work.data(), work.size(), &found);
  if (found == nullptr) return std::nullopt;
  return ntohs(static_cast<std::uint16_t>(found->s_port));
}

std::optional<int> find_protocol_number(const char* protocol) {
  protoent entry{};
  protoent* found = nullptr;
  std::array<char, ENTRY_SIZE> work;
  getprotobyname_r(protocol, &entry, work.data(), work.size(), &found);
  if (found == nullptr) return std::nullopt;
  return found->p_proto;
}

static std::uint16_t number_as_port(const char* text) {
  return static_cast<std::uint16_t>(text_to_int32(text));
}

// A port from the services database is not checked. A number must give a positive port.
std::optional<in_port_t> port_to_bind(const char* service, const char* protocol) {
  const std::int64_t offset = socket_layer_state.port_offset;
  const std::optional<std::uint16_t> known = find_service_port(service, protocol);
  const std::int64_t port = known.value_or(number_as_port(service)) + offset;
  if (!known && port <= 0) return std::nullopt;
  return htons(static_cast<std::uint16_t>(port));
}

static bool look_up_host(const char* name, in_addr& address) {
  hostent entry{};
  hostent* found = nullptr;
  int error = 0;
  std::array<char, ENTRY_SIZE> work;
  gethostbyname_r(name, &entry, work.data(), work.size(), &found, &error);
  if (found == nullptr || found->h_addr_list[0] == nullptr) return false;
  std::memcpy(&address, found->h_addr_list[0], sizeof address);
  return true;
}

int resolve_endpoint(const char* host, const char* service, const char* protocol,
                     sockaddr_in* endpoint) {
  check_argument(is_text(service), SFLSOCK_MODULE);
  check_argument(is_text(protocol), SFLSOCK_MODULE);
  check_argument(endpoint != nullptr, SFLSOCK_MODULE);
  socket_layer_state.last_error = SOCKERR_NONE;
  const std::optional<std::uint16_t> known = find_service_port(service, protocol);
  *endpoint = {AF_INET, htons(known.value_or(number_as_port(service))), {}, {}};

  if (!is_text(host)) host = "127.0.0.1";
  // inet_addr(3) returns 255.255.255.255 for an error, so that address is looked up as a name.
  endpoint->sin_addr.s_addr = inet_addr(host);
  if (endpoint->sin_addr.s_addr != INADDR_NONE) return 0;
  return look_up_host(host, endpoint->sin_addr) ? 0 : fail(SOCKERR_BAD_HOST);
}
