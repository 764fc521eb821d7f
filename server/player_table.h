// The players: a fixed table of 32 slots, the life of a slot, and the look-ups.
//
// Threads share the table without a lock. Of a slot:
//   seat            any thread reads and changes it; a change is made by compare-exchange
//   address         the main thread writes it while the seat is FREE; any thread reads it
//   name            the main thread writes it while the seat is FREE; the ping thread reads it
//                   while it holds the seat in LEAVING
//   is_pinkpanther  the main thread writes it, and the announce thread clears it once
//   last_heard      the main thread writes it, the ping thread reads it
//   ping_sent       the ping thread's alone
//   all else        the main thread's alone
//
// Known races: a player that times out while the main thread handles its datagram may still have
// that datagram stored, answered and relayed; sending.h says how the others learn that it has left.
// An answer to a ping comes too late once the ping thread has found its player silent. A
// PinkPanther who is chosen at the moment of its time-out keeps the role until the next choice, and
// one who is chosen while the announce thread clears the flags loses its flag until then.
#pragma once

#include <netinet/in.h>

#include <atomic>

#include "config/server_config.h"

using namespace zol;

enum class SeatState : std::uint32_t {
  FREE,     // a join may take the slot
  JOINED,   // a player has the slot and has not entered the game
  IN_GAME,  // a player has the slot and gets broadcasts and pings
  LEAVING,  // its player is gone, and the thread that says so tells the others: no look-up finds
            // the player any more, no join can take the slot yet
};

// Who has a slot, in one word. Whoever decides something about a player acts on the seat that it
// saw: when the player has left meanwhile, the tenancy or the state differs, and the act fails.
struct alignas(8) Seat {  // aligned as the processor wants it for one access
  SeatState state = SeatState::FREE;
  std::uint32_t tenancy = 0;  // counts the players who have had the slot

  bool operator==(const Seat&) const = default;
};

// IPv4 address and UDP port, both in network byte order, in one word.
struct alignas(8) Endpoint {
  in_addr_t host = 0;
  in_port_t port = 0;
  std::uint16_t unused = 0;  // always 0, so that equal endpoints are equal words

  bool operator==(const Endpoint&) const = default;
};

static_assert(std::atomic<Seat>::is_always_lock_free);
static_assert(std::atomic<Endpoint>::is_always_lock_free);

// A slot that becomes FREE keeps all its other values. A join writes address, name, in_car,
// death_count, has_died and last_heard, and leaves the rest as the last player left it, the
// PinkPanther's flag included.
struct PlayerSlot {
  std::atomic<Seat> seat;
  std::atomic<Endpoint> address;
  char name[NAME_WIDTH];     // ends with NUL
  PlayerState state;         // as reported, unused bytes zero
  CarState car;              // likewise; it outlives the ride
  std::uint8_t in_car;       // non-zero: the player sits in car
  std::uint8_t death_count;  // as the client counts
  std::uint8_t has_died;     // 1: since the join
  std::atomic<std::uint8_t> is_pinkpanther;
  std::uint32_t ping_sent;                // uptime_ms of the first ping after the last sign of life
  std::atomic<std::uint32_t> last_heard;  // uptime_ms; a join sets it 60000 ahead
};

using PlayerTable = std::array<PlayerSlot, MAX_CLIENTS>;
inline constinit PlayerTable player_table{};

sockaddr_in socket_address_of(const Endpoint& endpoint);

Slot slots_in_play();             // those that are given to players, from 0 on; any thread
bool is_used(const Seat& seat);   // JOINED or IN_GAME: the slot has a player
std::int32_t count_used_slots();  // below maxClients; any thread

// The player at this IPv4 address and port, NO_SLOT for none. Main thread.
Slot find_slot_by_address(const sockaddr_in& address);

// The lowest slot that a join may take, NO_SLOT for none. Main thread.
Slot find_free_slot();

// The next slot with a player, in slot order, around the end of the table and up to the slot
// itself; from slot 0 on for NO_SLOT. NO_SLOT when there is none. Looks at all 32. Main thread.
Slot next_used_slot(Slot slot);

// As reported, but for the unused bytes, which become zero. Main thread.
void store_car(PlayerSlot& player, const CarState& car);

// From FREE to JOINED, with this address; all else must have been written before. Main thread.
void take_seat(PlayerSlot& player, const sockaddr_in& address);

// The seat moves on from what was seen to another state. False when it has changed since: then
// nothing was done. Any thread.
bool change_seat(PlayerSlot& player, Seat seen, SeatState state);

// From JOINED or IN_GAME to another state. False when the player is gone. Main thread, since no
// other can seat someone else meanwhile.
bool change_used_seat(PlayerSlot& player, SeatState state);

// The address of the player seen in this seat. False when the seat has changed since. Any thread.
bool read_address(const PlayerSlot& player, Seat seen, sockaddr_in& address);
