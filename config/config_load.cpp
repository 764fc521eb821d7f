#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <limits>

#include "config/server_config.h"
#include "util/console.h"
#include "util/number.h"
#include "util/sflstr.h"

constinit ServerConfig server_config;

namespace {

// Widths in bytes, the terminating NUL included. Longer keys and values are cut.
constexpr std::size_t KEY_WIDTH = 64;
constexpr std::size_t VALUE_WIDTH = 64;

struct ConfigReader {
  std::FILE* file;
  // Counts the characters of a text value and receives numbers. It is never reset between lines:
  // where no number can be read, the last count or number stands in for it.
  std::int32_t work_integer = 0;
  char value[VALUE_WIDTH] = "";
};

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
  std::size_t stored = 0;
  reader.work_integer = 0;
  int c = std::getc(reader.file);
  for (; c != EOF && !is_line_end(c) && c != '#'; c = std::getc(reader.file)) {
    if (reader.work_integer < std::numeric_limits<std::int32_t>::max()) ++reader.work_integer;
    if (stored < VALUE_WIDTH - 1) reader.value[stored++] = static_cast<char>(c);
  }
  reader.value[stored] = '\0';
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
void set_text(ConfigReader& reader, const char* key, char (&field)[width]) {
  read_text(reader);
  if (reader.value[0] == '\0') {
    console_print("Wrong value %s in config file. Using default Value: %s \n", key, field);
  } else {
    copy_text(field, reader.value);
  }
}

void set_server_name(ConfigReader& reader) {
  set_text(reader, "ServerName", server_config.ServerName);
}

void set_welcome_message(ConfigReader& reader) {
  set_text(reader, "WelcomeMessage", server_config.WelcomeMessage);
  console_print("%s \n", reader.value);
}

// Scanning goes on right behind the number, unlike after every other key.
void set_max_clients(ConfigReader& reader) {
  read_number(reader);
  if (reader.work_integer >= MIN_CLIENTS && reader.work_integer <= MAX_CLIENTS) {
    server_config.maxClients = reader.work_integer;
  } else {
    console_print("Wrong value maxClients in config file. Using default Value: %d \n",
                  server_config.maxClients);
  }
}

void set_announce_server(ConfigReader& reader) {
  read_word(reader);
  if (compare_ignoring_case(reader.value, "true") == 0) {
    server_config.AnnounceServer = 1;
  } else if (compare_ignoring_case(reader.value, "false") == 0) {
    server_config.AnnounceServer = 0;
  } else {
    console_print("Wrong value AnnounceServer in config file. Using default Value: %s\n",
                  server_config.AnnounceServer != 0 ? "TRUE" : "FALSE");
  }
  skip_rest_of_line(reader.file);
}

void set_game_type(ConfigReader& reader) {
  read_number(reader);
  if (reader.work_integer == DEATHMATCH || reader.work_integer == CATCH_PINKPANTHER) {
    server_config.GameType = static_cast<std::uint8_t>(reader.work_integer);
  } else {
    console_print("Wrong value GameType in config file. Using default Value: %d (%s)\n",
                  server_config.GameType,
                  server_config.GameType == DEATHMATCH ? "Deathmatch" : "CatchPinkPanther");
  }
  skip_rest_of_line(reader.file);
}

void set_port(ConfigReader& reader) {
  read_word(reader);
  if (text_to_int32(reader.value) > 0) {
    copy_text(server_config.Port, reader.value);
  } else {
    console_print("Wrong value Port in config file. Using default Value: %s\n", server_config.Port);
  }
  skip_rest_of_line(reader.file);
}

struct ConfigKey {
  const char* name;
  void (*set)(ConfigReader& reader);
};

constexpr std::array<ConfigKey, 6> CONFIG_KEYS = {{
    {"ServerName", set_server_name},
    {"maxClients", set_max_clients},
    {"AnnounceServer", set_announce_server},
    {"GameType", set_game_type},
    {"Port", set_port},
    {"WelcomeMessage", set_welcome_message},
}};

// An unknown key drops nothing but itself: its value becomes the beginning of the next key.
void set_key(ConfigReader& reader, const char* name) {
  for (const ConfigKey& key : CONFIG_KEYS) {
    if (compare_ignoring_case(name, key.name) == 0) return key.set(reader);
  }
}

void read_settings(ConfigReader& reader) {
  for (int c = std::getc(reader.file); c != EOF; c = std::getc(reader.file)) {
    if (c == '#') {
      skip_rest_of_line(reader.file);
    } else if (!is_line_end(c) && c != ' ' && c != '\t') {
      char key[KEY_WIDTH];
      read_key(reader.file, c, key);
      set_key(reader, key);
    }
  }
}

void complain(const char* name, const char* reason) {
  std::fprintf(stderr, "%s: %s\n", name, reason);
}

// What is no file counts as an empty one: a pipe may never be written to, a device may never end.
std::FILE* open_settings(const char* name) {
  int handle = open(name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (handle == -1) {
    if (errno != ENOENT) complain(name, std::strerror(errno));
    return nullptr;
  }
  struct stat status {};
  if (fstat(handle, &status) == 0 && !S_ISREG(status.st_mode)) {
    complain(name, S_ISDIR(status.st_mode) ? std::strerror(EISDIR) : "Not a file");
    close(handle);
    handle = open("/dev/null", O_RDONLY | O_CLOEXEC);
  }
  return fdopen(handle, "r");
}

}  // namespace

void config_load() {
  std::FILE* file = open_settings("zolserver.cfg");
  if (file == nullptr) file = open_settings("zolserver.conf");
  if (file == nullptr) {
    console_print("Could not open zolserver.cfg / zolserver.conf - Using defaults\n");
    return;
  }
  ConfigReader reader{.file = file};
  read_settings(reader);
  std::fclose(file);
}
