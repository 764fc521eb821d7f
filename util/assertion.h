// The argument check of the modules that take raw pointers and texts. Any thread may call.
#pragma once

// Flushes standard output, writes "\nAssertion failed: <module>, line <line>\n" to standard error
// and aborts the process.
[[noreturn]] void assertion_failed(const char* module, unsigned line);

// A failed check is a programming error, never bad input. `line` defaults to the line of the call.
inline void check_argument(bool holds, const char* module, unsigned line = __builtin_LINE()) {
  if (!holds) assertion_failed(module, line);
}

inline bool is_text(const char* text) {
  return text != nullptr && *text != '\0';
}
