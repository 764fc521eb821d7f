#include "server/broadcast.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "net/sflsock.h"
#include "server/player_table.h"
#include "server/server_state.h"

static_assert(TABLE_SIZE <= MAX_DESTINATIONS);

namespace {

// At once, by whichever thread meets the failure: no destructor of ours has anything to do.
[[noreturn]] void end_for_broken_socket() {
  std::printf("error writing to socket:%s\n", system_error_text());
  std::fflush(stdout);
  _exit(EXIT_FAILURE);
}

void send_fanout(UdpFanout& fanout, unsigned count, std::span<const std::byte> datagram) {
  const auto length = static_cast<unsigned>(datagram.size());
  if (udp_send_fanout(server_socket, fanout, count, datagram.data(), length) < count) {
    end_for_broken_socket();
  }
}

// A player who enters just as the ping thread frees its slot leaves in_game behind.
bool hears_broadcasts(const PlayerSlot& slot) {
  return slot.in_game != 0 && slot.in_use != 0;
}

constexpr unsigned NO_PLACE = ~0U;

// The players in the game, ready to be sent to: built anew when someone came or went, so that a
// relay costs little more than its system call. The main thread's alone: it is the only one that
// writes addresses, so its fan-out may point into the table.
struct Roster {
  std::uint32_t version = ~0U;  // of the table when this was built; none at first
  unsigned count = 0;
  unsigned left_out = 0;  // the place that the fan-out has no entry for; count for none
  std::array<const sockaddr_in*, TABLE_SIZE + 1> addresses{};  // the last is never sent to
  std::array<unsigned, TABLE_SIZE> places{};                   // of each slot among the addresses
  UdpFanout fanout;
};

constinit Roster roster;

void build_roster(std::uint32_t version) {
  prepare_fanout(roster.fanout);
  roster.version = version;
  roster.count = 0;
  roster.places.fill(NO_PLACE);
  std::size_t number = 0;
  for (const PlayerSlot& slot : playable_slots()) {
    if (hears_broadcasts(slot)) {
      set_destination(roster.fanout, roster.count, &slot.address);
      roster.addresses[roster.count] = &slot.address;
      roster.places[number] = roster.count++;
    }
    ++number;
  }
  roster.left_out = roster.count;
}

void refresh_roster() {
  const std::uint32_t version = roster_version;
  if (version != roster.version) [[unlikely]]
    build_roster(version);
}

// Moves the gap: only the entries between the place left out last and this one change.
void leave_out(unsigned place) {
  unsigned& gap = roster.left_out;
  for (; gap > place; --gap) set_destination(roster.fanout, gap - 1, roster.addresses[gap]);
  for (; gap < place; ++gap) set_destination(roster.fanout, gap, roster.addresses[gap]);
}

// To all but the player at this place. Without one, everybody is served.
void send_roster(unsigned place, std::span<const std::byte> datagram) {
  const bool left_one_out = place < roster.count;
  leave_out(left_one_out ? place : roster.count);
  send_fanout(roster.fanout, roster.count - (left_one_out ? 1 : 0), datagram);
}

// For the other threads, rarely: with copies, since the main thread may be writing addresses.
void broadcast_copies(std::span<const std::byte> datagram, const sockaddr_in* left_out) {
  std::array<sockaddr_in, TABLE_SIZE> copies;
  UdpFanout fanout;
  prepare_fanout(fanout);
  unsigned count = 0;
  for (PlayerSlot& slot : playable_slots()) {
    if (!hears_broadcasts(slot)) continue;
    copies[count] = copy_address(slot);
    if (left_out != nullptr && same_endpoint(copies[count], *left_out)) continue;
    set_destination(fanout, count, &copies[count]);
    ++count;
  }
  send_fanout(fanout, count, datagram);
}

}  // namespace

void broadcast_all(std::span<const std::byte> datagram) {
  if (!on_main_thread()) return broadcast_copies(datagram, nullptr);
  refresh_roster();
  send_roster(NO_PLACE, datagram);
}

void broadcast_except_sender(std::span<const std::byte> datagram, const sockaddr_in& sender) {
  broadcast_copies(datagram, &sender);
}

void broadcast_except_slot(std::span<const std::byte> datagram, std::uint8_t sender) {
  refresh_roster();
  send_roster(roster.places[sender], datagram);
}

void broadcast_text(const std::array<char, TEXT_WIDTH>& text) {
  const ChatLine line{.text = text};
  broadcast_all(std::as_bytes(std::span(&line, 1)));
}
