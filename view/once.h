// zolview --once: the players as one table, or as one JSON object, on standard output.
#pragma once

#include "view/options.h"

// Joins, asks about all slots, and leaves without entering. A stop signal ends it early. Returns
// the exit status: 0; 128 plus the number of the signal; or, with a line on standard error, 1 when
// no server answers and 3 when the server refuses.
int show_once(const ViewOptions& options, int stop_signals);
