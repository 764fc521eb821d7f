// Reads numbers in requests and in files. Any thread may call.
#pragma once

#include <charconv>
#include <optional>
#include <string_view>

inline constexpr int MAX_PORT = 65'535;

// A decimal number from min to max, without a sign or a blank. Nothing for any other text.
inline std::optional<int> number_of(std::string_view text, int min, int max) {
  int number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  const bool is_number = error == std::errc() && stop == end && text[0] != '-';
  if (!is_number || number < min || number > max) return std::nullopt;
  return number;
}
