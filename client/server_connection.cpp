#include "client/server_connection.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <charconv>
#include <cstring>

namespace zol {

static constexpr int SOCKET_BUFFER = 4 << 20;  // bytes, for bursts while the client is busy

static bool read_port(std::string_view text, in_port_t& port) {
  std::uint16_t number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  port = htons(number);
  return error == std::errc() && stop == end && number != 0;
}

bool resolve_server(std::string_view text, sockaddr_in& server, std::string& error_text) {
  const std::size_t colon = text.rfind(':');
  const std::string host(text.substr(0, colon));
  in_port_t port = htons(DEFAULT_PORT);
  if (host.empty() ||
      (colon != std::string_view::npos && !read_port(text.substr(colon + 1), port))) {
    error_text = "a server is HOST or HOST:PORT, not \"" + std::string(text) + "\"";
    return false;
  }
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(host.c_str(), nullptr, &hints, &found);
  if (error != 0) {
    error_text = "cannot resolve \"" + host + "\": " + gai_strerror(error);
    return false;
  }
  std::memcpy(&server, found->ai_addr, sizeof server);
  server.sin_port = port;
  freeaddrinfo(found);
  return true;
}

int open_client_socket(const sockaddr_in& server) {
  const int handle = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (handle == -1) return -1;
  if (setsockopt(handle, SOL_SOCKET, SO_RCVBUFFORCE, &SOCKET_BUFFER, sizeof SOCKET_BUFFER) == -1) {
    setsockopt(handle, SOL_SOCKET, SO_RCVBUF, &SOCKET_BUFFER, sizeof SOCKET_BUFFER);
  }
  if (connect(handle, reinterpret_cast<const sockaddr*>(&server), sizeof server) == 0)
    return handle;
  close(handle);
  return -1;
}

bool send_datagram(int handle, Datagram datagram) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (send(handle, datagram.data(), datagram.size(), MSG_NOSIGNAL) != -1) return true;
  }
  return false;
}

void send_outbox(int handle, Outbox& outbox) {
  for (Datagram datagram = outbox_take(outbox); !datagram.empty(); datagram = outbox_take(outbox)) {
    send_datagram(handle, datagram);
  }
}

void receive_batch(int handle, Batch& batch, std::size_t max_count) {
  std::array<mmsghdr, RECEIVE_BATCH> messages{};
  std::array<iovec, RECEIVE_BATCH> vectors{};
  for (std::size_t i = 0; i < max_count; ++i) {
    vectors[i] = {batch.buffers[i].data(), batch.buffers[i].size()};
    messages[i].msg_hdr.msg_iov = &vectors[i];
    messages[i].msg_hdr.msg_iovlen = 1;
  }
  const int received =
      recvmmsg(handle, messages.data(), static_cast<unsigned>(max_count), MSG_DONTWAIT, nullptr);
  batch.count = received > 0 ? static_cast<std::size_t>(received) : 0;
  for (std::size_t i = 0; i < batch.count; ++i) {
    batch.datagrams[i] = Datagram(batch.buffers[i]).first(messages[i].msg_len);
  }
}

}  // namespace zol
