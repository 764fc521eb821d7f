// The server's console: standard output, a line at a time. Any thread may call.
//
// Each line is one write(2) from a buffer on the stack: lines never mix, and no thread waits for
// another's lock. The server waits for a full console for at most a second in a row, and after that
// for 1 percent of the time. It drops lines that find no room, and later prints their number.
#pragma once

// Opens each closed standard descriptor on /dev/null, so that no socket becomes one of them. Keeps
// SIGPIPE and SIGXFSZ from ending the process. Call it before opening anything else.
void console_start();

// printf(3), for at most one line of 511 bytes.
[[gnu::format(printf, 1, 2)]] void console_print(const char* format, ...);
