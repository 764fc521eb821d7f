#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "net/socket_layer_state.h"
#include "util/assertion.h"

int fail(SocketError error) {
  socket_layer_state.last_error = error;
  return -1;
}

int socket_layer_start() {
  return 0;
}

int socket_layer_stop() {
  return 0;
}

SocketError socket_error_code() {
  return socket_layer_state.last_error;
}

const char* system_error_text() {
  return std::strerror(errno);  // NOLINT(concurrency-mt-unsafe): safe per thread since glibc 2.32
}

static void save_user_ids() {
  SocketLayerState& state = socket_layer_state;
  if (state.saved_real_user == static_cast<uid_t>(-1)) state.saved_real_user = getuid();
  if (state.saved_effective_user == static_cast<uid_t>(-1)) state.saved_effective_user = geteuid();
}

int raise_privileges() {
  save_user_ids();
  return seteuid(socket_layer_state.saved_effective_user);
}

int drop_privileges() {
  save_user_ids();
  return seteuid(socket_layer_state.saved_real_user);
}

static void apply_nonblocking(int handle) {
  if (socket_layer_state.nonblocking == 0) return;
  fcntl(handle, F_SETFL, fcntl(handle, F_GETFL) | O_NONBLOCK);
}

static bool is_socket(int handle) {
  int type = 0;
  socklen_t length = sizeof type;
  return getsockopt(handle, SOL_SOCKET, SO_TYPE, &type, &length) == 0;
}

int new_inet_socket(const char* protocol) {
  check_argument(is_text(protocol), SFLSOCK_MODULE);
  socket_layer_state.last_error = SOCKERR_NONE;
  const std::optional<int> number = find_protocol_number(protocol);
  if (!number) return fail(SOCKERR_BAD_PROTOCOL);
  const int type = std::strcmp(protocol, "udp") == 0 ? SOCK_DGRAM : SOCK_STREAM;
  const int handle = socket(AF_INET, type | SOCK_CLOEXEC, *number);
  if (handle == -1) return fail(SOCKERR_SOCKET_FAILED);
  const std::int32_t on = 1;
  setsockopt(handle, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  apply_nonblocking(handle);
  ++socket_layer_state.open_sockets;
  return handle;
}

static int bind_new_socket(const char* service, const char* protocol) {
  const in_addr address{std::exchange(socket_layer_state.bind_address, 0)};
  const std::optional<in_port_t> port = port_to_bind(service, protocol);
  if (!port) return fail(SOCKERR_BAD_SERVICE);
  const sockaddr_in local{AF_INET, *port, address, {}};
  const int handle = new_inet_socket(protocol);
  if (handle == -1) return -1;
  if (bind(handle, as_sockaddr(&local), sizeof local) == -1) return fail(SOCKERR_BIND_FAILED);
  return handle;
}

int open_bound_socket(const char* service, const char* protocol, int backlog) {
  check_argument(is_text(service), SFLSOCK_MODULE);
  check_argument(is_text(protocol), SFLSOCK_MODULE);
  raise_privileges();
  const int handle = bind_new_socket(service, protocol);
  drop_privileges();
  if (handle != -1 && std::strcmp(protocol, "tcp") == 0 && listen(handle, backlog) == -1) {
    return fail(SOCKERR_LISTEN_FAILED);
  }
  return handle;
}

int socket_close(int handle) {
  if (!is_socket(handle)) return 0;
  --socket_layer_state.open_sockets;
  shutdown(handle, SHUT_RDWR);
  return close(handle);
}
