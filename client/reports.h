// Reports about the client's own player. Each report updates session.own and, while the session is
// PLAYING, sends its datagram. An entry contains the reports made before it.
//
// Reports may be lost, and the server never sends a client the state that it has stored about that
// client. So session_step repeats the state of a player that has reported anything. It repeats most
// reports every REPEAT_MS. For a weapon, a car and a death the server prints a line, so
// session_step repeats them a few times every LOGGED_REPEAT_MS after a change, and then every
// LOGGED_SLOW_REPEAT_MS.
//
// Call these functions on the session's thread. Report a position about 20 times a second while it
// changes.
#pragma once

#include <bit>
#include <cstdint>

#include "client/client_session.h"

namespace zol {

inline constexpr std::uint64_t REPEAT_MS = 3'000;
inline constexpr std::uint64_t LOGGED_REPEAT_MS = 2'000;
inline constexpr unsigned WEAPON_REPEATS = 4;
inline constexpr unsigned CAR_REPEATS = 7;  // stops when the server answers
// The server's record of a player contains its weapon and its car, but not its deaths: each of the
// other players must receive at least one relay.
inline constexpr unsigned DEATH_REPEATS = 7;
inline constexpr std::uint64_t LOGGED_SLOW_REPEAT_MS = 60'000;

// Conversions between a float and its bits in a record.
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

// Sends CMD_VEHICLE; or CMD_CAR_STATE when the player is in another car, because the server ignores
// the car in a second CMD_VEHICLE.
void report_got_in(ClientSession& session, const Position& position, const CarState& car);
void report_got_out(ClientSession& session, const Position& position);
// The same with CMD_CAR_STATE and CMD_LEAVE_CAR, which the server answers with the time of day.
void report_car(ClientSession& session, const Position& position, const CarState& car);
void report_left_car(ClientSession& session);
// Changes of the player's car. On foot, these functions do nothing.
void report_car_block_a(ClientSession& session, const CarBlockA& car_block_a);
void report_car_block_b(ClientSession& session, const CarBlockB& car_block_b);
void report_car_status(ClientSession& session, std::uint8_t car_byte, FloatBits car_float);

// Asks for the position and the car of another player. Rarely needed: session_step asks for whole
// records.
void ask_player_state(ClientSession& session, Slot slot);

// Only for client_session.cpp.
void handle_clock_answer(ClientSession& session);
void repeat_own_state(ClientSession& session);  // sends the repeats that are due
void start_repeats_after_entry(ClientSession& session);
void report_car_again(ClientSession& session);  // does nothing on foot

}  // namespace zol
