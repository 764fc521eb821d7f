// The least that a relay can do, to measure the server beside: who sends first is a peer, up to a
// fixed number; from then on every position update goes to all peers but its sender, in slot order.
// No state, no log, no look at what it relays. Three ways to do it:
//
//   sendmmsg  waits in poll(2), drains the socket, one sendmmsg(2) a relay
//   sendto    the same with one sendto(2) a peer
//   polling   never waits on the socket: 50 us of sleep when nothing is there, then tries again
//
// The socket is opened as the server opens its own, so both have the same buffers.

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "net/sflsock.h"
#include "server/protocol.h"

static constexpr unsigned MAX_PEERS = 32;
static constexpr useconds_t POLLING_PAUSE_US = 50;

static int floor_socket = -1;
static unsigned peer_count = 0;
static std::array<sockaddr_in, MAX_PEERS> peers;
static PlayerPosition relay_record;

static std::array<mmsghdr, MAX_PEERS> messages;
static unsigned left_out = 0;  // the slot that messages has no entry for

static sockaddr* generic(sockaddr_in& address) {
  return reinterpret_cast<sockaddr*>(&address);
}

static ssize_t receive(PositionUpdate& update, sockaddr_in& sender) {
  socklen_t sender_length = sizeof sender;
  return recvfrom(floor_socket, &update, sizeof update, 0, generic(sender), &sender_length);
}

static void wait_for_datagram() {
  pollfd wait{.fd = floor_socket, .events = POLLIN, .revents = 0};
  poll(&wait, 1, -1);
}

// The answer has the bytes of the server's that a player needs: the code and its slot.
static void learn_peers(unsigned expected) {
  while (peer_count < expected) {
    PositionUpdate hello;
    sockaddr_in& peer = peers[peer_count];
    if (receive(hello, peer) < 0) {
      wait_for_datagram();
      continue;
    }
    const std::array<std::uint8_t, 2> answer = {CMD_JOIN_ACCEPTED,
                                                static_cast<std::uint8_t>(peer_count)};
    sendto(floor_socket, answer.data(), answer.size(), 0, generic(peer), sizeof peer);
    ++peer_count;
  }
}

static unsigned find_peer(const sockaddr_in& sender) {
  unsigned slot = 0;
  while (slot < peer_count && (peers[slot].sin_port != sender.sin_port ||
                               peers[slot].sin_addr.s_addr != sender.sin_addr.s_addr)) {
    ++slot;
  }
  return slot;
}

static void prepare_messages() {
  static iovec payload{&relay_record, sizeof relay_record};
  left_out = peer_count - 1;
  for (unsigned i = 0; i < left_out; ++i) {
    messages[i].msg_hdr.msg_name = &peers[i];
    messages[i].msg_hdr.msg_namelen = sizeof peers[i];
    messages[i].msg_hdr.msg_iov = &payload;
    messages[i].msg_hdr.msg_iovlen = 1;
  }
}

// Only the entries between the last sender's slot and this one's change.
static void send_batched(unsigned sender) {
  for (; left_out > sender; --left_out) {
    messages[left_out - 1].msg_hdr.msg_name = &peers[left_out];
  }
  for (; left_out < sender; ++left_out) messages[left_out].msg_hdr.msg_name = &peers[left_out];
  sendmmsg(floor_socket, messages.data(), peer_count - 1, 0);
}

static void send_singly(unsigned sender) {
  for (unsigned slot = 0; slot < peer_count; ++slot) {
    if (slot == sender) continue;
    sendto(floor_socket, &relay_record, sizeof relay_record, 0, generic(peers[slot]),
           sizeof peers[slot]);
  }
}

template <void (*send_to_others)(unsigned sender), void (*pause)()>
[[noreturn]] static void relay_forever() {
  PositionUpdate update;
  sockaddr_in sender;
  while (true) {
    if (receive(update, sender) < 0) {
      pause();
      continue;
    }
    const unsigned slot = find_peer(sender);
    if (slot == peer_count) continue;  // a stranger has no place in the prepared messages
    relay_record.slot = static_cast<std::uint8_t>(slot);
    relay_record.position = update.position;
    send_to_others(slot);
  }
}

static void sleep_briefly() {
  usleep(POLLING_PAUSE_US);
}

int main(int count, char** arguments) {
  const char* mode = count == 4 ? arguments[1] : "";
  const int peers_expected = count == 4 ? std::atoi(arguments[3]) : 0;
  const bool known = std::strcmp(mode, "sendmmsg") == 0 || std::strcmp(mode, "sendto") == 0 ||
                     std::strcmp(mode, "polling") == 0;
  if (!known || peers_expected < 2 || peers_expected > static_cast<int>(MAX_PEERS)) {
    std::fprintf(stderr, "usage: relay_floor sendmmsg|sendto|polling PORT PEERS(2..32)\n");
    return EXIT_FAILURE;
  }
  floor_socket = udp_open_port(arguments[2]);
  if (floor_socket == -1) {
    std::fprintf(stderr, "relay_floor: cannot open port %s\n", arguments[2]);
    return EXIT_FAILURE;
  }
  learn_peers(static_cast<unsigned>(peers_expected));
  prepare_messages();
  if (std::strcmp(mode, "sendmmsg") == 0) relay_forever<send_batched, wait_for_datagram>();
  if (std::strcmp(mode, "sendto") == 0) relay_forever<send_singly, wait_for_datagram>();
  relay_forever<send_singly, sleep_briefly>();
}
