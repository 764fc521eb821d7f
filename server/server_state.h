// The state that several files of the server share, in addition to the player table.
#pragma once

#include <pthread.h>

#include <array>
#include <atomic>

#include "server/protocol.h"

using namespace zol;

// The bytes of the latest datagram. The buffer is never cleared, so the handler of a short datagram
// reads bytes of earlier datagrams. Main thread.
inline constinit std::array<std::uint8_t, RECEIVE_BUFFER_SIZE> receive_buffer{};

// The server's UDP socket. Set at the start. The main thread receives; any thread sends.
inline constinit int server_socket = -1;

// Set at the start, and constant afterwards.
inline constinit pthread_t main_thread_id{};
inline constinit std::uint32_t server_start_ms = 0;  // uptime_ms, the origin of the game clock

// The number of players with a slot. A join adds 1; a leave, a reconnect and a time-out subtract 1.
// Written by the main thread and the ping thread.
inline constinit std::atomic<std::int32_t> player_count = 0;

// The slot that the latest join found free; NO_SLOT when it found none. Main thread.
inline constinit Slot last_join_slot = 0;

static_assert(decltype(player_count)::is_always_lock_free);
