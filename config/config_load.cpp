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

// Line ends are part of a key: only '=' or the end of the file ends it.
void read_key(std::FILE* file, int first, char (&key)[KEY_WIDTH]) {
  std::size_t length = 0;
  for (int c = first; c != EOF && c != '='; c = std::getc(file)) {
    if (length < KEY_WIDTH - 1) key[length++] = static_cast<char>(c);
  }
  key[length] = '\0';
}

// Reads a NUMBER or a GAME_TYPE into work_integer, any other kind into value. Returns the number
// that the limits of the key apply to: the value, or the length of a TEXT in bytes.
std::int32_t read_value(ConfigReader& reader, Kind kind) {
  if (kind == Kind::NUMBER || kind == Kind::GAME_TYPE) {
    long number = 0;  // without digits, work_integer stays; a sign is consumed
    if (std::fscanf(reader.file, "%ld", &number) == 1) reader.work_integer = clamp_to_int32(number);
    return reader.work_integer;
  }
  static_assert(VALUE_WIDTH == 64);  // the formats contain 63
  int length = 0;
  const char* format = kind == Kind::TEXT ? "%63[^#\r\n]%n" : "%63s%n";
  if (std::fscanf(reader.file, format, reader.value, &length) != 1) reader.value[0] = '\0';
  if (kind == Kind::PORT) return text_to_int32(reader.value);
  if (kind == Kind::BOOLEAN) {
    if (compare_ignoring_case(reader.value, "true") == 0) return 1;
    return compare_ignoring_case(reader.value, "false") == 0 ? 0 : -1;
  }
  reader.work_integer = length;
  return static_cast<std::int32_t>(std::strlen(trim(reader.value)));
}

void print_refusal(const ConfigReader& reader, const ConfigKey& key) {
  if (key.kind == Kind::NUMBER) {
    reader.print("Wrong value %s in config file. Using default Value: %d \n", key.name,
                 number_in(key));
  } else if (key.kind == Kind::GAME_TYPE) {
    reader.print("Wrong value %s in config file. Using default Value: %d (%s)\n", key.name,
                 number_in(key), game_type_name(number_in(key)));
  } else {
    const char* text = static_cast<const char*>(key.field);
    if (key.kind == Kind::BOOLEAN) text = number_in(key) != 0 ? "TRUE" : "FALSE";
    reader.print("Wrong value %s in config file. Using default Value: %s%s\n", key.name, text,
                 key.kind == Kind::TEXT ? " " : "");
  }
}

void set_key(ConfigReader& reader, const ConfigKey& key) {
  const std::int32_t number = read_value(reader, key.kind);
  // After a NUMBER, the rest of the line is not skipped: it begins the next key.
  if (key.kind != Kind::NUMBER) skip_rest_of_line(reader.file);
  reader.is_accepted = number >= key.min && number <= key.max;
  if (!reader.is_accepted) {
    print_refusal(reader, key);
  } else if (key.kind == Kind::TEXT || key.kind == Kind::PORT) {
    std::strncpy(static_cast<char*>(key.field), reader.value, key.width - 1);
  } else {
    std::memcpy(key.field, &number, key.width);
  }
  if (key.field == server_config.WelcomeMessage) reader.print("%s \n", reader.value);
}

// A pipe or a device reads as empty, because a read of it may wait forever or never end.
std::FILE* open_one(const char* name, void (*report_error)(const char* name, const char* reason)) {
  const int handle = open(name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (handle == -1) {
    if (errno != ENOENT) report_error(name, std::strerror(errno));
    return nullptr;
  }
  std::FILE* file = fdopen(handle, "r");
  struct stat status = {};
  const bool is_file = fstat(handle, &status) == -1 || S_ISREG(status.st_mode);
  if (is_file || file == nullptr) return file;
  report_error(name, S_ISDIR(status.st_mode) ? std::strerror(EISDIR) : "Not a file");
  return std::freopen("/dev/null", "re", file);
}

}  // namespace

const ConfigKey* find_key(const char* name) {
  for (const ConfigKey& key : CONFIG_KEYS) {
    if (compare_ignoring_case(name, key.name) == 0) return &key;
  }
  return nullptr;
}

// The value of an unknown key is not skipped: it becomes the beginning of the next key, so the key
// on the next line is unknown, too.
bool read_setting(ConfigReader& reader) {
  for (int c = std::getc(reader.file); c != EOF; c = std::getc(reader.file)) {
    if (c == '#') {
      skip_rest_of_line(reader.file);
    } else if (!is_line_end(c) && c != ' ' && c != '\t') {
      reader.key_offset = std::ftell(reader.file) - 1;
      char key[KEY_WIDTH];
      read_key(reader.file, c, key);
      reader.known = find_key(key);
      if (reader.known != nullptr) set_key(reader, *reader.known);
      return true;
    }
  }
  return false;
}

std::FILE* open_settings(void (*report_error)(const char* name, const char* reason)) {
  std::FILE* file = open_one("zolserver.cfg", report_error);
  return file != nullptr ? file : open_one("zolserver.conf", report_error);
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
