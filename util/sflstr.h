// Operations on NUL-terminated texts. No text may be null: the first two functions then end the
// process through the argument check. Any thread may call.
#pragma once

#include <cstddef>
#include <cstring>

// The difference of the first two characters that differ, as unsigned bytes in one letter case; 0
// when the texts are equal.
int compare_ignoring_case(const char* left, const char* right);

// Removes white space (isspace(3)) from both ends of the text in place; returns the text.
char* trim(char* text);

// Copies a text into a field of fixed width, cut to width - 1 characters. All bytes after the text
// become zero, so the whole field can be sent.
template <std::size_t width>
void copy_text(char (&field)[width], const char* text) {
  const std::size_t length = strnlen(text, width - 1);
  std::memset(field, 0, width);
  std::memcpy(field, text, length);
}
