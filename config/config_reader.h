// The reader of the settings' file, one key at a time. config_load() runs it to the end; zolcheck
// looks at each step. One thread uses it at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>

// In bytes, the terminating NUL included. Longer keys and values are cut.
inline constexpr std::size_t KEY_WIDTH = 64;
inline constexpr std::size_t VALUE_WIDTH = 64;

enum class KeyResult : std::uint8_t { UNKNOWN, REFUSED, TAKEN };

struct ConfigReader {
  std::FILE* file;
  // As printf(3): where the server's own words about the settings go.
  [[gnu::format(printf, 1, 2)]] void (*print)(const char* format, ...);
  // Counts the characters that are kept of a text value, and receives numbers. It is never reset
  // between lines: where no number can be read, the last count or number stands in for it.
  std::int32_t work_integer = 0;
  char value[VALUE_WIDTH] = "";
  long key_offset = 0;  // of the first byte of the key read last, in the file
  char key[KEY_WIDTH] = "";
  KeyResult result = KeyResult::UNKNOWN;
};

struct ConfigKey {
  const char* name;
  bool (*set)(ConfigReader& reader);  // false when the value is refused
};

extern const std::array<ConfigKey, 6> CONFIG_KEYS;

// Opens "zolserver.cfg", or else "zolserver.conf"; returns null when neither can be opened. What is
// there and is not a file that can be read is complained of. One that is no file reads as empty.
std::FILE* open_settings(void (*complain)(const char* name, const char* reason));

// Reads the next key with its value, into server_config. False at the end of the file.
bool read_setting(ConfigReader& reader);
