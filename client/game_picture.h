// A client's picture of a game, made from the datagrams of the server. It trusts all of them. The
// network loses, repeats and delays datagrams, so next_question says which record to ask for.
//
// It has no socket and no clock: the caller passes in datagrams and times, in milliseconds of a
// clock that does not go back. Only one thread at a time may use a picture.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "server/protocol.h"

namespace zol {

inline constexpr std::size_t CHAT_LINES = 32;  // lines kept
// An older record is asked for again: the relay of a later change, or the notice that the player
// has left, may be lost.
inline constexpr std::uint64_t RECORD_AGE_MS = 5'000;
// The same, for the record of a player that may have caused a relay without a slot.
inline constexpr std::uint64_t AMBIGUOUS_AGE_MS = 2'000;
inline constexpr std::uint64_t ASK_AGAIN_MS = 1'000;
// A player is removed after this many questions without an answer or a relay.
inline constexpr unsigned MAX_QUESTIONS = 10;
// The interval between questions about slots that no datagram has named, one slot at a time. The
// only datagram about an idle player may be lost.
inline constexpr std::uint64_t ASK_UNKNOWN_MS = 500;
// A record that arrives this soon after the notice that its player has left is older than the
// notice.
inline constexpr std::uint64_t LATE_ANSWER_MS = 1'000;

struct PlayerPicture {
  bool is_present = false;  // a datagram has named this slot
  bool has_record = false;  // its name and state are known
  bool is_playing = false;  // it has reported something other than a death since it entered
  bool in_car = false;
  std::array<char, NAME_WIDTH> name{};  // ends with NUL
  PlayerState state{};
  CarState car{};                             // of the current or the last ride
  std::optional<std::uint8_t> death_count{};  // nothing before the first known death
  std::uint64_t last_active_ms = 0;           // when it last reported something
  std::uint64_t record_ms = 0;                // when its record last arrived
  std::uint64_t asked_ms = 0;                 // when its record was last asked for; 0: never
  std::uint64_t left_ms = 0;                  // when the slot's last player left
  unsigned unanswered = 0;                    // questions since the last datagram that named it
};

using ChatText = std::array<char, TEXT_WIDTH + 1>;  // ends with NUL

struct GamePicture {
  Slot own_slot = NO_SLOT;
  std::uint8_t game_type = 0;
  std::array<char, TEXT_WIDTH + 1> welcome{};
  std::array<PlayerPicture, MAX_CLIENTS> players{};
  Slot pinkpanther = NOBODY;
  bool is_clock_known = false;
  std::uint32_t clock_minutes = 0;  // the game's time of day at clock_ms
  std::uint64_t clock_ms = 0;
  std::uint64_t ambiguous_ms = 0;      // when a relay arrived that fits several players
  std::uint64_t asked_unknown_ms = 0;  // when an unknown slot was last asked for
  Slot unknown_slot = 0;               // the slot of that question
  std::size_t chat_count = 0;          // lines since the join; line n is in chat[n % CHAT_LINES]
  std::array<ChatText, CHAT_LINES> chat{};
};

// The picture of a game that the client has just joined.
GamePicture picture_of_join(const JoinAccepted& accepted);

// Updates the picture from one datagram. It may contain any bytes: a datagram that no server sends
// is ignored.
void picture_apply(GamePicture& picture, Datagram datagram, std::uint64_t now_ms);

// The slot to ask about now with CMD_GET_PLAYER_INFO, or NO_SLOT. Counts the question as sent, and
// removes players after MAX_QUESTIONS questions.
Slot next_question(GamePicture& picture, std::uint64_t now_ms);

// The game's time of day, 0 to 1439 minutes. A minute of the game takes one second. Only valid if
// is_clock_known.
std::uint32_t game_minutes(const GamePicture& picture, std::uint64_t now_ms);

}  // namespace zol
