// Entering the game, ping replies, and questions about a player.

#include <algorithm>
#include <optional>

#include "server/clock.h"
#include "server/game_clock.h"
#include "server/handlers.h"
#include "server/pinkpanther.h"
#include "server/player_table.h"
#include "server/seams.h"
#include "server/sending.h"
#include "server/server_state.h"

void handle_ping_reply(Slot slot, const ReceivedDatagram& /*datagram*/) {
  player_table[slot].last_heard = uptime_ms();
}

static void store_report(PlayerSlot& player, const ReceivedDatagram& datagram) {
  const auto report = record_of<EnterGame>(datagram.bytes);
  player.state = report.state;
  player.state.unused_1 = {};
  player.in_car = report.in_car;
  if (report.in_car != 0) store_car(player, report.car);
}

static PlayerInfo player_info_of(Slot slot, bool just_entered) {
  const PlayerSlot& player = player_table[slot];
  PlayerInfo info{.slot = slot, .just_entered = just_entered, .state = player.state};
  std::ranges::copy(player.name, info.name.begin());
  if (player.in_car != 0) {
    info.in_car = 1;
    info.car = player.car;
  }
  return info;
}

// Sends the record of every joined player, whether or not it is in the game.
static void send_all_records(const sockaddr_in& newcomer) {
  for (Slot slot = 0; slot < slot_limit(); ++slot) {
    const Seat seat = player_table[slot].seat;
    if (slot == last_join_slot || !is_used(seat)) continue;
    send_record_about(slot, seat, newcomer, player_info_of(slot, false));
  }
}

// Uses last_join_slot instead of the sender's slot for last_heard, for the reply and for the record
// that it omits. The two slots differ when another player has asked to join since.
void handle_enter_game(Slot slot, const ReceivedDatagram& datagram) {
  store_report(player_table[slot], datagram);
  if (last_join_slot != NO_SLOT) player_table[last_join_slot].last_heard = uptime_ms();
  const GameClock now = game_clock();
  const EnterGameReply reply{
      .last_join_slot = last_join_slot, .hour = now.hour, .minute = now.minute};
  send_record(datagram.sender, reply, SendErrorText::WITH_BLANK);

  pass_seam(Seam::ENTERING);
  if (change_used_seat(player_table[slot], SeatState::IN_GAME)) {
    relay_to_others(player_info_of(slot, true), slot);
  }
  send_all_records(datagram.sender);
  send_pinkpanther(datagram.sender);
}

// The seat of the target. Nothing if the target is the asker or is not a player in the game: the
// server does not answer about these.
static std::optional<Seat> find_queried_seat(Slot asker, Slot target) {
  if (target >= server_config.maxClients || target == asker) return std::nullopt;
  const Seat seat = player_table[target].seat;
  if (seat.state != SeatState::IN_GAME) return std::nullopt;
  return seat;
}

void handle_get_player_info(Slot slot, const ReceivedDatagram& datagram) {
  const auto query = record_of<GetPlayerInfo>(datagram.bytes);
  const auto seat = find_queried_seat(slot, query.slot);
  if (!seat) return;
  send_record_about(query.slot, *seat, datagram.sender, player_info_of(query.slot, false));
}

void handle_get_player_state(Slot slot, const ReceivedDatagram& datagram) {
  const auto query = record_of<GetPlayerState>(datagram.bytes);
  const auto seat = find_queried_seat(slot, query.slot);
  if (!seat) return;
  const PlayerSlot& player = player_table[query.slot];
  PlayerStateReply reply{.slot = query.slot, .position = player.state.position};
  if (player.in_car != 0) {
    reply.in_car = 1;
    reply.car = player.car;
  }
  send_record_about(query.slot, *seat, datagram.sender, reply);
}
