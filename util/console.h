// The server's console: standard output, a line at a time. Any thread may call.
//
// Each line is one write(2) from a buffer on the stack: lines never mix, and no thread waits for
// another's lock. The server waits for a console without room for at most a second in a row, and
// after that for 1 percent of the time. It drops the lines that find no room, and then prints how
// many are missing.
#pragma once

// Opens what is missing of the three standard descriptors on /dev/null, so that no socket becomes
// one of them, and keeps SIGPIPE and SIGXFSZ from ending the process. Before anything else is
// opened.
void console_start();

// printf(3), for at most one line of 511 bytes.
[[gnu::format(printf, 1, 2)]] void console_print(const char* format, ...);
