// The announce thread: keeps the server's entry on the master server current.
#pragma once

#include <cstdint>

inline constexpr std::uint32_t ANNOUNCE_CHECK_PERIOD_US = 5'000'000;
inline constexpr std::uint32_t ANNOUNCE_PERIOD_MS = 300'000;  // while nobody joins or leaves

struct AnnounceState {
  std::uint32_t last_announce_ms = 0;  // uptime_ms at the start of the last announce
  std::int32_t previous_count = 0;     // slots in use at the previous check
};

// Announces the server for the first time and requests the first PinkPanther. False when the master
// server did not answer or refused: the thread then ends. Announce thread.
bool announce_first(AnnounceState& state);

// Announces again when the number of slots in use changes or the period ends. Announce thread.
void announce_check(AnnounceState& state);

// The thread's entry point. It returns only when the first announce failed.
void* announce_thread(void* unused);
