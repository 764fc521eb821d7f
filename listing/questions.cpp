#include "listing/questions.h"

#include <arpa/inet.h>

#include <algorithm>

#include "client/alive.h"

static std::uint64_t key_of(const sockaddr_in& server) {
  return std::uint64_t{server.sin_addr.s_addr} << 16U | server.sin_port;
}

static Question question_of(const PendingEntry& open) {
  Question question{.entry = open};
  question.server.sin_family = AF_INET;
  question.server.sin_port = htons(static_cast<in_port_t>(open.port));
  inet_pton(AF_INET, open.address.c_str(), &question.server.sin_addr);
  return question;
}

static bool is_over(const Question& question, std::uint64_t now_ms) {
  return question.is_answered || (question.tries == ALIVE_TRIES && question.due_ms <= now_ms);
}

std::vector<Answer> answers_of(const Questions& questions, std::uint64_t now_ms) {
  std::vector<Answer> answers;
  for (const Question& each : questions.in_order) {
    if (is_over(each, now_ms)) answers.push_back({each.entry, each.is_answered});
  }
  return answers;
}

void update_questions(Questions& questions, const std::vector<PendingEntry>& open,
                      std::uint64_t now_ms) {
  Questions updated;
  updated.in_order.reserve(open.size());
  for (const PendingEntry& each : open) {
    Question question = question_of(each);
    const std::uint64_t key = key_of(question.server);
    const auto known = questions.index_by_server.find(key);
    if (known != questions.index_by_server.end()) {
      const Question& old = questions.in_order[known->second];
      const bool is_same = old.entry.first_seen_s == each.first_seen_s;
      if (is_same && !is_over(old, now_ms)) question = old;
    }
    updated.index_by_server[key] = updated.in_order.size();
    updated.in_order.push_back(question);
  }
  questions = std::move(updated);
}

std::vector<sockaddr_in> take_due_servers(Questions& questions, std::size_t max_count,
                                          std::uint64_t now_ms) {
  std::vector<sockaddr_in> due;
  for (Question& each : questions.in_order) {
    if (due.size() == max_count) break;
    if (each.is_answered || each.tries == ALIVE_TRIES || each.due_ms > now_ms) continue;
    ++each.tries;
    each.due_ms = now_ms + ALIVE_TRY_MS;
    due.push_back(each.server);
  }
  return due;
}

void record_answer(Questions& questions, const sockaddr_in& sender) {
  const auto asked = questions.index_by_server.find(key_of(sender));
  if (asked == questions.index_by_server.end()) return;
  Question& question = questions.in_order[asked->second];
  question.is_answered = question.tries > 0;
}
