// zolview --once: the players as one table, or as one JSON object, on standard output.
#pragma once

#include "view/options.h"

// Joins, asks about all slots, and leaves without entering. Returns the exit status: 0 with the
// players on standard output; 1 with a line on standard error when no server answers; 3 with a line
// on standard error when the server refuses; 128 plus the signal's number when a stop signal
// arrives.
int show_once(const ViewOptions& options, int stop_signals);
