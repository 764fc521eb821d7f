// Entering the game, answering pings, and asking for what the server knows of a player.

#include "config/server_config.h"
#include "server/clock.h"
#include "server/game_clock.h"
#include "server/handlers.h"
#include "server/player_records.h"
#include "server/player_table.h"
#include "server/sending.h"
#include "server/server_state.h"

// The sign of life that keeps a player from timing out.
void handle_ping_reply(std::uint8_t slot, const Datagram& /*datagram*/) {
  player_table[slot].last_heard = uptime_ms();
}

static void store_entrance(PlayerSlot& slot, const Datagram& datagram) {
  const auto report = read_record<EnterGame>(datagram);
  store_player_state(slot, report.state);
  slot.in_car = report.in_car;
  if (report.in_car != 0) store_car_state(slot, report.car);
}

// The newcomer gets the record of every joined player, in the game or not.
static void send_all_records(const sockaddr_in& newcomer) {
  for (std::int32_t i = 0; i < server_config.maxClients; ++i) {
    const auto number = static_cast<std::uint8_t>(i);
    if (player_table[number].in_use == 0 || i == last_join_slot) continue;
    send_record(newcomer, player_info_of(number, false), SendErrorText::WITHOUT_BLANK);
  }
}

// The time-stamp, the slot number of the reply and the record left out go by last_join_slot, not by
// the sender's own slot: when someone else joined in between, they are that player's.
void handle_enter_game(std::uint8_t slot, const Datagram& datagram) {
  PlayerSlot& player = player_table[slot];
  store_entrance(player, datagram);
  if (last_join_slot >= 0) {
    player_table[static_cast<std::uint8_t>(last_join_slot)].last_heard = uptime_ms();
  }

  EnterGameReply reply;
  reply.last_join_slot = static_cast<std::uint8_t>(last_join_slot);
  reply.hour = game_hour();
  reply.minute = game_minute();
  send_record(datagram.sender, reply, SendErrorText::WITH_BLANK);

  enter_game(player);
  relay_to_others(player_info_of(slot, true), slot);
  send_all_records(datagram.sender);
  if (server_config.GameType == CATCH_PINKPANTHER && player_count > 1) {
    send_record(datagram.sender, pinkpanther_announcement, SendErrorText::WITHOUT_BLANK);
  }
}

// Only players in the game are told of, and nobody of themselves.
static bool may_be_told(std::uint8_t asker, std::uint8_t target) {
  if (target >= server_config.maxClients || target == asker) return false;
  const PlayerSlot& slot = player_table[target];
  return slot.in_game != 0 && slot.in_use != 0;
}

void handle_get_player_info(std::uint8_t slot, const Datagram& datagram) {
  const auto query = read_record<SlotQuery>(datagram);
  if (!may_be_told(slot, query.slot)) return;
  send_record(datagram.sender, player_info_of(query.slot, false), SendErrorText::WITHOUT_BLANK);
}

void handle_get_player_state(std::uint8_t slot, const Datagram& datagram) {
  const auto query = read_record<SlotQuery>(datagram);
  if (!may_be_told(slot, query.slot)) return;
  send_record(datagram.sender, player_state_reply_of(query.slot), SendErrorText::WITHOUT_BLANK);
}
