// Receives and handles datagrams, one at a time, in the order of their arrival. Main thread.
#pragma once

// Handles all that waits on the server's socket, until nothing does or a stop is requested. False
// when receiving failed.
bool drain_socket();

// Drains the socket and waits on it, by turns, until a stop is requested. Nothing is polled: a
// server without datagrams uses no processor time.
void run_main_loop();

// Prints that the server stops and tells every player in the game.
void tell_of_stop();
