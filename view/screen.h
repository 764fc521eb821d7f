// The view on the terminal, drawn with ncurses. Used by one thread; a process has one screen.
#pragma once

#include <cstdint>
#include <string>

#include "client/client_session.h"
#include "view/map.h"

struct ViewState {
  int socket = -1;
  ClientSession session;
  std::uint64_t passed_ms = 0;  // when it passed the PinkPanther's role on last
  MapView map;
  std::string status;  // in Latin-1: what happened to the connection last
  bool is_typing = false;
  std::string typed;  // the line of chat so far, in Latin-1
};

enum class KeyResult { NONE, TAKEN, QUIT };

void screen_open();
void screen_close();  // restores the terminal

// Brings the terminal up to date. What has not changed is not sent again.
void screen_draw(ViewState& view, std::uint64_t now_ms);

// Takes one key if one was pressed. Never waits.
KeyResult screen_take_key(ViewState& view);
