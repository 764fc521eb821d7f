// Cars: getting in and out, and the updates of a car that is being driven.

#include <cstdio>

#include "server/game_clock.h"
#include "server/handlers.h"
#include "server/player_records.h"
#include "server/player_table.h"
#include "server/sending.h"

static void get_in(std::uint8_t slot, const CarState& car) {
  PlayerSlot& player = player_table[slot];
  store_car_state(player, car);
  player.in_car = 1;
  std::printf("Got Car from Player [%d] - Type: %d Color1: %d Color2: %d\n", slot, player.car_type,
              player.car_color1, player.car_color2);

  PlayerGotCar relay;
  relay.slot = slot;
  relay.position = player.position;
  relay.car = car_state_of(player);
  relay_to_others(relay, slot);
}

// The text is the line's end behind the player, which differs between the ways out of a car.
static void get_out(std::uint8_t slot, const char* text) {
  PlayerSlot& player = player_table[slot];
  player.in_car = 0;
  std::printf("Player [%d] %s\n", slot, text);

  PlayerLeftCar relay;
  relay.slot = slot;
  relay.position = player.position;
  relay.state_f1 = player.state_f1;
  relay_to_others(relay, slot);
}

// A report of what is so already moves the player and does nothing else.
void handle_vehicle(std::uint8_t slot, const Datagram& datagram) {
  const auto report = read_record<Vehicle>(datagram);
  PlayerSlot& player = player_table[slot];
  player.position = report.position;
  const bool got_in = report.got_in != 0;
  const bool was_in = player.in_car != 0;
  if (got_in && !was_in) get_in(slot, report.car);
  if (!got_in && was_in) get_out(slot, "Left his Car");
}

// Unlike CMD_VEHICLE, this one and the next do not ask whether the player was in a car.
void handle_car_state(std::uint8_t slot, const Datagram& datagram) {
  const auto report = read_record<CarStateReport>(datagram);
  send_game_clock(datagram.sender);
  player_table[slot].position = report.position;
  get_in(slot, report.car);
}

void handle_leave_car(std::uint8_t slot, const Datagram& datagram) {
  send_game_clock(datagram.sender);
  get_out(slot, "Left his Car");
}

// Whoever walks is no longer in a car; leaving it shows the float from before this update.
void handle_foot_update(std::uint8_t slot, const Datagram& datagram) {
  const auto update = read_record<FootUpdate>(datagram);
  PlayerSlot& player = player_table[slot];
  if (player.in_car != 0) get_out(slot, "has Left his Car");
  player.state_f1 = update.state_f1;

  PlayerFootUpdate relay;
  relay.slot = slot;
  relay.state_f1 = player.state_f1;
  relay_to_others(relay, slot);
}

// The common end of the partial updates, which are stored in any case: others hear of the car of a
// player who sits in one, and a player on foot hears that it does not.
template <WireRecord Record>
static void relay_if_in_car(std::uint8_t slot, const Record& relay, const Datagram& datagram) {
  if (player_table[slot].in_car != 0) {
    relay_to_others(relay, slot);
  } else {
    NotInCar answer;
    answer.slot = slot;
    send_record(datagram.sender, answer, SendErrorText::WITH_BLANK);
  }
}

void handle_car_block_a(std::uint8_t slot, const Datagram& datagram) {
  const auto update = read_record<CarBlockAUpdate>(datagram);
  player_table[slot].car_block_a = update.car_block_a;
  PlayerCarBlockA relay;
  relay.slot = slot;
  relay.car_block_a = update.car_block_a;
  relay_if_in_car(slot, relay, datagram);
}

void handle_car_block_b(std::uint8_t slot, const Datagram& datagram) {
  const auto update = read_record<CarBlockBUpdate>(datagram);
  player_table[slot].car_block_b = update.car_block_b;
  PlayerCarBlockB relay;
  relay.slot = slot;
  relay.car_block_b = update.car_block_b;
  relay_if_in_car(slot, relay, datagram);
}

void handle_car_status(std::uint8_t slot, const Datagram& datagram) {
  const auto update = read_record<CarStatus>(datagram);
  player_table[slot].car_byte = update.car_byte;
  player_table[slot].car_float = update.car_float;
  PlayerCarStatus relay;
  relay.car_byte = update.car_byte;
  relay.car_float = update.car_float;
  relay_if_in_car(slot, relay, datagram);
}
