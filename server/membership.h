// The end that all ways out of a slot share: leaving, reconnecting and timing out.
#pragma once

#include "server/protocol.h"

// For a slot in LEAVING, by the thread that put it there: tells everyone in the game that the
// player has left, counts it out and makes the slot FREE. Any thread.
void finish_leaving(Slot slot);
