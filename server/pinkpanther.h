// The role of the PinkPanther in CatchPinkPanther: when a choice is asked for, who is chosen, and
// who is told. One player has the role, and it passes on in the order of the slots.
//
// Any thread asks for a choice; the main thread makes it.
#pragma once

#include "server/player_table.h"

// The PinkPanther, NO_SLOT for nobody. Main thread.
inline constinit Slot pinkpanther_slot = NO_SLOT;
// Set by any thread that wants a new choice.
inline constinit std::atomic<std::uint8_t> pinkpanther_reselect = 0;
// uptime_ms of the last choice. Written by the main thread, read by the ping thread.
inline constinit std::atomic<std::uint32_t> pinkpanther_since = 0;

// A join asks for a choice when there is no PinkPanther and somebody to chase. Main thread.
void ask_for_pinkpanther_after_join();

// A player that leaves or dies gives the role up, which asks for a choice while more than one
// player is joined. pinkpanther_slot keeps naming the slot until that choice. Main thread.
void give_up_pinkpanther(PlayerSlot& player);

// Asks for a choice when the role was held for two minutes. Ping thread.
void rotate_pinkpanther(std::uint32_t now);

// Once listed, a server of CatchPinkPanther begins with a new choice. Announce thread.
void restart_pinkpanther();

// Makes the choice that was asked for and tells everyone in the game. Runs after every datagram
// except a join. Main thread.
void run_pinkpanther_step();

// Tells a player that has just entered the game. Main thread.
void tell_newcomer_of_pinkpanther(const sockaddr_in& newcomer);
