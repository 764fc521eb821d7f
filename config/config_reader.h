// The table of the settings, and a reader that reads one key of the settings' file in each call.
// config_load() reads the whole file; zolcheck checks each key. Used before other threads exist.
#pragma once

#include <array>
#include <cstdio>
#include <cstring>

#include "config/server_config.h"

// In bytes, including the terminating NUL. Longer keys and values are cut.
inline constexpr std::size_t KEY_WIDTH = 64;
inline constexpr std::size_t VALUE_WIDTH = 64;

enum class Kind : std::uint8_t { TEXT, NUMBER, GAME_TYPE, BOOLEAN, PORT };

struct ConfigKey {
  const char* name;
  Kind kind;
  void* field;        // in server_config; holds the default until the file is read
  std::size_t width;  // of the field in bytes, including the NUL; longer texts are cut
  std::int32_t min;   // limits of the number, or of a TEXT's length in bytes
  std::int32_t max;
};

template <typename Field>
constexpr ConfigKey key_of(const char* name, Kind kind, Field& field, std::int32_t min = 1,
                           std::int32_t max = INT32_MAX) {
  return {name, kind, &field, sizeof field, min, max};
}

// script/checks/settings compares the documents with these rows.
inline constexpr std::array<ConfigKey, 6> CONFIG_KEYS = {{
    key_of("ServerName", Kind::TEXT, server_config.ServerName),
    key_of("maxClients", Kind::NUMBER, server_config.maxClients, MIN_CLIENTS, MAX_CLIENTS),
    key_of("AnnounceServer", Kind::BOOLEAN, server_config.AnnounceServer, 0, 1),
    key_of("GameType", Kind::GAME_TYPE, server_config.GameType, DEATHMATCH, CATCH_PINKPANTHER),
    key_of("Port", Kind::PORT, server_config.Port),
    key_of("WelcomeMessage", Kind::TEXT, server_config.WelcomeMessage),
}};

// The row of a key, in any letter case; null when there is none.
const ConfigKey* find_key(const char* name);

// The value of a NUMBER, GAME_TYPE or BOOLEAN.
inline std::int32_t number_in(const ConfigKey& key) {
  std::int32_t number = 0;
  std::memcpy(&number, key.field, key.width);  // little-endian: a narrow field fills the low bytes
  return number;
}

struct ConfigReader {
  std::FILE* file;
  // Prints the console lines about the settings, as printf(3).
  [[gnu::format(printf, 1, 2)]] void (*print)(const char* format, ...);
  // The last number, or the number of bytes read of the last TEXT. It is never reset: a key without
  // a number gets this value.
  std::int32_t work_integer = 0;
  char value[VALUE_WIDTH] = "";
  long key_offset = 0;               // of the first byte of the last key in the file
  const ConfigKey* known = nullptr;  // the row of that key; null for an unknown key
  bool is_accepted = false;          // the value of a known key is within its limits
};

// Opens "zolserver.cfg", or else "zolserver.conf"; null when neither can be opened. Calls
// report_error for a file that exists and cannot be opened, and for a file that is not regular. The
// latter reads as empty.
std::FILE* open_settings(void (*report_error)(const char* name, const char* reason));

// Reads the next key and its value into server_config. False at the end of the file.
bool read_setting(ConfigReader& reader);
