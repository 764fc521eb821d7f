#include "util/sflstr.h"

#include <cctype>

#include "util/assertion.h"

static constexpr const char* MODULE = "sflstr";

// The character classes of <cctype> are defined for unsigned bytes alone.
static int lowered(char c) {
  return std::tolower(static_cast<unsigned char>(c));
}

static bool is_white(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

int compare_ignoring_case(const char* left, const char* right) {
  check_argument(left != nullptr, MODULE);
  check_argument(right != nullptr, MODULE);
  while (*left != '\0' && lowered(*left) == lowered(*right)) {
    ++left;
    ++right;
  }
  return lowered(*left) - lowered(*right);
}

char* trim(char* text) {
  check_argument(text != nullptr, MODULE);
  const char* first = text;
  while (is_white(*first)) ++first;
  std::size_t length = std::strlen(first);
  while (length > 0 && is_white(first[length - 1])) --length;
  std::memmove(text, first, length);
  text[length] = '\0';
  return text;
}
