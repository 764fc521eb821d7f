// The output of zolbots while it runs and at its end.
#pragma once

#include "bots/bot.h"

// Counts the datagram as wrong. Prints the first ten wrong datagrams, each with the datagram that
// the bot should have received next; `due` is null if it should have received none.
void report_wrong(const Bot& bot, Datagram datagram, Tally& tally, const char* reason,
                  const Expectation* due);

// Prints a progress line: on a terminal one line that is replaced twice a second, elsewhere a new
// line every ten seconds.
void show_progress(std::uint64_t now_ns);

// Prints a separate line, below a progress line if there is one.
void print_line(const char* text);

void show_table(const Options& options, double seconds, std::uint64_t socket_drops);
