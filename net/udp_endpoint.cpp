#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>

#include "net/socket_layer_state.h"
#include "util/assertion.h"

// The default holds a burst of some 256 small datagrams. The system gives what it allows; nothing
// depends on how much.
static void ask_for_room(int handle) {
  const int bytes = 1 << 20;
  setsockopt(handle, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
  setsockopt(handle, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
}

int udp_open_port(const char* port_text) {
  const int handle = open_bound_socket(port_text, "udp", 0);
  if (handle != -1) ask_for_room(handle);
  return handle;
}

// With MSG_CONFIRM, this flag and no bytes, Linux looks the route up and checks the address as for
// any other send, and then sends nothing. The C library has no name for the flag.
static constexpr int PROBE_FLAG = 0x10;

bool udp_can_reach(int handle, const sockaddr_in* address) {
  check_argument(address != nullptr, SFLSOCK_MODULE);
  return sendto(handle, "", 0, MSG_CONFIRM | PROBE_FLAG, generic(address), sizeof *address) != -1;
}

int udp_receive(int handle, void* buffer, unsigned length, sockaddr_in* sender) {
  check_argument(buffer != nullptr, SFLSOCK_MODULE);
  check_argument(sender != nullptr, SFLSOCK_MODULE);
  socklen_t sender_length = sizeof *sender;
  auto* address = reinterpret_cast<sockaddr*>(sender);
  return static_cast<int>(recvfrom(handle, buffer, length, 0, address, &sender_length));
}

// How often a call waits for room in the send buffer, and how long at most each time.
static constexpr int ROOM_WAITS = 10;
static constexpr int ROOM_WAIT_MS = 10;

// After a failed attempt to send: whether to try again. ENOBUFS says nothing about the socket's own
// buffer, so there is no event to wait for.
static bool may_try_again(int handle, int& waits_left) {
  if (errno == EINTR) return true;
  if ((errno != EAGAIN && errno != ENOBUFS) || waits_left == 0) return false;
  --waits_left;
  pollfd wait{.fd = handle, .events = 0, .revents = 0};
  if (errno == EAGAIN) wait.events = POLLOUT;
  poll(&wait, 1, ROOM_WAIT_MS);
  return true;
}

int udp_send(int handle, const void* buffer, unsigned length, const sockaddr_in* destination) {
  check_argument(buffer != nullptr, SFLSOCK_MODULE);
  check_argument(destination != nullptr, SFLSOCK_MODULE);
  int waits_left = ROOM_WAITS;
  ssize_t sent;
  do {
    sent = sendto(handle, buffer, length, 0, generic(destination), sizeof *destination);
  } while (sent == -1 && may_try_again(handle, waits_left));
  return static_cast<int>(sent);
}

bool udp_send_to_each(int handle, std::span<const sockaddr_in> destinations,
                      std::span<const std::byte> payload) {
  check_argument(destinations.size() <= MAX_DESTINATIONS, SFLSOCK_MODULE);
  iovec bytes{const_cast<std::byte*>(payload.data()), payload.size()};
  std::array<mmsghdr, MAX_DESTINATIONS> messages{};
  for (std::size_t i = 0; i < destinations.size(); ++i) {
    msghdr& message = messages[i].msg_hdr;
    message.msg_name = const_cast<sockaddr_in*>(&destinations[i]);
    message.msg_namelen = sizeof(sockaddr_in);
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
  }
  int waits_left = ROOM_WAITS;
  for (std::size_t served = 0; served < destinations.size();) {
    const auto rest = static_cast<unsigned>(destinations.size() - served);
    const int sent = sendmmsg(handle, &messages[served], rest, 0);
    if (sent == -1 && !may_try_again(handle, waits_left)) return false;
    if (sent > 0) served += static_cast<unsigned>(sent);
  }
  return true;
}
