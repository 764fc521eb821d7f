#include "server/command_table.h"

#include <array>
#include <utility>

#include "server/pinkpanther.h"
#include "server/player_table.h"
#include "util/console.h"

namespace {

using enum ClientCommand;

using Handler = void (*)(Slot slot, const ReceivedDatagram& datagram);

constexpr std::pair<ClientCommand, Handler> COMMANDS[] = {
    {CMD_PING_REPLY, handle_ping_reply},
    {CMD_JOIN, handle_join},
    {CMD_ENTER_GAME, handle_enter_game},
    {CMD_GET_PLAYER_INFO, handle_get_player_info},
    {CMD_GET_PLAYER_STATE, handle_get_player_state},
    {CMD_CHAT, handle_chat},
    {CMD_VEHICLE, handle_vehicle},
    {CMD_PLAYER_LEFT, handle_leave},
    {CMD_POSITION_UPDATE, handle_position_update},
    {CMD_CAR_STATE, handle_car_state},
    {CMD_LEAVE_CAR, handle_leave_car},
    {CMD_DIED, handle_died},
    {CMD_FOOT_UPDATE, handle_foot_update},
    {CMD_CAR_BLOCK_A, handle_car_block_a},
    {CMD_CAR_BLOCK_B, handle_car_block_b},
    {CMD_WEAPON, handle_weapon},
    {CMD_STATE_FLOATS, handle_state_floats},
    {CMD_CAR_STATUS, handle_car_status},
};

// Indexed by the command code; null for an unknown code.
constexpr auto HANDLERS = [] {
  std::array<Handler, 256> table{};
  for (const auto& [code, handler] : COMMANDS) table[static_cast<std::size_t>(code)] = handler;
  return table;
}();

}  // namespace

bool is_command(std::uint8_t code) {
  return HANDLERS[code] != nullptr;
}

void dispatch_datagram(const ReceivedDatagram& datagram) {
  const std::uint8_t code = datagram.bytes[0];
  const Handler handler = HANDLERS[code];
  const Slot slot = find_slot_by_address(datagram.sender);
  if (!is_command(code)) {
    console_print("Unknown Command: %d \n", code);
  } else if (slot != NO_SLOT || handler == handle_join) {
    handler(slot, datagram);
  }
  if (handler != handle_join) run_pinkpanther_step();
}
