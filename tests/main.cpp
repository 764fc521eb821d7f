// GoogleTest has one of its own; compiling it would take longer than this.
#include <gtest/gtest.h>

int main(int count, char** arguments) {
  testing::InitGoogleTest(&count, arguments);
  return RUN_ALL_TESTS();
}
