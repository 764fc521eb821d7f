#include "server/server_state.h"

constinit std::array<std::uint8_t, RECEIVE_BUFFER_SIZE> receive_buffer{};
constinit int server_socket = -1;
constinit pthread_t main_thread_id{};
constinit std::uint32_t server_start_ms = 0;
constinit std::atomic<std::int32_t> player_count = 0;
constinit Slot last_join_slot = 0;
constinit Slot pinkpanther_slot = NO_SLOT;
constinit std::atomic<std::uint8_t> pinkpanther_reselect = 0;
constinit std::atomic<std::uint32_t> pinkpanther_since = 0;
