// Players who do what they like, in any order and at any time: datagrams through the real dispatch,
// passes of the ping thread and the announcer's request for a PinkPanther. Behind every event the
// table must be consistent, and what went out must have gone to the right players and hold nothing
// but what its layout says.

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>
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

constexpr int PASS = 256;  // of the ping thread, as if it were one more command
// Every command, and the codes that it may send beside the PinkPanther's announcement; 0 for none.
constexpr Pair SENDS[] = {
    {2, 0},    {10, 12},   {10, 14},   {10, 17},   {10, 60},   {15, 16},   {15, 42},  {31, 30},
    {40, 42},  {41, 43},   {43, 204},  {43, 205},  {60, 60},   {100, 200}, {101, 72}, {101, 204},
    {102, 72}, {102, 205}, {103, 220}, {110, 201}, {110, 205}, {120, 202}, {120, 41}, {121, 203},
    {121, 41}, {122, 206}, {123, 72},  {123, 207}, {124, 208}, {124, 41},  {PASS, 1}, {PASS, 60}};
constexpr std::size_t COMMANDS = std::size(SENDS) - 2;

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

static Players players_with(std::atomic<std::uint8_t> PlayerSlot::*flag) {
  Players players = 0;
  for (const PlayerSlot& slot : player_table) players |= slot.*flag != 0 ? bit_of(slot.address) : 0;
  return players;
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
    check(end < first + to || code == CMD_CHAT_LINE, "a text ends in its field");
    check(is_zero(end, first + to), "zeros behind a text");
  }
}

static void check_table() {
  for (std::size_t i = 0; i < TABLE_SIZE; ++i) {
    const PlayerSlot& slot = player_table[i];
    check(slot.name.back() == '\0', "a name ends in its field");
    check(slot.in_game == 0 || slot.in_use != 0, "who is in the game has joined");
    check(slot.is_pinkpanther == 0 || i == pinkpanther_slot, "one PinkPanther, and the named one");
    if (slot.in_use == 0) continue;
    check(i < static_cast<std::size_t>(server_config.maxClients), "a slot to give away");
    check(find_slot_by_address(slot.address) == i, "one slot an address");
  }
  check(player_count == count_used_slots(), "player_count is the number of slots in use");
}

static bool may_send(int command, int code) {
  if (code == CMD_PINKPANTHER) return command != CMD_JOIN && command != PASS;
  return std::ranges::count(SENDS, Pair{command, code}) == 1;
}

// Answers go to the sender alone, relays to all others or to none; what a pass of the ping thread
// sends, to all whom it leaves in the game. Each player who left counts as a code of its own.
static void check_sent(Players sender, int command, Players others) {
  std::array<Players, 256> reached{};
  for (const auto& [to, bytes] : sent) {
    check_bytes(bytes);
    const std::uint8_t code = bytes[0];
    const bool is_answer = std::ranges::count(ANSWERS, code) == 1;
    const bool goes_to_both = code == CMD_PLAYER_INFO || code == CMD_PINKPANTHER;
    check(may_send(command, code), "what the command sends");
    check(goes_to_both || is_answer == (to == sender), "answers to the sender, relays to others");
    check(((sender | others) & to) != 0, "to nobody else");
    Players& so_far = reached.at(code == CMD_PLAYER_LEFT ? 100U + bytes[1] : code);
    check((so_far & to) == 0 || goes_to_both, "once each");
    so_far |= to;
  }
  const Players all = command == PASS ? players_with(&PlayerSlot::in_game) : others;
  for (const Players players : reached)
    check((players & ~sender) == 0 || (all & ~players) == 0, "relays to all others");
}

// Strangers get no answer but to a join.
template <typename Event>
static void run_event(const sockaddr_in& from, int command, Event event) {
  const Players sender = bit_of(from);
  const Players others = players_with(&PlayerSlot::in_game) & ~sender;
  const bool is_known = (players_with(&PlayerSlot::in_use) & sender) != 0;
  sent.clear();
  event();
  check_sent(is_known || command == CMD_JOIN ? sender : 0, command, others);
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
  run_event(sender, receive_buffer[0], [&] {
    dispatch_datagram({.bytes = receive_buffer, .received = received, .sender = sender});
  });
}

static void run_pass() {
  main_thread_id = {};  // as on the ping thread
  run_event({}, PASS, ping_pass);
  main_thread_id = pthread_self();
}

// The announcer's, once it is listed.
static void ask_for_pinkpanther() {
  for (PlayerSlot& slot : playable_slots()) slot.is_pinkpanther = 0;
  pinkpanther_reselect = server_config.GameType;
}

static void take_event(Input& input) {
  const std::uint8_t kind = input.next() % 36;
  if (kind < COMMANDS) return receive(input, static_cast<std::uint8_t>(SENDS[kind][0]));
  if (kind == COMMANDS) return receive(input, input.next());
  if (kind == COMMANDS + 1) return run_pass();
  if (kind == COMMANDS + 2) return ask_for_pinkpanther();
  fake_now_ms += input.next() * 1000U;
}

static void start_over(Input& input) {
  std::memset(static_cast<void*>(&player_table), 0, sizeof player_table);
  server_config.maxClients = 2 + input.next() % 31;
  server_config.GameType = input.next() % 2;
  fake_now_ms = server_start_ms = input.next() * 0x01010000U;
  receive_buffer = {};
  ++roster_version;
  player_count = last_join_slot = 0;
  pinkpanther_slot = NO_SLOT;
  pinkpanther_since = pinkpanther_reselect = 0;
  pinkpanther_announcement = {};
  main_thread_id = pthread_self();
}

extern "C" ssize_t __wrap_sendto(int /*handle*/, const void* bytes, std::size_t size, int /*flags*/,
                                 const void* to, socklen_t /*length*/) {
  const auto* first = static_cast<const std::uint8_t*>(bytes);
  sent.push_back({bit_of(*static_cast<const sockaddr_in*>(to)), {first, first + size}});
  return static_cast<ssize_t>(size);
}

// sendmmsg, the only call by number here.
extern "C" long __wrap_syscall(long /*number*/, int, mmsghdr* messages, unsigned count, int) {
  for (const auto& [header, length] : std::span(messages, count))
    __wrap_sendto(0, header.msg_iov->iov_base, header.msg_iov->iov_len, 0, header.msg_name, 0);
  return static_cast<long>(count);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input{data, size};
  start_over(input);
  while (input.left > 0) take_event(input);
  return 0;
}
