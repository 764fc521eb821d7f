// Input: a file of settings. The server must be able to run with the result.

#include <cstring>
#include <string>

#include "check/diagnostics.h"
#include "config/server_config.h"
#include "fuzz/check.h"

static std::string config_text;

extern "C" int __wrap_open64(const char* /*name*/, int /*flags*/, ...) {
  return 1000;
}

extern "C" std::FILE* __wrap_fdopen(int /*handle*/, const char* mode) {
  return fmemopen(config_text.data(), config_text.size(), mode);
}

template <std::size_t width>
static void check_field(const char (&field)[width]) {
  const std::size_t length = strnlen(field, width);
  check(length > 0 && length < width && field[0] != ' ',
        "a trimmed text that ends within its field");
  check(std::strpbrk(field, "\r\n") == nullptr, "one line");
}

static void load(const std::string& text) {
  config_text = text;
  config_load();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  server_config = {};
  load(text);
  const ServerConfig loaded = server_config;
  check(loaded.maxClients >= MIN_CLIENTS && loaded.maxClients <= MAX_CLIENTS,
        "maxClients within its limits");
  check(loaded.AnnounceServer <= 1 && loaded.GameType <= 1, "a flag and a game type");
  check_field(loaded.Port);
  check_field(loaded.ServerName);
  check_field(loaded.WelcomeMessage);
  load(text);
  check(std::memcmp(&loaded, &server_config, sizeof loaded) == 0,
        "a second load gives the same settings");
  server_config = {};
  std::FILE* file = fmemopen(config_text.data(), config_text.size(), "r");
  read_with_diagnostics(file);
  std::fclose(file);
  check(std::memcmp(&loaded, &server_config, sizeof loaded) == 0,
        "zolcheck reads the same settings");
  server_config = {};
  load("\r\n#Port=1\n " + text);
  check(std::memcmp(&loaded, &server_config, sizeof loaded) == 0, "a comment changes nothing");
  return 0;
}
