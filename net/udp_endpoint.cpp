#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "net/socket_layer_state.h"
#include "util/assertion.h"
#include "util/number.h"

constinit SocketLayerState socket_layer_state;

// Room for one entry of the services or protocols database with its aliases, in bytes.
static constexpr std::size_t DATABASE_ENTRY_SIZE = 4096;

static int fail(SocketError error) {
  socket_layer_state.last_error = error;
  return -1;
}

static const sockaddr* generic(const sockaddr_in* address) {
  return reinterpret_cast<const sockaddr*>(address);
}

int socket_layer_start() {
  return 0;
}

int socket_layer_stop() {
  return 0;
}

SocketError socket_error_code() {
  return socket_layer_state.last_error;
}

const char* system_error_text() {
  return std::strerror(errno);  // NOLINT(concurrency-mt-unsafe): safe per thread since glibc 2.32
}

static void keep_user_ids() {
  SocketLayerState& state = socket_layer_state;
  if (state.saved_real_user == static_cast<uid_t>(-1)) state.saved_real_user = getuid();
  if (state.saved_effective_user == static_cast<uid_t>(-1)) state.saved_effective_user = geteuid();
}

int raise_privileges() {
  keep_user_ids();
  return seteuid(socket_layer_state.saved_effective_user);
}

int drop_privileges() {
  keep_user_ids();
  return seteuid(socket_layer_state.saved_real_user);
}

void apply_nonblocking(int handle) {
  if (socket_layer_state.nonblocking == 0) return;
  const int flags = fcntl(handle, F_GETFL);
  fcntl(handle, F_SETFL, flags | O_NONBLOCK);
}

bool is_socket(int handle) {
  int type = 0;
  socklen_t length = sizeof type;
  return getsockopt(handle, SOL_SOCKET, SO_TYPE, &type, &length) == 0;
}

int find_service_port(const char* service, const char* protocol) {
  servent entry{};
  servent* found = nullptr;
  std::array<char, DATABASE_ENTRY_SIZE> work;
  getservbyname_r(service, protocol, &entry, work.data(), work.size(), &found);
  return found == nullptr ? -1 : ntohs(static_cast<std::uint16_t>(found->s_port));
}

static int find_protocol_number(const char* protocol) {
  protoent entry{};
  protoent* found = nullptr;
  std::array<char, DATABASE_ENTRY_SIZE> work;
  getprotobyname_r(protocol, &entry, work.data(), work.size(), &found);
  return found == nullptr ? -1 : found->p_proto;
}

int new_inet_socket(const char* protocol) {
  check_argument(is_text(protocol), SFLSOCK_MODULE);
  socket_layer_state.last_error = SOCKERR_NONE;
  const int number = find_protocol_number(protocol);
  if (number == -1) return fail(SOCKERR_BAD_PROTOCOL);
  const int type = std::strcmp(protocol, "udp") == 0 ? SOCK_DGRAM : SOCK_STREAM;
  const int handle = socket(AF_INET, type | SOCK_CLOEXEC, number);
  if (handle == -1) return fail(SOCKERR_SOCKET_FAILED);
  const std::int32_t on = 1;
  setsockopt(handle, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  apply_nonblocking(handle);
  ++socket_layer_state.open_sockets;
  return handle;
}

// The port to bind in network byte order, or -1 when the text gives none. Only the low 16 bits of a
// number count, and only a number is tested: a known service is taken as it is.
static int port_to_bind(const char* service, const char* protocol) {
  const std::int64_t offset = socket_layer_state.port_offset;
  std::int64_t port = find_service_port(service, protocol);
  if (port == -1) {
    port = static_cast<std::uint16_t>(text_to_int32(service));
    if (port + offset <= 0) return -1;
  }
  return htons(static_cast<std::uint16_t>(port + offset));
}

static int bind_new_socket(const sockaddr_in& local, const char* protocol) {
  const int handle = new_inet_socket(protocol);
  if (handle == -1) return -1;
  if (bind(handle, generic(&local), sizeof local) == -1) return fail(SOCKERR_BIND_FAILED);
  return handle;
}

int open_bound_socket(const char* service, const char* protocol, int backlog) {
  check_argument(is_text(service), SFLSOCK_MODULE);
  check_argument(is_text(protocol), SFLSOCK_MODULE);
  socket_layer_state.last_error = SOCKERR_NONE;
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = socket_layer_state.bind_address.exchange(0);

  raise_privileges();
  const int port = port_to_bind(service, protocol);
  local.sin_port = static_cast<in_port_t>(port);
  const int handle = port == -1 ? fail(SOCKERR_BAD_SERVICE) : bind_new_socket(local, protocol);
  drop_privileges();

  if (handle != -1 && std::strcmp(protocol, "tcp") == 0 && listen(handle, backlog) == -1) {
    return fail(SOCKERR_LISTEN_FAILED);
  }
  return handle;
}

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

// connect(2) on a UDP socket sends nothing: it looks the route up as a send would.
bool udp_can_reach(const sockaddr_in* address) {
  check_argument(address != nullptr, SFLSOCK_MODULE);
  const int probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (probe == -1) return true;
  const bool reached = connect(probe, generic(address), sizeof *address) == 0;
  close(probe);
  return reached;
}

// The two calls of a relay, by their numbers. As the library's functions they are cancellation
// points, which in a process of several threads cost more instructions than all of the server's own
// for a relay; no thread of ours is ever cancelled.
static ssize_t direct_recvfrom(int handle, void* buffer, unsigned length, sockaddr_in* sender,
                               socklen_t* sender_length) {
  return syscall(SYS_recvfrom, handle, buffer, static_cast<std::size_t>(length), 0, sender,
                 sender_length);
}

static int direct_sendmmsg(int handle, mmsghdr* messages, unsigned count) {
  return static_cast<int>(syscall(SYS_sendmmsg, handle, messages, count, 0));
}

int udp_receive(int handle, void* buffer, unsigned length, sockaddr_in* sender) {
  check_argument(buffer != nullptr, SFLSOCK_MODULE);
  check_argument(sender != nullptr, SFLSOCK_MODULE);
  socklen_t sender_length = sizeof *sender;
  return static_cast<int>(direct_recvfrom(handle, buffer, length, sender, &sender_length));
}

// How often a call waits for room in the send buffer, and how long at most each time.
static constexpr int ROOM_WAITS = 10;
static constexpr int ROOM_WAIT_MS = 10;

// After a failed attempt to send: whether to make another. What fills a send buffer is traffic,
// which must not look like a broken socket. ENOBUFS says nothing about the socket's own buffer, so
// there is no event to wait for.
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

void prepare_fanout(UdpFanout& fanout) {
  for (mmsghdr& message : fanout.messages) {
    message.msg_hdr.msg_namelen = sizeof(sockaddr_in);
    message.msg_hdr.msg_iov = &fanout.payload;
    message.msg_hdr.msg_iovlen = 1;
  }
}

// What a first call left unserved. Kept apart from it: one call serves all but in trouble.
[[gnu::noinline]] static unsigned send_the_rest(int handle, UdpFanout& fanout, unsigned count,
                                                int sent) {
  int waits_left = ROOM_WAITS;
  unsigned served = 0;
  while (sent > 0 || may_try_again(handle, waits_left)) {
    served += static_cast<unsigned>(std::max(sent, 0));
    if (served == count) break;
    sent = direct_sendmmsg(handle, &fanout.messages[served], count - served);
  }
  return served;
}

unsigned udp_send_fanout(int handle, UdpFanout& fanout, unsigned count, const void* buffer,
                         unsigned length) {
  check_argument(buffer != nullptr, SFLSOCK_MODULE);
  check_argument(count <= MAX_DESTINATIONS, SFLSOCK_MODULE);
  if (count == 0) return 0;
  fanout.payload = {const_cast<void*>(buffer), length};
  const int sent = direct_sendmmsg(handle, fanout.messages.data(), count);
  if (sent == static_cast<int>(count)) [[likely]]
    return count;
  return send_the_rest(handle, fanout, count, sent);
}

int socket_close(int handle) {
  if (!is_socket(handle)) return 0;
  --socket_layer_state.open_sockets;
  shutdown(handle, SHUT_RDWR);
  return close(handle);
}
