// Sockets on loopback, on ports chosen by the kernel.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

inline sockaddr_in local_address(int handle) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  EXPECT_EQ(getsockname(handle, reinterpret_cast<sockaddr*>(&address), &length), 0);
  return address;
}

// Opens and binds a socket. type: SOCK_DGRAM or SOCK_STREAM, with flags. port: network byte order;
// 0 for a free port.
inline int bind_loopback(int type, const char* host = "127.0.0.1", in_port_t port = 0) {
  const int handle = socket(AF_INET, type, 0);
  sockaddr_in address{.sin_family = AF_INET, .sin_port = port, .sin_addr = {}, .sin_zero = {}};
  address.sin_addr.s_addr = inet_addr(host);
  EXPECT_EQ(bind(handle, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  return handle;
}

// A UDP port that was free at the time of the call.
inline std::uint16_t free_port() {
  const int handle = bind_loopback(SOCK_DGRAM);
  const std::uint16_t port = ntohs(local_address(handle).sin_port);
  close(handle);
  return port;
}
