// Replays the worked sessions of docs/protocol.md, byte for byte, with what the server prints.

#include <fstream>
#include <map>
#include <sstream>

#include "tests/game.h"

namespace {

class SessionTest : public GameTest {};

// "0a 00*3" is 0a 00 00 00.
Bytes bytes_of_line(std::istream& words) {
  Bytes bytes;
  for (std::string word; words >> word;) {
    const std::size_t star = word.find('*');
    const std::size_t count = star == std::string::npos ? 1 : std::stoul(word.substr(star + 1));
    bytes.insert(bytes.end(), count, static_cast<std::uint8_t>(std::stoul(word, nullptr, 16)));
  }
  return bytes;
}

TEST_F(SessionTest, TheWorkedSessionsAreTrue) {
  std::ifstream document(PROTOCOL_DOCUMENT);
  std::map<std::string, Player> peers;
  std::map<std::string, std::vector<Bytes>> expected;
  std::string printed;
  std::string expected_print;
  int sessions = 0;
  int datagrams = 0;
  for (std::string line, block; std::getline(document, line);) {
    if (line.starts_with("```")) {
      for (const auto& [name, peer] : peers) EXPECT_EQ(peer.received(), expected[name]) << name;
      EXPECT_EQ(std::exchange(printed, ""), std::exchange(expected_print, ""));
      start_over();
      peers.clear();
      expected.clear();
      block = line;
      sessions += block.starts_with("```session") ? 1 : 0;
      server_config.GameType = block == "```session-pinkpanther" ? 1 : 0;
      server_config.maxClients = block == "```session-pinkpanther" ? 2 : 16;
    } else if (block.starts_with("```session") && line.starts_with("#|")) {
      expected_print += line.substr(3) + "\n";
    } else if (block.starts_with("```session") && line[0] != '#') {
      std::istringstream words(line);
      std::string direction;
      words >> direction;
      const std::string name = direction.substr(0, 1);
      const Bytes bytes = bytes_of_line(words);
      if (direction[1] == '<') {
        expected[name].push_back(bytes);
      } else {
        printed += say(peers[name], bytes);
      }
      ++datagrams;
    }
  }
  EXPECT_EQ(sessions, 2);
  EXPECT_GT(datagrams, 80);
}

}  // namespace
