// A spectator that becomes the PinkPanther would keep the role, invisibly, for up to two minutes.
// It passes the role on by a death: of what asks the server for a new choice, the other players
// notice that least. Its count is 0, as that of a player who has never died.
#pragma once

#include <cstdint>

#include "client/client_session.h"

using namespace zol;

// Spectators that are alone with each other would pass the role around as fast as they can, so it
// goes only to a game with a player who plays, and not more often than this.
inline constexpr std::uint64_t PASS_ON_MS = 10'000;

// Sends the death when it is time; passed_ms is when it was sent last, 0 for never.
void pass_role_on(ClientSession& session, std::uint64_t& passed_ms, std::uint64_t now_ms);
