// The notation of datagrams in tests: words, independent of the server's records.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iomanip>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

// Reads a number from min to max in this base. Throws std::out_of_range for any other text.
inline std::uint32_t number_of(const std::string& text, int base = 0, std::size_t min = 0,
                               std::size_t max = 0xFFFFFFFF) {
  std::size_t length = 0;
  const unsigned long long number = std::stoull(text, &length, base);
  if (length != text.size() || number < min || number > max) throw std::out_of_range(text);
  return static_cast<std::uint32_t>(number);
}

// The words are 0a (a byte), 00*63 (63 equal bytes), "Bob" (a text) and ..66 (zeros up to a total
// size of 66 bytes). Throws for any other word.
inline Bytes bytes_of(const std::string& words) {
  Bytes bytes;
  std::istringstream in(words);
  for (std::string word; !(in >> std::ws).eof();) {
    const bool is_text = in.peek() == '"';
    in >> std::quoted(word);
    const std::size_t star = word.find('*');
    if (is_text) {
      bytes.insert(bytes.end(), word.begin(), word.end());
    } else if (word.starts_with("..")) {
      bytes.resize(number_of(word.substr(2), 10, bytes.size(), 1000));
    } else {
      const auto byte = static_cast<std::uint8_t>(number_of(word.substr(0, star), 16, 0, 255));
      bytes.insert(bytes.end(), star < word.size() ? number_of(word.substr(star + 1), 10) : 1,
                   byte);
    }
  }
  return bytes;
}

// Writes bytes as words of the first two kinds, with a blank before each word.
inline std::string words_of(const Bytes& bytes) {
  std::ostringstream out;
  for (auto at = bytes.begin(); at != bytes.end();) {
    const auto end = std::find_if(at, bytes.end(), [at](std::uint8_t byte) { return byte != *at; });
    out << std::hex << ' ' << std::setfill('0') << std::setw(2) << unsigned{*at};
    if (end - at > 1) out << '*' << std::dec << end - at;
    at = end;
  }
  return out.str();
}
