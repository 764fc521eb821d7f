// A client's session with a server: it joins, finds its slot, enters, answers pings, asks about
// players, and repeats its own state. It joins again when the server has stopped or has forgotten
// it.
//
// A session has no socket and no clock. The caller passes in datagrams and times, and then sends
// the datagrams in the outbox. The core of a client (example.cpp is a complete client):
//   ClientSession session;                           // session.name = ... ;
//   session_step(session, now_ms);                   // about every 50 ms, and after each datagram:
//   session_hear(session, datagram, now_ms);
//
// Only one thread at a time may use a session. Times are milliseconds of a clock that does not go
// back; it may start at any value. No function fails: a full outbox drops datagrams.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "client/game_picture.h"
#include "client/outbox.h"
#include "server/protocol.h"

namespace zol {

// An unanswered join or entry is repeated after 1, 2, 4 and so on up to 30 seconds.
inline constexpr std::uint64_t FIRST_BACK_OFF_MS = 1'000;
inline constexpr std::uint64_t MAX_BACK_OFF_MS = 30'000;
inline constexpr std::uint64_t ASK_OWN_SLOT_MS = 1'000;  // between two questions about the own slot
// The server pings every player in the game every 10 seconds. After QUIET_MS without a sign that it
// has a slot, the session asks for its slot. After FORGOTTEN_MS it joins again.
inline constexpr std::uint64_t QUIET_MS = 12'000;
inline constexpr std::uint64_t FORGOTTEN_MS = 25'000;
// After this time without a datagram that only players in the game get, the session enters again.
inline constexpr std::uint64_t ENTER_AGAIN_MS = 22'000;

enum class SessionState {
  JOINING,   // no answer to CMD_JOIN yet
  PLACING,   // accepted; asks for its own slot, because the acceptance may be an old one
  ENTERING,  // no answer to CMD_ENTER_GAME yet
  PLAYING,
};
enum class SessionEvent { NONE, JOINED, ENTERED, REFUSED, STOPPED, FORGOTTEN };

// When to repeat a report that the server logs; see reports.h.
struct RepeatTimer {
  std::uint64_t due_ms = 0;
  unsigned fast_repeats_left = 0;
};

// The client's own player, as the reports of reports.h have set it.
struct OwnPlayer {
  PlayerState state{};
  bool in_car = false;
  CarState car{};                             // of the current or the last ride
  std::optional<std::uint8_t> death_count{};  // nothing before the first death
  bool has_reported = false;                  // false for a spectator, which repeats nothing
  std::uint64_t repeat_due_ms = 0;
  RepeatTimer weapon;
  RepeatTimer ride;
  RepeatTimer death;
};

struct ClientSession {
  std::array<char, NAME_WIDTH> name{};  // set by the caller; ends with NUL
  SessionState state = SessionState::JOINING;
  OwnPlayer own{};
  GamePicture picture{};  // the game that the client joined last
  Outbox outbox{};
  std::array<char, TEXT_WIDTH + 1> refusal{};  // text of the latest refusal; ends with NUL

  bool is_join_pending = false;         // a join was sent after the latest refusal
  std::uint64_t now_ms = 0;             // time of the latest call
  std::uint64_t due_ms = 0;             // time of the next join or entry
  std::uint64_t back_off_ms = 0;        // the wait before due_ms; 0 before the first try
  std::uint64_t slot_due_ms = 0;        // when to ask for the own slot
  unsigned slot_questions_left = 0;     // 0: the own slot is confirmed
  std::uint64_t car_due_ms = 0;         // earliest time of the next reaction to CMD_NOT_IN_CAR
  std::uint64_t slot_confirmed_ms = 0;  // when the server last showed that we have a slot
  std::uint64_t in_game_ms = 0;         // when the server last showed that we are in the game
};

// Puts the datagrams that are due into the outbox. Returns FORGOTTEN when the server has been
// silent for FORGOTTEN_MS, otherwise NONE.
SessionEvent session_step(ClientSession& session, std::uint64_t now_ms);

// Handles one datagram. It may contain any bytes: a datagram that no server sends is ignored.
SessionEvent session_hear(ClientSession& session, Datagram datagram, std::uint64_t now_ms);

// The maximum length of a chat text in bytes; the server cuts a longer text. Depends on the name.
std::size_t max_chat_length(const ClientSession& session);
// Sends a chat text, cut to max_chat_length. Adds it to the picture, because the server sends it
// only to the other players.
void session_say(ClientSession& session, std::string_view text);

// Leaves the server, in any state. If the caller continues to call session_step, the session joins
// again.
void session_leave(ClientSession& session);

}  // namespace zol
