// A client's UDP socket to one server.
//
// A socket is used by one thread at a time; receive_batch by one thread in all.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "server/protocol.h"

inline constexpr std::uint16_t DEFAULT_PORT = 16'309;
inline constexpr std::size_t RECEIVE_BATCH = 32;  // datagrams

// Looks up HOST or HOST:PORT for an IPv4 address. False when there is none; complaint says why,
// without a line feed.
bool resolve_server(std::string_view text, sockaddr_in& server, std::string& complaint);

// A socket connected to the server, with room for bursts. -1 with errno set.
int open_client_socket(const sockaddr_in& server);

// Sends one datagram; waits when the socket has no room. A send may fail by an error of an earlier
// datagram (ECONNREFUSED, see udp(7)), which is reported once, so it is tried twice. False with
// errno set.
bool send_datagram(int handle, Datagram datagram);

// What one call has received. The datagrams stay valid until the next call.
struct Batch {
  std::array<Datagram, RECEIVE_BATCH> datagrams;
  std::size_t count = 0;
};

// Takes what is there, up to this many datagrams. Never waits. None on an error.
const Batch& receive_batch(int handle, std::size_t most = RECEIVE_BATCH);
