// A relay that does the minimum of work, for a comparison with the server. The senders of the first
// PEERS datagrams are the peers. After that, every position update goes to all peers except its
// sender, in slot order, by one sendmmsg(2). It stores and prints nothing, and does not check the
// datagrams. It opens its socket in the same way as the server, so both have the same buffers.

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cstdio>
#include <cstdlib>

#include "net/sflsock.h"
#include "server/protocol.h"

using namespace zol;

static int floor_socket = -1;
static unsigned peer_count = 0;
static std::array<sockaddr_in, MAX_DESTINATIONS> peers;
static PlayerPosition relay_record;
static iovec payload{&relay_record, sizeof relay_record};
static std::array<mmsghdr, MAX_DESTINATIONS> messages;

static void receive(PositionUpdate& update, sockaddr_in& sender) {
  auto* address = reinterpret_cast<sockaddr*>(&sender);
  socklen_t length = sizeof sender;
  while (recvfrom(floor_socket, &update, sizeof update, 0, address, &length) < 0) {
    pollfd wait{.fd = floor_socket, .events = POLLIN, .revents = 0};
    poll(&wait, 1, -1);
  }
}

static void learn_peers(unsigned expected) {
  for (; peer_count < expected; ++peer_count) {
    PositionUpdate hello;
    sockaddr_in& peer = peers[peer_count];
    receive(hello, peer);
    const JoinAccepted answer{.slot = static_cast<std::uint8_t>(peer_count)};
    sendto(floor_socket, &answer, sizeof answer, 0, reinterpret_cast<sockaddr*>(&peer),
           sizeof peer);
    msghdr& message = messages[peer_count].msg_hdr;
    message.msg_namelen = sizeof peer;
    message.msg_iov = &payload;
    message.msg_iovlen = 1;
  }
}

static void send_to_others(const sockaddr_in& sender) {
  unsigned others = 0;
  for (unsigned slot = 0; slot < peer_count; ++slot) {
    if (peers[slot].sin_port == sender.sin_port) {  // all are on one machine
      relay_record.slot = static_cast<std::uint8_t>(slot);
    } else {
      messages[others++].msg_hdr.msg_name = &peers[slot];
    }
  }
  sendmmsg(floor_socket, messages.data(), others, 0);
}

int main(int count, char** arguments) {
  const int peers_expected = count == 3 ? std::atoi(arguments[2]) : 0;
  if (peers_expected < 2 || peers_expected > static_cast<int>(MAX_DESTINATIONS)) {
    std::fprintf(stderr, "usage: relay_floor PORT PEERS(2..32)\n");
    return EXIT_FAILURE;
  }
  floor_socket = udp_open_port(arguments[1]);
  if (floor_socket == -1) return EXIT_FAILURE;
  learn_peers(static_cast<unsigned>(peers_expected));
  while (true) {
    PositionUpdate update;
    sockaddr_in sender;
    receive(update, sender);
    relay_record.position = update.position;
    send_to_others(sender);
  }
}
