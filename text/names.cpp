#include "text/names.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <optional>

struct Range {
  char32_t first;
  char32_t last;
};

// The characters that become '?'. ZWNJ and ZWJ (200C, 200D) and the variation selectors (FE00 to
// FE0F) are not in the table: Persian, the scripts of India and emoji need them.
static constexpr Range UNSAFE[] = {
    {0x00, 0x1F},        // control characters
    {0x7F, 0x9F},        // DEL and the C1 control characters
    {0xAD, 0xAD},        // soft hyphen
    {0x034F, 0x034F},    // combining grapheme joiner
    {0x061C, 0x061C},    // Arabic letter mark: changes the direction
    {0x115F, 0x1160},    // Hangul fillers: invisible
    {0x17B4, 0x17B5},    // Khmer inherent vowels: invisible
    {0x180B, 0x180F},    // Mongolian variation selectors
    {0x200B, 0x200B},    // zero width space
    {0x200E, 0x200F},    // direction marks
    {0x2028, 0x202E},    // line and paragraph separators; direction embeddings and overrides
    {0x2060, 0x206F},    // word joiner, invisible operators, direction isolates
    {0x3164, 0x3164},    // Hangul filler
    {0xFDD0, 0xFDEF},    // noncharacters
    {0xFEFF, 0xFEFF},    // byte-order mark
    {0xFFA0, 0xFFA0},    // halfwidth Hangul filler
    {0xFFF0, 0xFFFB},    // unassigned; interlinear annotation marks
    {0xFFFE, 0xFFFF},    // noncharacters
    {0x1D173, 0x1D17A},  // musical control characters
    {0xE0000, 0xE0FFF},  // tags
};

static constexpr Range BLANK[] = {
    {0x20, 0x20},     {0xA0, 0xA0},     {0x1680, 0x1680}, {0x2000, 0x200A}, {0x200C, 0x200D},
    {0x202F, 0x202F}, {0x205F, 0x205F}, {0x2800, 0x2800}, {0x3000, 0x3000}, {0xFE00, 0xFE0F},
};

static constexpr char32_t FIRST_SURROGATE = 0xD800;
static constexpr char32_t LAST_SURROGATE = 0xDFFF;
static constexpr char32_t LAST_CHARACTER = 0x10FFFF;
static constexpr char32_t LAST_OF_LATIN1 = 0xFF;
static constexpr std::size_t MAX_UTF8_LENGTH = 4;  // bytes of a character

template <std::size_t count>
static bool is_in_any(const Range (&ranges)[count], char32_t code) {
  return std::ranges::any_of(
      ranges, [code](const Range& range) { return code >= range.first && code <= range.last; });
}

struct Character {
  char32_t code = 0;
  std::size_t length = 0;  // bytes; 0 when the text does not begin with a character
};

// The length in bytes of the UTF-8 character with this first byte; 0 for an invalid first byte.
static std::size_t utf8_length(unsigned char first) {
  if (first < 0x80) return 1;
  if (first < 0xC2 || first > 0xF4) return 0;
  return first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
}

static Character decode_first(std::string_view text) {
  static constexpr char32_t MIN_CODE[MAX_UTF8_LENGTH + 1] = {0, 0, 0x80, 0x800, 0x10000};
  const auto first = static_cast<unsigned char>(text[0]);
  const std::size_t length = utf8_length(first);
  if (length == 0 || length > text.size()) return {};
  char32_t code = length == 1 ? first : first & (0x7FU >> length);
  for (const char each : text.substr(1, length - 1)) {
    const auto byte = static_cast<unsigned char>(each);
    if ((byte & 0xC0U) != 0x80U) return {};
    code = code << 6U | (byte & 0x3FU);
  }
  const bool is_surrogate = code >= FIRST_SURROGATE && code <= LAST_SURROGATE;
  if (code < MIN_CODE[length] || code > LAST_CHARACTER || is_surrogate) return {};
  return {code, length};
}

// True when some further bytes would complete the text to one valid character. The first byte
// limits the second byte to a range that includes 0x80 or 0xBF, so it is enough to try these two.
static bool is_truncated_character(std::string_view text) {
  const std::size_t length = utf8_length(static_cast<unsigned char>(text[0]));
  if (length <= text.size()) return false;
  return std::ranges::any_of(std::string_view("\x80\xBF"), [&](char fill) {
    const std::string whole = std::string(text) + std::string(length - text.size(), fill);
    return decode_first(whole).length == length;
  });
}

// Nothing when the text is not valid UTF-8.
static std::optional<std::u32string> decode_utf8(std::string_view bytes, std::size_t limit) {
  std::u32string text;
  bool may_be_cut = limit != NO_LIMIT && bytes.size() == limit;
  while (!bytes.empty()) {
    const Character each = decode_first(bytes);
    if (each.length == 0) {
      if (may_be_cut && is_truncated_character(bytes)) return text;
      return std::nullopt;
    }
    may_be_cut = may_be_cut || each.length > 1;
    text += each.code;
    bytes.remove_prefix(each.length);
  }
  return text;
}

static std::u32string decode(std::string_view bytes, std::size_t limit) {
  bytes = bytes.substr(0, bytes.find('\0'));
  if (auto text = decode_utf8(bytes, limit)) return *std::move(text);
  std::u32string latin1;
  for (const char each : bytes) latin1 += static_cast<unsigned char>(each);
  return latin1;
}

std::wstring printable_wide(std::string_view bytes, std::size_t limit) {
  std::wstring text;
  for (const char32_t each : decode(bytes, limit)) {
    text += is_in_any(UNSAFE, each) ? L'?' : static_cast<wchar_t>(each);
  }
  return text;
}

static void append_utf8(std::string& text, char32_t character) {
  static constexpr unsigned FIRST_BITS[MAX_UTF8_LENGTH + 1] = {0, 0, 0xC0, 0xE0, 0xF0};
  if (character < 0x80) {
    text += static_cast<char>(character);
    return;
  }
  const std::size_t length = character < 0x800 ? 2 : character < 0x10000 ? 3 : 4;
  std::size_t shift = 6 * (length - 1);
  text += static_cast<char>(FIRST_BITS[length] | character >> shift);
  while (shift > 0) {
    shift -= 6;
    text += static_cast<char>(0x80U | (character >> shift & 0x3FU));
  }
}

std::string printable(std::string_view bytes, std::size_t limit) {
  std::string text;
  for (const char32_t each : decode(bytes, limit)) {
    append_utf8(text, is_in_any(UNSAFE, each) ? U'?' : each);
  }
  return text;
}

// JSON escapes a character as its one or two UTF-16 code units.
static void append_escape(std::string& text, char32_t character) {
  char escaped[16];
  const unsigned code = character;
  if (code <= 0xFFFF) {
    std::snprintf(escaped, sizeof escaped, "\\u%04x", code);
  } else {
    const unsigned rest = code - 0x10000;
    std::snprintf(escaped, sizeof escaped, "\\u%04x\\u%04x", 0xD800U | rest >> 10U,
                  0xDC00U | (rest & 0x3FFU));
  }
  text += escaped;
}

std::string json_string(std::string_view bytes) {
  std::string text = "\"";
  for (const char32_t each : decode(bytes, NO_LIMIT)) {
    if (is_in_any(UNSAFE, each)) {
      append_escape(text, each);
    } else {
      if (each == U'"' || each == U'\\') text += '\\';
      append_utf8(text, each);
    }
  }
  return text + '"';
}

bool is_blank(std::string_view utf8) {
  return std::ranges::all_of(decode(utf8, NO_LIMIT),
                             [](char32_t each) { return is_in_any(BLANK, each); });
}

std::string latin1_of(std::string_view utf8) {
  const auto text = decode_utf8(utf8, NO_LIMIT);
  if (!text) return std::string(utf8);
  std::string latin1;
  for (const char32_t each : *text) {
    latin1 += each <= LAST_OF_LATIN1 ? static_cast<char>(each) : '?';
  }
  return latin1;
}
