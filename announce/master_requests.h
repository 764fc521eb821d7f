// The two requests to the master server, each an HTTP GET over a connection of its own.
//
// A call may block its thread for about 10 seconds of writing and 10 of reading, on top of the name
// lookup. Any thread may call, two at a time as well.
#pragma once

#include <cstdint>

// The verdicts that mean something; every other byte of the master server's passes through.
inline constexpr std::int8_t MASTER_RESULT_NO_ANSWER = -1;
inline constexpr std::int8_t MASTER_RESULT_REFUSED = 0;
inline constexpr std::int8_t MASTER_RESULT_LISTED = 1;
inline constexpr std::int8_t MASTER_RESULT_UPDATED = 2;

// Enters the server on the list or refreshes its entry; the master server's verdict. Prints a line
// when there is none.
std::int8_t master_announce();

// Takes the server off the list; prints one line on how that went.
void master_remove_server();
