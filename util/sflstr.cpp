#include "util/sflstr.h"

#include <strings.h>

#include "util/assertion.h"

static constexpr const char* MODULE = "sflstr";
static constexpr const char* WHITE_SPACE = " \t\n\v\f\r";

int compare_ignoring_case(const char* left, const char* right) {
  check_argument(left != nullptr, MODULE);
  check_argument(right != nullptr, MODULE);
  return strcasecmp(left, right);
}

char* trim(char* text) {
  check_argument(text != nullptr, MODULE);
  const char* first = text + std::strspn(text, WHITE_SPACE);
  std::size_t length = std::strlen(first);
  while (length > 0 && std::strchr(WHITE_SPACE, first[length - 1]) != nullptr) --length;
  std::memmove(text, first, length);
  text[length] = '\0';
  return text;
}
