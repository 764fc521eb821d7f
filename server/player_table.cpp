#include "server/player_table.h"

static Endpoint endpoint_of(const sockaddr_in& address) {
  return {.host = address.sin_addr.s_addr, .port = address.sin_port};
}

sockaddr_in socket_address_of(const Endpoint& endpoint) {
  return {AF_INET, endpoint.port, {endpoint.host}, {}};
}

Slot slot_limit() {
  return static_cast<Slot>(server_config.maxClients);
}

bool is_used(const Seat& seat) {
  return seat.state == SeatState::JOINED || seat.state == SeatState::IN_GAME;
}

std::int32_t count_used_slots() {
  std::int32_t count = 0;
  for (Slot slot = 0; slot < slot_limit(); ++slot) {
    if (is_used(player_table[slot].seat)) ++count;
  }
  return count;
}

// A linear scan: with 32 slots, an index is not worth the risk that it becomes inconsistent. A FREE
// slot keeps its old address, so the address alone is not a match.
Slot find_slot_by_address(const sockaddr_in& address) {
  const Endpoint wanted = endpoint_of(address);
  for (Slot slot = 0; slot < slot_limit(); ++slot) {
    const PlayerSlot& player = player_table[slot];
    if (player.address.load() == wanted && is_used(player.seat)) return slot;
  }
  return NO_SLOT;
}

Slot find_free_slot() {
  for (Slot slot = 0; slot < slot_limit(); ++slot) {
    if (player_table[slot].seat.load().state == SeatState::FREE) return slot;
  }
  return NO_SLOT;
}

Slot next_used_slot(Slot slot) {
  static_assert((NO_SLOT + 1) % MAX_CLIENTS == 0, "slot 0 follows NO_SLOT");
  for (int i = 1; i <= MAX_CLIENTS; ++i) {
    const auto next = static_cast<Slot>((slot + i) % MAX_CLIENTS);
    if (is_used(player_table[next].seat)) return next;
  }
  return NO_SLOT;
}

void store_car(PlayerSlot& player, const CarState& car) {
  player.car = car;
  player.car.unused_1 = {};
  player.car.unused_2 = {};
}

void take_seat(PlayerSlot& player, const sockaddr_in& address) {
  player.address = endpoint_of(address);
  player.seat = Seat{SeatState::JOINED, player.seat.load().tenancy + 1};
}

bool change_seat(PlayerSlot& player, Seat seen, SeatState state) {
  return player.seat.compare_exchange_strong(seen, {state, seen.tenancy});
}

bool change_used_seat(PlayerSlot& player, SeatState state) {
  const Seat seen = player.seat;
  return is_used(seen) && change_seat(player, seen, state);
}

// Compares the seat after reading the address, because a join may have replaced the address since
// the seat was read.
bool read_address(const PlayerSlot& player, Seat seen, sockaddr_in& address) {
  address = socket_address_of(player.address);
  return player.seat.load() == seen;
}
