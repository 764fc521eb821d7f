// A game for tests: the real table, handlers and sends on a real socket. The players are UDP
// sockets on loopback, where a datagram is in the receiver's queue when the send returns, so the
// tests never wait.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>
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
  std::vector<Bytes> received() const;  // removes and returns all waiting datagrams, in order

  int socket;
  sockaddr_in address;
};

// The number of calls of operator new. The server must not call it.
extern std::atomic<int> allocations;

// Runs work of the server. Returns its output, and checks that it does not allocate.
template <typename Work>
std::string printed_by(Work work) {
  testing::internal::CaptureStdout();
  const int allocated = allocations;
  work();
  EXPECT_EQ(allocations, allocated) << "the server needs no heap";
  return testing::internal::GetCapturedStdout();
}

class GameTest : public testing::Test {
 protected:
  GameTest();
  ~GameTest() override;

  // Sends a datagram, and lets the server handle it. Returns the output.
  std::string say(const Player& player, const Bytes& bytes);
  // Runs a pass of the ping thread, on another thread. Returns the output.
  std::string pass();
  void join(const Player& player, const std::string& name);
  // Joins and enters on foot. Drops the datagrams that this sends to the player.
  void enter(const Player& player, const std::string& name);
};

inline Bytes join_request(const std::string& name) {
  return bytes_of("0a \"" + name + "\" ..66 28 00");
}

// CMD_ENTER_GAME of a player on foot. The car and the unused bytes are not zero.
inline Bytes enter_on_foot() {
  return bytes_of("0f 99*3 11*12 12*4 13 99*3 14*4 15*4 00 99*3 16*64");
}
