// The role of the PinkPanther. Main thread.
#pragma once

#include "server/player_table.h"

// A player who leaves or dies gives the role up; while more than one player is joined, a new choice
// is asked for. pinkpanther_slot keeps naming the slot until that choice.
void give_up_pinkpanther(PlayerSlot& slot);
