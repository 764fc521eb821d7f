// Joining, reconnecting and leaving.

#include <cstdio>

#include "config/server_config.h"
#include "net/sflsock.h"
#include "server/clock.h"
#include "server/handlers.h"
#include "server/pinkpanther.h"
#include "server/player_table.h"
#include "server/sending.h"
#include "server/server_state.h"
#include "util/sflstr.h"

// On top of the silence that liveness allows, until a new player must have answered a ping.
static constexpr std::uint32_t JOIN_GRACE_MS = 60'000;

static bool speaks_our_version(const JoinRequest& request) {
  const unsigned version = request.version[0] | static_cast<unsigned>(request.version[1]) << 8U;
  return version == PROTOCOL_VERSION;
}

// False when the sender was refused. The version comes before the capacity.
static bool admit(const JoinRequest& request, const Datagram& datagram) {
  JoinRefused refusal;
  if (!speaks_our_version(request)) {
    refusal.command = CMD_JOIN_REFUSED_VERSION;
    std::snprintf(refusal.text, sizeof refusal.text, "You need Version %s", SERVER_VERSION);
  } else if (last_join_slot < 0) {
    refusal.command = CMD_JOIN_REFUSED_FULL;
    std::snprintf(refusal.text, sizeof refusal.text, "Maximum allowed players: %d",
                  server_config.maxClients);
  } else {
    return true;
  }
  send_record(datagram.sender, refusal, SendErrorText::WITH_BLANK);
  return false;
}

static void tell_others_of_leaving(std::uint8_t slot) {
  PlayerLeft notice;
  notice.slot = slot;
  relay_to_others(notice, slot);
}

// The slot's PinkPanther flag stays for whoever joins it next.
static void release_for_reconnect(std::uint8_t slot) {
  if (!free_slot(player_table[slot])) return;
  std::printf("Player %d reconnected\n", slot);
  tell_others_of_leaving(slot);
  --player_count;
}

// State, car and PinkPanther flag of the slot stay as its last player left them. occupy_slot comes
// last: from then on the ping thread judges the slot by last_heard.
static void seat_player(std::uint8_t number, const JoinRequest& request, const Datagram& datagram) {
  PlayerSlot& slot = player_table[number];
  char name[NAME_WIDTH + 1] = {};
  std::memcpy(name, request.name.data(), NAME_WIDTH);
  slot.in_car = 0;
  slot.last_heard = uptime_ms() + JOIN_GRACE_MS;
  slot.death_count = 0;
  slot.has_died = 0;
  occupy_slot(slot, datagram.sender, name);
  std::printf("%s, Player [%d] Connected!\n", slot.name.data(), number);
}

// Who cannot be sent to is not let in, without a word: once in the game it would make the next
// broadcast fail, and a failed broadcast ends the process.
//
// The free slot is looked for before anything else, so a reconnecting player moves to another one,
// and a player who reconnects to a full table is refused.
void handle_join(std::uint8_t slot, const Datagram& datagram) {
  if (!udp_can_reach(&datagram.sender)) return;
  const auto request = read_record<JoinRequest>(datagram);
  last_join_slot = find_free_slot();
  if (!admit(request, datagram)) return;
  if (slot != NO_SLOT) release_for_reconnect(slot);

  const auto number = static_cast<std::uint8_t>(last_join_slot);
  seat_player(number, request, datagram);

  JoinAccepted answer;
  answer.slot = number;
  answer.game_type = server_config.GameType;
  copy_text(answer.welcome_message, server_config.WelcomeMessage);
  send_record(datagram.sender, answer, SendErrorText::WITHOUT_BLANK);

  if (++player_count > 1 && pinkpanther_slot == NO_SLOT) pinkpanther_reselect = 1;
}

void handle_leave(std::uint8_t slot, const Datagram& /*datagram*/) {
  PlayerSlot& player = player_table[slot];
  if (!free_slot(player)) return;
  std::printf("%s, Player [%d] disconnected\n", player.name.data(), slot);
  tell_others_of_leaving(slot);
  --player_count;
  give_up_pinkpanther(player);
}
