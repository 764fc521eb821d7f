// zolview --alive: whether a server answers.
#pragma once

#include "view/options.h"

// Asks without taking a slot, for at most two seconds. Returns the exit status: 0 with a line on
// standard output when a server answers; 1 with a line on standard error when no server answers;
// 128 plus the signal's number when a stop signal arrives.
int ask_alive(const ViewOptions& options, int stop_signals);
