#include <unistd.h>

#include <cerrno>

#include "net/socket_layer_state.h"
#include "util/assertion.h"

static constexpr int CONNECT_ATTEMPTS = 3;
static constexpr unsigned CONNECT_PAUSE_S = 0;

int connect_with_retries(const char* host, const char* service, const char* protocol,
                         const sockaddr_in* ready, int attempts, unsigned pause_s) {
  sockaddr_in endpoint{};
  if (is_text(service)) {
    if (resolve_endpoint(host, service, protocol, &endpoint) == -1) return -1;
  } else {
    check_argument(ready != nullptr, SFLSOCK_MODULE);
    endpoint = *ready;
  }
  for (int left = attempts; left > 0; --left) {
    const int handle = new_inet_socket(protocol);
    if (handle == -1) return -1;
    // The socket does not block, so a connection in progress counts as connected.
    const int result = connect(handle, as_sockaddr(&endpoint), sizeof endpoint);
    if (result == 0 || errno == EINPROGRESS) return handle;
    socket_close(handle);
    if (left > 1) sleep(pause_s);
  }
  return fail(SOCKERR_CONNECT_FAILED);
}

int tcp_connect(const char* host, const char* service) {
  check_argument(is_text(service), SFLSOCK_MODULE);
  return connect_with_retries(host, service, "tcp", nullptr, CONNECT_ATTEMPTS, CONNECT_PAUSE_S);
}

int tcp_read(int handle, void* buffer, unsigned length) {
  return static_cast<int>(read(handle, buffer, length));
}

// As write(2), but a connection that the peer has closed gives EPIPE and no SIGPIPE.
int tcp_write(int handle, const void* buffer, unsigned length) {
  return static_cast<int>(send(handle, buffer, length, MSG_NOSIGNAL));
}
