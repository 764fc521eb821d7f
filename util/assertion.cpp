#include "util/assertion.h"

#include <cstdio>
#include <cstdlib>

void assertion_failed(const char* module, unsigned line) {
  std::fflush(stdout);
  std::fprintf(stderr, "\nAssertion failed: %s, line %u\n", module, line);
  std::fflush(stderr);
  std::abort();
}
