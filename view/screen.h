// The view on the terminal, drawn with ncurses. Used by one thread; one screen in a process.
#pragma once

#include <cstdint>
#include <string>

#include "client/client_session.h"
#include "view/map.h"

struct ViewState {
  int socket = -1;
  ClientSession session;
  std::uint64_t passed_ms = 0;  // when it last passed on the PinkPanther's role
  MapView map;
  std::string status;  // in Latin-1: the last change of the connection
  bool is_typing = false;
  std::string typed;  // the input line, in Latin-1
};

enum class KeyResult { NONE, TAKEN, QUIT };

void screen_open();
void screen_close();  // restores the terminal

// Updates the terminal. Only changes are sent to it.
void screen_draw(ViewState& view, std::uint64_t now_ms);

// Handles one key if one was pressed. Never blocks.
KeyResult screen_take_key(ViewState& view);
