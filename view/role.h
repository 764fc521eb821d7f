// A spectator that becomes the PinkPanther would keep the role, without moving, for up to two
// minutes. It passes the role on with a death: of the reports that make the server choose again,
// this one disturbs the other players least. Its count is 0, as for a player that has never died.
#pragma once

#include <cstdint>

#include "client/client_session.h"

using namespace zol;

// Spectators without other players would pass the role to each other as fast as they can. So a
// spectator passes it on only if somebody plays, and not more often than this.
inline constexpr std::uint64_t PASS_ON_MS = 10'000;

// Sends the death when it is due. passed_ms is the time of the last one, 0 for none.
void pass_role_on(ClientSession& session, std::uint64_t& passed_ms, std::uint64_t now_ms);
