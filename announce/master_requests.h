// The two requests to the master server. Each is an HTTP GET over a separate connection.
//
// A call may block its thread for the name lookup, and then for about 10 seconds of writing and 10
// of reading. Any thread may call, even two at a time.
#pragma once

#include <cstdint>

// The verdicts with a meaning. A verdict is a byte of the reply minus '0', so any value may occur.
inline constexpr std::int8_t MASTER_RESULT_NO_ANSWER = -1;
inline constexpr std::int8_t MASTER_RESULT_REFUSED = 0;
inline constexpr std::int8_t MASTER_RESULT_LISTED = 1;
inline constexpr std::int8_t MASTER_RESULT_UPDATED = 2;

// Adds the server to the list or refreshes its entry. Returns the master server's verdict, or
// MASTER_RESULT_NO_ANSWER after printing a line.
std::int8_t master_announce();

// Removes the server from the list, and prints one line about the result.
void master_remove_server();
