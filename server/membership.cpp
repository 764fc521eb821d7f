// Joining, reconnecting and leaving.

#include <cstdio>

#include "net/sflsock.h"
#include "server/clock.h"
#include "server/handlers.h"
#include "server/pinkpanther.h"
#include "server/player_table.h"
#include "server/sending.h"
#include "server/server_state.h"
#include "util/console.h"
#include "util/sflstr.h"

// A new player has this much longer before it times out (liveness.cpp): time to enter the game.
static constexpr std::uint32_t JOIN_GRACE_MS = 60'000;

static void refuse_version(const sockaddr_in& sender) {
  JoinRefusedVersion refusal;
  std::snprintf(refusal.text, sizeof refusal.text, "You need Version %s", SERVER_VERSION);
  send_record(sender, refusal, SendErrorText::WITH_BLANK);
}

static void refuse_full(const sockaddr_in& sender) {
  JoinRefusedFull refusal;
  std::snprintf(refusal.text, sizeof refusal.text, "Maximum allowed players: %d",
                server_config.maxClients);
  send_record(sender, refusal, SendErrorText::WITH_BLANK);
}

void finish_leaving(Slot slot) {
  PlayerSlot& player = player_table[slot];
  broadcast_except_sender(PlayerLeft{.slot = slot}, slot);
  --player_count;
  change_seat(player, player.seat, SeatState::FREE);
}

// take_seat comes last: as soon as the seat is JOINED, the ping thread checks last_heard.
static void seat_player(Slot slot, const JoinRequest& request, const ReceivedDatagram& datagram) {
  PlayerSlot& player = player_table[slot];
  copy_text(player.name, request.name.data());
  player.in_car = 0;
  player.last_heard = uptime_ms() + JOIN_GRACE_MS;
  player.death_count = 0;
  player.has_died = 0;
  take_seat(player, datagram.sender);
  console_print("%s, Player [%d] Connected!\n", player.name, slot);
}

// Drops a join silently when the system cannot send to its address. Such a player would make the
// next broadcast fail, and that ends the process.
//
// Finds a free slot before the player leaves its old slot. So a reconnecting player moves to
// another slot, and a full server refuses it.
void handle_join(Slot slot, const ReceivedDatagram& datagram) {
  if (!udp_can_reach(server_socket, &datagram.sender)) return;
  const auto request = record_of<JoinRequest>(datagram.bytes);
  last_join_slot = find_free_slot();
  if (request.version != PROTOCOL_VERSION) return refuse_version(datagram.sender);
  if (last_join_slot == NO_SLOT) return refuse_full(datagram.sender);
  if (slot != NO_SLOT && change_used_seat(player_table[slot], SeatState::LEAVING)) {
    console_print("Player %d reconnected\n", slot);
    finish_leaving(slot);
  }
  seat_player(last_join_slot, request, datagram);

  JoinAccepted answer{.slot = last_join_slot, .game_type = server_config.GameType};
  copy_text(answer.welcome_message, server_config.WelcomeMessage);
  send_record(datagram.sender, answer, SendErrorText::WITHOUT_BLANK);

  ++player_count;
  request_pinkpanther_after_join();
}

void handle_leave(Slot slot, const ReceivedDatagram& /*datagram*/) {
  PlayerSlot& player = player_table[slot];
  if (!change_used_seat(player, SeatState::LEAVING)) return;
  console_print("%s, Player [%d] disconnected\n", player.name, slot);
  finish_leaving(slot);
  release_pinkpanther(player);
}
