#include "tests/game.h"

#include <thread>

#include "net/sflsock.h"
#include "server/liveness.h"
#include "server/main_loop.h"
#include "tests/loopback.h"

std::atomic<int> allocations = 0;
extern "C" void* __real_malloc(std::size_t size);
void* operator new(std::size_t size) {
  return ++allocations, __real_malloc(size);
}
// The C++ library's operator delete frees with free(), which AddressSanitizer would report.
extern "C" const char* __asan_default_options() {
  return "alloc_dealloc_mismatch=0";
}

Player::Player(const char* host, in_port_t port)
    : socket(bind_loopback(SOCK_DGRAM | SOCK_NONBLOCK, host, port)),
      address(local_address(socket)) {
  const int room = 1 << 20;
  setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
}

Player::~Player() {
  close(socket);
}

void Player::send(const Bytes& bytes) const {
  const sockaddr_in server = local_address(server_socket);
  EXPECT_EQ(sendto(socket, bytes.data(), bytes.size(), 0,
                   reinterpret_cast<const sockaddr*>(&server), sizeof server),
            static_cast<ssize_t>(bytes.size()));
}

std::vector<Bytes> Player::received() const {
  std::vector<Bytes> all;
  Bytes bytes(2000);
  for (ssize_t size = 0; (size = recv(socket, bytes.data(), bytes.size(), 0)) >= 0;) {
    all.emplace_back(bytes.begin(), bytes.begin() + size);
  }
  return all;
}

GameTest::GameTest() {
  std::setvbuf(stdout, nullptr, _IONBF, 0);  // tests print between the server's lines
  main_thread_id = pthread_self();
  server_socket = bind_loopback(SOCK_DGRAM | SOCK_NONBLOCK);
  reset_server(1000);
}

GameTest::~GameTest() {
  close(server_socket);
}

std::string GameTest::say(const Player& player, const Bytes& bytes) {
  player.send(bytes);
  return printed_by(drain_socket);
}

std::string GameTest::pass() {
  std::string printed;
  std::thread([&printed] { printed = printed_by(ping_pass); }).join();
  return printed;
}

void GameTest::join(const Player& player, const std::string& name) {
  say(player, join_request(name));
}

void GameTest::enter(const Player& player, const std::string& name) {
  join(player, name);
  say(player, enter_on_foot());
  player.received();
}
