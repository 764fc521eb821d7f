// The role of the PinkPanther in CatchPinkPanther. One player has the role; it passes on in slot
// order. Any thread asks for a choice; the main thread makes it.
#pragma once

#include "server/player_table.h"

// The PinkPanther's slot, or NO_SLOT. Main thread.
inline constinit Slot pinkpanther_slot = NO_SLOT;
// Set by any thread to ask for a choice.
inline constinit std::atomic<std::uint8_t> pinkpanther_reselect = 0;
// uptime_ms of the last choice. Written by the main thread, read by the ping thread.
inline constinit std::atomic<std::uint32_t> pinkpanther_since = 0;

// After a join: asks for a choice when several players have no PinkPanther. Main thread.
void ask_for_pinkpanther_after_join();

// Takes the role from a player that leaves or dies, and asks for a choice while more than one
// player is joined. pinkpanther_slot keeps the slot until that choice. Main thread.
void give_up_pinkpanther(PlayerSlot& player);

// Asks for a choice when the last one was more than two minutes ago. Ping thread.
void rotate_pinkpanther(std::uint32_t now);

// After the first announce: clears the flags and, in CatchPinkPanther, asks for a choice. Announce
// thread.
void restart_pinkpanther();

// Makes the requested choice and tells everyone in the game. Runs after every datagram except a
// join. Main thread.
void run_pinkpanther_step();

// Sends CMD_PINKPANTHER to a player that has just entered the game. Main thread.
void tell_newcomer_of_pinkpanther(const sockaddr_in& newcomer);
