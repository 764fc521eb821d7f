#include "client/reports.h"

namespace zol {

// Sends while the session is in the game. Before that, the next entry contains the state.
static void send_report(ClientSession& session, Datagram datagram) {
  OwnPlayer& own = session.own;
  if (!own.has_reported) own.repeat_due_ms = session.now_ms + REPEAT_MS;
  own.has_reported = true;
  if (session.state == SessionState::PLAYING) outbox_add(session.outbox, datagram);
}

static void start_repeats(const ClientSession& session, RepeatTimer& timer, unsigned count) {
  timer = {.due_ms = session.now_ms + LOGGED_REPEAT_MS, .fast_repeats_left = count};
}

static CarStateReport car_state_of(const OwnPlayer& own) {
  CarStateReport report;
  report.position = own.state.position;
  report.car = own.car;
  return report;
}

static PositionUpdate position_of(const OwnPlayer& own) {
  PositionUpdate update;
  update.position = own.state.position;
  return update;
}

static StateFloats state_floats_of(const OwnPlayer& own) {
  StateFloats floats;
  floats.state_f2 = own.state.state_f2;
  floats.state_f3 = own.state.state_f3;
  return floats;
}

static FootUpdate foot_update_of(const OwnPlayer& own) {
  FootUpdate update;
  update.state_f1 = own.state.state_f1;
  return update;
}

static CarBlockAUpdate car_block_a_of(const OwnPlayer& own) {
  CarBlockAUpdate update;
  update.car_block_a = own.car.car_block_a;
  return update;
}

static CarBlockBUpdate car_block_b_of(const OwnPlayer& own) {
  CarBlockBUpdate update;
  update.car_block_b = own.car.car_block_b;
  return update;
}

static CarStatus car_status_of(const OwnPlayer& own) {
  CarStatus status;
  status.car_byte = own.car.car_byte;
  status.car_float = own.car.car_float;
  return status;
}

static void get_out(ClientSession& session) {
  session.own.in_car = false;
  // If the report is lost, the repeated CMD_FOOT_UPDATE ends the ride on the server.
  session.own.repeat_due_ms = session.now_ms + LOGGED_REPEAT_MS;
}

static void get_in(ClientSession& session, const Position& position, const CarState& car) {
  session.own.in_car = true;
  session.own.car = car;
  session.own.state.position = position;
  start_repeats(session, session.own.ride, CAR_REPEATS);
}

void report_position(ClientSession& session, const Position& position) {
  session.own.state.position = position;
  send_report(session, position_of(session.own));
}

void report_weapon(ClientSession& session, std::uint8_t state_b) {
  session.own.state.state_b = state_b;
  start_repeats(session, session.own.weapon, WEAPON_REPEATS);
  send_report(session, Weapon{.state_b = state_b});
}

void report_state_floats(ClientSession& session, FloatBits state_f2, FloatBits state_f3) {
  session.own.state.state_f2 = state_f2;
  session.own.state.state_f3 = state_f3;
  send_report(session, state_floats_of(session.own));
}

void report_on_foot(ClientSession& session, FloatBits state_f1) {
  session.own.state.state_f1 = state_f1;
  if (session.own.in_car) get_out(session);
  send_report(session, foot_update_of(session.own));
}

void report_death(ClientSession& session, std::uint8_t death_count) {
  session.own.death_count = death_count;
  // A death ends the role. While the picture shows the role, repeat_death would not repeat.
  GamePicture& picture = session.picture;
  if (picture.pinkpanther == picture.own_slot) picture.pinkpanther = NOBODY;
  get_out(session);
  start_repeats(session, session.own.death, DEATH_REPEATS);
  send_report(session, Died{.death_count = death_count});
}

void report_got_in(ClientSession& session, const Position& position, const CarState& car) {
  if (session.own.in_car) return report_car(session, position, car);
  get_in(session, position, car);
  Vehicle report;
  report.got_in = 1;
  report.position = position;
  report.car = car;
  send_report(session, report);
}

void report_got_out(ClientSession& session, const Position& position) {
  get_out(session);
  session.own.state.position = position;
  Vehicle report;
  report.position = position;
  send_report(session, report);
}

void report_car(ClientSession& session, const Position& position, const CarState& car) {
  get_in(session, position, car);
  send_report(session, car_state_of(session.own));
}

void report_left_car(ClientSession& session) {
  get_out(session);
  send_report(session, ClientCommand::CMD_LEAVE_CAR);
}

void report_car_block_a(ClientSession& session, const CarBlockA& car_block_a) {
  if (!session.own.in_car) return;
  session.own.car.car_block_a = car_block_a;
  send_report(session, car_block_a_of(session.own));
}

void report_car_block_b(ClientSession& session, const CarBlockB& car_block_b) {
  if (!session.own.in_car) return;
  session.own.car.car_block_b = car_block_b;
  send_report(session, car_block_b_of(session.own));
}

void report_car_status(ClientSession& session, std::uint8_t car_byte, FloatBits car_float) {
  if (!session.own.in_car) return;
  session.own.car.car_byte = car_byte;
  session.own.car.car_float = car_float;
  send_report(session, car_status_of(session.own));
}

void ask_player_state(ClientSession& session, Slot slot) {
  outbox_add(session.outbox, GetPlayerState{.slot = slot});
}

static bool take_due(RepeatTimer& timer, std::uint64_t now_ms) {
  if (now_ms < timer.due_ms) return false;
  if (timer.fast_repeats_left > 0) --timer.fast_repeats_left;
  timer.due_ms = now_ms + (timer.fast_repeats_left > 0 ? LOGGED_REPEAT_MS : LOGGED_SLOW_REPEAT_MS);
  return true;
}

static void repeat_unlogged(ClientSession& session) {
  const OwnPlayer& own = session.own;
  Outbox& outbox = session.outbox;
  outbox_add(outbox, position_of(own));
  outbox_add(outbox, state_floats_of(own));
  if (!own.in_car) return outbox_add(outbox, foot_update_of(own));
  outbox_add(outbox, car_block_a_of(own));
  outbox_add(outbox, car_block_b_of(own));
  outbox_add(outbox, car_status_of(own));
}

// The server answers CMD_CAR_STATE with the time of day, which shows that it has the car. After a
// death it answers state floats in the same way, so the answer shows nothing about the car.
void handle_clock_answer(ClientSession& session) {
  if (!session.own.death_count)
    session.own.ride = {.due_ms = session.now_ms + LOGGED_SLOW_REPEAT_MS};
}

void report_car_again(ClientSession& session) {
  if (session.own.in_car) outbox_add(session.outbox, car_state_of(session.own));
}

// A repeated death takes the player out of its car, so the client reports the car again. After the
// fast repeats, it waits until the player is on foot. The PinkPanther does not repeat its death,
// because that would end its role.
static void repeat_death(ClientSession& session) {
  const OwnPlayer& own = session.own;
  const bool is_pinkpanther = session.picture.pinkpanther == session.picture.own_slot;
  const bool is_driving = own.in_car && own.death.fast_repeats_left == 0;
  if (!own.death_count || is_pinkpanther || is_driving) return;
  outbox_add(session.outbox, Died{.death_count = *own.death_count});
  report_car_again(session);
}

void repeat_own_state(ClientSession& session) {
  OwnPlayer& own = session.own;
  if (!own.has_reported) return;
  if (session.now_ms >= own.repeat_due_ms) {
    own.repeat_due_ms = session.now_ms + REPEAT_MS;
    repeat_unlogged(session);
  }
  if (take_due(own.weapon, session.now_ms)) {
    outbox_add(session.outbox, Weapon{.state_b = own.state.state_b});
  }
  if (take_due(own.ride, session.now_ms)) report_car_again(session);
  if (take_due(own.death, session.now_ms)) repeat_death(session);
}

// The entry contained the whole state except the deaths.
void start_repeats_after_entry(ClientSession& session) {
  OwnPlayer& own = session.own;
  own.repeat_due_ms = session.now_ms + REPEAT_MS;
  own.weapon = own.ride = {.due_ms = session.now_ms + LOGGED_SLOW_REPEAT_MS};
  start_repeats(session, own.death, DEATH_REPEATS);
}

}  // namespace zol
