// A client's UDP socket to one server, on POSIX systems. Only one thread at a time may use a socket
// or a batch.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "client/outbox.h"
#include "server/protocol.h"

namespace zol {

inline constexpr std::uint16_t DEFAULT_PORT = 16'309;
inline constexpr std::size_t RECEIVE_BATCH = 32;  // datagrams

// Looks up the IPv4 address of HOST or HOST:PORT. On failure returns false with the reason in
// complaint, without a line feed.
bool resolve_server(std::string_view text, sockaddr_in& server, std::string& complaint);

// Opens a socket connected to the server, with large buffers. -1 with errno set.
int open_client_socket(const sockaddr_in& server);

// Sends one datagram; waits while the send buffer is full. Tries twice, because the first try may
// fail with the error of an earlier datagram (ECONNREFUSED, see udp(7)). False with errno set.
bool send_datagram(int handle, Datagram datagram);

// Sends what is in the outbox. A datagram that cannot be sent is lost.
void send_outbox(int handle, Outbox& outbox);

// The datagrams received by one call. They point into the buffers, so a batch is not copied.
struct Batch {
  std::array<std::array<std::uint8_t, RECEIVE_BUFFER_SIZE>, RECEIVE_BATCH> buffers;
  std::array<Datagram, RECEIVE_BATCH> datagrams;
  std::size_t count = 0;

  Batch() = default;
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;
};

// Takes the datagrams that are waiting, up to this many. Never blocks. None on an error.
void receive_batch(int handle, Batch& batch, std::size_t most = RECEIVE_BATCH);

}  // namespace zol
