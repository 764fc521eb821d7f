// The socket layer: plain functions over BSD sockets, IPv4 only. One UDP endpoint for the game and
// short TCP connections for the master server.
//
// Threads: udp_open_port belongs to the main thread before any other thread exists. Everything
// else may be called by any thread. A handle is a socket descriptor; -1 always means failure.
// Addresses are 16-byte sockaddr_in records, kept and handed back exactly as they were received. A
// null pointer or an empty text, where a value is required, ends the process: util/assertion.h.
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

// The most addresses of one udp_send_to_each.
inline constexpr std::size_t MAX_DESTINATIONS = 32;

// Before the first use of the layer and after the last, in any nesting. 0 on success, -1 on
// failure; on this platform they have nothing to do and cannot fail.
int socket_layer_start();
int socket_layer_stop();

// The port to bind for a service, "udp" or "tcp", in network byte order; none when the text gives
// none. The text is a name from the services database or else a decimal number, clamped to
// 2,147,483,647, of which the low 16 bits count; text behind the number is ignored.
std::optional<in_port_t> port_to_bind(const char* service, const char* protocol);

// Opens a non-blocking UDP socket on all local addresses, on the port of this text. Returns the
// handle, or -1 with socket_error_code set.
int udp_open_port(const char* port_text);

// Whether a send from this socket to this address could leave: false for port 0, for an unroutable
// or a broadcast address, and for 0.0.0.0/8, by which Linux means this machine. True when the
// system could not look the route up, for example for want of memory. Sends nothing.
bool udp_can_reach(int handle, const sockaddr_in* address);

// recvfrom(2): fills buffer and sender. Returns the bytes stored, 0 for an empty datagram; what is
// longer than the buffer is lost. -1 with errno set, EAGAIN when nothing is waiting.
int udp_receive(int handle, void* buffer, unsigned length, sockaddr_in* sender);

// While the send buffer is full, both ways to send wait, up to 5 ms in a call. A signal is no
// failure.

// sendto(2): sends the whole buffer as one datagram. Returns length, or -1 with errno set.
int udp_send(int handle, const void* buffer, unsigned length, const sockaddr_in* destination);

// sendmmsg(2): sends the payload as one datagram to each of the destinations, in order. A send
// buffer that stays full loses datagrams, as the way to a player may. At any other error it stops
// and returns false with errno set.
bool udp_send_to_each(int handle, std::span<const sockaddr_in> destinations,
                      std::span<const std::uint8_t> payload);

// Opens a non-blocking TCP connection, made or still under way; three attempts in a row when the
// system refuses at once. The host is a name or a dotted address, null or empty for this machine;
// the service a name from the services database or a decimal port. Waits for nothing but the name
// lookup. Returns the handle, or -1 with socket_error_code set.
int tcp_connect(const char* host, const char* service);

// read(2) and write(2): the bytes read, 0 at the end of the stream; the bytes written, which may be
// fewer than asked. -1 with errno set, EAGAIN when they would have to wait; a connection that
// failed after tcp_connect fails here.
int tcp_read(int handle, void* buffer, unsigned length);
int tcp_write(int handle, const void* buffer, unsigned length);

// Shuts the socket down and closes it; the result of close(2). 0 when the handle is no socket.
int socket_close(int handle);

// The reason of the last failed open, connect or resolve, whichever thread made it.
SocketError socket_error_code();

// strerror(3) of the calling thread's errno. The text belongs to the system library.
const char* system_error_text();
