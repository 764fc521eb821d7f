// A client's picture of a game, made of the datagrams that it has heard. It believes them all; on a
// network some are lost, and some come twice or late, so it also says what to ask for.
//
// It has no socket and no clock: the caller hands in datagrams and times, in milliseconds of a
// clock that does not go back.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "server/protocol.h"

namespace zol {

inline constexpr std::size_t CHAT_LINES = 32;  // kept
// Every record is asked for again after this time: the relay that changed it may have been lost,
// and so may the notice that its player has left.
inline constexpr std::uint64_t RECORD_AGE_MS = 5'000;
// After a relay that names no slot and may be about several players, their records count this long.
inline constexpr std::uint64_t UNNAMED_AGE_MS = 2'000;
inline constexpr std::uint64_t ASK_AGAIN_MS = 1'000;
// Without an answer or a relay since the first of so many questions, the player is gone.
inline constexpr unsigned MAX_QUESTIONS = 10;
// One slot of which nothing was heard is asked for at this pace, all of them in turn: the only
// datagram about an idle player may have been lost.
inline constexpr std::uint64_t ASK_UNKNOWN_MS = 500;
// An answer that comes this soon after the notice that its player has left is older than the
// notice.
inline constexpr std::uint64_t LATE_ANSWER_MS = 1'000;

struct PlayerPicture {
  bool is_here = false;     // something was heard of a player in this slot
  bool has_record = false;  // its name and state are known
  bool is_playing = false;  // has reported something other than a death since it entered
  bool in_car = false;
  std::array<char, NAME_WIDTH> name{};  // ends with NUL
  PlayerState state{};
  CarState car{};                             // of this ride, or of the last one
  std::optional<std::uint8_t> death_count{};  // nothing until a death is heard of
  std::uint64_t heard_ms = 0;                 // when it did something last
  std::uint64_t record_ms = 0;                // when its record came last
  std::uint64_t asked_ms = 0;                 // when its record was asked for last; 0: never
  std::uint64_t left_ms = 0;                  // when the slot's last player left
  unsigned unanswered = 0;                    // questions since anything was heard of it
};

using ChatText = std::array<char, TEXT_WIDTH + 1>;  // ends with NUL

struct GamePicture {
  Slot own_slot = NO_SLOT;
  std::uint8_t game_type = 0;
  std::array<char, TEXT_WIDTH + 1> welcome{};
  std::array<PlayerPicture, MAX_CLIENTS> players{};
  Slot pinkpanther = NOBODY;
  bool is_clock_known = false;
  std::uint32_t clock_minutes = 0;  // of the game's day, at clock_ms
  std::uint64_t clock_ms = 0;
  std::uint64_t unnamed_ms = 0;  // when a relay came that may be about several players
  std::uint64_t asked_unknown_ms = 0;
  Slot unknown_slot = 0;       // asked for last
  std::size_t chat_count = 0;  // lines since the join; line n is in chat[n % CHAT_LINES]
  std::array<ChatText, CHAT_LINES> chat{};
};

// A picture of a game that was just joined.
GamePicture picture_of_join(const JoinAccepted& accepted);

// Takes in what the datagram says. Any bytes will do: those that are no datagram of the server's
// change nothing.
void picture_hear(GamePicture& picture, Datagram datagram, std::uint64_t now_ms);

// The next slot to ask about now with CMD_GET_PLAYER_INFO, or NO_SLOT. It counts as asked. Forgets
// players who are gone.
Slot next_question(GamePicture& picture, std::uint64_t now_ms);

// The game's time of day in minutes, one of which lasts a second.
std::uint32_t game_minutes(const GamePicture& picture, std::uint64_t now_ms);

}  // namespace zol
