#include "text/latin1.h"

#include <cstdio>

static bool is_control(unsigned byte) {
  return byte < 0x20 || (byte >= 0x7F && byte < 0xA0) ||
         byte == 0xAD;  // the last is no column wide
}

std::wstring shown(std::string_view latin1) {
  std::wstring text;
  for (const char each : latin1.substr(0, latin1.find('\0'))) {
    const auto byte = static_cast<unsigned char>(each);
    text += is_control(byte) ? L'?' : static_cast<wchar_t>(byte);
  }
  return text;
}

static void append_utf8(std::string& text, unsigned character) {
  if (character < 0x80) {
    text += static_cast<char>(character);
  } else {
    text += static_cast<char>(0xC0U | character >> 6U);
    text += static_cast<char>(0x80U | (character & 0x3FU));
  }
}

std::string printable(std::string_view latin1) {
  std::string text;
  for (const wchar_t each : shown(latin1)) append_utf8(text, static_cast<unsigned>(each));
  return text;
}

std::string json_string(std::string_view latin1) {
  std::string text = "\"";
  for (const char each : latin1.substr(0, latin1.find('\0'))) {
    const auto byte = static_cast<unsigned char>(each);
    if (is_control(byte)) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
      text += escaped;
    } else {
      if (byte == '"' || byte == '\\') text += '\\';
      append_utf8(text, byte);
    }
  }
  return text + '"';
}

// Bytes of the UTF-8 character that starts with this one; 0 for none.
static std::size_t utf8_length(unsigned char first) {
  if (first < 0x80) return 1;
  if (first < 0xC2 || first > 0xF4) return 0;
  return first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
}

std::string latin1_of(std::string_view utf8) {
  std::string text;
  for (std::size_t i = 0; i < utf8.size();) {
    const auto first = static_cast<unsigned char>(utf8[i]);
    const std::size_t length = utf8_length(first);
    if (length == 0 || i + length > utf8.size()) return std::string(utf8);
    for (std::size_t next = i + 1; next < i + length; ++next) {
      if ((utf8[next] & 0xC0) != 0x80) return std::string(utf8);
    }
    const bool is_latin1 = first < 0xC4;
    const auto second = static_cast<unsigned char>(length == 2 ? utf8[i + 1] : 0);
    text += length == 1 ? utf8[i]
            : is_latin1 ? static_cast<char>((first & 0x03U) << 6U | (second & 0x3FU))
                        : '?';
    i += length;
  }
  return text;
}
