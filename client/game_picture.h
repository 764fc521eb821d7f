// What a client knows of a game, from nothing but the datagrams it has heard. It believes them all;
// on a network some are lost, and some come twice or late.
//
// No sockets and no clock of its own: the caller hands in datagrams and times, in milliseconds of a
// clock that does not go back.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "client/server_connection.h"
#include "server/protocol.h"

inline constexpr std::size_t CHAT_LINES = 32;  // kept
// Every record is asked for again after this time: the relay that changed it may have been lost,
// and so may the notice that its player has left.
inline constexpr std::uint64_t RECORD_AGE_MS = 5'000;
inline constexpr std::uint64_t ASK_AGAIN_MS = 1'000;
// Without an answer or a relay since the first of so many questions, the player is gone.
inline constexpr unsigned MAX_QUESTIONS = 4;

struct PlayerPicture {
  bool is_here = false;     // something was heard of a player in this slot
  bool has_record = false;  // its name and state are known
  bool in_car = false;
  std::array<char, NAME_WIDTH> name{};  // ends with NUL
  PlayerState state{};
  CarState car{};                           // of this ride, or of the last one
  std::optional<std::uint8_t> death_count;  // nothing until a death is heard of
  std::uint64_t heard_ms = 0;               // when it did something last
  std::uint64_t record_ms = 0;              // when its record came last
  std::uint64_t asked_ms = 0;               // when its record was asked for last; 0: never
  unsigned unanswered = 0;                  // questions since anything was heard of it
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
  std::size_t chat_count = 0;  // lines since the join; line n is in chat[n % CHAT_LINES]
  std::array<ChatText, CHAT_LINES> chat{};
};

// A picture of a game that was just joined.
GamePicture picture_of_join(const JoinAccepted& accepted);

// Takes in what the datagram says. Any bytes will do: what is no datagram of the server's changes
// nothing.
void picture_hear(GamePicture& picture, Datagram datagram, std::uint64_t now_ms);

// The slot whose record is to be asked for now with CMD_GET_PLAYER_INFO, or NO_SLOT. It counts as
// asked. Forgets players who are gone.
Slot next_question(GamePicture& picture, std::uint64_t now_ms);

// The game's time of day in minutes, one of which lasts a second.
std::uint32_t game_minutes(const GamePicture& picture, std::uint64_t now_ms);
