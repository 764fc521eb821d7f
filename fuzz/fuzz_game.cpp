// Players who do what they like, in any order and at any time: datagrams through the real dispatch,
// passes of the ping thread and the announcer's request for a PinkPanther. Behind every event the
// table must be consistent, and what went out must have gone to the right players and hold nothing
// but what its layout says.

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <span>
#include <vector>

#include "config/server_config.h"
#include "fuzz/check.h"
#include "server/command_table.h"
#include "server/liveness.h"
#include "server/player_table.h"
#include "server/server_state.h"
#include "tests/fake_clock.h"

using Players = std::uint64_t;  // one bit a sender, however they come to the table
using Pair = std::array<int, 2>;
using Triple = std::array<int, 3>;
static std::vector<std::pair<Players, std::vector<std::uint8_t>>> sent;

constexpr std::uint8_t COMMANDS[] = {2,   10,  15,  31,  40,  41,  43,  60,  100,
                                     101, 102, 103, 110, 120, 121, 122, 123, 124};
constexpr int CHAT_LINE = 30, PLAYER_INFO = 42, PINKPANTHER = 209;

// The server's datagrams by code and offsets, apart from its own records.
constexpr Pair SIZES[] = {{1, 1},    {12, 65},  {14, 65},  {16, 4},   {17, 67},  {30, 65},
                          {41, 2},   {42, 164}, {43, 80},  {60, 2},   {72, 3},   {200, 16},
                          {201, 8},  {202, 32}, {203, 28}, {204, 80}, {205, 20}, {206, 3},
                          {207, 12}, {208, 8},  {209, 2},  {220, 3}};
constexpr std::uint8_t ANSWERS[] = {12, 14, 16, 17, 41, 43, 72};  // 42 and 209 go to both
constexpr Triple TEXTS[] = {{12, 1, 65}, {14, 1, 65}, {17, 3, 67}, {30, 1, 65}, {42, 3, 68}};
constexpr Triple CARS[] = {{42, 100, 96}, {43, 16, 2}};  // and where it says whether there is one
constexpr Triple UNUSED[] = {
    {42, 85, 88},  {42, 97, 100}, {42, 103, 104}, {42, 157, 160}, {43, 3, 4},  {43, 19, 20},
    {43, 73, 76},  {200, 2, 4},   {201, 2, 4},    {202, 2, 4},    {203, 2, 4}, {204, 2, 4},
    {204, 19, 20}, {204, 73, 76}, {205, 2, 4},    {207, 1, 4},    {208, 1, 2}, {208, 3, 4}};

// Four senders share an address, ten a port. The address of zeros is nobody's.
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

static bool is_zero(const std::uint8_t* from, const std::uint8_t* to) {
  return std::count(from, to, 0) == to - from;
}

static void check_bytes(const std::vector<std::uint8_t>& bytes) {
  const int code = bytes[0];
  check(std::ranges::count(SIZES, Pair{code, static_cast<int>(bytes.size())}) == 1, "its size");
  const std::uint8_t* first = bytes.data();
  for (const auto& [of, from, to] : UNUSED)
    check(of != code || is_zero(first + from, first + to), "unused bytes are zero");
  for (const auto& [of, from, flag] : CARS) {
    if (of != code) continue;
    check(first[flag] == (player_table.at(first[1]).in_car != 0 ? 1 : 0), "who sits in a car");
    check(first[flag] == 1 || is_zero(first + from, first + bytes.size()), "no car on foot");
  }
  for (const auto& [of, from, to] : TEXTS) {
    if (of != code) continue;
    const std::uint8_t* end = std::find(first + from, first + to, 0);
    check(end < first + to || code == CHAT_LINE, "a text ends in its field");
    check(is_zero(end, first + to), "zeros behind a text");
  }
}

static void check_table() {
  for (Slot slot = 0; slot < MAX_CLIENTS; ++slot) {
    const PlayerSlot& player = player_table[slot];
    check(player.name.back() == '\0', "a name ends in its field");
    check(player.seat.load().state != SeatState::LEAVING, "nobody is left in the door");
    check(player.is_pinkpanther == 0 || slot == pinkpanther_slot, "one PinkPanther, the named one");
    if (!is_used(player.seat)) continue;
    check(slot < server_config.maxClients, "a slot to give away");
    check(find_slot_by_address(socket_address_of(player.address)) == slot, "one slot an address");
  }
  check(player_count == count_used_slots(), "player_count is the number of slots in use");
}

// Answers go to the sender alone, relays to players in the game and not to the sender.
static void check_sent(Players sender, Players others) {
  for (const auto& [to, bytes] : sent) {
    check_bytes(bytes);
    const bool is_answer = std::ranges::count(ANSWERS, bytes[0]) == 1;
    const bool goes_to_both = bytes[0] == PLAYER_INFO || bytes[0] == PINKPANTHER;
    check(goes_to_both || is_answer == (to == sender), "answers to the sender, relays to others");
    check(((sender | others) & to) != 0, "to nobody else");
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

// A size of 255 makes it an empty one, which leaves the buffer as it is. Our version stands in it
// unless the sender's upper bit is set.
static void receive(Input& input, std::uint8_t code) {
  const std::uint8_t number = input.next();
  const std::size_t received = (input.next() + 1U) % receive_buffer.size();
  for (std::size_t i = 0; i < received; ++i) receive_buffer[i] = i == 0 ? code : input.next();
  if (number < 128) receive_buffer[66] = PROTOCOL_VERSION, receive_buffer[67] = 0;
  sockaddr_in sender{};
  sender.sin_addr.s_addr = number % 10U;
  sender.sin_port = static_cast<in_port_t>(1 + number % 40U / 10);
  run_event(sender, [&] {
    dispatch_datagram({.bytes = receive_buffer, .received = received, .sender = sender});
  });
}

static void take_event(Input& input) {
  const std::uint8_t kind = input.next() % 24;
  if (kind < std::size(COMMANDS)) return receive(input, COMMANDS[kind]);
  if (kind == 18) return receive(input, input.next());
  if (kind == 19) return run_event({}, ping_pass);
  if (kind == 20) pinkpanther_reselect = server_config.GameType;  // as the announcer does
  if (kind > 20) fake_now_ms += input.next() * 1000U;
}

static void start_over(Input& input) {
  std::memset(static_cast<void*>(&player_table), 0, sizeof player_table);
  server_config.maxClients = 2 + input.next() % 31;
  server_config.GameType = input.next() % 2;
  fake_now_ms = server_start_ms = input.next() * 0x01010000U;
  receive_buffer = {};
  player_count = last_join_slot = 0;
  pinkpanther_slot = NO_SLOT;
  pinkpanther_since = pinkpanther_reselect = 0;
  pinkpanther_notice = {};
}

extern "C" ssize_t __wrap_sendto(int /*handle*/, const void* bytes, std::size_t size, int flags,
                                 const void* to, socklen_t /*length*/) {
  if (flags != 0) return 0;  // the look-up of a route
  const auto* first = static_cast<const std::uint8_t*>(bytes);
  sent.push_back({bit_of(*static_cast<const sockaddr_in*>(to)), {first, first + size}});
  return static_cast<ssize_t>(size);
}

extern "C" int __wrap_sendmmsg(int, mmsghdr* messages, unsigned count, int /*flags*/) {
  for (const auto& [header, length] : std::span(messages, count))
    __wrap_sendto(0, header.msg_iov->iov_base, header.msg_iov->iov_len, 0, header.msg_name, 0);
  return static_cast<int>(count);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input{data, size};
  start_over(input);
  while (input.left > 0) take_event(input);
  return 0;
}
