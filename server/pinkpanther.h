// The PinkPanther, the role of one player in the game type CatchPinkPanther. A choice takes the
// next player in slot order. Any thread may request a choice; the main thread makes it.
#pragma once

#include "server/player_table.h"

// The PinkPanther's slot, or NO_SLOT. Main thread.
inline constinit Slot pinkpanther_slot = NO_SLOT;
// 1: a choice is requested. Any thread sets it; the main thread clears it.
inline constinit std::atomic<std::uint8_t> pinkpanther_reselect = 0;
// uptime_ms of the last choice. Written by the main thread, read by the ping thread.
inline constinit std::atomic<std::uint32_t> pinkpanther_since = 0;

// After a join: requests a choice when there are several players and no PinkPanther. Main thread.
void request_pinkpanther_after_join();

// Takes the role from a player that leaves or dies. Requests a choice if more than one player has a
// slot. pinkpanther_slot does not change before that choice. Main thread.
void release_pinkpanther(PlayerSlot& player);

// Requests a choice when the last choice is two minutes old. Ping thread.
void rotate_pinkpanther(std::uint32_t now);

// After the first announce: clears is_pinkpanther in all slots and, in CatchPinkPanther, requests a
// choice. Announce thread.
void restart_pinkpanther();

// Makes a requested choice and sends it to every player in the game. Runs after every datagram
// except a join. Main thread.
void run_pinkpanther_step();

// Sends CMD_PINKPANTHER to a player that has just entered the game. Main thread.
void send_pinkpanther(const sockaddr_in& newcomer);
