#include "client/client_session.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

using enum ServerCommand;

static void send_code(const ClientSession& session, ClientCommand command) {
  send_datagram(session.socket, command);
}

static void send_join(ClientSession& session, std::uint64_t now_ms) {
  JoinRequest request{.name = session.name};
  request.version = PROTOCOL_VERSION;
  send_datagram(session.socket, request);
  session.back_off_ms = std::clamp(2 * session.back_off_ms, FIRST_BACK_OFF_MS, MAX_BACK_OFF_MS);
  session.due_ms = now_ms + session.back_off_ms;
}

static void send_entry(ClientSession& session, std::uint64_t now_ms) {
  send_datagram(session.socket, EnterGame{});
  session.due_ms = now_ms + ENTER_AGAIN_MS;
}

static void ask_for_records(ClientSession& session, std::uint64_t now_ms) {
  for (Slot slot = 0; (slot = next_question(session.picture, now_ms)) != NO_SLOT;) {
    const GetPlayerInfo question{.slot = slot};
    send_datagram(session.socket, question);
  }
}

static SessionEvent start_over(ClientSession& session, std::uint64_t due_ms, SessionEvent event) {
  session.state = SessionState::JOINING;
  session.due_ms = due_ms;
  session.back_off_ms = 0;
  return event;
}

SessionEvent session_step(ClientSession& session, std::uint64_t now_ms) {
  if (session.state != SessionState::JOINING && now_ms - session.pinged_ms > FORGOTTEN_MS) {
    return start_over(session, now_ms, SessionEvent::FORGOTTEN);
  }
  if (session.state == SessionState::PLAYING) {
    ask_for_records(session, now_ms);
  } else if (now_ms >= session.due_ms) {
    const bool is_joining = session.state == SessionState::JOINING;
    is_joining ? send_join(session, now_ms) : send_entry(session, now_ms);
  }
  return SessionEvent::NONE;
}

// A join may be answered late, after it was repeated. The server has moved us by the second one, so
// the latest answer counts, even in the game.
static SessionEvent hear_accepted(ClientSession& session, Datagram datagram, std::uint64_t now_ms) {
  if (datagram.size() != sizeof(JoinAccepted)) return SessionEvent::NONE;
  session.picture = picture_of_join(record_of<JoinAccepted>(datagram));
  session.state = SessionState::ENTERING;
  session.pinged_ms = session.due_ms = now_ms;
  return SessionEvent::JOINED;
}

// A full server also refuses who has a slot already: the answer that said so was lost. Leaving
// makes room for the next try.
static SessionEvent hear_refusal(ClientSession& session, Datagram datagram) {
  if (session.state != SessionState::JOINING || datagram.size() != sizeof(JoinRefusedFull)) {
    return SessionEvent::NONE;
  }
  session.refusal = {};
  std::copy(datagram.begin() + 1, datagram.end(), session.refusal.begin());
  session_leave(session);
  return SessionEvent::REFUSED;
}

static SessionEvent hear_in_game(ClientSession& session, Datagram datagram, std::uint64_t now_ms) {
  if (session.state == SessionState::JOINING) return SessionEvent::NONE;
  picture_hear(session.picture, datagram, now_ms);
  const bool is_entry = ServerCommand{datagram[0]} == CMD_ENTER_GAME_REPLY &&
                        datagram.size() == sizeof(EnterGameReply);
  if (session.state == SessionState::PLAYING || !is_entry) return SessionEvent::NONE;
  session.state = SessionState::PLAYING;
  return SessionEvent::ENTERED;
}

SessionEvent session_hear(ClientSession& session, Datagram datagram, std::uint64_t now_ms) {
  if (datagram.empty()) return SessionEvent::NONE;
  switch (ServerCommand{datagram[0]}) {
    case CMD_JOIN_ACCEPTED:
      return hear_accepted(session, datagram, now_ms);
    case CMD_JOIN_REFUSED_FULL:
    case CMD_JOIN_REFUSED_VERSION:
      return hear_refusal(session, datagram);
    case CMD_SERVER_SHUTDOWN:
      if (datagram.size() != sizeof(ServerShutdown)) return SessionEvent::NONE;
      return start_over(session, now_ms + FIRST_BACK_OFF_MS, SessionEvent::STOPPED);
    case CMD_PING:
      if (datagram.size() != sizeof(Ping)) return SessionEvent::NONE;
      send_code(session, ClientCommand::CMD_PING_REPLY);
      session.pinged_ms = now_ms;
      return SessionEvent::NONE;
    default:
      return hear_in_game(session, datagram, now_ms);
  }
}

std::size_t chat_room(const ClientSession& session) {
  const std::size_t used = strnlen(session.name.data(), session.name.size()) + 2;  // with ": "
  return TEXT_WIDTH - std::min(used, TEXT_WIDTH);
}

void session_say(ClientSession& session, std::string_view text) {
  text = text.substr(0, chat_room(session));
  Chat chat;
  std::copy(text.begin(), text.end(), chat.text.begin());
  send_datagram(session.socket, Datagram(chat).first(text.size() + 2));

  char line[2 * NAME_WIDTH + TEXT_WIDTH];
  std::snprintf(line, sizeof line, "%s: %.*s", session.name.data(), static_cast<int>(text.size()),
                text.data());
  ChatLine heard;
  std::copy_n(line, strnlen(line, heard.text.size()), heard.text.begin());
  picture_hear(session.picture, heard, 0);
}

void session_leave(const ClientSession& session) {
  send_code(session, ClientCommand::CMD_PLAYER_LEFT);
}
