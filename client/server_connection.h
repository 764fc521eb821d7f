// A client's UDP socket to one server, on Linux. Only one thread at a time may use a socket
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

// Looks up the IPv4 address of HOST or HOST:PORT; may block. On failure returns false, with the
// reason in error_text, without a line feed.
bool resolve_server(std::string_view text, sockaddr_in& server, std::string& error_text);

// Opens a UDP socket that is connected to the server. Returns the file descriptor, or -1 with errno
// set.
int open_client_socket(const sockaddr_in& server);

// Sends one datagram; blocks while the send buffer is full. Tries twice, because the first try may
// fail with the error of an earlier datagram (ECONNREFUSED, see udp(7)). On failure returns false
// with errno set.
bool send_datagram(int handle, Datagram datagram);

// Sends all datagrams in the outbox. A datagram that cannot be sent is lost.
void send_outbox(int handle, Outbox& outbox);

// The datagrams received by one call. They point into the buffers, so a batch cannot be copied. The
// size of a batch is about 9 KiB.
struct Batch {
  std::array<std::array<std::uint8_t, RECEIVE_BUFFER_SIZE>, RECEIVE_BATCH> buffers;
  std::array<Datagram, RECEIVE_BATCH> datagrams;
  std::size_t count = 0;

  Batch() = default;
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;
};

// Receives the waiting datagrams, at most max_count of them, which is at most RECEIVE_BATCH. Never
// blocks. On an error batch.count is 0.
void receive_batch(int handle, Batch& batch, std::size_t max_count = RECEIVE_BATCH);

}  // namespace zol
