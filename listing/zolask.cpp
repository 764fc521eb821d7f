// zolask asks the servers that are pending in the list, and makes them visible when they answer. It
// shares only the database with zollist, which has no access to the network. From the environment:
//
//   ZOLLIST_DATABASE            the file of the list

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

static constexpr std::uint64_t LIST_POLL_MS = 500;  // between two reads of the list
static constexpr int LOCK_TIMEOUT_MS = 500;  // for the database; a stop signal waits that long
// 50 datagrams every 5 ms are 10,000 datagrams per second. The answers arrive at the same rate, and
// a receive buffer of the usual size must hold them while the asker reads the list.
static constexpr std::uint64_t PACE_MS = 5;
static constexpr std::size_t SENDS_AT_ONCE = 50;
static constexpr int RECEIVES_AT_ONCE = 1'000;  // then it sends again
static constexpr int SOCKET_BUFFER = 4 << 20;   // bytes

struct Asker {
  std::string path;
  int socket = -1;
  int lock = -1;
  List list{.lock_timeout_ms = LOCK_TIMEOUT_MS};
  struct stat file = {};     // of the open file, to detect that it was replaced
  std::string last_error{};  // not printed again
  Questions questions{};
};

static void print_error(Asker& asker, const std::string& error_text) {
  if (error_text != asker.last_error) std::fprintf(stderr, "zolask: %s\n", error_text.c_str());
  asker.last_error = error_text;
}

// Without the lock, the page says that zolask is not running.
static void release_list(Asker& asker) {
  close_list(asker.list);
  if (asker.lock != -1) close(asker.lock);
  asker.lock = -1;
}

// False when the file was deleted or replaced: writes to it would be lost.
static bool is_list_current(const Asker& asker) {
  struct stat now = {};
  return stat(asker.path.c_str(), &now) == 0 && now.st_dev == asker.file.st_dev &&
         now.st_ino == asker.file.st_ino && is_asker_lock_visible(asker.lock);
}

static bool acquire_list(Asker& asker) {
  if (asker.list.database != nullptr && is_list_current(asker)) return true;
  release_list(asker);
  if (!open_list(asker.list, asker.path)) {
    print_error(asker, asker.list.error_text);
    return false;
  }
  asker.lock = acquire_asker_lock(asker.path);
  if (asker.lock == -1) {
    const std::string problem = errno == EAGAIN
                                    ? "another zolask is running for this list; stop one of them"
                                    : std::strerror(errno);
    print_error(asker, asker.path + "-asker: " + problem);
  }
  return asker.lock != -1 && stat(asker.path.c_str(), &asker.file) == 0;
}

static bool sync_with_list(Asker& asker, std::uint64_t now_ms) {
  const std::vector<Answer> answers = answers_of(asker.questions, now_ms);
  if (!answers.empty() && !write_answers(asker.list, answers)) return false;
  const auto open = read_pending_entries(asker.list, std::time(nullptr));
  if (open) update_questions(asker.questions, *open, now_ms);
  return open.has_value();
}

// Stores the answers and reads the pending entries. A step that fails is tried again at the next
// poll.
static void poll_list(Asker& asker, std::uint64_t now_ms) {
  if (!acquire_list(asker)) return release_list(asker);
  if (sync_with_list(asker, now_ms)) {
    asker.last_error.clear();
  } else {
    print_error(asker, asker.list.error_text);
    if (!asker.list.is_locked) release_list(asker);
  }
}

// Ignores errors: an address to which the system cannot send counts as silent.
static void send_due(Asker& asker, std::uint64_t now_ms) {
  const Datagram question = ALIVE_QUESTION;
  for (const sockaddr_in& server : take_due_servers(asker.questions, SENDS_AT_ONCE, now_ms)) {
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
    if (is_alive_answer(datagram)) record_answer(asker.questions, sender);
  }
}

static void ask_until_signal(Asker& asker, int stop_signals) {
  pollfd waits[] = {{.fd = stop_signals, .events = POLLIN, .revents = 0},
                    {.fd = asker.socket, .events = POLLIN, .revents = 0}};
  std::uint64_t list_poll_ms = 0;
  std::uint64_t send_ms = 0;
  while (take_stop_signal(stop_signals) == 0) {
    const std::uint64_t now_ms = monotonic_ms();
    if (now_ms >= list_poll_ms) {
      poll_list(asker, now_ms);
      list_poll_ms = monotonic_ms() + LIST_POLL_MS;
    }
    if (now_ms >= send_ms) {
      send_due(asker, now_ms);
      send_ms = now_ms + PACE_MS;
    }
    const std::uint64_t next_ms = asker.questions.in_order.empty() ? list_poll_ms : send_ms;
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
    std::fputs("zolask: ZOLLIST_DATABASE is not set: set it to the file of the list\n", stderr);
    return 2;
  }
  std::signal(SIGXFSZ, SIG_IGN);  // a write beyond the size limit fails like a full disk
  Asker asker{.path = path, .socket = open_socket()};
  const int stop_signals = open_stop_signals({SIGINT, SIGTERM});
  if (asker.socket == -1 || stop_signals == -1) {
    std::perror("zolask: cannot open a socket");
    return EXIT_FAILURE;
  }
  ask_until_signal(asker, stop_signals);
  release_list(asker);
  close(asker.socket);
  return EXIT_SUCCESS;
}
