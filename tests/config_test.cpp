#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include "config/server_config.h"

namespace {

using std::string_literals::operator""s;

// Every setting in one line, in the order of the record.
std::string settings() {
  const ServerConfig& c = server_config;
  return std::to_string(c.maxClients) + "|" + std::to_string(c.AnnounceServer) + "|" +
         std::to_string(c.GameType) + "|" + c.Port + "|" + c.ServerName + "|" + c.WelcomeMessage;
}

void write_file(const char* name, const std::optional<std::string>& content) {
  std::remove(name);
  if (content) std::ofstream(name, std::ios::binary) << *content;
}

// Loads the two files in a folder of their own; returns what was printed.
std::string load(const std::optional<std::string>& cfg, const std::optional<std::string>& conf) {
  char folder[] = "/tmp/zol_config_XXXXXX";
  EXPECT_NE(mkdtemp(folder), nullptr);
  EXPECT_EQ(chdir(folder), 0);
  write_file("zolserver.cfg", cfg);
  write_file("zolserver.conf", conf);
  server_config = ServerConfig{.WelcomeMessage = "w"};
  testing::internal::CaptureStdout();
  config_load();
  write_file("zolserver.cfg", std::nullopt);
  write_file("zolserver.conf", std::nullopt);
  EXPECT_EQ(chdir("/"), 0);
  rmdir(folder);
  return testing::internal::GetCapturedStdout();
}

std::string wrong(const std::string& key, const std::string& kept) {
  return "Wrong value " + key + " in config file. Using default Value: " + kept + "\n";
}

TEST(ConfigTest, ReadsFilesToTheLetter) {
  const std::string x70(70, 'x');
  struct Case {
    std::string file, printed, settings;
  };
  const Case cases[] = {
      {"", "", "16|0|0|16309|Unnamed Server|w"},
      {"# c\nServerName=My Server\nmaxClients=20\nAnnounceServer=true\nGameType=1\nPort=1\n"
       "WelcomeMessage=Have fun\n",
       "Have fun \n", "20|1|1|1|My Server|Have fun"},
      // Letters' case, blanks around texts, CR and CRLF, comments behind values.
      {" \tSERVERNAME= \t A #c\r\nport= 80 x\rannounceSERVER=\n TRUE #\rgametype=+1\r", "",
       "16|1|1|80|A|w"},
      // Limits, and what a wrong value leaves in force.
      {"maxClients=2\nmaxClients=1\n", wrong("maxClients", "2 "), "2|0|0|16309|Unnamed Server|w"},
      {"maxClients=32\nmaxClients=33\n", wrong("maxClients", "32 "),
       "32|0|0|16309|Unnamed Server|w"},
      {"GameType=2\nGameType=1\nGameType=-1\n",
       wrong("GameType", "0 (Deathmatch)") + wrong("GameType", "1 (CatchPinkPanther)"),
       "16|0|1|16309|Unnamed Server|w"},
      {"AnnounceServer=1\nAnnounceServer=true\nAnnounceServer=no\nAnnounceServer=FALSE\n",
       wrong("AnnounceServer", "FALSE") + wrong("AnnounceServer", "TRUE"),
       "16|0|0|16309|Unnamed Server|w"},
      {"Port=0\nPort=abc\nPort=-5\nPort=70000\n",
       wrong("Port", "16309") + wrong("Port", "16309") + wrong("Port", "16309"),
       "16|0|0|70000|Unnamed Server|w"},
      {"ServerName=  \nServerName=#x\nWelcomeMessage=\n",
       wrong("ServerName", "Unnamed Server ") + wrong("ServerName", "Unnamed Server ") +
           wrong("WelcomeMessage", "w ") + " \n",
       "16|0|0|16309|Unnamed Server|w"},
      // An unknown key swallows the next one; a line without '=' runs on.
      {"Foo=bar\nServerName=X\nPort=5\n", "", "16|0|0|16309|Unnamed Server|w"},
      {"junk\nPort=5\n=7\nPort=6\n", "", "16|0|0|16309|Unnamed Server|w"},
      // The work integer is shared, maxClients leaves the rest of its line, GameType does not.
      {"ServerName=My Server\nmaxClients=abc\nPort=5\n", "", "9|0|0|16309|My Server|w"},
      {"GameType=abc\nPort=5\n", "", "16|0|0|5|Unnamed Server|w"},
      {"ServerName=  A  #\nmaxClients=-x\n", "", "5|0|0|16309|A|w"},
      {"maxClients=4#c\nGameType=1 maxClients=9\nPort=5\n", "", "4|0|1|5|Unnamed Server|w"},
      {"maxClients=\n\n 12 ServerName=N\n", "", "12|0|0|16309|N|w"},
      {"AnnounceServer=false Port=5555\nGameType=1\n", "", "16|0|1|16309|Unnamed Server|w"},
      // As a 32-bit number: 4294967298 is not 2, and nothing wraps.
      {"maxClients=4294967298\n", wrong("maxClients", "16 "), "16|0|0|16309|Unnamed Server|w"},
      {"GameType=18446744073709551617\n", wrong("GameType", "0 (Deathmatch)"),
       "16|0|0|16309|Unnamed Server|w"},
      {"Port=99999999999\n", "", "16|0|0|99999999999|Unnamed Server|w"},
      {"Port=4294967296\nPort=-99999999999\n", wrong("Port", "4294967296"),
       "16|0|0|4294967296|Unnamed Server|w"},
      // Words keep their '#'; everything is cut to its width; %s and 0xFF are characters.
      {"Port=16309#x\nServerName=%s%n\xFF\xFF.\nWelcomeMessage=%d\n", "%d \n",
       "16|0|0|16309#x|%s%n\xFF\xFF.|%d"},
      {"ServerName=" + x70 + "\nWelcomeMessage=" + x70 + "\nPort=1" + x70 + "\n",
       x70.substr(7) + " \n",
       "16|0|0|1" + x70.substr(46) + "|" + x70.substr(39) + "|" + x70.substr(7)},
      {"Port\0junk=4\n"s, "", "16|0|0|4|Unnamed Server|w"},
      // The end of the file ends every read, and what was read counts.
      {"ServerName=End", "", "16|0|0|16309|End|w"},
      {"Port=7", "", "16|0|0|7|Unnamed Server|w"},
      {"WelcomeMessage=8\nPort=", "8 \n" + wrong("Port", "16309"), "16|0|0|16309|Unnamed Server|8"},
      {"AnnounceServer", wrong("AnnounceServer", "FALSE"), "16|0|0|16309|Unnamed Server|w"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(load(c.file, std::nullopt), c.printed) << c.file;
    EXPECT_EQ(settings(), c.settings) << c.file;
  }
}

TEST(ConfigTest, PrefersTheFirstFileAndLivesWithoutBoth) {
  EXPECT_EQ(load("Port=1\n", "Port=2\nGameType=1\n"), "");
  EXPECT_EQ(settings(), "16|0|0|1|Unnamed Server|w");
  EXPECT_EQ(load(std::nullopt, "Port=2\n"), "");
  EXPECT_EQ(settings(), "16|0|0|2|Unnamed Server|w");
  EXPECT_EQ(load(std::nullopt, std::nullopt),
            "Could not open zolserver.cfg / zolserver.conf - Using defaults\n");
}

TEST(ConfigTest, TakesTheSampleWithoutAComplaint) {
  std::stringstream sample;
  sample << std::ifstream(SAMPLE_CONFIG).rdbuf();
  EXPECT_EQ(load(sample.str(), std::nullopt), ServerConfig{}.WelcomeMessage + " \n"s);
  EXPECT_EQ(settings(), "16|0|0|16309|Unnamed Server|"s + ServerConfig{}.WelcomeMessage);
}

}  // namespace
