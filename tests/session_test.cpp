// Plays sessions: those of docs/protocol.md and tests/sessions/*.session. A line of a session is
//   A> BYTES             a datagram from A, handled at once; bytes.h describes the bytes. A name of
//                        a command, such as CMD_DIED, is its code in docs/protocol.md
//   A< BYTES             a datagram to A; P0..P9< is the same for ten players
//   #| LINE              a line that the server prints
//   server NAME=VALUE... a server that has just started, with these settings and no players
//   set NAME=VALUE...    changes the settings, or another name in SETTERS
//   wait MS              the time advances
//   pass                 a pass of the ping thread
//   join A B             A and B join; the datagrams to them are not checked
//   seat A B             A and B join and enter with enter_on_foot; the same
//   twin B A             B sends from the port of A at another address
//   cut A                the route look-up for A fails
//   fail A               sends of answers to A fail, until the next server
//   let NAME WORDS       later lines may use $NAME for these words
//   master BYTES / BYTES the master server answers the next request with these pieces;
//                        with "late N" before them, after N of the server's pauses;
//                        with "reset", it resets the connection
//   announce WHAT        announce_first, announce_check, master_announce, master_remove_server or
//                        broadcast_shutdown: first, check, ask, remove or stop
//   run THREAD SECONDS   the ping or the announce thread from its start,
//                        until it has slept this long
//   M| LINE              the first line of a request to the master server
//   check NAME=VALUE...  state that players cannot see; 3.in_car is in_car of slot 3
// and # begins a comment. Lines and datagrams must arrive in this order, and no others may arrive.

#include <sys/socket.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <utility>

#include "announce/announce_thread.h"
#include "announce/master_requests.h"
#include "net/socket_layer_state.h"
#include "server/liveness.h"
#include "server/stop_signals.h"
#include "tests/game.h"
#include "tests/master.h"

namespace {

using Number = std::uint32_t;

const std::map<std::string, void (*)(Number)> SETTERS = {
    {"clock", [](Number ms) { fake_now_ms = ms; }},
    {"GameType", [](Number type) { server_config.GameType = static_cast<std::uint8_t>(type); }},
    {"maxClients", [](Number count) { server_config.maxClients = static_cast<int>(count); }},
    {"pinkpanther_reselect",
     [](Number on) { pinkpanther_reselect = static_cast<std::uint8_t>(on); }},
    {"pinkpanther_slot", [](Number slot) { pinkpanther_slot = static_cast<Slot>(slot); }},
};

struct Announcer {
  AnnounceState state;
  bool continues = false;  // the result of the first announce
  std::uint8_t verdict = 0;
} announcer;

Number value_of(const std::string& name) {
  const std::size_t dot = name.find('.');
  const bool is_of_slot = dot != std::string::npos;
  const PlayerSlot& player = player_table.at(is_of_slot ? number_of(name.substr(0, dot)) : 0);
  const std::map<std::string, Number> values = {
      {"continues", announcer.continues},
      {"last_announce_ms", announcer.state.last_announce_ms},
      {"last_join_slot", last_join_slot},
      {"open_sockets", static_cast<Number>(socket_layer_state.open_sockets)},
      {"pinkpanther_reselect", pinkpanther_reselect},
      {"pinkpanther_since", pinkpanther_since},
      {"pinkpanther_slot", pinkpanther_slot},
      {"player_count", player_count},
      {"previous_count", announcer.state.previous_count},
      {"slept_ms", static_cast<Number>(slept_us / 1000)},
      {"verdict", announcer.verdict},
      {".car_block_a", player.car.car_block_a[0]},
      {".car_block_b", player.car.car_block_b[0]},
      {".car_byte", player.car.car_byte},
      {".car_type", player.car.car_type},
      {".death_count", player.death_count},
      {".has_died", player.has_died},
      {".in_car", player.in_car},
      {".is_pinkpanther", player.is_pinkpanther},
      {".last_heard", player.last_heard},
      {".ping_sent", player.ping_sent},
  };
  return values.at(is_of_slot ? name.substr(dot) : name);
}

// The codes of the commands as two hexadecimal digits, by name.
const std::map<std::string, std::string> codes = [] {
  std::map<std::string, std::string> all;
  std::ifstream document(PROTOCOL_DOCUMENT);
  for (std::string line; std::getline(document, line);) {
    unsigned code = 0;
    char name[64];
    if (std::sscanf(line.c_str(), "### `%63[A-Z_]` (%u)", name, &code) != 2) continue;
    all[name] = words_of({static_cast<std::uint8_t>(code)});
  }
  return all;
}();

// "P0..P9" means ten players, any other word one player.
std::vector<std::string> names_of(const std::string& word) {
  Number first = 0, last = 0;
  if (std::sscanf(word.c_str(), "P%u..P%u", &first, &last) != 2) return {word};
  std::vector<std::string> names;
  for (; first <= last; ++first) names.push_back("P" + std::to_string(first));
  return names;
}

class SessionTest : public GameTest {
 public:
  // Prints the arrived datagrams between the server's lines, to check the order of both.
  void print_arrivals() {
    const int allocated = allocations;
    for (const auto& [name, peer] : peers) {
      for (const Bytes& bytes : peer.received()) {
        std::printf("%s<%s\n", name.c_str(), words_of(bytes).c_str());
      }
    }
    allocations = allocated;
  }

  static SessionTest* playing;
  std::set<in_port_t> failing, cut;

 protected:
  SessionTest() {
    playing = this;
    on_sleep = [] { playing->run_master_in_sleep(); };
  }
  ~SessionTest() override { playing = nullptr, on_sleep = nullptr; }

  // An unknown line has thrown before this.
  void TearDown() override {
    finish_step();
    EXPECT_FALSE(HasFailure()) << "up to " << place;
    EXPECT_GT(datagrams, 0) << place;
  }

  void play(const std::string& file, int number, const std::string& line) {
    place = file + ":" + std::to_string(number) + ": " + line;
    std::istringstream words(line);
    std::string word;
    words >> word;
    if (word == "M|") {
      expected += line + "\n";
    } else if (word == "#|") {
      expected += line.substr(3) + "\n";
    } else if (word.ends_with('<')) {
      const std::string arrival = "<" + words_of(bytes_after(words)) + "\n";
      word.pop_back();
      for (const std::string& name : names_of(word)) expected += name + arrival;
    } else if (!word.empty() && word[0] != '#') {
      finish_step();
      step = place;
      act(word, words);
    }
  }

 private:
  void finish_step() { EXPECT_EQ(std::exchange(actual, ""), std::exchange(expected, "")) << step; }

  void act(std::string word, std::istringstream& words) {
    std::string name;
    if (word.ends_with('>')) {
      word.pop_back();
      actual = say(peers[word], bytes_after(words));
      ++datagrams;
    } else if (word == "server" || word == "set" || word == "check") {
      if (word == "server") reset_server(1000), peers.clear(), failing.clear();
      while (words >> name) use_pair(name, word == "check");
    } else if (word == "pass") {
      actual = pass();
    } else if (word == "join" || word == "seat") {
      while (words >> name) admit(names_of(name), word == "seat");
    } else if (word == "let" && words >> name) {
      lets["$" + name] = meaning_of(words);
    } else if (word == "twin" && words >> word >> name) {
      peers.try_emplace(word, "127.0.0.2", peers.at(name).address.sin_port);
    } else if ((word == "fail" || word == "cut") && words >> name) {
      (word == "cut" ? cut : failing).insert(peers[name].address.sin_port);
    } else if (word == "master") {
      set_master(words);
    } else if (word == "announce" && words >> name) {
      actual = announce(name);
    } else if (word == "run" && words >> name >> word) {
      actual = run(name == "ping" ? ping_thread : announce_thread, number_of(word));
    } else if (word == "wait" && words >> name) {
      fake_now_ms += number_of(name);
    } else {
      throw std::invalid_argument(word);
    }
  }

  void set_master(std::istringstream& words) {
    std::string word, rest;
    int waits = 0;
    bool resets = false;
    while (words >> word && (word == "late" || word == "reset")) {
      resets = word == "reset";
      if (!resets) words >> waits;
      word.clear();
    }
    std::getline(words, rest);
    std::deque<Bytes> pieces;
    std::istringstream all(word + rest);
    while (std::getline(all, word, '/')) {
      std::istringstream piece(word);
      pieces.push_back(bytes_after(piece));
    }
    master.script(pieces, waits, resets);
    std::snprintf(server_config.ServerName, sizeof server_config.ServerName, "A b  &=%%s");
    std::snprintf(server_config.Port, sizeof server_config.Port, "+7x");
    slept_us = 0;
    socket_layer_state.open_sockets = 0;
  }

  std::string announce(const std::string& what) {
    const std::map<std::string, void (*)()> calls = {
        {"first", [] { announcer.continues = announce_first(announcer.state = {}); }},
        {"check", [] { announce_check(announcer.state); }},
        {"ask", [] { announcer.verdict = static_cast<std::uint8_t>(master_announce()); }},
        {"remove", master_remove_server},
        {"stop", broadcast_shutdown},
    };
    return printed_by(calls.at(what));
  }

  std::string run(void* (*body)(void*), Number seconds) {
    run_ms = seconds * 1000;
    slept_us = 0;
    const std::string printed = printed_by([body] { EXPECT_THROW(body(nullptr), Number); });
    run_ms = 0;
    return printed;
  }

  void run_master_in_sleep() {
    master.run_in_wait();
    if (run_ms == 0) return;
    const auto ms = static_cast<Number>(slept_us / 1000);
    fake_now_ms = server_start_ms + ms;
    if (ms >= run_ms) throw ms;
  }

  // Sets or checks NAME=VALUE.
  void use_pair(const std::string& pair, bool is_check) {
    const std::string name = pair.substr(0, pair.find('='));
    const Number value = number_of(pair.substr(name.size() + 1));
    if (!is_check) return SETTERS.at(name)(value);
    EXPECT_EQ(value_of(name), value) << name << " at " << step;
  }

  void admit(const std::vector<std::string>& names, bool enters) {
    for (const std::string& name : names) {
      enters ? enter(peers[name], name) : join(peers[name], name);
    }
  }

  // Replaces names by their words. Several blanks become one blank, even in a text.
  std::string meaning_of(std::istringstream& words) const {
    std::string meaning;
    for (std::string word; words >> word;) {
      const auto known = lets.find(word);
      meaning += (known == lets.end() ? word : known->second) + " ";
    }
    return meaning;
  }

  Bytes bytes_after(std::istringstream& words) const { return bytes_of(meaning_of(words)); }

  Master master;
  std::map<std::string, Player> peers;
  std::map<std::string, std::string> lets = codes;
  std::string place, step, actual, expected;
  int datagrams = 0;
  Number run_ms = 0;  // how long a thread may sleep in all; 0: no thread runs
};

SessionTest* SessionTest::playing = nullptr;

TEST_F(SessionTest, WorkedSessionsMatch) {
  std::ifstream document(PROTOCOL_DOCUMENT);
  std::string block;
  int number = 0;
  for (std::string line; std::getline(document, line);) {
    ++number;
    if (line.starts_with("```")) {
      block = line;
      line = block == "```session-pinkpanther" ? "server GameType=1 maxClients=2" : "server";
    }
    if (block.starts_with("```session")) play("protocol.md", number, line);
  }
}

class SessionFileTest : public SessionTest,
                        public testing::WithParamInterface<std::filesystem::path> {};

TEST_P(SessionFileTest, Matches) {
  std::ifstream file(GetParam());
  int number = 0;
  for (std::string line; std::getline(file, line);) {
    play(GetParam().filename().string(), ++number, line);
  }
}

std::vector<std::filesystem::path> session_files() {
  return {std::filesystem::directory_iterator(SESSIONS), {}};
}

INSTANTIATE_TEST_SUITE_P(Sessions, SessionFileTest, testing::ValuesIn(session_files()),
                         [](const auto& file) { return file.param.stem().string(); });

}  // namespace

// The session prints arrivals after each send, so that a batch is sent one datagram at a time.
extern "C" {
decltype(sendto) __real_sendto;
decltype(sendmmsg) __real_sendmmsg;

ssize_t __wrap_sendto(int handle, const void* bytes, std::size_t size, int flags,
                      const sockaddr* to, socklen_t length) {
  SessionTest* session = handle == server_socket ? SessionTest::playing : nullptr;
  const in_port_t port = reinterpret_cast<const sockaddr_in*>(to)->sin_port;
  if (session != nullptr && (size == 0 ? session->cut : session->failing).contains(port)) {
    return errno = EINVAL, -1;
  }
  const ssize_t sent = __real_sendto(handle, bytes, size, flags, to, length);
  if (session != nullptr) session->print_arrivals();
  return sent;
}

int __wrap_sendmmsg(int handle, mmsghdr* messages, unsigned count, int flags) {
  SessionTest* session = SessionTest::playing;
  const int sent = __real_sendmmsg(handle, messages, session != nullptr ? 1 : count, flags);
  if (session != nullptr) session->print_arrivals();
  return sent;
}
}
