// zolview --once: who is on, as one table or one JSON object on standard output.
#pragma once

#include "view/options.h"

// Joins, asks about all slots, and leaves without having entered. Returns the exit status: 0, or
// with a line on standard error 1 when nobody answers and 3 when the server refuses.
int show_once(const ViewOptions& options);
