// State and functions that UDP and TCP share. Only this folder and the tests include this header.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <optional>

#include "net/sflsock.h"

inline constexpr const char* SFLSOCK_MODULE = "sflsock";

// Any thread may open and close a connection, so the fields that these calls change are atomic. The
// other fields change only before other threads exist.
struct SocketLayerState {
  std::int32_t port_offset = 0;    // added to every port that is bound by service text
  std::int16_t nonblocking = 1;    // non-zero: new sockets do not block
  std::uint32_t bind_address = 0;  // network byte order; each bind resets it to 0
  std::atomic<std::int32_t> open_sockets = 0;
  std::atomic<SocketError> last_error = SOCKERR_NONE;
  uid_t saved_real_user = static_cast<uid_t>(-1);  // -1: not yet read
  uid_t saved_effective_user = static_cast<uid_t>(-1);
};

static_assert(std::atomic<SocketError>::is_always_lock_free);

inline constinit SocketLayerState socket_layer_state;

// Opens a bound socket for "udp", or a bound and listening socket for "tcp". -1 with the last error
// set. A socket that could not be bound stays open: the server ends after that failure.
int open_bound_socket(const char* service, const char* protocol, int backlog);

// Opens an unbound socket: SOCK_DGRAM for "udp", SOCK_STREAM for every other protocol. -1 with the
// last error set.
int new_inet_socket(const char* protocol);

// Stores the last error. Returns -1.
int fail(SocketError error);

inline const sockaddr* as_sockaddr(const sockaddr_in* address) {
  return reinterpret_cast<const sockaddr*>(address);
}

// The number of "udp" or "tcp"; none when the protocols database does not contain the name.
std::optional<int> find_protocol_number(const char* protocol);

// Fills endpoint from a host and a service as tcp_connect takes them; an unknown service without
// digits gives port 0. 0 on success, -1 with the last error set.
int resolve_endpoint(const char* host, const char* service, const char* protocol,
                     sockaddr_in* endpoint);

// Connects to host and service; without a service, to the endpoint `ready`. Makes up to `attempts`
// attempts (at least 1), `pause_s` seconds apart. Returns the handle, or -1 with the last error
// set.
int connect_with_retries(const char* host, const char* service, const char* protocol,
                         const sockaddr_in* ready, int attempts, unsigned pause_s);

// raise_privileges calls seteuid(2) with the effective user id that the process had at the first of
// these calls; drop_privileges, with its real user id. Both return 0, or -1 with errno set.
int raise_privileges();
int drop_privileges();
