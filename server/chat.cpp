// Chat: the only command whose length is the sender's to choose.

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "server/handlers.h"
#include "server/player_table.h"
#include "server/sending.h"
#include "util/console.h"

// What the datagram brought behind its code, up to the first NUL or its end.
using ChatText = std::array<char, RECEIVE_BUFFER_SIZE>;

static ChatText chat_text_of(const Datagram& datagram) {
  ChatText text{};
  const std::size_t received = std::max<std::size_t>(datagram.received, 1) - 1;
  std::memcpy(text.data(), datagram.bytes.data() + 1, received);
  return text;
}

void handle_chat(Slot slot, const Datagram& datagram) {
  const char* name = player_table[slot].name.data();
  const ChatText text = chat_text_of(datagram);
  console_print("Message from \"%s\": \"%s\"\n", name, text.data());

  // Room for the longest name and text, so that only the wire's field cuts the line.
  std::array<char, NAME_WIDTH + RECEIVE_BUFFER_SIZE + 2> formatted{};
  std::snprintf(formatted.data(), formatted.size(), "%s: %s", name, text.data());
  ChatLine line;
  std::copy_n(formatted.begin(), line.text.size(), line.text.begin());
  relay_to_others(line, slot);
}
