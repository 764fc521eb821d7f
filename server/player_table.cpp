#include "server/player_table.h"

#include <cstring>

#include "config/server_config.h"
#include "server/server_state.h"

static_assert(TABLE_SIZE == MAX_CLIENTS);

constinit PlayerTable player_table{};
constinit std::atomic<std::uint32_t> roster_version = 0;

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

bool same_endpoint(const sockaddr_in& left, const sockaddr_in& right) {
  return left.sin_addr.s_addr == right.sin_addr.s_addr && left.sin_port == right.sin_port;
}

// The bytes of an address that tell players apart, in one word: port and IPv4 address, behind the
// family, which is always the same.
static std::uint64_t endpoint_word(const sockaddr_in& address) {
  static_assert(offsetof(sockaddr_in, sin_port) == 2 && offsetof(sockaddr_in, sin_addr) == 4);
  std::uint64_t word;
  std::memcpy(&word, &address, sizeof word);
  return word;
}

// A flat scan on purpose, here and below: 32 slots need no index that could fall out of step. The
// freed slots keep their addresses, so a match is only one when the slot is in use.
std::uint8_t find_slot_by_address(const sockaddr_in& address) {
  const std::uint64_t wanted = endpoint_word(address);
  for (const PlayerSlot& slot : playable_slots()) {
    if (endpoint_word(slot.address) == wanted && slot.in_use != 0) {
      return static_cast<std::uint8_t>(&slot - player_table.data());
    }
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
  const std::size_t first = slot + 1U;  // NO_SLOT + 1 is a multiple of the table's size
  static_assert((NO_SLOT + 1) % TABLE_SIZE == 0);
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
  ++roster_version;  // the ping thread may not have come to it since it freed the slot
  slot.in_use.store(1, std::memory_order_release);
}

void enter_game(PlayerSlot& slot) {
  slot.in_game = 1;
  ++roster_version;
}

bool free_slot(PlayerSlot& slot) {
  slot.in_game = 0;
  const bool was_in_use = slot.in_use.exchange(0) != 0;
  ++roster_version;
  return was_in_use;
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
