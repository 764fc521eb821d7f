// What the UDP and the TCP side of the socket layer share. Nothing outside this folder and the
// tests includes this header.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <optional>

#include "net/sflsock.h"

inline constexpr const char* SFLSOCK_MODULE = "sflsock";

// Any thread may open a connection, so what that writes is atomic. All else is written while the
// main thread is alone.
struct SocketLayerState {
  std::int32_t port_offset = 0;    // added to every port that is bound by service text
  std::int16_t nonblocking = 1;    // non-zero: no socket of the layer blocks
  std::uint32_t bind_address = 0;  // network byte order; each bind resets it to 0
  std::atomic<std::int32_t> open_sockets = 0;
  std::atomic<SocketError> last_error = SOCKERR_NONE;
  uid_t saved_real_user = static_cast<uid_t>(-1);  // -1: not yet read
  uid_t saved_effective_user = static_cast<uid_t>(-1);
};

static_assert(std::atomic<SocketError>::is_always_lock_free);

inline constinit SocketLayerState socket_layer_state;

// A bound socket for the service and protocol ("udp" or "tcp", which also listens), or -1 with the
// last error set. A socket that could not be bound stays open: the server ends on that failure.
int open_bound_socket(const char* service, const char* protocol, int backlog);

// An unbound socket: datagram for exactly "udp", stream for every other protocol; -1 with the last
// error set.
int new_inet_socket(const char* protocol);

// Keeps the error as the last one; -1, for the caller to return.
int fail(SocketError error);

inline const sockaddr* generic(const sockaddr_in* address) {
  return reinterpret_cast<const sockaddr*>(address);
}

// None when the protocols database does not know it.
std::optional<int> find_protocol_number(const char* protocol);

// Fills endpoint from a host and a service as tcp_connect takes them; an unknown service without
// digits gives port 0. 0 on success, -1 with the last error set.
int resolve_endpoint(const char* host, const char* service, const char* protocol,
                     sockaddr_in* endpoint);

// Connects to host and service, or without a service to the ready endpoint, in up to attempts (at
// least 1) attempts with a pause in seconds in between. The handle, or -1 with the last error set.
int connect_with_retries(const char* host, const char* service, const char* protocol,
                         const sockaddr_in* ready, int attempts, unsigned pause_s);

// seteuid(2) to the user the process was started as, and back to its real user. The first use of
// either keeps both ids.
int raise_privileges();
int drop_privileges();
