// A spectator that becomes the PinkPanther would have the role for up to two minutes, without
// playing. So it reports a death, and the server chooses another player. Of the reports with this
// effect, a death disturbs the other players least. The death count is 0, as for a player that has
// never died.
#pragma once

#include <cstdint>

#include "client/client_session.h"

using namespace zol;

// Spectators alone would pass the role to each other without end. So a spectator passes the role on
// only if somebody plays, and at most once in this time.
inline constexpr std::uint64_t PASS_ON_MS = 10'000;

// Sends the death when it is due. passed_ms is the time of the last such death, 0 before the first.
void pass_on_role(ClientSession& session, std::uint64_t& passed_ms, std::uint64_t now_ms);
