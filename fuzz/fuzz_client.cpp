// Input: datagrams at any times, to a client in any state. Its datagrams and its picture must be
// valid.

#include <cmath>

#include "client/reports.h"
#include "fuzz/check.h"
#include "text/names.h"
#include "view/map.h"

static void check_picture(const GamePicture& picture, std::uint64_t now_ms) {
  for (const PlayerPicture& player : picture.players) {
    check(player.name.back() == '\0', "a name ends within its field");
    check(player.unanswered <= MAX_QUESTIONS, "the number of questions is limited");
    check(player.is_present || !player.has_record, "a player with a record is present");
  }
  for (const ChatText& text : picture.chat) {
    check(text.back() == '\0', "a line ends within its field");
    for (const wchar_t each : printable_wide(text.data()))
      check(each >= L' ', "no control characters");
  }
  check(game_minutes(picture, now_ms) < 24 * 60, "a time of day");
}

static void check_map(MapView& view, const GamePicture& picture, std::uint64_t now_ms) {
  fit_view(view, picture, now_ms);
  check(std::isfinite(view.side) && std::isfinite(view.middle.x), "the map has a size");
  for (const PlayerPicture& player : picture.players) {
    const auto place = map_point_of(player.state.position);
    const MapCell cell = cell_of(view, place.value_or(MapPoint{}), 41, 17);
    check(cell.column >= 0 && cell.column < 41 && cell.row >= 0 && cell.row < 17, "on the map");
  }
}

static void report_anything(ClientSession& session, unsigned choice) {
  switch (choice % 8) {
    case 0:
      return report_death(session, 1);
    case 1:
      return report_got_in(session, {}, {});
    case 2:
      return report_weapon(session, 1);
    default:
      return;
  }
}

// A client must never send an empty datagram, because the server would read the previous datagram
// again.
static void check_outbox(ClientSession& session) {
  while (session.outbox.count > 0) {
    const Datagram datagram = outbox_take(session.outbox);
    check(!datagram.empty() && datagram.size() <= RECEIVE_BUFFER_SIZE, "a datagram has a size");
    const bool names_own_slot = datagram[0] == 40 && datagram[1] == session.picture.own_slot;
    check(!names_own_slot, "no question about the own slot");
  }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input{data, size};
  ClientSession session;
  MapView map;
  std::uint64_t now_ms = 1'000;
  while (input.left > 0) {
    now_ms += input.next() * 100U;
    session_step(session, now_ms);
    session_hear(session, input.take(input.next()), now_ms);
    check_map(map, session.picture, now_ms);
    report_anything(session, input.next());
    check_outbox(session);
  }
  check_picture(session.picture, now_ms);
  return 0;
}
