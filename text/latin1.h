// Players' names and chat, made fit to be shown. The server carries their bytes as they come; here
// they are taken for Latin-1. Each text ends at its first NUL.
#pragma once

#include <string>
#include <string_view>

// For a terminal through wide characters, one column each. What would control it becomes '?'.
std::wstring shown(std::string_view latin1);

// As UTF-8, for standard output. What would control a terminal becomes '?'.
std::string printable(std::string_view latin1);

// As a JSON string, quotes included.
std::string json_string(std::string_view latin1);

// What a person has typed, '?' for characters that Latin-1 lacks. Text that is no UTF-8 stays as it
// is.
std::string latin1_of(std::string_view utf8);
