// GoogleTest has one of its own; compiling it would take longer than this.

#include <gtest/gtest.h>

#include <cstdio>

int main(int count, char** arguments) {
  // What tests print keeps its place among the server's lines, which use no stdio.
  std::setvbuf(stdout, nullptr, _IONBF, 0);
  testing::InitGoogleTest(&count, arguments);
  return RUN_ALL_TESTS();
}
