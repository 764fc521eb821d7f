#include "server/command_table.h"

#include <array>
#include <cstdio>

#include "server/handlers.h"
#include "server/player_table.h"
#include "server/server_state.h"

namespace {

constexpr std::uint8_t FIRST_CODE = 2;
constexpr std::uint8_t LAST_CODE = 124;

using Handler = void (*)(std::uint8_t slot, const Datagram& datagram);

struct Command {
  std::uint8_t code;
  Handler handler;
};

// Every command that the server understands.
constexpr Command COMMANDS[] = {
    {CMD_PING_REPLY, handle_ping_reply},
    {CMD_JOIN, handle_join},
    {CMD_ENTER_GAME, handle_enter_game},
    {CMD_GET_PLAYER_INFO, handle_get_player_info},
    {CMD_GET_PLAYER_STATE, handle_get_player_state},
    {CMD_PLAYER_LEFT, handle_leave},
    {CMD_POSITION_UPDATE, handle_position_update},
    {CMD_STATE_FLOATS, handle_state_floats},
};

// Indexed by the code minus FIRST_CODE; null where there is no command.
using HandlerTable = std::array<Handler, LAST_CODE - FIRST_CODE + 1>;

constexpr HandlerTable make_handler_table() {
  HandlerTable table{};
  for (const Command& command : COMMANDS) table[command.code - FIRST_CODE] = command.handler;
  return table;
}

constexpr HandlerTable HANDLERS = make_handler_table();

Handler find_handler(std::uint8_t code) {
  if (code < FIRST_CODE || code > LAST_CODE) return nullptr;
  return HANDLERS[code - FIRST_CODE];
}

}  // namespace

void dispatch_datagram(const Datagram& datagram) {
  const std::uint8_t code = datagram.bytes[0];
  const Handler handler = find_handler(code);
  if (handler == nullptr) {
    std::printf("Unknown Command: %d \n", code);
    return;
  }
  const std::uint8_t slot = find_slot_by_address(datagram.sender);
  if (slot != NO_SLOT || code == CMD_JOIN) handler(slot, datagram);
}
