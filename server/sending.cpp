#include "server/sending.h"

#include <cstdio>

#include "net/sflsock.h"
#include "server/server_state.h"

bool send_bytes(const sockaddr_in& destination, std::span<const std::byte> datagram,
                SendErrorText error_text) {
  const auto length = static_cast<unsigned>(datagram.size());
  if (udp_send(server_socket, datagram.data(), length, &destination) != -1) return true;
  const char* blank = error_text == SendErrorText::WITH_BLANK ? " " : "";
  std::printf("error writing to socket:%s%s\n", blank, system_error_text());
  return false;
}
