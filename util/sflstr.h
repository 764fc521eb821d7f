// Operations on NUL-terminated texts. No text may be null: compare_ignoring_case and trim check it
// and end the process (util/assertion.h). Any thread may call.
#pragma once

#include <cstddef>
#include <cstring>

// As strcasecmp(3): negative, 0 or positive. Compares unsigned bytes, and ignores the case of ASCII
// letters.
int compare_ignoring_case(const char* left, const char* right);

// Removes white space (isspace(3)) from both ends of the text in place; returns the text.
char* trim(char* text);

// Copies a text into a field of fixed width, cut to width - 1 bytes. All bytes after the text
// become zero, so that the whole field can be sent.
template <std::size_t width>
void copy_text(char (&field)[width], const char* text) {
  const std::size_t length = strnlen(text, width - 1);
  std::memset(field, 0, width);
  std::memcpy(field, text, length);
}
