#include "server/main_loop.h"

#include <cerrno>

#include "net/sflsock.h"
#include "server/clock.h"
#include "server/command_table.h"
#include "server/server_state.h"
#include "server/shutdown.h"

// After an error that is neither "nothing waits" nor a signal, so that one that stays cannot take
// the processor.
static constexpr std::uint32_t ERROR_PAUSE_US = 50;

void drain_socket() {
  Datagram datagram{.bytes = receive_buffer, .received = 0, .sender = {}};
  while (!stop_requested()) {
    const int received =
        udp_receive(server_socket, receive_buffer.data(), RECEIVE_BUFFER_SIZE, &datagram.sender);
    if (received >= 0) {
      datagram.received = static_cast<std::size_t>(received);
      dispatch_datagram(datagram);
    } else if (errno == EAGAIN) {
      return;
    } else if (errno != EINTR) {
      sleep_us(ERROR_PAUSE_US);
    }
  }
}

void run_main_loop() {
  while (!stop_requested()) {
    drain_socket();
    if (!wait_for_input_or_stop(server_socket)) sleep_us(ERROR_PAUSE_US);
  }
}
