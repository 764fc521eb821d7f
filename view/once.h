// zolview --once: who is on, as one table or one JSON object on standard output.
#pragma once

#include "view/options.h"

// Joins, asks about all slots, and leaves without having entered. One of the stop signals ends it
// early. Returns the exit status: 0; 128 and the number of the signal; or with a line on standard
// error 1 when nobody answers and 3 when the server refuses.
int show_once(const ViewOptions& options, int stop_signals);
