#include "client/client_session.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "client/reports.h"

namespace zol {

using enum ServerCommand;

// The number of questions about the own slot from a player in a car. The server answers them only
// if it has the player on foot.
static constexpr unsigned SLOT_QUESTIONS = 5;
// Several car updates may be in flight when the first CMD_NOT_IN_CAR arrives.
static constexpr std::uint64_t CAR_AGAIN_MS = 500;
static constexpr unsigned LEAVING_COPIES = 3;  // if all are lost, a ghost stays for 100 seconds

static void send_code(ClientSession& session, ClientCommand command) {
  outbox_add(session.outbox, command);
}

static void back_off(ClientSession& session) {
  session.back_off_ms = std::clamp(2 * session.back_off_ms, FIRST_BACK_OFF_MS, MAX_BACK_OFF_MS);
  session.due_ms = session.now_ms + session.back_off_ms;
}

static void send_join(ClientSession& session) {
  JoinRequest request{.name = session.name};
  request.version = PROTOCOL_VERSION;
  outbox_add(session.outbox, request);
  back_off(session);
}

static void send_entry(ClientSession& session) {
  EnterGame entry;
  entry.state = session.own.state;
  entry.in_car = session.own.in_car ? 1 : 0;
  if (session.own.in_car) entry.car = session.own.car;
  outbox_add(session.outbox, entry);
  back_off(session);
}

// The server answers a car block from a player on foot with CMD_NOT_IN_CAR, which has the slot. The
// block is the player's own: if the server has the player in a car, it relays nothing new and does
// not answer. So a driver stops asking after some questions.
static void ask_own_slot(ClientSession& session) {
  CarBlockAUpdate question;
  question.car_block_a = session.own.car.car_block_a;
  outbox_add(session.outbox, question);
  session.slot_due_ms = session.now_ms + ASK_OWN_SLOT_MS;
  const bool may_be_driving = session.own.in_car && session.state != SessionState::PLACING;
  if (may_be_driving && session.slot_questions_left > 0) --session.slot_questions_left;
}

static void doubt_own_slot(ClientSession& session, std::uint64_t due_ms) {
  session.slot_questions_left = SLOT_QUESTIONS;
  session.slot_due_ms = due_ms;
}

// Asks once more: the answer with the slot may be older than the latest move to another slot.
static void enter(ClientSession& session, Slot slot) {
  session.picture.own_slot = slot;
  session.picture.players[slot] = {};
  session.state = SessionState::ENTERING;
  session.back_off_ms = 0;
  session.due_ms = session.now_ms;
  doubt_own_slot(session, session.now_ms + ASK_OWN_SLOT_MS);
}

static void ask_for_records(ClientSession& session) {
  for (Slot slot = 0; (slot = next_question(session.picture, session.now_ms)) != NO_SLOT;) {
    outbox_add(session.outbox, GetPlayerInfo{.slot = slot});
  }
}

static SessionEvent start_over(ClientSession& session, std::uint64_t due_ms, SessionEvent event) {
  session.state = SessionState::JOINING;
  session.due_ms = due_ms;
  session.back_off_ms = 0;
  return event;
}

// The server may have stopped, or may have forgotten us. It answers a player on foot with the slot,
// and a driver with the time of day.
static void ask_in_silence(ClientSession& session) {
  const bool is_silent = session.now_ms - session.slot_sure_ms >= QUIET_MS;
  const bool is_asking = session.slot_questions_left > 0 || session.now_ms < session.slot_due_ms;
  if (!is_silent || is_asking) return;
  if (!session.own.in_car) return ask_own_slot(session);
  report_car_again(session);
  session.slot_due_ms = session.now_ms + ASK_OWN_SLOT_MS;
}

static void step_in_game(ClientSession& session) {
  ask_for_records(session);
  repeat_own_state(session);
  // A join that the network repeated may have moved us to another slot.
  const bool hears_nothing = session.now_ms - session.in_game_ms >= ENTER_AGAIN_MS;
  if (hears_nothing && session.now_ms >= session.due_ms) send_entry(session);
}

SessionEvent session_step(ClientSession& session, std::uint64_t now_ms) {
  session.now_ms = now_ms;
  const bool is_due = now_ms >= session.due_ms;
  if (session.state == SessionState::JOINING) {
    if (is_due) send_join(session);
    return SessionEvent::NONE;
  }
  if (now_ms - session.slot_sure_ms > FORGOTTEN_MS) {
    return start_over(session, now_ms, SessionEvent::FORGOTTEN);
  }
  if (session.slot_questions_left > 0 && now_ms >= session.slot_due_ms) ask_own_slot(session);
  ask_in_silence(session);
  if (session.state == SessionState::ENTERING && is_due) send_entry(session);
  if (session.state == SessionState::PLAYING) step_in_game(session);
  return SessionEvent::NONE;
}

// Joins are repeated, and the network repeats and reorders datagrams. This answer may be older than
// the latest move, so it only makes us ask again.
static SessionEvent hear_accepted(ClientSession& session, Datagram datagram) {
  const auto accepted = record_of<JoinAccepted>(datagram);
  if (accepted.slot >= MAX_CLIENTS) return SessionEvent::NONE;
  if (session.state != SessionState::JOINING) {
    if (accepted.slot != session.picture.own_slot) doubt_own_slot(session, session.now_ms);
    return SessionEvent::NONE;
  }
  session.picture = picture_of_join(accepted);
  session.state = SessionState::PLACING;
  session.slot_sure_ms = session.now_ms;
  doubt_own_slot(session, session.now_ms);
  return SessionEvent::JOINED;
}

// A full server also refuses a client that has a slot but has lost the answer. Leaving frees that
// slot for the next try. A refusal after an acceptance is an old one.
static SessionEvent hear_refusal(ClientSession& session, Datagram datagram) {
  if (session.state != SessionState::JOINING) return SessionEvent::NONE;
  session.refusal = {};
  std::copy(datagram.begin() + 1, datagram.end(), session.refusal.begin());
  send_code(session, ClientCommand::CMD_PLAYER_LEFT);
  return SessionEvent::REFUSED;
}

static void hear_not_in_car(ClientSession& session, Datagram datagram) {
  const auto answer = record_of<NotInCar>(datagram);
  if (answer.slot >= MAX_CLIENTS) return;
  const bool is_placing = session.state == SessionState::PLACING;
  if (is_placing || answer.slot != session.picture.own_slot) return enter(session, answer.slot);
  session.slot_questions_left = 0;
  const bool is_driving = session.state == SessionState::PLAYING && session.own.in_car;
  if (!is_driving || session.now_ms < session.car_due_ms) return;
  session.car_due_ms = session.now_ms + CAR_AGAIN_MS;
  report_car_again(session);
}

static SessionEvent hear_entered(ClientSession& session) {
  session.back_off_ms = 0;
  session.due_ms = session.now_ms;
  if (session.state != SessionState::ENTERING) return SessionEvent::NONE;
  session.state = SessionState::PLAYING;
  start_repeats_after_entry(session);
  return SessionEvent::ENTERED;
}

// True for datagrams that the server sends only to players in the game.
static bool shows_in_game(Datagram datagram) {
  switch (ServerCommand{datagram[0]}) {
    case CMD_NOT_IN_CAR:
    case CMD_PLAYER_STATE:
    case CMD_GAME_CLOCK:
      return false;
    case CMD_PLAYER_INFO:
      return record_of<PlayerInfo>(datagram).just_entered != 0;
    default:
      return true;
  }
}

static SessionEvent hear_from_game(ClientSession& session, Datagram datagram) {
  if (session.state == SessionState::JOINING) return SessionEvent::NONE;
  session.slot_sure_ms = session.now_ms;
  if (shows_in_game(datagram)) session.in_game_ms = session.now_ms;
  picture_hear(session.picture, datagram, session.now_ms);
  const ServerCommand command{datagram[0]};
  if (command == CMD_NOT_IN_CAR) hear_not_in_car(session, datagram);
  if (command == CMD_GAME_CLOCK) hear_clock_answer(session);
  return command == CMD_ENTER_GAME_REPLY ? hear_entered(session) : SessionEvent::NONE;
}

template <typename... Records>
static bool is_one_of(Datagram datagram) {
  const ServerCommand command{datagram[0]};
  return ((command == Records{}.command && datagram.size() == sizeof(Records)) || ...);
}

// False for a datagram that no server sends. It must not count as a sign of life.
static bool is_from_server(Datagram datagram) {
  return !datagram.empty() &&
         is_one_of<Ping, JoinRefusedFull, JoinRefusedVersion, EnterGameReply, JoinAccepted,
                   ServerShutdown, ChatLine, NotInCar, PlayerInfo, PlayerStateReply, PlayerLeft,
                   GameClock, PlayerPosition, PlayerFootUpdate, PlayerCarBlockA, PlayerCarBlockB,
                   PlayerGotCar, PlayerLeftCar, PlayerWeapon, PlayerStateFloats, PlayerCarStatus,
                   PinkPanther, PlayerDied>(datagram);
}

SessionEvent session_hear(ClientSession& session, Datagram datagram, std::uint64_t now_ms) {
  session.now_ms = now_ms;
  if (!is_from_server(datagram)) return SessionEvent::NONE;
  switch (ServerCommand{datagram[0]}) {
    case CMD_JOIN_ACCEPTED:
      return hear_accepted(session, datagram);
    case CMD_JOIN_REFUSED_FULL:
    case CMD_JOIN_REFUSED_VERSION:
      return hear_refusal(session, datagram);
    case CMD_SERVER_SHUTDOWN:
      return start_over(session, now_ms + FIRST_BACK_OFF_MS, SessionEvent::STOPPED);
    case CMD_PING:
      send_code(session, ClientCommand::CMD_PING_REPLY);
      return hear_from_game(session, datagram);
    default:
      return hear_from_game(session, datagram);
  }
}

std::size_t chat_room(const ClientSession& session) {
  const std::size_t used = strnlen(session.name.data(), session.name.size()) + 2;  // including ": "
  return TEXT_WIDTH - std::min(used, TEXT_WIDTH);
}

void session_say(ClientSession& session, std::string_view text) {
  text = text.substr(0, chat_room(session));
  Chat chat;
  std::copy(text.begin(), text.end(), chat.text.begin());
  outbox_add(session.outbox, Datagram(chat).first(text.size() + 2));

  char line[2 * NAME_WIDTH + TEXT_WIDTH];
  std::snprintf(line, sizeof line, "%s: %.*s", session.name.data(), static_cast<int>(text.size()),
                text.data());
  ChatLine heard;
  std::copy_n(line, strnlen(line, heard.text.size()), heard.text.begin());
  picture_hear(session.picture, heard, session.now_ms);
}

void session_leave(ClientSession& session) {
  for (unsigned i = 0; i < LEAVING_COPIES; ++i) send_code(session, ClientCommand::CMD_PLAYER_LEFT);
  start_over(session, session.now_ms + FIRST_BACK_OFF_MS, SessionEvent::NONE);
}

}  // namespace zol
