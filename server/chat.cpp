// Chat: the only command whose length is the sender's to choose.

#include <algorithm>
#include <cstdio>

#include "server/handlers.h"
#include "server/player_table.h"
#include "server/sending.h"
#include "util/console.h"

// The text ends at its first NUL, or else with the datagram.
void handle_chat(Slot slot, const Datagram& datagram) {
  const char* name = player_table[slot].name;
  const auto* text = reinterpret_cast<const char*>(&datagram.bytes[1]);
  const int length = std::max(static_cast<int>(datagram.received) - 1, 0);
  console_print("Message from \"%s\": \"%.*s\"\n", name, length, text);

  // Only the wire's field cuts the line: the terminating NUL has its place behind it.
  std::array<char, TEXT_WIDTH + 1> formatted{};
  std::snprintf(formatted.data(), formatted.size(), "%s: %.*s", name, length, text);
  ChatLine line;
  std::copy_n(formatted.begin(), line.text.size(), line.text.begin());
  relay_to_others(line, slot);
}
