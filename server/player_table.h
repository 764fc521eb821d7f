// The players: a fixed table of 32 slots, and the lookups in it.
//
// Threads, without a lock. Only the main thread joins players, so only it writes names and
// addresses, and it may read them as plain memory. The ping thread frees slots beside it. What more
// than one thread writes, or one writes while another reads, is atomic; a join publishes a slot by
// storing in_use last, and whoever frees a slot does so by free_slot, which has one winner. What no
// lock leaves open: a time-out that is decided in the very instant in which the silent player
// leaves and another takes its slot frees the slot under the newcomer.
#pragma once

#include <netinet/in.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

#include "server/protocol.h"

inline constexpr std::size_t TABLE_SIZE = 32;

// A slot that is freed keeps all but in_use and in_game. A join writes address, name, those two,
// in_car, death_count, has_died and last_heard, and leaves the rest as the last player left it.
struct PlayerSlot {
  sockaddr_in address;  // as received; freed slots keep theirs
  std::array<char, NAME_WIDTH> name;
  std::atomic<std::uint8_t> in_use;   // a joined player holds the slot
  std::atomic<std::uint8_t> in_game;  // it has entered the game: it gets broadcasts and pings
  Position position;
  FloatBits state_f1;
  std::uint8_t state_b;  // the weapon type
  FloatBits state_f2;
  FloatBits state_f3;
  std::uint8_t death_count;  // as the client counts
  std::atomic<std::uint8_t> is_pinkpanther;
  std::uint8_t has_died;  // since the join
  CarBlockA car_block_a;  // this and the other car fields outlive the ride
  CarBlockB car_block_b;
  std::uint8_t car_type;
  std::uint8_t car_color1;
  std::uint8_t car_color2;
  std::uint8_t car_byte;
  FloatBits car_float;
  std::uint8_t in_car;                    // non-zero: sits in the car that the car fields describe
  std::atomic<std::uint32_t> ping_sent;   // uptime_ms of the first ping after the last sign of life
  std::atomic<std::uint32_t> last_heard;  // uptime_ms; a join sets it 60000 ahead
};

static_assert(sizeof(sockaddr_in) == 16);

using PlayerTable = std::array<PlayerSlot, TABLE_SIZE>;
extern PlayerTable player_table;

// Moves on with every change of who is in the game. Any thread.
extern std::atomic<std::uint32_t> roster_version;

// The slots that are given to players, whatever their state. Any thread.
std::span<PlayerSlot> playable_slots();

// How many of them are in use. Any thread.
std::int32_t count_used_slots();

// Whether IPv4 address and port are the same.
bool same_endpoint(const sockaddr_in& left, const sockaddr_in& right);

// The player at this IPv4 address and port, or NO_SLOT. Main thread.
std::uint8_t find_slot_by_address(const sockaddr_in& address);

// The lowest slot that a join may take, or -1. Main thread.
std::int8_t find_free_slot();

// The first slot in use behind this one, around the end of the table and up to the slot itself;
// from the first slot on for NO_SLOT; -1 when none is in use. Looks at all slots. Main thread.
std::int8_t next_used_slot(std::uint8_t slot);

// Makes a slot a joined player's with this address and name; everything else must have been
// written before. Main thread.
void occupy_slot(PlayerSlot& slot, const sockaddr_in& address, const char* name);

// Lets the player of a slot into the game. Main thread.
void enter_game(PlayerSlot& slot);

// Takes the player out of the game and off the table. False when another thread has just done so:
// then that thread tells the others and counts the player out. Any thread.
bool free_slot(PlayerSlot& slot);

// Copies of what the main thread may be writing. For the other threads: when the slot changes hands
// during the copy, it may mix the old and the new player's, which at worst misprints a name or
// sends one datagram astray. The name's last byte is always NUL.
std::array<char, NAME_WIDTH> copy_name(PlayerSlot& slot);
sockaddr_in copy_address(PlayerSlot& slot);
