#include "server/sending.h"

#include <unistd.h>

#include <cstdlib>

#include "net/sflsock.h"
#include "server/seams.h"
#include "server/server_state.h"
#include "util/console.h"

static_assert(MAX_CLIENTS <= MAX_DESTINATIONS);

void send_record(const sockaddr_in& destination, Datagram record, SendErrorText error_text) {
  const auto length = static_cast<unsigned>(record.size());
  if (udp_send(server_socket, record.data(), length, &destination) != -1) return;
  const char* blank = error_text == SendErrorText::WITH_BLANK ? " " : "";
  console_print("error writing to socket:%s%s\n", blank, system_error_text());
}

void broadcast_except_sender(Datagram record, Slot slot) {
  std::array<sockaddr_in, MAX_CLIENTS> destinations;
  std::size_t count = 0;
  for (Slot other = 0; other < slot_limit(); ++other) {
    const PlayerSlot& player = player_table[other];
    const Seat seat = player.seat;
    if (seat.state != SeatState::IN_GAME || other == slot) continue;
    if (read_address(player, seat, destinations[count])) ++count;
  }
  if (udp_send_to_each(server_socket, {destinations.data(), count}, record)) return;
  console_print("error writing to socket:%s\n", system_error_text());
  _exit(EXIT_FAILURE);  // no destructors: other threads still run
}

void relay_to_others(Datagram record, Slot slot) {
  pass_seam(Seam::RELAYING);
  broadcast_except_sender(record, slot);
  if (!is_used(player_table[slot].seat)) broadcast_except_sender(PlayerLeft{.slot = slot}, slot);
}

void send_record_about(Slot slot, Seat seen, const sockaddr_in& destination, Datagram record) {
  pass_seam(Seam::ANSWERING);
  send_record(destination, record, SendErrorText::WITHOUT_BLANK);
  if (player_table[slot].seat.load() == seen) return;
  send_record(destination, PlayerLeft{.slot = slot}, SendErrorText::WITHOUT_BLANK);
}

void broadcast_all(Datagram record) {
  broadcast_except_sender(record, NO_SLOT);
}

void broadcast_text(const std::array<char, TEXT_WIDTH>& text) {
  broadcast_all(ChatLine{.text = text});
}
