// A game for tests: the real table, handlers and sends on a real socket, with players that are UDP
// sockets on loopback. A send over loopback is in the receiver's queue when it returns, so nothing
// here ever waits.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "config/server_config.h"
#include "server/player_table.h"
#include "server/server_state.h"
#include "tests/bytes.h"
#include "tests/fake_clock.h"

struct Player {
  explicit Player(const char* host = "127.0.0.1", in_port_t port = 0);
  ~Player();
  Player(const Player&) = delete;
  Player& operator=(const Player&) = delete;

  void send(const Bytes& bytes) const;
  std::vector<Bytes> received() const;  // all that waits, in order

  int socket;
  sockaddr_in address;
};

// Uses of new so far. What the server does must not move it.
extern std::atomic<int> allocations;

class GameTest : public testing::Test {
 protected:
  GameTest();
  ~GameTest() override;

  // A server as it is before its first datagram.
  void start_over();
  // Sends and has the server handle it. Returns what the server printed.
  std::string say(const Player& player, const Bytes& bytes);
  void join(const Player& player, const std::string& name);
  // Joins and enters on foot; drops what that sends to everybody.
  void enter(const Player& player, const std::string& name);
  // Makes count players and lets them enter in order: player i gets slot i.
  void fill(std::size_t count);
  // Nothing waits at any player any more, but for these.
  void expect_only(const Player& player, const std::vector<Bytes>& datagrams);
  void forget_received();

  std::vector<std::unique_ptr<Player>> players;
};

inline Bytes join_request(const std::string& name, std::uint8_t version = 40) {
  return datagram(10, 68, {{1, text(name)}, {66, {version}}});
}

// The state that tests report, with the bits of a signalling NaN among its floats.
inline const Bytes STATE = [] {
  Bytes state = counting(1, 28);
  state[12] = 0x01, state[13] = 0x00, state[14] = 0xA0, state[15] = 0x7F;
  return state;
}();
inline const Bytes CAR = counting(101, 64);

// The blocks as the server sends them: unused bytes are zero, whatever the client put there.
inline Bytes clean_state(Bytes state) {
  state[17] = state[18] = state[19] = 0;
  return state;
}
inline Bytes clean_car(Bytes car) {
  car[3] = car[57] = car[58] = car[59] = 0;
  return car;
}

inline Bytes enter_on_foot() {
  return datagram(15, 100, {{4, STATE}, {36, CAR}});
}
inline Bytes info_on_foot(std::uint8_t slot, std::uint8_t entered, const std::string& name) {
  return datagram(42, 164, {{1, {slot, entered}}, {3, text(name)}, {68, clean_state(STATE)}});
}
