#include "view/role.h"

static bool is_someone_playing(const GamePicture& picture) {
  for (Slot slot = 0; slot < MAX_CLIENTS; ++slot) {
    const PlayerPicture& player = picture.players[slot];
    if (slot != picture.own_slot && player.has_record && player.is_playing) return true;
  }
  return false;
}

void pass_on_role(ClientSession& session, std::uint64_t& passed_ms, std::uint64_t now_ms) {
  const GamePicture& picture = session.picture;
  const bool has_role =
      session.state == SessionState::PLAYING && picture.pinkpanther == picture.own_slot;
  const bool is_too_soon = passed_ms != 0 && now_ms - passed_ms < PASS_ON_MS;
  if (!has_role || is_too_soon || !is_someone_playing(picture)) return;
  passed_ms = now_ms;
  outbox_add(session.outbox, Died{});
}
