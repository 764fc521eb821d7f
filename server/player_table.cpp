#include "server/player_table.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config/server_config.h"
#include "net/sflsock.h"
#include "server/server_state.h"

static_assert(TABLE_SIZE == MAX_CLIENTS && TABLE_SIZE <= MAX_DESTINATIONS);

constinit PlayerTable player_table{};

// Byte by byte, so that a thread that reads while the main thread writes sees a mixture at worst.
using SharedByte = std::atomic_ref<std::uint8_t>;
static_assert(SharedByte::is_always_lock_free);

template <typename Value>
static void store_shared(Value& shared, const Value& value) {
  auto* to = reinterpret_cast<std::uint8_t*>(&shared);
  const auto* from = reinterpret_cast<const std::uint8_t*>(&value);
  for (std::size_t i = 0; i < sizeof(Value); ++i) {
    SharedByte(to[i]).store(from[i], std::memory_order_relaxed);
  }
}

template <typename Value>
static Value load_shared(Value& shared) {
  std::array<std::uint8_t, sizeof(Value)> bytes;
  auto* from = reinterpret_cast<std::uint8_t*>(&shared);
  for (std::size_t i = 0; i < sizeof(Value); ++i) {
    bytes[i] = SharedByte(from[i]).load(std::memory_order_relaxed);
  }
  return std::bit_cast<Value>(bytes);
}

std::span<PlayerSlot> playable_slots() {
  return std::span(player_table).first(static_cast<std::size_t>(server_config.maxClients));
}

static bool same_endpoint(const sockaddr_in& left, const sockaddr_in& right) {
  return left.sin_addr.s_addr == right.sin_addr.s_addr && left.sin_port == right.sin_port;
}

// A flat scan on purpose, here and below: 32 slots need no index that could fall out of step.
std::uint8_t find_slot_by_address(const sockaddr_in& address) {
  std::uint8_t number = 0;
  for (const PlayerSlot& slot : playable_slots()) {
    if (slot.in_use != 0 && same_endpoint(slot.address, address)) return number;
    ++number;
  }
  return NO_SLOT;
}

std::int8_t find_free_slot() {
  std::int8_t number = 0;
  for (const PlayerSlot& slot : playable_slots()) {
    if (slot.in_use == 0) return number;
    ++number;
  }
  return -1;
}

void occupy_slot(PlayerSlot& slot, const sockaddr_in& address, const char* name) {
  std::array<char, NAME_WIDTH> padded{};
  std::memcpy(padded.data(), name, strnlen(name, NAME_WIDTH - 1));
  store_shared(slot.name, padded);
  store_shared(slot.address, address);
  slot.in_game = 0;
  slot.in_use.store(1, std::memory_order_release);
}

bool free_slot(PlayerSlot& slot) {
  slot.in_game = 0;
  return slot.in_use.exchange(0) != 0;
}

std::array<char, NAME_WIDTH> copy_name(PlayerSlot& slot) {
  std::array<char, NAME_WIDTH> name = load_shared(slot.name);
  name.back() = '\0';
  return name;
}

sockaddr_in copy_address(PlayerSlot& slot) {
  return load_shared(slot.address);
}

[[noreturn]] static void end_for_broken_socket() {
  std::printf("error writing to socket:%s\n", system_error_text());
  std::exit(EXIT_FAILURE);
}

// The addresses of one broadcast. Only the main thread writes addresses, so it may hand out the
// table's own; the other threads hand out copies.
struct Recipients {
  std::array<const sockaddr_in*, TABLE_SIZE> addresses;
  std::array<sockaddr_in, TABLE_SIZE> copies;
  unsigned count = 0;
};

static void collect_recipients(Recipients& to, const sockaddr_in* left_out) {
  const bool owns_addresses = on_main_thread();
  for (PlayerSlot& slot : playable_slots()) {
    if (slot.in_game == 0) continue;
    const sockaddr_in* address = &slot.address;
    if (!owns_addresses) {
      to.copies[to.count] = copy_address(slot);
      address = &to.copies[to.count];
    }
    if (left_out == nullptr || !same_endpoint(*address, *left_out)) {
      to.addresses[to.count++] = address;
    }
  }
}

static void broadcast(std::span<const std::byte> datagram, const sockaddr_in* left_out) {
  Recipients to;
  collect_recipients(to, left_out);
  const auto length = static_cast<unsigned>(datagram.size());
  const unsigned served =
      udp_send_to_each(server_socket, datagram.data(), length, to.addresses.data(), to.count);
  if (served < to.count) end_for_broken_socket();
}

void broadcast_all(std::span<const std::byte> datagram) {
  broadcast(datagram, nullptr);
}

void broadcast_except_sender(std::span<const std::byte> datagram, const sockaddr_in& sender) {
  broadcast(datagram, &sender);
}

void broadcast_text(const std::array<char, TEXT_WIDTH>& text) {
  const ChatLine line{.text = text};
  broadcast_all(std::as_bytes(std::span(&line, 1)));
}
