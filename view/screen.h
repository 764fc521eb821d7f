// The view on the terminal, drawn with ncurses. Only one thread may use it, and a process has only
// one screen.
#pragma once

#include <cstdint>
#include <string>

#include "client/client_session.h"
#include "view/map.h"

struct ViewState {
  int socket = -1;
  ClientSession session;
  std::uint64_t passed_ms = 0;  // for pass_on_role
  MapView map;
  std::string status;  // in Latin-1: the latest event of the session
  bool is_typing = false;
  std::string typed;  // the input line, in Latin-1
};

enum class KeyResult { NONE, TAKEN, QUIT };

void screen_open();
void screen_close();  // restores the terminal

// Updates the terminal. ncurses sends it only the changes.
void screen_draw(ViewState& view, std::uint64_t now_ms);

// Handles one key if one was pressed. Never blocks.
KeyResult screen_handle_key(ViewState& view);
