#include "view/alive.h"

#include <arpa/inet.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "client/alive.h"
#include "client/monotonic.h"
#include "client/server_connection.h"
#include "client/stop_signals.h"

enum class Answer { NONE, UP, PORT_CLOSED, CANNOT_SEND, SIGNAL };

struct Question {
  int socket = -1;
  int stop_signals = -1;
  int signal = 0;  // the signal that ended the question; 0: none
};

// Ignores other datagrams; they do not extend the wait.
static Answer await_refusal(Question& question, std::uint64_t end_ms) {
  pollfd waits[] = {{.fd = question.stop_signals, .events = POLLIN, .revents = 0},
                    {.fd = question.socket, .events = POLLIN, .revents = 0}};
  for (std::uint64_t now_ms = monotonic_ms(); now_ms < end_ms; now_ms = monotonic_ms()) {
    if (poll(waits, std::size(waits), static_cast<int>(end_ms - now_ms)) <= 0) break;
    question.signal = take_stop_signal(question.stop_signals);
    if (question.signal != 0) return Answer::SIGNAL;
    // The only error of a connected socket here is the ICMP message "port unreachable".
    if ((waits[1].revents & POLLERR) != 0) return Answer::PORT_CLOSED;
    static Batch batch;
    receive_batch(question.socket, batch);
    const Datagram* first = batch.datagrams.data();
    if (std::any_of(first, first + batch.count, is_alive_answer)) return Answer::UP;
  }
  return Answer::NONE;
}

static Answer ask(Question& question) {
  Answer answer = Answer::NONE;
  for (int i = 0; i < ALIVE_TRIES && answer == Answer::NONE; ++i) {
    const std::uint64_t end_ms = monotonic_ms() + ALIVE_TRY_MS;
    if (!send_datagram(question.socket, ALIVE_QUESTION)) {
      return Answer::CANNOT_SEND;
    }
    answer = await_refusal(question, end_ms);
  }
  return answer;
}

// The server as the user wrote it, and in parentheses its address and port if they differ from
// that.
static std::string address_of(const ViewOptions& options) {
  char host[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &options.server.sin_addr, host, sizeof host);
  const std::string address =
      std::string(host) + ":" + std::to_string(ntohs(options.server.sin_port));
  const std::string text = options.server_text;
  return text == address ? text : text + " (" + address + ")";
}

static int print_error(const char* problem, const std::string& address, const char* advice) {
  std::fprintf(stderr, "zolview: %s %s: %s\n", problem, address.c_str(), advice);
  return 1;
}

int ask_alive(const ViewOptions& options, int stop_signals) {
  Question question{.socket = open_client_socket(options.server), .stop_signals = stop_signals};
  const std::string address = address_of(options);
  if (question.socket == -1) return print_error("cannot send to", address, std::strerror(errno));
  const Answer answer = ask(question);
  const int error = errno;
  close(question.socket);
  switch (answer) {
    case Answer::UP:
      std::printf("a server answers at %s\n", address.c_str());
      return 0;
    case Answer::SIGNAL:
      return 128 + question.signal;
    case Answer::CANNOT_SEND:
      return print_error("cannot send to", address, std::strerror(error));
    case Answer::PORT_CLOSED:
      return print_error("no server listens at", address,
                         "check the port, and that the server runs");
    case Answer::NONE:
      break;
  }
  return print_error(
      "no server answers at", address,
      "check the address, the server, and whether firewalls and routers let UDP through");
}
