// A player's side of the network: UDP sockets on loopback that are connected to the program under
// measurement and never wait.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <string_view>

inline constexpr unsigned BATCH = 32;  // datagrams taken by one receive

// The handle, or -1.
inline int open_client_socket(std::uint16_t port) {
  const int handle = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_port = htons(port);
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const auto* address = reinterpret_cast<const sockaddr*>(&server);
  return connect(handle, address, sizeof server) == 0 ? handle : -1;
}

inline bool send_bytes(int handle, std::string_view bytes) {
  return send(handle, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size());
}

// Hands over what waits, up to this many datagrams.
template <typename Take>
void receive_waiting(int handle, unsigned most, Take take) {
  static std::array<std::array<char, 256>, BATCH> datagrams;
  std::array<iovec, BATCH> payloads{};
  std::array<mmsghdr, BATCH> messages{};
  for (unsigned i = 0; i < most; ++i) {
    payloads[i] = {datagrams[i].data(), datagrams[i].size()};
    messages[i].msg_hdr.msg_iov = &payloads[i];
    messages[i].msg_hdr.msg_iovlen = 1;
  }
  const int count = recvmmsg(handle, messages.data(), most, 0, nullptr);
  for (unsigned i = 0; static_cast<int>(i) < count; ++i) {
    take(std::string_view(datagrams[i].data(), messages[i].msg_len));
  }
}
