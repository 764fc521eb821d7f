// The asker of the server list: it asks the servers that nobody sees yet, and makes those visible
// that answer. It shares only the database with zollist, which may not use the network.
//
//   ZOLLIST_DATABASE            the file of the list, from the environment

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "client/alive.h"
#include "client/monotonic.h"
#include "client/stop_signals.h"
#include "listing/asker_lock.h"
#include "listing/database.h"
#include "listing/questions.h"

static constexpr std::uint64_t LOOK_MS = 500;  // from one look at the database to the next
static constexpr int PATIENCE_MS = 500;  // for the database's lock; a stop signal waits so long
// Answers come back at the same rate, which a receive buffer of the usual size must hold during a
// look. So 10,000 datagrams leave in a second.
static constexpr std::uint64_t PACE_MS = 5;
static constexpr std::size_t SENDS_AT_ONCE = 50;
static constexpr int RECEIVES_AT_ONCE = 1'000;  // then the asker sends again
static constexpr int SOCKET_BUFFER = 4 << 20;   // bytes

struct Asker {
  std::string path;
  int socket = -1;
  int lock = -1;
  List list{.patience_ms = PATIENCE_MS};
  struct stat file {};       // of the open list
  std::string complained{};  // the last complaint, which is not repeated
  Questions questions{};
};

static void complain(Asker& asker, const std::string& complaint) {
  if (complaint != asker.complained) std::fprintf(stderr, "zolask: %s\n", complaint.c_str());
  asker.complained = complaint;
}

// The page tells readers that nobody asks while this is so.
static void let_go(Asker& asker) {
  close_list(asker.list);
  if (asker.lock != -1) close(asker.lock);
  asker.lock = -1;
}

// False when somebody deleted or replaced the file: writes to it would be lost.
static bool is_list_in_place(const Asker& asker) {
  struct stat now {};
  return stat(asker.path.c_str(), &now) == 0 && now.st_dev == asker.file.st_dev &&
         now.st_ino == asker.file.st_ino && is_asker_lock_visible(asker.lock);
}

static bool hold_list(Asker& asker) {
  if (asker.list.database != nullptr && is_list_in_place(asker)) return true;
  let_go(asker);
  if (!open_list(asker.list, asker.path)) {
    complain(asker, asker.list.complaint);
    return false;
  }
  asker.lock = hold_asker_lock(asker.path);
  if (asker.lock == -1) {
    const std::string problem =
        errno == EAGAIN ? "another zolask asks for this list; it is enough" : std::strerror(errno);
    complain(asker, asker.path + "-asker: " + problem);
  }
  return asker.lock != -1 && stat(asker.path.c_str(), &asker.file) == 0;
}

static bool exchange(Asker& asker, std::uint64_t now_ms) {
  const std::vector<Answer> answers = answers_of(asker.questions, now_ms);
  if (!answers.empty() && !write_answers(asker.list, answers)) return false;
  const auto open = read_open_questions(asker.list, std::time(nullptr));
  if (open) update_questions(asker.questions, *open, now_ms);
  return open.has_value();
}

// Writes down the answers and takes new questions. Whatever fails is tried again at the next look.
static void look(Asker& asker, std::uint64_t now_ms) {
  if (!hold_list(asker)) return let_go(asker);
  if (exchange(asker, now_ms)) {
    asker.complained.clear();
  } else {
    complain(asker, asker.list.complaint);
    if (!asker.list.is_locked) let_go(asker);
  }
}

// An address that nothing can be sent to is silent, like one where nobody answers.
static void send_due(Asker& asker, std::uint64_t now_ms) {
  const Datagram question = ALIVE_QUESTION;
  for (const sockaddr_in& server : take_due(asker.questions, SENDS_AT_ONCE, now_ms)) {
    sendto(asker.socket, question.data(), question.size(), MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&server), sizeof server);
  }
}

static void receive(Asker& asker) {
  for (int i = 0; i < RECEIVES_AT_ONCE; ++i) {
    std::array<std::uint8_t, RECEIVE_BUFFER_SIZE> buffer;
    sockaddr_in sender{};
    socklen_t length = sizeof sender;
    const ssize_t size = recvfrom(asker.socket, buffer.data(), buffer.size(), MSG_DONTWAIT,
                                  reinterpret_cast<sockaddr*>(&sender), &length);
    if (size == -1) return;
    const auto datagram = Datagram(buffer).first(static_cast<std::size_t>(size));
    if (is_alive_answer(datagram)) note_answer(asker.questions, sender);
  }
}

static void ask_until_signal(Asker& asker, int stop_signals) {
  pollfd waits[] = {{.fd = stop_signals, .events = POLLIN, .revents = 0},
                    {.fd = asker.socket, .events = POLLIN, .revents = 0}};
  std::uint64_t look_ms = 0;
  std::uint64_t send_ms = 0;
  while (take_stop_signal(stop_signals) == 0) {
    const std::uint64_t now_ms = monotonic_ms();
    if (now_ms >= look_ms) {
      look(asker, now_ms);
      look_ms = monotonic_ms() + LOOK_MS;
    }
    if (now_ms >= send_ms) {
      send_due(asker, now_ms);
      send_ms = now_ms + PACE_MS;
    }
    const std::uint64_t next_ms = asker.questions.in_order.empty() ? look_ms : send_ms;
    const std::uint64_t wait_ms = next_ms - std::min(next_ms, monotonic_ms());
    poll(waits, std::size(waits), static_cast<int>(wait_ms));
    receive(asker);
  }
}

static int open_socket() {
  const int handle = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (handle == -1) return -1;
  if (setsockopt(handle, SOL_SOCKET, SO_RCVBUFFORCE, &SOCKET_BUFFER, sizeof SOCKET_BUFFER) == -1) {
    setsockopt(handle, SOL_SOCKET, SO_RCVBUF, &SOCKET_BUFFER, sizeof SOCKET_BUFFER);
  }
  return handle;
}

int main() {
  const char* path = std::getenv("ZOLLIST_DATABASE");
  if (path == nullptr || *path == '\0') {
    std::fputs("zolask: ZOLLIST_DATABASE is not set: name the file of the list\n", stderr);
    return 2;
  }
  std::signal(SIGXFSZ, SIG_IGN);  // a file at its size limit is a full disk
  Asker asker{.path = path, .socket = open_socket()};
  const int stop_signals = open_stop_signals({SIGINT, SIGTERM});
  if (asker.socket == -1 || stop_signals == -1) {
    std::perror("zolask: cannot make a socket");
    return EXIT_FAILURE;
  }
  ask_until_signal(asker, stop_signals);
  let_go(asker);
  close(asker.socket);
  return EXIT_SUCCESS;
}
