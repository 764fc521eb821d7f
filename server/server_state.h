// State that the parts of the server share beside the player table. Comments name the threads.
#pragma once

#include <pthread.h>

#include <array>
#include <atomic>

#include "server/protocol.h"

using namespace zol;

// The buffer of the datagram that is being handled. It is never cleared: the handler of a short
// datagram reads bytes of earlier ones. Main thread.
inline constinit std::array<std::uint8_t, RECEIVE_BUFFER_SIZE> receive_buffer{};

// The one UDP socket. Set at the start; the main thread receives, every thread sends.
inline constinit int server_socket = -1;

// Set at the start, and constant afterwards.
inline constinit pthread_t main_thread_id{};
inline constinit std::uint32_t server_start_ms = 0;  // uptime_ms, the origin of the game clock

// Joined players: a join adds one, every way out of a slot subtracts one. Never recounted. Written
// by the main thread and the ping thread.
inline constinit std::atomic<std::int32_t> player_count = 0;

// The slot that the latest join found free; NO_SLOT when it found none. Main thread.
inline constinit Slot last_join_slot = 0;

static_assert(decltype(player_count)::is_always_lock_free);
