// The table of the players: 32 slots, the states of a slot, and the look-ups.
//
// Threads share the table without a lock. The fields of a slot:
//   seat            any thread reads it, and changes it by compare-exchange; a join (main thread)
//                   stores it while it is FREE
//   address         the main thread writes it while the seat is FREE; any thread reads it
//   name            the main thread writes it while the seat is FREE; the ping thread reads it
//                   while it holds the seat in LEAVING
//   is_pinkpanther  the main thread writes it; the announce thread clears it once
//   last_heard      the main thread writes it; the ping thread reads it
//   ping_sent       only the ping thread
//   other fields    only the main thread
//
// Known races: a datagram that is being handled while its player times out may still be stored,
// answered and relayed; sending.h says how the others learn that the player has left. A ping reply
// is too late once the ping thread has decided on the time-out. A PinkPanther chosen at the moment
// of its time-out keeps the role until the next choice. A PinkPanther chosen while the announce
// thread clears the flags has no flag until the next choice.
#pragma once

#include <netinet/in.h>

#include <atomic>

#include "config/server_config.h"

using namespace zol;

enum class SeatState : std::uint32_t {
  FREE,     // a join may take the slot
  JOINED,   // a player has the slot and has not entered the game
  IN_GAME,  // a player has the slot and gets broadcasts and pings
  LEAVING,  // the player has left, and one thread is sending the notice; look-ups skip the slot,
            // and no join can take it
};

// The state and the tenancy of a slot, in one 8-byte word. A thread passes the seat that it has
// read to change_seat, which fails if the player has left since.
struct alignas(8) Seat {  // aligned for one atomic access
  SeatState state = SeatState::FREE;
  std::uint32_t tenancy = 0;  // the number of players that have had the slot

  bool operator==(const Seat&) const = default;
};

// IPv4 address and UDP port, both in network byte order, in one 8-byte word.
struct alignas(8) Endpoint {
  in_addr_t host = 0;
  in_port_t port = 0;
  std::uint16_t unused = 0;  // always 0, so that equal endpoints are equal words

  bool operator==(const Endpoint&) const = default;
};

static_assert(std::atomic<Seat>::is_always_lock_free);
static_assert(std::atomic<Endpoint>::is_always_lock_free);

// A slot that becomes FREE keeps its other values. A join writes address, name, in_car,
// death_count, has_died and last_heard. The other fields, including is_pinkpanther, keep the values
// of the previous player.
struct PlayerSlot {
  std::atomic<Seat> seat;
  std::atomic<Endpoint> address;
  char name[NAME_WIDTH];     // with a terminating NUL
  PlayerState state;         // as reported, unused bytes zero
  CarState car;              // as reported, unused bytes zero; kept after the ride
  std::uint8_t in_car;       // non-zero: the player is in `car`
  std::uint8_t death_count;  // as the client reported it
  std::uint8_t has_died;     // 1: it has died since its join
  std::atomic<std::uint8_t> is_pinkpanther;
  std::uint32_t ping_sent;                // uptime_ms of the first ping after last_heard
  std::atomic<std::uint32_t> last_heard;  // uptime_ms; a join sets it 60000 ms ahead
};

using PlayerTable = std::array<PlayerSlot, MAX_CLIENTS>;
inline constinit PlayerTable player_table{};

sockaddr_in socket_address_of(const Endpoint& endpoint);

Slot slot_limit();                // maxClients: joins use only the slots below it; any thread
bool is_used(const Seat& seat);   // JOINED or IN_GAME: the slot has a player
std::int32_t count_used_slots();  // below maxClients; any thread

// The slot of the player at this IPv4 address and port; NO_SLOT when there is none. Main thread.
Slot find_slot_by_address(const sockaddr_in& address);

// The lowest slot that a join may take; NO_SLOT when there is none. Main thread.
Slot find_free_slot();

// The next slot after this one that has a player, in slot order with wrap-around; the slot itself
// comes last. NO_SLOT starts at slot 0. Returns NO_SLOT when none of the 32 slots has a player.
// Main thread.
Slot next_used_slot(Slot slot);

// Stores the reported car with its unused bytes set to zero. Main thread.
void store_car(PlayerSlot& player, const CarState& car);

// Stores the address and changes the seat from FREE to JOINED. Write the other fields before. Main
// thread.
void take_seat(PlayerSlot& player, const sockaddr_in& address);

// Changes the state of the seat if the seat is still equal to `seen`. Otherwise returns false and
// changes nothing. Any thread.
bool change_seat(PlayerSlot& player, Seat seen, SeatState state);

// Changes the seat from JOINED or IN_GAME. False when the player has left. Main thread: no join can
// give the slot to a new player meanwhile.
bool change_used_seat(PlayerSlot& player, SeatState state);

// Reads the address of the player. False when the seat is not equal to `seen` any more. Any thread.
bool read_address(const PlayerSlot& player, Seat seen, sockaddr_in& address);
