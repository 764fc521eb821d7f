// The questions that the asker has under way: which datagram is due, and what came of it. Without a
// socket and without a clock.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "listing/database.h"

struct Question {
  OpenQuestion of;
  sockaddr_in server{};
  int tries = 0;
  std::uint64_t due_ms = 0;  // the next try, or the end after the last one
  bool is_answered = false;
};

struct Questions {
  std::vector<Question> in_order;                            // the first is the most urgent
  std::unordered_map<std::uint64_t, std::size_t> of_server;  // places in in_order
};

// Those that are over. Write them down before the next update.
std::vector<Answer> answers_of(const Questions& questions, std::uint64_t now_ms);

// Takes the open questions as they are now, in their order. Questions under way go on; one that was
// over at this time and is open again starts again.
void update_questions(Questions& questions, const std::vector<OpenQuestion>& open,
                      std::uint64_t now_ms);

// The servers to send the question to now, at most so many. It counts as sent.
std::vector<sockaddr_in> take_due(Questions& questions, std::size_t most, std::uint64_t now_ms);

// A datagram that answers the question came from this address.
void note_answer(Questions& questions, const sockaddr_in& sender);
