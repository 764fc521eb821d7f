#include "server/main_loop.h"

#include <cerrno>

#include "net/sflsock.h"
#include "server/clock.h"
#include "server/command_table.h"
#include "server/sending.h"
#include "server/server_state.h"
#include "server/stop_signals.h"
#include "util/console.h"

// Pause after every error except EAGAIN: a persistent error must not spin the processor.
static constexpr std::uint32_t ERROR_PAUSE_US = 50;

bool drain_socket() {
  ReceivedDatagram datagram{.bytes = receive_buffer, .received = 0, .sender = {}};
  while (!stop_requested()) {
    const int received =
        udp_receive(server_socket, receive_buffer.data(), RECEIVE_BUFFER_SIZE, &datagram.sender);
    if (received == -1) return errno == EAGAIN;
    datagram.received = static_cast<std::size_t>(received);
    dispatch_datagram(datagram);
  }
  return true;
}

void run_main_loop() {
  while (!stop_requested()) {
    if (!drain_socket() || !wait_for_input_or_stop(server_socket)) sleep_us(ERROR_PAUSE_US);
  }
}

void broadcast_shutdown() {
  console_print("Exitting...\n");
  broadcast_all(ServerShutdown{});
}
