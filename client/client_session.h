// How a client comes into a game and stays in it: it joins, enters, answers pings, asks about
// players it knows too little of, and joins again when the server has stopped or has forgotten it.
//
// Used by one thread. Times are in milliseconds of a clock that does not go back.
#pragma once

#include <string_view>

#include "client/game_picture.h"

// The server pings everyone in the game every 10 seconds. Who hears no ping for so long is
// forgotten.
inline constexpr std::uint64_t FORGOTTEN_MS = 25'000;
inline constexpr std::uint64_t ENTER_AGAIN_MS = 1'000;  // while an entry is unanswered
// An unanswered join is repeated after 1, 2, 4 and so on up to 30 seconds.
inline constexpr std::uint64_t FIRST_BACK_OFF_MS = 1'000;
inline constexpr std::uint64_t MAX_BACK_OFF_MS = 30'000;

enum class SessionState { JOINING, ENTERING, PLAYING };
enum class SessionEvent { NONE, JOINED, ENTERED, REFUSED, STOPPED, FORGOTTEN };

struct ClientSession {
  int socket = -1;
  std::array<char, NAME_WIDTH> name{};  // ends with NUL
  SessionState state = SessionState::JOINING;
  std::uint64_t due_ms = 0;       // when to send the next join or report of entering
  std::uint64_t back_off_ms = 0;  // before the latest join counts as unanswered; 0 before the first
  std::uint64_t pinged_ms = 0;    // when the server showed last that it knows us
  std::array<char, TEXT_WIDTH + 1> refusal{};  // the server's latest, ends with NUL
  GamePicture picture{};                       // of the game joined last
};

// Sends what is due. FORGOTTEN when the server has been silent for too long.
SessionEvent session_step(ClientSession& session, std::uint64_t now_ms);

SessionEvent session_hear(ClientSession& session, Datagram datagram, std::uint64_t now_ms);

// Bytes of a chat text that the others get to see; the rest of a longer one is cut off.
std::size_t chat_room(const ClientSession& session);
// Sends a chat text, and adds it to the picture: the server sends it to the others alone.
void session_say(ClientSession& session, std::string_view text);

// Leaves the server, whatever it knows of us.
void session_leave(const ClientSession& session);
