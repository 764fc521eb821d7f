// Receives and handles datagrams, one at a time, in the order of their arrival. Main thread.
#pragma once

// Handles datagrams until none is waiting or a stop is requested. False when recvfrom(2) failed.
bool drain_socket();

// Repeats drain_socket and a wait for datagrams until a stop is requested. The wait blocks, so an
// idle server uses no processor time.
void run_main_loop();

// Prints that the server stops, and sends CMD_SERVER_SHUTDOWN to every player in the game.
void broadcast_shutdown();
