// The texts of players and servers, made fit to be shown. The protocol gives them no encoding: a
// text that is valid UTF-8 is taken as UTF-8, and any other as Latin-1. Each text ends at its first
// NUL.
//
// A text that was cut may end in half a character of UTF-8. That half is left out when the text has
// a whole character of several bytes before it, or when the text is `limit` bytes long. Else the
// text is Latin-1, because "Café" in Latin-1 ends like that, too.
#pragma once

#include <string>
#include <string_view>

inline constexpr std::size_t NO_LIMIT = 0;

// For a terminal, through wide characters. A character that controls the terminal, changes the
// direction of writing or hides becomes '?'.
std::wstring shown(std::string_view bytes, std::size_t limit = NO_LIMIT);

// The same as UTF-8, for standard output and for the list.
std::string printable(std::string_view bytes, std::size_t limit = NO_LIMIT);

// As a JSON string, quotes included. The characters that become '?' elsewhere are escaped.
std::string json_string(std::string_view bytes);

// True when a reader sees nothing: the text is empty, or all of it is blanks of any width.
bool is_blank(std::string_view utf8);

// A person's input, as players send it: in Latin-1, with '?' for the characters that Latin-1 lacks.
// Input that is not UTF-8 stays as it is.
std::string latin1_of(std::string_view utf8);
