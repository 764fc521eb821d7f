#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "net/socket_layer_state.h"
#include "util/assertion.h"
#include "util/number.h"

static constexpr int CONNECT_ATTEMPTS = 3;
static constexpr unsigned CONNECT_PAUSE_S = 0;

// Room for a host's names and addresses, in bytes. More than that counts as not found.
static constexpr std::size_t HOST_ENTRY_SIZE = 8192;

static int fail(SocketError error) {
  socket_layer_state.last_error = error;
  return -1;
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
  const int known = find_service_port(service, protocol);
  const auto port = static_cast<std::uint16_t>(known == -1 ? text_to_int32(service) : known);
  endpoint->sin_port = htons(port);

  if (!is_text(host)) host = "127.0.0.1";
  // The address of all ones is what inet_addr(3) says for "no address"; it is looked up as a name.
  endpoint->sin_addr.s_addr = inet_addr(host);
  if (endpoint->sin_addr.s_addr != INADDR_NONE) return 0;
  return look_up_host(host, endpoint->sin_addr) ? 0 : fail(SOCKERR_BAD_HOST);
}

// One attempt. The socket does not block, so a connection under way counts as made. failed_to_make
// tells a socket that could not be had, which no second attempt mends, from a refusal.
static int try_to_connect(const sockaddr_in& endpoint, const char* protocol, bool& failed_to_make) {
  const int handle = new_inet_socket(protocol);
  failed_to_make = handle == -1;
  if (failed_to_make) return -1;
  const auto* address = reinterpret_cast<const sockaddr*>(&endpoint);
  if (connect(handle, address, sizeof endpoint) == 0 || errno == EINPROGRESS) return handle;
  socket_close(handle);
  return -1;
}

static int connect_to(const sockaddr_in& endpoint, const char* protocol, int attempts,
                      unsigned pause_s) {
  for (int left = attempts; left > 0; --left) {
    bool failed_to_make = false;
    const int handle = try_to_connect(endpoint, protocol, failed_to_make);
    if (handle != -1) {
      apply_nonblocking(handle);
      return handle;
    }
    if (failed_to_make) return -1;
    if (left > 1) sleep(pause_s);
  }
  return fail(SOCKERR_CONNECT_FAILED);
}

int connect_with_retries(const char* host, const char* service, const char* protocol,
                         const sockaddr_in* ready, int attempts, unsigned pause_s) {
  socket_layer_state.last_error = SOCKERR_NONE;
  sockaddr_in endpoint{};
  if (is_text(service)) {
    check_argument(is_text(protocol), SFLSOCK_MODULE);
    if (resolve_endpoint(host, service, protocol, &endpoint) == -1) return -1;
  } else {
    check_argument(ready != nullptr, SFLSOCK_MODULE);
    endpoint = *ready;
  }
  const std::int16_t kept_nonblocking = socket_layer_state.nonblocking;
  const int handle = connect_to(endpoint, protocol, attempts, pause_s);
  socket_layer_state.nonblocking = kept_nonblocking;
  return handle;
}

int tcp_connect(const char* host, const char* service) {
  check_argument(is_text(service), SFLSOCK_MODULE);
  return connect_with_retries(host, service, "tcp", nullptr, CONNECT_ATTEMPTS, CONNECT_PAUSE_S);
}

int tcp_read(int handle, void* buffer, unsigned length) {
  return static_cast<int>(read(handle, buffer, length));
}

// As write(2), but a connection that the other side has ended is an error and not a signal.
int tcp_write(int handle, const void* buffer, unsigned length) {
  return static_cast<int>(send(handle, buffer, length, MSG_NOSIGNAL));
}
