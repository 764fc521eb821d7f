// Makes texts of players and servers safe to show. The protocol defines no encoding: a text that is
// valid UTF-8 is read as UTF-8, any other text as Latin-1. Each text ends at its first NUL. Any
// thread may call.
//
// A text that was cut may end with an incomplete UTF-8 character. The functions drop these bytes if
// the text is `limit` bytes long, or if a complete character of several bytes precedes them.
// Otherwise they read the text as Latin-1, because "Café" in Latin-1 also ends with such a byte.
#pragma once

#include <string>
#include <string_view>

inline constexpr std::size_t NO_LIMIT = 0;  // the text was not cut

// The text in wide characters, for a terminal. A character that controls the terminal, changes the
// direction of writing or is invisible becomes '?'.
std::wstring printable_wide(std::string_view bytes, std::size_t limit = NO_LIMIT);

// The same in UTF-8, for standard output and for the server list.
std::string printable(std::string_view bytes, std::size_t limit = NO_LIMIT);

// The text as a JSON string in UTF-8, including the quotes. Escapes the characters that become '?'
// in the other functions.
std::string json_string(std::string_view bytes);

// True when the text looks empty: it has no characters other than blanks of any width.
bool is_blank(std::string_view utf8);

// Converts a user's input to Latin-1, which players send. A character that Latin-1 lacks becomes
// '?'. Input that is not UTF-8 does not change.
std::string latin1_of(std::string_view utf8);
