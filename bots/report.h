// The output of zolbots while it runs and at its end.
#pragma once

#include "bots/bot.h"

// Counts the datagram as wrong. Prints the first ten, each with the expectation that was due
// instead; due is null for none.
void report_wrong(const Bot& bot, Datagram datagram, Tally& tally, const char* reason,
                  const Expectation* due);

// On a terminal, one line that is rewritten twice a second; elsewhere, a new line every ten
// seconds.
void show_progress(std::uint64_t now_ns);

// Prints a separate line, below a progress line if there is one.
void print_line(const char* text);

void show_table(const Options& options, double seconds, std::uint64_t socket_drops);
