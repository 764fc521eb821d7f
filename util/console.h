// The server's console: standard output, a line at a time. Any thread may call.
//
// A line leaves in one write(2) from a buffer on the stack: lines never mix, and no thread waits
// for another's lock. A console that takes nothing is waited for, but for a second altogether;
// after that its lines are dropped until it takes some again, and then a line says how many are
// missing.
#pragma once

// Opens what is missing of the three standard descriptors on /dev/null, so that no socket becomes
// one of them, and keeps SIGPIPE and SIGXFSZ from ending the process. Before anything else is
// opened.
void console_start();

// printf(3), for at most one line of 511 bytes.
[[gnu::format(printf, 1, 2)]] void console_print(const char* format, ...);
