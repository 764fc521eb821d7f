// The questions that zolask is asking: when the next datagram to a server is due, and whether the
// server has answered. Has no socket and no clock. Only one thread at a time may use it. Times are
// milliseconds of a clock that does not go back.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "listing/database.h"

struct Question {
  PendingEntry entry;
  sockaddr_in server{};
  int tries = 0;
  std::uint64_t due_ms = 0;  // time of the next try; after the last try, the end of the wait
  bool is_answered = false;
};

struct Questions {
  std::vector<Question> in_order;                                  // the most urgent first
  std::unordered_map<std::uint64_t, std::size_t> index_by_server;  // indexes in in_order
};

// The results of the finished questions. Store them before the next update.
std::vector<Answer> answers_of(const Questions& questions, std::uint64_t now_ms);

// Replaces the questions by one question for each pending entry, in the order of the entries. A
// question for the same entry continues, unless it was finished; then it starts again.
void update_questions(Questions& questions, const std::vector<PendingEntry>& open,
                      std::uint64_t now_ms);

// The servers to send the question to now, at most max_count. Counts the question as sent.
std::vector<sockaddr_in> take_due_servers(Questions& questions, std::size_t max_count,
                                          std::uint64_t now_ms);

// Call this when a datagram from this address has answered the question.
void record_answer(Questions& questions, const sockaddr_in& sender);
