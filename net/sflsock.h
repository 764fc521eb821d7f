// The socket layer: plain functions over BSD sockets, IPv4 only. One UDP endpoint for the game and
// short TCP connections for the master server.
//
// Threads: the main thread calls udp_open_port before any other thread exists. Any thread may call
// the other functions. A handle is a socket descriptor; -1 always means failure. Addresses are
// 16-byte sockaddr_in records, returned exactly as received. A null pointer or an empty text where
// a value is required ends the process (util/assertion.h).
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

enum SocketError : std::int32_t {
  SOCKERR_NONE = 0,
  SOCKERR_NO_SOCKETS = 1,
  SOCKERR_BAD_HOST = 2,
  SOCKERR_BAD_SERVICE = 3,
  SOCKERR_BAD_PROTOCOL = 4,
  SOCKERR_SOCKET_FAILED = 5,
  SOCKERR_CONNECT_FAILED = 6,
  SOCKERR_BIND_FAILED = 7,
  SOCKERR_LISTEN_FAILED = 8,
};

// Indexed by SocketError.
inline constexpr std::array<const char*, 9> SOCKET_ERROR_TEXTS = {
    "No errors",
    "System does not support sockets",
    "Host is not known",
    "Service or port not known",
    "Protocol not known",
    "Connection failed on socket()",
    "Connection failed on connect()",
    "Port is already used by another server",
    "Connection failed on listen()",
};

// The maximum number of addresses in one udp_send_to_each.
inline constexpr std::size_t MAX_DESTINATIONS = 32;

// Call start before the first use of the layer and stop after the last; calls may nest. 0 on
// success, -1 on failure. On this platform both do nothing and cannot fail.
int socket_layer_start();
int socket_layer_stop();

// The port to bind for a service and "udp" or "tcp", in network byte order; none when the service
// gives no port. The service is a name from the services database or a decimal number. A number is
// clamped to 32 bits, and its low 16 bits are the port. Text after the number is ignored.
std::optional<in_port_t> port_to_bind(const char* service, const char* protocol);

// Opens a non-blocking UDP socket on all local addresses, on the port of this text. Returns the
// handle, or -1 with socket_error_code set.
int udp_open_port(const char* port_text);

// Whether the system would send a datagram to this address: false for port 0, an unroutable or a
// broadcast address, and 0.0.0.0/8, which Linux treats as this machine. Also true when the check
// itself failed, for example for lack of memory. Sends nothing.
bool udp_can_reach(int handle, const sockaddr_in* address);

// recvfrom(2): fills buffer and sender. Returns the bytes stored, 0 for an empty datagram; the rest
// of a longer datagram is lost. -1 with errno set, EAGAIN when no datagram is waiting.
int udp_receive(int handle, void* buffer, unsigned length, sockaddr_in* sender);

// While the send buffer is full, both send functions wait, up to 5 ms in a call. A signal does not
// make them fail.

// sendto(2): sends the buffer as one datagram. Returns its length in bytes, or -1 with errno set.
int udp_send(int handle, const void* buffer, unsigned length, const sockaddr_in* destination);

// sendmmsg(2): sends the payload as one datagram to each destination, in order. If the send buffer
// stays full, the datagrams without room are lost and the result is true. After any other error it
// stops and returns false with errno set.
bool udp_send_to_each(int handle, std::span<const sockaddr_in> destinations,
                      std::span<const std::uint8_t> payload);

// Opens a non-blocking TCP connection, which may still be in progress. Tries up to three times when
// connect(2) fails at once. The host is a name or a dotted address; null or empty is this machine.
// The service is a name from the services database or a decimal port. Only the name lookup blocks.
// Returns the handle, or -1 with socket_error_code set.
int tcp_connect(const char* host, const char* service);

// read(2) and write(2). tcp_read returns the bytes read, 0 at the end of the stream. tcp_write
// returns the bytes written, possibly fewer than length. Both return -1 with errno set: EAGAIN when
// the call would block, or the reason why the connection has failed.
int tcp_read(int handle, void* buffer, unsigned length);
int tcp_write(int handle, const void* buffer, unsigned length);

// Shuts down and closes a socket. Returns the result of close(2); 0 when the handle is no socket.
int socket_close(int handle);

// The error of the last open, connect or look-up in any thread; SOCKERR_NONE when it succeeded.
SocketError socket_error_code();

// strerror(3) of the calling thread's errno. The text belongs to the system library.
const char* system_error_text();
