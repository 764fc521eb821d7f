// What zolbots prints while it runs and at its end.
#pragma once

#include "tools/bot.h"

// Counts the datagram as wrong; the first ten are printed with what was due instead, if anything.
void report_wrong(const Bot& bot, Bytes datagram, Tally& tally, const char* reason,
                  const Expectation* due);

// On a terminal a line that is rewritten twice a second, else a plain one every ten seconds.
void show_progress(std::uint64_t now_ns);

// A line of its own, whatever the terminal shows at the moment.
void print_line(const char* text);

void show_table(const Options& options, double seconds, std::uint64_t socket_drops);
