// Cars: getting in and out, and updates while driving.

#include "server/game_clock.h"
#include "server/handlers.h"
#include "server/player_table.h"
#include "server/sending.h"
#include "util/console.h"

static void get_in(Slot slot, const CarState& car) {
  PlayerSlot& player = player_table[slot];
  store_car(player, car);
  player.in_car = 1;
  console_print("Got Car from Player [%d] - Type: %d Color1: %d Color2: %d\n", slot, car.car_type,
                car.car_color1, car.car_color2);
  relay_to_others(PlayerGotCar{.slot = slot, .position = player.state.position, .car = player.car},
                  slot);
}

// how: the last words of the console line.
static void get_out(Slot slot, const char* how) {
  PlayerSlot& player = player_table[slot];
  player.in_car = 0;
  console_print("Player [%d] %s\n", slot, how);
  PlayerLeftCar relay{.slot = slot, .position = player.state.position};
  relay.state_f1 = player.state.state_f1;
  relay_to_others(relay, slot);
}

// Getting in while in a car, or out while on foot, only stores the position.
void handle_vehicle(Slot slot, const ReceivedDatagram& datagram) {
  const auto report = record_of<Vehicle>(datagram.bytes);
  PlayerSlot& player = player_table[slot];
  player.state.position = report.position;
  const bool got_in = report.got_in != 0;
  const bool was_in = player.in_car != 0;
  if (got_in && !was_in) get_in(slot, report.car);
  if (!got_in && was_in) get_out(slot, "Left his Car");
}

// Unlike CMD_VEHICLE, CMD_CAR_STATE and CMD_LEAVE_CAR do not check whether the player is in a car.
void handle_car_state(Slot slot, const ReceivedDatagram& datagram) {
  const auto report = record_of<CarStateReport>(datagram.bytes);
  send_game_clock(datagram.sender);
  player_table[slot].state.position = report.position;
  get_in(slot, report.car);
}

void handle_leave_car(Slot slot, const ReceivedDatagram& datagram) {
  send_game_clock(datagram.sender);
  get_out(slot, "Left his Car");
}

// A foot update ends a car ride. CMD_PLAYER_LEFT_CAR still has the old state_f1.
void handle_foot_update(Slot slot, const ReceivedDatagram& datagram) {
  const auto update = record_of<FootUpdate>(datagram.bytes);
  PlayerSlot& player = player_table[slot];
  if (player.in_car != 0) get_out(slot, "has Left his Car");
  player.state.state_f1 = update.state_f1;
  relay_to_others(PlayerFootUpdate{.slot = slot, .state_f1 = update.state_f1}, slot);
}

// The last step of the handlers of car updates, which have stored the update. For a player on foot,
// the server answers the sender instead of relaying.
static void relay_if_in_car(Slot slot, Datagram relay, const ReceivedDatagram& datagram) {
  if (player_table[slot].in_car != 0) {
    relay_to_others(relay, slot);
  } else {
    send_record(datagram.sender, NotInCar{.slot = slot}, SendErrorText::WITH_BLANK);
  }
}

void handle_car_block_a(Slot slot, const ReceivedDatagram& datagram) {
  const auto update = record_of<CarBlockAUpdate>(datagram.bytes);
  player_table[slot].car.car_block_a = update.car_block_a;
  relay_if_in_car(slot, PlayerCarBlockA{.slot = slot, .car_block_a = update.car_block_a}, datagram);
}

void handle_car_block_b(Slot slot, const ReceivedDatagram& datagram) {
  const auto update = record_of<CarBlockBUpdate>(datagram.bytes);
  player_table[slot].car.car_block_b = update.car_block_b;
  relay_if_in_car(slot, PlayerCarBlockB{.slot = slot, .car_block_b = update.car_block_b}, datagram);
}

void handle_car_status(Slot slot, const ReceivedDatagram& datagram) {
  const auto update = record_of<CarStatus>(datagram.bytes);
  CarState& car = player_table[slot].car;
  car.car_byte = update.car_byte;
  car.car_float = update.car_float;
  relay_if_in_car(slot, PlayerCarStatus{.car_byte = car.car_byte, .car_float = car.car_float},
                  datagram);
}
