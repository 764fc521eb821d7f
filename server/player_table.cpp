#include "server/player_table.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config/server_config.h"
#include "net/sflsock.h"
#include "server/server_state.h"

static_assert(TABLE_SIZE == MAX_CLIENTS && TABLE_SIZE <= MAX_DESTINATIONS);

constinit PlayerTable player_table{};

// What the main thread writes while another may be reading goes through these. Each field of an
// address whole, so that a copy never holds a port that no player had: one of 0 could not be sent
// to.
template <typename Field>
static void store_field(Field& shared, Field value) {
  static_assert(std::atomic_ref<Field>::is_always_lock_free);
  std::atomic_ref<Field>(shared).store(value, std::memory_order_relaxed);
}

template <typename Field>
static Field load_field(Field& shared) {
  return std::atomic_ref<Field>(shared).load(std::memory_order_relaxed);
}

static void store_name(PlayerSlot& slot, const char* name) {
  const std::size_t length = strnlen(name, NAME_WIDTH - 1);
  for (std::size_t i = 0; i < NAME_WIDTH; ++i)
    store_field(slot.name[i], i < length ? name[i] : '\0');
}

static void store_address(PlayerSlot& slot, const sockaddr_in& address) {
  store_field(slot.address.sin_family, address.sin_family);
  store_field(slot.address.sin_port, address.sin_port);
  store_field(slot.address.sin_addr.s_addr, address.sin_addr.s_addr);
  for (std::size_t i = 0; i < std::size(address.sin_zero); ++i) {
    store_field(slot.address.sin_zero[i], address.sin_zero[i]);
  }
}

std::span<PlayerSlot> playable_slots() {
  return std::span(player_table).first(static_cast<std::size_t>(server_config.maxClients));
}

std::int32_t count_used_slots() {
  std::int32_t count = 0;
  for (const PlayerSlot& slot : playable_slots()) count += slot.in_use != 0 ? 1 : 0;
  return count;
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

std::int8_t next_used_slot(std::uint8_t slot) {
  const std::size_t first = slot == NO_SLOT ? 0 : slot + 1U;
  for (std::size_t i = 0; i < TABLE_SIZE; ++i) {
    const std::size_t number = (first + i) % TABLE_SIZE;
    if (player_table[number].in_use != 0) return static_cast<std::int8_t>(number);
  }
  return -1;
}

void occupy_slot(PlayerSlot& slot, const sockaddr_in& address, const char* name) {
  store_name(slot, name);
  store_address(slot, address);
  slot.in_game = 0;
  slot.in_use.store(1, std::memory_order_release);
}

bool free_slot(PlayerSlot& slot) {
  slot.in_game = 0;
  return slot.in_use.exchange(0) != 0;
}

std::array<char, NAME_WIDTH> copy_name(PlayerSlot& slot) {
  std::array<char, NAME_WIDTH> name;
  for (std::size_t i = 0; i < NAME_WIDTH; ++i) name[i] = load_field(slot.name[i]);
  name.back() = '\0';
  return name;
}

sockaddr_in copy_address(PlayerSlot& slot) {
  sockaddr_in address{};
  address.sin_family = load_field(slot.address.sin_family);
  address.sin_port = load_field(slot.address.sin_port);
  address.sin_addr.s_addr = load_field(slot.address.sin_addr.s_addr);
  for (std::size_t i = 0; i < std::size(address.sin_zero); ++i) {
    address.sin_zero[i] = load_field(slot.address.sin_zero[i]);
  }
  return address;
}

// At once, by whichever thread meets the failure: no destructor of ours has anything to do.
[[noreturn]] static void end_for_broken_socket() {
  std::printf("error writing to socket:%s\n", system_error_text());
  std::fflush(stdout);
  _exit(EXIT_FAILURE);
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
    // A player who enters just as the ping thread frees its slot leaves in_game behind.
    if (slot.in_game == 0 || slot.in_use == 0) continue;
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
