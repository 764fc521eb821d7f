// Reports about the client's own player. Each one updates session.own and, while the session is
// PLAYING, sends its datagram. A later entry carries the reports made before it.
//
// Reports may be lost, and the server never tells a client what it has stored about it. So
// session_step repeats the state of a player that has reported anything. It repeats unlogged
// reports every REPEAT_MS. For weapon, car and death the server prints a line each, so session_step
// repeats them every LOGGED_REPEAT_MS a few times after a change, and every LOGGED_LATER_MS
// afterwards.
//
// Used by the session's thread. Report a position about 20 times a second while it changes.
#pragma once

#include <bit>
#include <cstdint>

#include "client/client_session.h"

namespace zol {

inline constexpr std::uint64_t REPEAT_MS = 3'000;
inline constexpr std::uint64_t LOGGED_REPEAT_MS = 2'000;
inline constexpr unsigned WEAPON_REPEATS = 4;
inline constexpr unsigned CAR_REPEATS = 7;  // fewer when the server answers one
// The server's record of a player shows its weapon and car to the others, but not its deaths: each
// of the others must receive one of the relays.
inline constexpr unsigned DEATH_REPEATS = 7;
inline constexpr std::uint64_t LOGGED_LATER_MS = 60'000;

// Convert between a float and its bits in a record.
constexpr FloatBits bits_of(float value) {
  return std::bit_cast<FloatBits>(value);
}
constexpr float float_of(FloatBits bits) {
  return std::bit_cast<float>(bits);
}

void report_position(ClientSession& session, const Position& position);
void report_weapon(ClientSession& session, std::uint8_t state_b);
void report_state_floats(ClientSession& session, FloatBits state_f2, FloatBits state_f3);
void report_on_foot(ClientSession& session, FloatBits state_f1);  // ends a ride

// death_count may be any number. A death ends a ride.
void report_death(ClientSession& session, std::uint8_t death_count);

// Sends CMD_VEHICLE, or CMD_CAR_STATE when the player sits in another car: the server ignores a
// second CMD_VEHICLE.
void report_got_in(ClientSession& session, const Position& position, const CarState& car);
void report_got_out(ClientSession& session, const Position& position);
// Send CMD_CAR_STATE and CMD_LEAVE_CAR. The server answers with the time of day.
void report_car(ClientSession& session, const Position& position, const CarState& car);
void report_left_car(ClientSession& session);
// Changes of the car in which the player sits; on foot, these functions do nothing.
void report_car_block_a(ClientSession& session, const CarBlockA& car_block_a);
void report_car_block_b(ClientSession& session, const CarBlockB& car_block_b);
void report_car_status(ClientSession& session, std::uint8_t car_byte, FloatBits car_float);

// Asks for the position and car of another player. The picture asks for whole records by itself.
void ask_player_state(ClientSession& session, Slot slot);

// Called by the session.
void hear_clock_answer(ClientSession& session);
void repeat_own_state(ClientSession& session);  // sends the repeats that are due
void start_repeats_after_entry(ClientSession& session);
void report_car_again(ClientSession& session);  // on foot it does nothing

}  // namespace zol
