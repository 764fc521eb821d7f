#include "server/sending.h"

#include <unistd.h>

#include <cstdlib>

#include "net/sflsock.h"
#include "server/player_table.h"
#include "server/server_state.h"
#include "util/console.h"

static_assert(MAX_CLIENTS <= MAX_DESTINATIONS);

// By whichever thread meets the failure, so nothing of the other threads may be torn down.
[[noreturn]] static void end_for_broken_socket() {
  console_print("error writing to socket:%s\n", system_error_text());
  _exit(EXIT_FAILURE);
}

void send_bytes(const sockaddr_in& destination, std::span<const std::byte> datagram,
                SendErrorText error_text) {
  const auto length = static_cast<unsigned>(datagram.size());
  if (udp_send(server_socket, datagram.data(), length, &destination) != -1) return;
  const char* blank = error_text == SendErrorText::WITH_BLANK ? " " : "";
  console_print("error writing to socket:%s%s\n", blank, system_error_text());
}

void broadcast(std::span<const std::byte> datagram, Slot excluded) {
  std::array<sockaddr_in, MAX_CLIENTS> destinations;
  std::size_t count = 0;
  for (Slot slot = 0; slot < slots_in_play(); ++slot) {
    const PlayerSlot& player = player_table[slot];
    const Seat seat = player.seat;
    if (seat.state != SeatState::IN_GAME || slot == excluded) continue;
    if (read_address(player, seat, destinations[count])) ++count;
  }
  if (count == 0) return;
  if (!udp_send_to_each(server_socket, {destinations.data(), count}, datagram)) {
    end_for_broken_socket();
  }
}

void broadcast_text(const std::array<char, TEXT_WIDTH>& text) {
  broadcast_all(ChatLine{.text = text});
}
