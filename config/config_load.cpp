#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "config/config_reader.h"
#include "config/server_config.h"
#include "util/console.h"
#include "util/number.h"
#include "util/sflstr.h"

namespace {

bool is_line_end(int c) {
  return c == '\n' || c == '\r';
}

void skip_rest_of_line(std::FILE* file) {
  for (int c = std::getc(file); c != EOF && !is_line_end(c);) c = std::getc(file);
}

// Line ends are part of a key: only '=' and the end of the file end one.
void read_key(std::FILE* file, int first, char (&key)[KEY_WIDTH]) {
  std::size_t length = 0;
  for (int c = first; c != EOF && c != '='; c = std::getc(file)) {
    if (length < KEY_WIDTH - 1) key[length++] = static_cast<char>(c);
  }
  key[length] = '\0';
}

// Reads up to the line end or a '#' and trims. A comment behind the value is dropped with its line.
void read_text(ConfigReader& reader) {
  std::size_t length = 0;
  int c = std::getc(reader.file);
  for (; c != EOF && !is_line_end(c) && c != '#'; c = std::getc(reader.file)) {
    if (length < VALUE_WIDTH - 1) reader.value[length++] = static_cast<char>(c);
  }
  reader.value[length] = '\0';
  reader.work_integer = static_cast<std::int32_t>(length);
  trim(reader.value);
  if (c == '#') skip_rest_of_line(reader.file);
}

// What does not fit stays unread, for the caller to skip with the rest of the line.
void read_word(ConfigReader& reader) {
  static_assert(VALUE_WIDTH == 64);
  if (std::fscanf(reader.file, "%63s", reader.value) != 1) reader.value[0] = '\0';
}

// Without digits the work integer keeps its value; a sign is consumed all the same.
void read_number(ConfigReader& reader) {
  long number = 0;
  if (std::fscanf(reader.file, "%ld", &number) == 1) reader.work_integer = clamp_to_int32(number);
}

template <std::size_t width>
bool set_text(ConfigReader& reader, const char* key, char (&field)[width]) {
  read_text(reader);
  if (reader.value[0] == '\0') {
    reader.print("Wrong value %s in config file. Using default Value: %s \n", key, field);
    return false;
  }
  copy_text(field, reader.value);
  return true;
}

bool set_server_name(ConfigReader& reader) {
  return set_text(reader, "ServerName", server_config.ServerName);
}

bool set_welcome_message(ConfigReader& reader) {
  const bool is_good = set_text(reader, "WelcomeMessage", server_config.WelcomeMessage);
  reader.print("%s \n", reader.value);
  return is_good;
}

// Scanning goes on right behind the number, unlike after every other key.
bool set_max_clients(ConfigReader& reader) {
  read_number(reader);
  if (reader.work_integer < MIN_CLIENTS || reader.work_integer > MAX_CLIENTS) {
    reader.print("Wrong value maxClients in config file. Using default Value: %d \n",
                 server_config.maxClients);
    return false;
  }
  server_config.maxClients = reader.work_integer;
  return true;
}

bool set_announce_server(ConfigReader& reader) {
  read_word(reader);
  skip_rest_of_line(reader.file);
  const bool is_true = compare_ignoring_case(reader.value, "true") == 0;
  if (!is_true && compare_ignoring_case(reader.value, "false") != 0) {
    reader.print("Wrong value AnnounceServer in config file. Using default Value: %s\n",
                 server_config.AnnounceServer != 0 ? "TRUE" : "FALSE");
    return false;
  }
  server_config.AnnounceServer = is_true ? 1 : 0;
  return true;
}

bool set_game_type(ConfigReader& reader) {
  read_number(reader);
  skip_rest_of_line(reader.file);
  if (reader.work_integer != DEATHMATCH && reader.work_integer != CATCH_PINKPANTHER) {
    reader.print("Wrong value GameType in config file. Using default Value: %d (%s)\n",
                 server_config.GameType, game_type_name(server_config.GameType));
    return false;
  }
  server_config.GameType = static_cast<std::uint8_t>(reader.work_integer);
  return true;
}

bool set_port(ConfigReader& reader) {
  read_word(reader);
  skip_rest_of_line(reader.file);
  if (text_to_int32(reader.value) <= 0) {
    reader.print("Wrong value Port in config file. Using default Value: %s\n", server_config.Port);
    return false;
  }
  copy_text(server_config.Port, reader.value);
  return true;
}

// An unknown key drops nothing but itself: its value becomes the beginning of the next key.
KeyResult set_key(ConfigReader& reader) {
  for (const ConfigKey& key : CONFIG_KEYS) {
    if (compare_ignoring_case(reader.key, key.name) != 0) continue;
    return key.set(reader) ? KeyResult::TAKEN : KeyResult::REFUSED;
  }
  return KeyResult::UNKNOWN;
}

// What is no file counts as an empty one: a pipe may never be written to, a device may never end.
std::FILE* open_one(const char* name, void (*complain)(const char* name, const char* reason)) {
  const int handle = open(name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (handle == -1) {
    if (errno != ENOENT) complain(name, std::strerror(errno));
    return nullptr;
  }
  std::FILE* file = fdopen(handle, "r");
  struct stat status {};
  const bool is_file = fstat(handle, &status) == -1 || S_ISREG(status.st_mode);
  if (is_file || file == nullptr) return file;
  complain(name, S_ISDIR(status.st_mode) ? std::strerror(EISDIR) : "Not a file");
  return std::freopen("/dev/null", "re", file);
}

}  // namespace

const std::array<ConfigKey, 6> CONFIG_KEYS = {{
    {"ServerName", set_server_name},
    {"maxClients", set_max_clients},
    {"AnnounceServer", set_announce_server},
    {"GameType", set_game_type},
    {"Port", set_port},
    {"WelcomeMessage", set_welcome_message},
}};

bool read_setting(ConfigReader& reader) {
  for (int c = std::getc(reader.file); c != EOF; c = std::getc(reader.file)) {
    if (c == '#') {
      skip_rest_of_line(reader.file);
    } else if (!is_line_end(c) && c != ' ' && c != '\t') {
      reader.key_offset = std::ftell(reader.file) - 1;
      read_key(reader.file, c, reader.key);
      reader.result = set_key(reader);
      return true;
    }
  }
  return false;
}

std::FILE* open_settings(void (*complain)(const char* name, const char* reason)) {
  std::FILE* file = open_one("zolserver.cfg", complain);
  return file != nullptr ? file : open_one("zolserver.conf", complain);
}

void config_load() {
  std::FILE* file = open_settings(
      [](const char* name, const char* reason) { std::fprintf(stderr, "%s: %s\n", name, reason); });
  if (file == nullptr) {
    console_print("Could not open zolserver.cfg / zolserver.conf - Using defaults\n");
    return;
  }
  ConfigReader reader{.file = file, .print = console_print};
  while (read_setting(reader)) {
  }
  std::fclose(file);
}
