// The server's console: standard output, a line at a time. Any thread may call.
//
// Each line is one write(2) from a buffer on the stack: lines never mix, and no thread waits for
// another's lock. The server waits for a full console for at most a second in a row, and after that
// for 1 percent of the time. It drops lines for which the console has no room, and prints their
// number once there is room.
#pragma once

// Opens each closed standard descriptor on /dev/null, so that no socket gets its number. Ignores
// SIGPIPE and SIGXFSZ. Call it before anything else opens a descriptor.
void console_start();

// Prints one line, as printf(3). Cuts it to 511 bytes.
[[gnu::format(printf, 1, 2)]] void console_print(const char* format, ...);
