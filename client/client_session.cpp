#include "client/client_session.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "client/reports.h"

namespace zol {

using enum ServerCommand;

// The maximum number of questions about the own slot from a player in a car. If the server also has
// the player in a car, it does not answer them.
static constexpr unsigned SLOT_QUESTIONS = 5;
// Several car updates may be in flight, so several CMD_NOT_IN_CAR may arrive: the client reacts to
// one of them in this time.
static constexpr std::uint64_t CAR_AGAIN_MS = 500;
static constexpr unsigned LEAVE_COPIES = 3;  // if all are lost, the player stays for 100 seconds

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
  session.is_join_pending = true;
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

// The server answers a car block from a player on foot with CMD_NOT_IN_CAR, which contains the
// slot. If the server has the player in a car, it relays the block and does not answer. So the
// block is unchanged, and a player in a car stops asking after SLOT_QUESTIONS questions.
static void ask_own_slot(ClientSession& session) {
  CarBlockAUpdate question;
  question.car_block_a = session.own.car.car_block_a;
  outbox_add(session.outbox, question);
  session.slot_due_ms = session.now_ms + ASK_OWN_SLOT_MS;
  const bool may_be_driving = session.own.in_car && session.state != SessionState::PLACING;
  if (may_be_driving && session.slot_questions_left > 0) --session.slot_questions_left;
}

static void verify_own_slot(ClientSession& session, std::uint64_t due_ms) {
  session.slot_questions_left = SLOT_QUESTIONS;
  session.slot_due_ms = due_ms;
}

// Asks for the slot again: the answer may be older than the latest move to another slot.
static void enter(ClientSession& session, Slot slot) {
  GamePicture& picture = session.picture;
  // Another player may have the slot that was taken for the own one.
  if (picture.own_slot != slot) picture.players[picture.own_slot].is_present = true;
  picture.own_slot = slot;
  picture.players[slot] = {};
  session.state = SessionState::ENTERING;
  session.back_off_ms = 0;
  session.due_ms = session.now_ms;
  verify_own_slot(session, session.now_ms + ASK_OWN_SLOT_MS);
}

static void ask_for_records(ClientSession& session) {
  for (Slot slot = 0; (slot = next_question(session.picture, session.now_ms)) != NO_SLOT;) {
    outbox_add(session.outbox, GetPlayerInfo{.slot = slot});
  }
}

static SessionEvent restart_join(ClientSession& session, std::uint64_t due_ms, SessionEvent event) {
  session.state = SessionState::JOINING;
  session.is_join_pending = false;
  session.due_ms = due_ms;
  session.back_off_ms = 0;
  return event;
}

// The server may have stopped, or may have timed us out. It answers the question of a player on
// foot with the slot, and the report of a player in a car with the time of day.
static void probe_silent_server(ClientSession& session) {
  const bool is_silent = session.now_ms - session.slot_confirmed_ms >= QUIET_MS;
  const bool is_asking = session.slot_questions_left > 0 || session.now_ms < session.slot_due_ms;
  if (!is_silent || is_asking) return;
  if (!session.own.in_car) return ask_own_slot(session);
  report_car_again(session);
  session.slot_due_ms = session.now_ms + ASK_OWN_SLOT_MS;
}

static void step_in_game(ClientSession& session) {
  ask_for_records(session);
  repeat_own_state(session);
  // A join that the network repeated may have moved us to another slot, where we have not entered.
  const bool is_silent = session.now_ms - session.in_game_ms >= ENTER_AGAIN_MS;
  if (!is_silent || session.now_ms < session.due_ms) return;
  send_entry(session);
  verify_own_slot(session, session.now_ms + ASK_OWN_SLOT_MS);
}

SessionEvent session_step(ClientSession& session, std::uint64_t now_ms) {
  session.now_ms = now_ms;
  const bool is_due = now_ms >= session.due_ms;
  if (session.state == SessionState::JOINING) {
    if (is_due) send_join(session);
    return SessionEvent::NONE;
  }
  if (now_ms - session.slot_confirmed_ms > FORGOTTEN_MS) {
    return restart_join(session, now_ms, SessionEvent::FORGOTTEN);
  }
  if (session.slot_questions_left > 0 && now_ms >= session.slot_due_ms) ask_own_slot(session);
  probe_silent_server(session);
  if (session.state == SessionState::ENTERING && is_due) send_entry(session);
  if (session.state == SessionState::PLAYING) step_in_game(session);
  return SessionEvent::NONE;
}

// Joins are repeated, and the network repeats and reorders datagrams. After the first acceptance,
// an acceptance may be older than the latest move to another slot, so the session asks for its
// slot. An acceptance before the next join is older than the leave that frees its slot.
static SessionEvent handle_accepted(ClientSession& session, Datagram datagram) {
  const auto accepted = record_of<JoinAccepted>(datagram);
  if (session.state != SessionState::JOINING) {
    if (accepted.slot != session.picture.own_slot) verify_own_slot(session, session.now_ms);
    return SessionEvent::NONE;
  }
  if (!session.is_join_pending) return SessionEvent::NONE;
  session.picture = picture_of_join(accepted);
  session.state = SessionState::PLACING;
  session.slot_confirmed_ms = session.now_ms;
  verify_own_slot(session, session.now_ms);
  return SessionEvent::JOINED;
}

// A full server also refuses a client that has a slot but did not receive the acceptance. Leaving
// frees that slot for the next try. A refusal after an acceptance is an old refusal.
static SessionEvent handle_refusal(ClientSession& session, Datagram datagram) {
  if (session.state != SessionState::JOINING) return SessionEvent::NONE;
  session.refusal = {};
  std::copy(datagram.begin() + 1, datagram.end(), session.refusal.begin());
  send_code(session, ClientCommand::CMD_PLAYER_LEFT);
  session.is_join_pending = false;
  return SessionEvent::REFUSED;
}

static void handle_not_in_car(ClientSession& session, Datagram datagram) {
  const auto answer = record_of<NotInCar>(datagram);
  const bool is_placing = session.state == SessionState::PLACING;
  if (is_placing || answer.slot != session.picture.own_slot) return enter(session, answer.slot);
  session.slot_questions_left = 0;
  const bool is_driving = session.state == SessionState::PLAYING && session.own.in_car;
  if (!is_driving || session.now_ms < session.car_due_ms) return;
  session.car_due_ms = session.now_ms + CAR_AGAIN_MS;
  report_car_again(session);
}

static SessionEvent handle_enter_reply(ClientSession& session) {
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

static SessionEvent handle_game_datagram(ClientSession& session, Datagram datagram) {
  if (session.state == SessionState::JOINING) return SessionEvent::NONE;
  session.slot_confirmed_ms = session.now_ms;
  if (shows_in_game(datagram)) session.in_game_ms = session.now_ms;
  picture_apply(session.picture, datagram, session.now_ms);
  const ServerCommand command{datagram[0]};
  if (command == CMD_NOT_IN_CAR) handle_not_in_car(session, datagram);
  if (command == CMD_GAME_CLOCK) handle_clock_answer(session);
  return command == CMD_ENTER_GAME_REPLY ? handle_enter_reply(session) : SessionEvent::NONE;
}

template <typename... Records>
static bool is_one_of(Datagram datagram) {
  const ServerCommand command{datagram[0]};
  return ((command == Records{}.command && datagram.size() == sizeof(Records)) || ...);
}

// False for a datagram that no server sends. Such a datagram does not show that the server runs.
static bool is_from_server(Datagram datagram) {
  return !datagram.empty() &&
         is_one_of<Ping, JoinRefusedFull, JoinRefusedVersion, EnterGameReply, JoinAccepted,
                   ServerShutdown, ChatLine, NotInCar, PlayerInfo, PlayerStateReply, PlayerLeft,
                   GameClock, PlayerPosition, PlayerFootUpdate, PlayerCarBlockA, PlayerCarBlockB,
                   PlayerGotCar, PlayerLeftCar, PlayerWeapon, PlayerStateFloats, PlayerCarStatus,
                   PinkPanther, PlayerDied>(datagram);
}

// Whether the slot that the datagram names can exist. It is the first byte after the code.
static bool has_valid_slot(Datagram datagram) {
  const Slot slot = datagram.size() > 1 ? datagram[1] : Slot{0};
  switch (ServerCommand{datagram[0]}) {
    case CMD_PING:
    case CMD_JOIN_REFUSED_FULL:
    case CMD_JOIN_REFUSED_VERSION:
    case CMD_SERVER_SHUTDOWN:
    case CMD_CHAT_LINE:
    case CMD_GAME_CLOCK:
    case CMD_PLAYER_STATE_FLOATS:
    case CMD_PLAYER_CAR_STATUS:
      return true;  // these name no slot
    case CMD_ENTER_GAME_REPLY:
      return slot < MAX_CLIENTS || slot == NO_SLOT;
    case CMD_PINKPANTHER:
      return slot < MAX_CLIENTS || slot == NOBODY;
    default:
      return slot < MAX_CLIENTS;
  }
}

SessionEvent session_hear(ClientSession& session, Datagram datagram, std::uint64_t now_ms) {
  session.now_ms = now_ms;
  if (!is_from_server(datagram) || !has_valid_slot(datagram)) return SessionEvent::NONE;
  switch (ServerCommand{datagram[0]}) {
    case CMD_JOIN_ACCEPTED:
      return handle_accepted(session, datagram);
    case CMD_JOIN_REFUSED_FULL:
    case CMD_JOIN_REFUSED_VERSION:
      return handle_refusal(session, datagram);
    case CMD_SERVER_SHUTDOWN:
      return restart_join(session, now_ms + FIRST_BACK_OFF_MS, SessionEvent::STOPPED);
    case CMD_PING:
      send_code(session, ClientCommand::CMD_PING_REPLY);
      return handle_game_datagram(session, datagram);
    default:
      return handle_game_datagram(session, datagram);
  }
}

std::size_t max_chat_length(const ClientSession& session) {
  const std::size_t used = strnlen(session.name.data(), session.name.size()) + 2;  // including ": "
  return TEXT_WIDTH - std::min(used, TEXT_WIDTH);
}

void session_say(ClientSession& session, std::string_view text) {
  text = text.substr(0, max_chat_length(session));
  Chat chat;
  std::copy(text.begin(), text.end(), chat.text.begin());
  outbox_add(session.outbox, Datagram(chat).first(text.size() + 2));

  char line[2 * NAME_WIDTH + TEXT_WIDTH];
  std::snprintf(line, sizeof line, "%s: %.*s", session.name.data(), static_cast<int>(text.size()),
                text.data());
  ChatLine heard;
  std::copy_n(line, strnlen(line, heard.text.size()), heard.text.begin());
  picture_apply(session.picture, heard, session.now_ms);
}

void session_leave(ClientSession& session) {
  for (unsigned i = 0; i < LEAVE_COPIES; ++i) send_code(session, ClientCommand::CMD_PLAYER_LEFT);
  restart_join(session, session.now_ms + FIRST_BACK_OFF_MS, SessionEvent::NONE);
}

}  // namespace zol
