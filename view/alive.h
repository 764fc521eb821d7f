// zolview --alive: whether a server answers.
#pragma once

#include "view/options.h"

// Asks without taking a slot. A stop signal ends it early. Returns the exit status: 0 with a line
// on standard output when a server answers; 1 with a line on standard error when none does; 128
// plus the number of the signal.
int ask_alive(const ViewOptions& options, int stop_signals);
