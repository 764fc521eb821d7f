// The server from its start to its stop, in order.

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "announce/announce_thread.h"
#include "announce/master_requests.h"
#include "config/server_config.h"
#include "net/sflsock.h"
#include "server/clock.h"
#include "server/liveness.h"
#include "server/main_loop.h"
#include "server/server_state.h"
#include "server/shutdown.h"

// A line appears when it is printed, on a terminal, a pipe or a journal alike. That the reader ends
// must not end the server.
static void prepare_output() {
  static char buffer[BUFSIZ];
  std::setvbuf(stdout, buffer, _IOLBF, sizeof buffer);
  std::signal(SIGPIPE, SIG_IGN);
}

static bool open_server_socket() {
  if (socket_layer_start() == -1) {
    std::printf("error setting up udp socketError message: %s\n", system_error_text());
    return false;
  }
  server_socket = udp_open_port(server_config.Port);
  if (server_socket == -1) {
    std::printf("error building socket: error num: %d\n", socket_error_code());
    return false;
  }
  return true;
}

int main() {
  prepare_output();
  main_thread_id = pthread_self();
  if (!clock_works()) {
    std::printf("error reading the system clock: %s\n", system_error_text());
    return EXIT_FAILURE;
  }
  server_start_ms = uptime_ms();
  config_load();
  if (!open_server_socket()) return EXIT_FAILURE;
  std::printf("ZOL Server %s ONLINE [Port: %s]!!!\n--------------------------------------\n",
              SERVER_VERSION, server_config.Port);
  install_shutdown_handler();
  if (server_config.AnnounceServer != 0 && !start_worker_thread("zol-announce", announce_thread)) {
    std::printf("Error while creating announce thread!\n");
    return EXIT_SUCCESS;
  }
  if (!start_worker_thread("zol-ping", ping_thread)) {
    std::printf("Error while creating ping thread!\n");
    return EXIT_SUCCESS;
  }
  run_main_loop();
  tell_of_stop();
  if (server_config.AnnounceServer != 0) master_remove_server();
  return EXIT_FAILURE;
}
