#include <arpa/inet.h>
#include <poll.h>
#include <sys/uio.h>

#include <cerrno>

#include "net/socket_layer_state.h"
#include "util/assertion.h"

int udp_open_port(const char* port_text) {
  const int handle = open_bound_socket(port_text, "udp", 0);
  if (handle == -1) return -1;
  // 4 MiB for bursts, and for datagrams that Linux holds for seconds while a host of the local
  // network does not answer ARP. The system may grant less.
  const int bytes = 4 << 20;
  setsockopt(handle, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
  setsockopt(handle, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
  return handle;
}

int udp_receive(int handle, void* buffer, unsigned length, sockaddr_in* sender) {
  check_argument(buffer != nullptr, SFLSOCK_MODULE);
  check_argument(sender != nullptr, SFLSOCK_MODULE);
  socklen_t sender_length = sizeof *sender;
  auto* address = reinterpret_cast<sockaddr*>(sender);
  return static_cast<int>(recvfrom(handle, buffer, length, 0, address, &sender_length));
}

static constexpr int ROOM_WAIT_MS = 5;

static bool is_full() {
  return errno == EAGAIN || errno == ENOBUFS;
}

// After a failed send: whether to try again. Waits for room in the send buffer if may_wait is set.
static bool may_try_again(int handle, bool& may_wait) {
  if (errno == EINTR) return true;
  if (!is_full() || !may_wait) return false;
  may_wait = false;
  // ENOBUFS means that a queue outside the socket is full; no event tells when it has room.
  pollfd wait{.fd = handle, .events = 0, .revents = 0};
  if (errno == EAGAIN) wait.events = POLLOUT;
  poll(&wait, 1, ROOM_WAIT_MS);
  return true;
}

static ssize_t send_with_retry(int handle, const void* buffer, std::size_t length, int flags,
                               const sockaddr_in* destination) {
  bool may_wait = true;
  ssize_t sent;
  do {
    sent = sendto(handle, buffer, length, flags, as_sockaddr(destination), sizeof *destination);
  } while (sent == -1 && may_try_again(handle, may_wait));
  return sent;
}

// With MSG_CONFIRM, this flag and no bytes, Linux checks the route and the address as for any other
// send, and sends nothing. The C library does not define this flag.
static constexpr int PROBE_FLAG = 0x10;

bool udp_can_reach(int handle, const sockaddr_in* address) {
  check_argument(address != nullptr, SFLSOCK_MODULE);
  if (ntohl(address->sin_addr.s_addr) >> 24U == 0) return false;
  if (send_with_retry(handle, "", 0, MSG_CONFIRM | PROBE_FLAG, address) != -1) return true;
  // These errors say nothing about the address.
  return is_full() || errno == ENOMEM || errno == EOPNOTSUPP;
}

int udp_send(int handle, const void* buffer, unsigned length, const sockaddr_in* destination) {
  check_argument(buffer != nullptr, SFLSOCK_MODULE);
  check_argument(destination != nullptr, SFLSOCK_MODULE);
  return static_cast<int>(send_with_retry(handle, buffer, length, 0, destination));
}

bool udp_send_to_each(int handle, std::span<const sockaddr_in> destinations,
                      std::span<const std::uint8_t> payload) {
  check_argument(destinations.size() <= MAX_DESTINATIONS, SFLSOCK_MODULE);
  iovec bytes{const_cast<std::uint8_t*>(payload.data()), payload.size()};
  std::array<mmsghdr, MAX_DESTINATIONS> messages;  // uninitialised from destinations.size() on
  for (std::size_t i = 0; i < destinations.size(); ++i) {
    messages[i] = {};
    msghdr& message = messages[i].msg_hdr;
    message.msg_name = const_cast<sockaddr_in*>(&destinations[i]);
    message.msg_namelen = sizeof(sockaddr_in);
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
  }
  bool may_wait = true;
  for (std::size_t done_count = 0; done_count < destinations.size();) {
    const auto remaining = static_cast<unsigned>(destinations.size() - done_count);
    const int sent = sendmmsg(handle, &messages[done_count], remaining, 0);
    if (sent > 0) {
      done_count += static_cast<unsigned>(sent);
    } else if (!may_try_again(handle, may_wait)) {
      if (!is_full()) return false;
      ++done_count;  // no room: the datagram is lost
    }
  }
  return true;
}
