// The role of the PinkPanther in CatchPinkPanther: one player holds it, and it passes on in the
// order of the slots. Main thread.
#pragma once

#include "server/player_table.h"

// The choice as clients are told of it: at once all in the game, later each newcomer.
PinkPanther pinkpanther_notice();

// Makes the choice that some event has asked for. Runs after every datagram but a join.
void run_pinkpanther_step();

// A player who leaves or dies gives the role up; while more than one player is joined, a new choice
// is asked for. pinkpanther_slot keeps naming the slot until that choice.
void give_up_pinkpanther(PlayerSlot& player);
