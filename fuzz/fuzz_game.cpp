// Input: events in any order and at any time. They are datagrams of players, passes of the ping
// thread, and the announce thread's request for a PinkPanther. After every event the table must be
// consistent, and all datagrams must have gone to the right players.

#include <sys/socket.h>

#include <algorithm>
#include <numeric>
#include <span>
#include <vector>

#include "config/server_config.h"
#include "fuzz/check.h"
#include "server/command_table.h"
#include "server/liveness.h"
#include "server/pinkpanther.h"
#include "server/player_table.h"
#include "server/server_state.h"
#include "tests/fake_clock.h"

using Players = std::uint64_t;                               // one bit for each sender
static std::vector<std::pair<Players, ServerCommand>> sent;  // receivers and code

static const std::vector<std::uint8_t> commands = [] {
  std::vector<std::uint8_t> codes(256);
  std::iota(codes.begin(), codes.end(), std::uint8_t{0});
  std::erase_if(codes, [](std::uint8_t code) { return !is_command(code); });
  return codes;
}();
using enum ServerCommand;
constexpr ServerCommand ANSWERS[] = {
    CMD_JOIN_REFUSED_FULL, CMD_JOIN_REFUSED_VERSION, CMD_ENTER_GAME_REPLY, CMD_JOIN_ACCEPTED,
    CMD_NOT_IN_CAR,        CMD_PLAYER_STATE,         CMD_GAME_CLOCK};
constexpr ServerCommand ANSWERS_AND_RELAYS[] = {CMD_PLAYER_INFO, CMD_PINKPANTHER};

// Four senders have the same address, ten the same port. No sender has port 0.
static Players bit_of(const sockaddr_in& address) {
  return Players{1} << (address.sin_addr.s_addr + 10U * address.sin_port);
}

static Players players_in(bool (*wanted)(const Seat&)) {
  Players players = 0;
  for (const PlayerSlot& player : player_table) {
    if (wanted(player.seat)) players |= bit_of(socket_address_of(player.address));
  }
  return players;
}

static bool is_in_game(const Seat& seat) {
  return seat.state == SeatState::IN_GAME;
}

static void check_table() {
  for (Slot slot = 0; slot < MAX_CLIENTS; ++slot) {
    const PlayerSlot& player = player_table[slot];
    check(player.name[NAME_WIDTH - 1] == '\0', "a name ends within its field");
    check(player.seat.load().state != SeatState::LEAVING, "no seat stays in LEAVING");
    check(player.is_pinkpanther == 0 || slot == pinkpanther_slot,
          "only pinkpanther_slot has the flag");
    if (!is_used(player.seat)) continue;
    check(slot < server_config.maxClients, "a slot below maxClients");
    check(find_slot_by_address(socket_address_of(player.address)) == slot, "one slot per address");
  }
  check(player_count == count_used_slots(), "player_count is the number of slots in use");
}

// Answers go only to the sender, relays to players in the game except the sender.
static void check_sent(Players sender, Players others) {
  for (const auto& [to, code] : sent) {
    const bool is_answer = std::ranges::count(ANSWERS, code) == 1;
    const bool is_answer_and_relay = std::ranges::count(ANSWERS_AND_RELAYS, code) == 1;
    check(is_answer_and_relay || is_answer == (to == sender),
          "answers to the sender, relays to others");
    check(((sender | others) & to) != 0, "only to the sender and to players in the game");
  }
}

template <typename Event>
static void run_event(const sockaddr_in& from, Event event) {
  const Players sender = bit_of(from);
  const Players others = players_in(is_in_game) & ~sender;
  sent.clear();
  event();
  check_sent(sender, others);
  check_table();
}

// A size of 255 means an empty datagram, which does not change the buffer. The buffer gets the
// right protocol version, unless the high bit of the sender's number is set.
static void receive(Input& input, std::uint8_t code) {
  const std::uint8_t number = input.next();
  const std::size_t received = (input.next() + 1U) % receive_buffer.size();
  for (std::size_t i = 0; i < received; ++i) receive_buffer[i] = i == 0 ? code : input.next();
  constexpr std::size_t VERSION_AT = offsetof(JoinRequest, version);
  if (number < 128)
    receive_buffer[VERSION_AT] = PROTOCOL_VERSION, receive_buffer[VERSION_AT + 1] = 0;
  sockaddr_in sender{};
  sender.sin_addr.s_addr = number % 10U;
  sender.sin_port = static_cast<in_port_t>(1 + number % 40U / 10);
  run_event(sender, [&] {
    dispatch_datagram({.bytes = receive_buffer, .received = received, .sender = sender});
  });
}

// corpus.py writes the first four kinds of events.
static void handle_event(Input& input) {
  const std::size_t kind = input.next() % (commands.size() + 6);
  if (kind >= 6) return receive(input, commands[kind - 6]);
  if (kind == 0) return receive(input, input.next());
  if (kind == 1) return run_event({}, ping_pass);
  if (kind == 2) pinkpanther_reselect = server_config.GameType;  // as the announce thread does
  if (kind > 2) fake_now_ms += input.next() * 1000U;
}

static void reset_game(Input& input) {
  reset_server(input.next() * 0x01010000U);
  server_config.maxClients = 2 + input.next() % 31;
  server_config.GameType = input.next() % 2;
}

extern "C" ssize_t __wrap_sendto(int /*handle*/, const void* bytes, std::size_t size, int flags,
                                 const void* to, socklen_t /*length*/) {
  if (flags != 0) return 0;  // the route look-up
  sent.push_back(
      {bit_of(*static_cast<const sockaddr_in*>(to)), *static_cast<const ServerCommand*>(bytes)});
  return static_cast<ssize_t>(size);
}

extern "C" int __wrap_sendmmsg(int, mmsghdr* messages, unsigned count, int /*flags*/) {
  for (const auto& [header, length] : std::span(messages, count))
    __wrap_sendto(0, header.msg_iov->iov_base, header.msg_iov->iov_len, 0, header.msg_name, 0);
  return static_cast<int>(count);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input{data, size};
  reset_game(input);
  while (input.left > 0) handle_event(input);
  return 0;
}
