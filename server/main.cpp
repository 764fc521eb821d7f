// Starts, runs and stops the server.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "announce/announce_thread.h"
#include "announce/master_requests.h"
#include "config/server_config.h"
#include "net/sflsock.h"
#include "server/clock.h"
#include "server/liveness.h"
#include "server/main_loop.h"
#include "server/server_state.h"
#include "server/stop_signals.h"
#include "server/worker_threads.h"
#include "util/console.h"

static constexpr const char* HELP =
    "usage: zolserver\n"
    "\n"
    "Runs a ZOL Server on the settings in zolserver.cfg, or else zolserver.conf, in the directory\n"
    "that it is started in. Without such a file it runs on its defaults, on UDP port 16309.\n"
    "SIGINT, SIGHUP and SIGTERM stop it in order, with exit status 1.\n"
    "\n"
    "  --help     print this\n"
    "  --version  print the version\n"
    "\n"
    "No option changes a setting: see zolserver.cfg(5) and zolserver(6).\n";

// Returns the exit status.
static int answer_argument(const char* argument) {
  if (std::strcmp(argument, "--help") == 0) {
    std::fputs(HELP, stdout);
    return EXIT_SUCCESS;
  }
  if (std::strcmp(argument, "--version") == 0) {
    std::printf("ZOL Server %s (%s)\n", SERVER_VERSION, ZOL_COMMIT);
    return EXIT_SUCCESS;
  }
  std::fprintf(stderr, "zolserver: takes no argument like \"%s\"; see --help\n", argument);
  return 2;
}

static bool open_server_socket() {
  if (socket_layer_start() == -1) {
    console_print("error setting up udp socketError message: %s\n", system_error_text());
    return false;
  }
  server_socket = udp_open_port(server_config.Port);
  if (server_socket == -1) {
    console_print("error building socket: error num: %d\n", socket_error_code());
    return false;
  }
  return true;
}

int main(int count, char** arguments) {
  if (count > 1) return answer_argument(arguments[1]);
  console_start();
  main_thread_id = pthread_self();
  server_start_ms = uptime_ms();
  config_load();
  if (!open_server_socket()) return EXIT_FAILURE;
  console_print("ZOL Server %s ONLINE [Port: %s]!!!\n--------------------------------------\n",
                SERVER_VERSION, server_config.Port);
  install_shutdown_handler();
  if (server_config.AnnounceServer != 0 && !start_worker_thread("zol-announce", announce_thread)) {
    console_print("Error while creating announce thread!\n");
    return EXIT_SUCCESS;
  }
  if (!start_worker_thread("zol-ping", ping_thread)) {
    console_print("Error while creating ping thread!\n");
    return EXIT_SUCCESS;
  }
  run_main_loop();
  broadcast_shutdown();
  if (server_config.AnnounceServer != 0) master_remove_server();
  return EXIT_FAILURE;
}
