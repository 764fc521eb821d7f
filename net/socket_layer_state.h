// State and functions that both sides of the socket layer, UDP and TCP, share. Only this folder and
// the tests include this header.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <optional>

#include "net/sflsock.h"

inline constexpr const char* SFLSOCK_MODULE = "sflsock";

// Any thread may open a connection, so the fields that this changes are atomic. The other fields
// change only before other threads exist.
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

// Opens a bound socket for "udp", or for "tcp" one that also listens. -1 with the last error set. A
// socket that could not be bound stays open: the server ends after that failure.
int open_bound_socket(const char* service, const char* protocol, int backlog);

// Opens an unbound socket: datagram for exactly "udp", stream for every other protocol. -1 with the
// last error set.
int new_inet_socket(const char* protocol);

// Stores the last error. Returns -1.
int fail(SocketError error);

inline const sockaddr* generic(const sockaddr_in* address) {
  return reinterpret_cast<const sockaddr*>(address);
}

// None when the protocols database does not contain it.
std::optional<int> find_protocol_number(const char* protocol);

// Fills endpoint from a host and a service as tcp_connect takes them; an unknown service without
// digits gives port 0. 0 on success, -1 with the last error set.
int resolve_endpoint(const char* host, const char* service, const char* protocol,
                     sockaddr_in* endpoint);

// Connects to host and service, or, without a service, to the given endpoint. Makes up to attempts
// (at least 1) attempts, pause seconds apart. Returns the handle, or -1 with the last error set.
int connect_with_retries(const char* host, const char* service, const char* protocol,
                         const sockaddr_in* ready, int attempts, unsigned pause_s);

// seteuid(2) to the user that started the process, and back to its real user. The first call of
// either stores both ids.
int raise_privileges();
int drop_privileges();
