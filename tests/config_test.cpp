#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "check/diagnostics.h"
#include "config/server_config.h"
#include "tests/bytes.h"

namespace {

using std::string_literals::operator""s;

// All settings in one line, in the order of the record.
std::string settings() {
  const ServerConfig& c = server_config;
  return std::to_string(c.maxClients) + "|" + std::to_string(c.AnnounceServer) + "|" +
         std::to_string(c.GameType) + "|" + c.Port + "|" + c.ServerName + "|" + c.WelcomeMessage;
}

void write_file(const char* name, const std::optional<std::string>& content) {
  std::remove(name);
  if (content) std::ofstream(name, std::ios::binary) << *content;
}

// Loads the two files in a new directory. `make` may create a special file in place of the first
// file. Returns the output.
std::string load(const std::optional<std::string>& cfg, const std::optional<std::string>& conf,
                 int (*make)(const char*, mode_t) = nullptr) {
  char folder[] = "/tmp/zol_config_XXXXXX";
  EXPECT_NE(mkdtemp(folder), nullptr);
  EXPECT_EQ(chdir(folder), 0);
  write_file("zolserver.cfg", cfg);
  write_file("zolserver.conf", conf);
  if (make != nullptr) make("zolserver.cfg", 0700);
  server_config = ServerConfig{.WelcomeMessage = "w"};
  testing::internal::CaptureStdout();
  config_load();
  write_file("zolserver.cfg", std::nullopt);
  write_file("zolserver.conf", std::nullopt);
  EXPECT_EQ(chdir("/"), 0);
  rmdir(folder);
  return testing::internal::GetCapturedStdout();
}

// The diagnostics of zolcheck for the same file, one per line. Sets server_config.
std::string diagnostics_of(std::string file) {
  std::string found;
  server_config = ServerConfig{.WelcomeMessage = "w"};
  std::FILE* stream = fmemopen(file.data(), file.size(), "r");
  for (const Diagnostic& diagnostic : read_with_diagnostics(stream)) {
    found += std::to_string(diagnostic.line) + ": " + diagnostic.text + "\n";
  }
  std::fclose(stream);
  return found;
}

// The bytes of all words of the line except the first.
std::string text_of(const std::string& line) {
  const Bytes bytes = bytes_of(line.substr(line.find(' ')));
  return {bytes.begin(), bytes.end()};
}

TEST(ConfigTest, ReadsAllCases) {
  std::ifstream cases(CASES);
  std::string file, printed, diagnostics;
  int count = 0;
  for (std::string line; std::getline(cases, line);) {
    if (line.starts_with("file ")) file = text_of(line), printed = diagnostics = "";
    if (line.starts_with("prints ")) printed += text_of(line) + "\n";
    if (line.starts_with("warns ")) diagnostics += text_of(line) + "\n";
    if (!line.starts_with("gives ")) continue;
    EXPECT_EQ(load(file, std::nullopt), printed) << file;
    EXPECT_EQ(settings(), text_of(line)) << file;
    const std::string found = diagnostics_of(file);
    EXPECT_EQ(settings(), text_of(line)) << file;
    if (!diagnostics.empty()) {
      EXPECT_EQ(found, diagnostics) << file;
    }
    ++count;
  }
  EXPECT_GT(count, 25);
}

constexpr const char* NO_SETTINGS =
    "Could not open zolserver.cfg / zolserver.conf - Using defaults\n";

TEST(ConfigTest, ReadsTheFirstFileThatExists) {
  EXPECT_EQ(load("Port=1\n", "Port=2\nGameType=1\n"), "");
  EXPECT_EQ(settings(), "16|0|0|1|Unnamed Server|w");
  EXPECT_EQ(load(std::nullopt, "Port=2\n"), "");
  EXPECT_EQ(settings(), "16|0|0|2|Unnamed Server|w");
  EXPECT_EQ(load(std::nullopt, std::nullopt), NO_SETTINGS);
}

std::ptrdiff_t count_descriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TEST(ConfigTest, ReportsSpecialFilesWithoutReadingThem) {
  struct Case {
    int (*make)(const char*, mode_t);
    const char* reason;
    const char* prints = "";
  };
  const auto loop = [](const char* name, mode_t) { return symlink(name, name); };
  for (const auto& [make, reason, prints] :
       {Case{mkdir, "Is a directory"}, Case{mkfifo, "Not a file"},
        Case{loop, "Too many levels of symbolic links", NO_SETTINGS}}) {
    const auto count_before = count_descriptors();
    testing::internal::CaptureStderr();
    EXPECT_EQ(load(std::nullopt, std::nullopt, make), prints);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "zolserver.cfg: "s + reason + "\n");
    EXPECT_EQ(settings(), "16|0|0|16309|Unnamed Server|w");
    EXPECT_EQ(count_descriptors(), count_before);
  }
}

}  // namespace
