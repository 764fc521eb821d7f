#include "view/screen.h"

#include <ncurses.h>

#include <algorithm>
#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <cwchar>

#include "text/names.h"

// The layout. At the top, from left to right: the map, a vertical line, and the game's clock above
// the list of players. Below, over the whole width: the status, the chat, and the input line.
static constexpr int LIST_WIDTH = 38;    // columns; at most half of the screen
static constexpr int NAME_COLUMNS = 14;  // of the list
static constexpr int CHAT_HEIGHT = 7;    // rows, including the status and the input line

static constexpr short COLOURS[] = {COLOR_GREEN, COLOR_YELLOW, COLOR_CYAN,
                                    COLOR_BLUE,  COLOR_RED,    COLOR_WHITE};
static constexpr short PLAYER_PAIRS = std::size(COLOURS);  // pair 1 + slot % PLAYER_PAIRS
static constexpr short PINK_PAIR = PLAYER_PAIRS + 1;
static constexpr short PINK_OF_256 = 205;
static constexpr int ESCAPE = 27;

static bool has_color_pairs;

void screen_open() {
  std::setlocale(LC_ALL, "");
  initscr();
  cbreak();
  noecho();
  keypad(stdscr, TRUE);
  nodelay(stdscr, TRUE);
  set_escdelay(50);
  curs_set(0);
  has_color_pairs = has_colors();
  if (!has_color_pairs) return;
  start_color();
  use_default_colors();
  for (short i = 0; i < PLAYER_PAIRS; ++i) init_pair(static_cast<short>(i + 1), COLOURS[i], -1);
  init_pair(PINK_PAIR, COLORS >= 256 ? PINK_OF_256 : COLOR_MAGENTA, -1);
}

void screen_close() {
  endwin();
}

// Without colours, the PinkPanther is drawn in reverse video.
static attr_t style_of(const GamePicture& picture, Slot slot) {
  const bool is_pink = slot == picture.pinkpanther;
  if (!has_color_pairs) return is_pink ? A_REVERSE : A_NORMAL;
  return is_pink ? COLOR_PAIR(PINK_PAIR) | A_BOLD
                 : static_cast<attr_t>(COLOR_PAIR(1 + slot % PLAYER_PAIRS));
}

// One character for each of the 32 slots.
static wchar_t mark_of(Slot slot) {
  return L"0123456789abcdefghijklmnopqrstuv"[slot];
}

static bool is_shown(const GamePicture& picture, Slot slot) {
  return picture.players[slot].has_record && slot != picture.own_slot;
}

// The beginning of a text, cut to this many columns. An East Asian character takes two columns, a
// combining accent takes none. A character that the locale lacks becomes '?'.
static std::wstring cut_to_columns(const std::wstring& text, int columns) {
  std::wstring result;
  for (const wchar_t each : text) {
    const int width = wcwidth(each);
    if (width == 0 && result.empty()) continue;  // would change the previous column
    columns -= width < 0 ? 1 : width;
    if (columns < 0) break;
    result += width < 0 ? L'?' : each;
  }
  return result;
}

// Prints a text in at most this many columns, with an ncurses attribute.
static void draw_text(int row, int column, int columns, const std::wstring& text,
                      attr_t style = A_NORMAL) {
  if (columns <= 0) return;
  attrset(static_cast<int>(style));
  mvaddwstr(row, column, cut_to_columns(text, columns).c_str());
  attrset(A_NORMAL);
}

// As printf(3), for ASCII texts and numbers, up to 95 bytes.
[[gnu::format(printf, 1, 2)]] static std::wstring text_of(const char* format, ...) {
  char text[96];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return printable_wide(text);
}

static void draw_player(const ViewState& view, Slot slot, int columns, int rows) {
  const GamePicture& picture = view.session.picture;
  const PlayerPicture& player = picture.players[slot];
  const auto place = map_point_of(player.state.position);
  if (!is_shown(picture, slot) || !place) return;
  const MapCell cell = cell_of(view.map, *place, columns, rows);
  const attr_t style = style_of(picture, slot);
  draw_text(cell.row, cell.column, 1, {mark_of(slot)}, style);
  if (!player.in_car) return;
  if (cell.column > 0) draw_text(cell.row, cell.column - 1, 1, L"[", style);
  if (cell.column + 1 < columns) draw_text(cell.row, cell.column + 1, 1, L"]", style);
}

// Draws the PinkPanther last, on top of the others.
static void draw_map(const ViewState& view, int columns, int rows) {
  for (Slot slot = 0; slot < MAX_CLIENTS; ++slot) draw_player(view, slot, columns, rows);
  const Slot pinkpanther = view.session.picture.pinkpanther;
  if (pinkpanther < MAX_CLIENTS) draw_player(view, pinkpanther, columns, rows);
}

static void draw_row(const GamePicture& picture, Slot slot, int row, int column,
                     std::uint64_t now_ms) {
  const PlayerPicture& player = picture.players[slot];
  const std::string ride =
      player.in_car ? "car " + std::to_string(player.car.car_type) : std::string("foot");
  const std::string deaths = player.death_count ? std::to_string(*player.death_count) : "-";
  const std::uint64_t silent_s =
      std::min<std::uint64_t>((now_ms - player.last_active_ms) / 1'000, 999);
  const attr_t style = style_of(picture, slot);
  draw_text(row, column, 1, {mark_of(slot)}, style);
  draw_text(row, column + 2, NAME_COLUMNS, printable_wide(player.name.data(), NAME_WIDTH - 1),
            style);
  const int details = column + 3 + NAME_COLUMNS;
  draw_text(row, details, COLS - details,
            text_of("%-7s %3u %3s %3us", ride.c_str(), unsigned{player.state.state_b},
                    deaths.c_str(), static_cast<unsigned>(silent_s)),
            style);
}

static void draw_list(const GamePicture& picture, int column, int rows, std::uint64_t now_ms) {
  int row = 2;
  int count = 0;
  for (Slot slot = 0; slot < MAX_CLIENTS; ++slot) {
    if (!is_shown(picture, slot)) continue;
    ++count;
    if (row < rows) draw_row(picture, slot, row++, column, now_ms);
  }
  const unsigned minutes = game_minutes(picture, now_ms);
  const int columns = COLS - column;
  const std::wstring time = picture.is_clock_known
                                ? text_of("%02u:%02u", minutes / 60, minutes % 60)
                                : std::wstring(L"--:--");
  draw_text(0, column, columns,
            time + text_of("  %s, %d %s", game_type_name(picture.game_type), count,
                           count == 1 ? "player" : "players"));
  draw_text(1, column, columns, L"  name           ride    gun died last", A_DIM);
  if (count > rows - 2 && rows > 2) {
    draw_text(rows - 1, column, columns, text_of("  and %d more%30s", count - (rows - 3), ""));
  }
}

static void draw_chat(const ViewState& view, int top) {
  const GamePicture& picture = view.session.picture;
  mvhline(top, 0, ACS_HLINE, COLS);
  draw_text(top, 2, COLS - 4, L" " + printable_wide(view.status) + L" ");
  const auto chat_rows = static_cast<std::size_t>(std::max(LINES - top - 2, 0));
  const std::size_t count = std::min({picture.chat_count, chat_rows, CHAT_LINES});
  for (std::size_t i = 0; i < count; ++i) {
    const ChatText& text = picture.chat[(picture.chat_count - count + i) % CHAT_LINES];
    draw_text(top + 1 + static_cast<int>(i), 0, COLS, printable_wide(text.data()));
  }
  if (view.is_typing) {
    draw_text(LINES - 1, 0, COLS, L"> " + printable_wide(view.typed) + L"_");
  } else {
    draw_text(LINES - 1, 0, COLS, L"Enter: chat   q: quit", A_DIM);
  }
}

void screen_draw(ViewState& view, std::uint64_t now_ms) {
  const int rows = std::max(LINES - CHAT_HEIGHT, 1);
  const int columns = std::max(COLS - std::min(LIST_WIDTH, COLS / 2) - 1, 1);
  erase();
  fit_view(view.map, view.session.picture, now_ms);
  draw_map(view, columns, rows);
  mvvline(0, columns, ACS_VLINE, rows);
  draw_list(view.session.picture, columns + 1, rows, now_ms);
  draw_chat(view, rows);
  refresh();
}

static void end_typing(ViewState& view) {
  view.typed.clear();
  view.is_typing = false;
}

static void handle_typed_key(ViewState& view, wint_t key, bool is_function_key) {
  const bool is_backspace = (is_function_key && key == KEY_BACKSPACE) || key == 127 || key == '\b';
  if (key == '\n' || (is_function_key && key == KEY_ENTER)) {
    if (!view.typed.empty()) session_say(view.session, view.typed);
    end_typing(view);
  } else if (is_backspace) {
    if (!view.typed.empty()) view.typed.pop_back();
  } else if (is_function_key) {
    return;
  } else if (key == ESCAPE) {
    end_typing(view);
  } else if (key >= ' ' && view.typed.size() < max_chat_length(view.session)) {
    view.typed += key < 256 ? static_cast<char>(key) : '?';
  }
}

KeyResult screen_handle_key(ViewState& view) {
  wint_t key = 0;
  const int kind = get_wch(&key);
  if (kind == ERR) return KeyResult::NONE;
  const bool is_function_key = kind == KEY_CODE_YES;
  if (view.is_typing) {
    handle_typed_key(view, key, is_function_key);
  } else if (key == 'q' && !is_function_key) {
    return KeyResult::QUIT;
  } else {
    view.is_typing = key == '\n' || (is_function_key && key == KEY_ENTER);
  }
  return KeyResult::TAKEN;
}
