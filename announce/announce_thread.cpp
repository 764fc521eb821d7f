#include "announce/announce_thread.h"

#include "announce/master_requests.h"
#include "server/clock.h"
#include "server/pinkpanther.h"
#include "server/player_table.h"
#include "util/console.h"

// Returns the master server's verdict. Prints a line when the verdict is a refusal.
static std::int8_t announce(AnnounceState& state, std::uint32_t now) {
  state.last_announce_ms = now;
  const std::int8_t verdict = master_announce();
  if (verdict == MASTER_RESULT_REFUSED) {
    console_print("Could not announce server at the zol master server - Check your config...\n");
  }
  return verdict;
}

bool announce_first(AnnounceState& state) {
  const std::uint32_t now = uptime_ms();
  console_print("Announcing server at the zol master server...\n");
  const std::int8_t verdict = announce(state, now);
  if (verdict == MASTER_RESULT_NO_ANSWER || verdict == MASTER_RESULT_REFUSED) return false;
  if (verdict == MASTER_RESULT_LISTED) {
    console_print("This server is now listed on the zol server list\n");
  } else if (verdict == MASTER_RESULT_UPDATED) {
    console_print("This server was updated on the zol server list\n");
  }
  state.previous_count = count_used_slots();
  restart_pinkpanther();
  return true;
}

void announce_check(AnnounceState& state) {
  const std::int32_t count = count_used_slots();
  const std::uint32_t now = uptime_ms();
  const bool is_due = now - state.last_announce_ms >= ANNOUNCE_PERIOD_MS;
  if (is_due || count != state.previous_count) announce(state, now);
  state.previous_count = count;
}

void* announce_thread(void* /*unused*/) {
  AnnounceState state;
  if (!announce_first(state)) return nullptr;
  for (;;) {
    announce_check(state);
    sleep_us(ANNOUNCE_CHECK_PERIOD_US);
  }
}
