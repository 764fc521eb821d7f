// Numbers in what strangers send and operators write.
#pragma once

#include <charconv>
#include <optional>
#include <string_view>

inline constexpr int MAX_PORT = 65'535;

// Digits alone, so many at most that nothing overflows.
inline std::optional<int> number_of(std::string_view text, int least, int most) {
  int number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  const bool is_number = error == std::errc() && stop == end && text[0] != '-';
  if (!is_number || number < least || number > most) return std::nullopt;
  return number;
}
