// Receives and handles datagrams, one at a time, in the order of their arrival. Main thread.
#pragma once

// Handles datagrams until none is waiting or a stop is requested. False when receiving failed.
bool drain_socket();

// Drains the socket and waits for datagrams in turn until a stop is requested. The wait blocks, so
// an idle server uses no processor time.
void run_main_loop();

// Prints that the server stops, and tells every player in the game.
void tell_of_stop();
