// Failing system calls: the linker replaces the calls with the functions __wrap_*. The tests check
// the receivers of datagrams, the times and the printed lines.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <deque>
#include <thread>

#include "announce/master_server.h"
#include "client/server_connection.h"
#include "config/server_config.h"
#include "net/sflsock.h"
#include "net/socket_layer_state.h"
#include "server/clock.h"
#include "server/main_loop.h"
#include "server/player_table.h"
#include "server/sending.h"
#include "server/server_state.h"
#include "server/stop_signals.h"
#include "tests/loopback.h"
#include "util/console.h"

int server_main(int count, char** arguments);

// The results of the next calls. An entry is a negative errno; REAL for the real call; for a batch,
// the number of datagrams that are sent; for a thread, IDLE to run nothing.
using Script = std::deque<int>;
static constexpr int REAL = 1000;
static constexpr int IDLE = 0;
static Script sends, batches, connects, sockets, threads;
static const char* uptime_file;        // opened instead of /proc/uptime; null: the real file
static std::int64_t clock_ms = 7'120;  // the time of all clocks while is_clock_set
static bool is_clock_set;
static bool is_stop_due;  // the next wait begins with a stop signal
static bool is_wait_failing;
static int waits_until_room;  // number of waits before the reader empties the pipe
static int console_pipe[2];

static int next_of(Script& script) {
  if (script.empty()) return REAL;
  const int result = script.front();
  script.pop_front();
  if (result < 0) errno = -result;
  return result;
}

static std::string empty_console() {
  std::string text(4096, '\0');
  const ssize_t length = read(console_pipe[0], text.data(), text.size());
  text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return text;
}

extern "C" {
int __real_open64(const char* path, int flags, ...);
decltype(socket) __real_socket;
decltype(connect) __real_connect;
decltype(gethostbyname_r) __real_gethostbyname_r;
decltype(clock_gettime) __real_clock_gettime;
decltype(poll) __real_poll;
decltype(ppoll) __real_ppoll;
decltype(pthread_create) __real_pthread_create;
decltype(sendto) __real_sendto;
decltype(sendmmsg) __real_sendmmsg;

int __wrap_open64(const char* path, int flags, ...) {
  const bool is_replaced = uptime_file != nullptr && std::strcmp(path, "/proc/uptime") == 0;
  return __real_open64(is_replaced ? uptime_file : path, flags);
}
int __wrap_clock_gettime(clockid_t id, timespec* now) {
  if (!is_clock_set) return __real_clock_gettime(id, now);
  now->tv_sec = id == CLOCK_REALTIME ? 0 : static_cast<time_t>(clock_ms / 1000);
  now->tv_nsec = static_cast<long>(clock_ms % 1000 * 1'000'000 + 999);
  return 0;
}
int __wrap_poll(pollfd* waits, nfds_t count, int limit) {
  if (!is_clock_set) return __real_poll(waits, count, limit);
  clock_ms += limit;
  if (--waits_until_room == 0) empty_console();
  return 0;
}
int __wrap_ppoll(pollfd* waits, nfds_t count, const timespec* limit, const sigset_t* mask) {
  if (is_wait_failing) return errno = ENOMEM, -1;
  if (std::exchange(is_stop_due, false)) std::raise(SIGTERM);
  return __real_ppoll(waits, count, limit, mask);
}
int __wrap_gethostbyname_r(const char* name, hostent* entry, char* work, std::size_t size,
                           hostent** found, int* error) {
  if (name == MASTER_HOST) return *found = nullptr, 0;
  return __real_gethostbyname_r(name, entry, work, size, found, error);
}
int __wrap_socket(int family, int type, int protocol) {
  return next_of(sockets) == REAL ? __real_socket(family, type, protocol) : -1;
}
int __wrap_connect(int handle, const sockaddr* to, socklen_t length) {
  return next_of(connects) == REAL ? __real_connect(handle, to, length) : -1;
}
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument) {
  const int result = next_of(threads);
  if (result < 0) return -result;
  if (result == IDLE) body = [](void*) -> void* { return nullptr; };
  return __real_pthread_create(thread, attributes, body, argument);
}
ssize_t __wrap_sendto(int handle, const void* bytes, std::size_t size, int flags,
                      const sockaddr* to, socklen_t length) {
  return next_of(sends) == REAL ? __real_sendto(handle, bytes, size, flags, to, length) : -1;
}
int __wrap_sendmmsg(int handle, mmsghdr* messages, unsigned count, int flags) {
  const int result = next_of(batches);
  if (result < 0) return -1;
  return __real_sendmmsg(handle, messages, std::min(count, static_cast<unsigned>(result)), flags);
}

// The same calls with _FORTIFY_SOURCE, which also passes the size of the buffer to the C library.
// The set of these calls differs between compilers and C libraries.
int __wrap___open64_2(const char* path, int flags) {
  return __wrap_open64(path, flags);
}
int __wrap___poll_chk(pollfd* waits, nfds_t count, int limit, std::size_t /*room*/) {
  return __wrap_poll(waits, count, limit);
}
int __wrap___ppoll_chk(pollfd* waits, nfds_t count, const timespec* limit, const sigset_t* mask,
                       std::size_t /*room*/) {
  return __wrap_ppoll(waits, count, limit, mask);
}
}

namespace {

void empty_table() {
  for (PlayerSlot& player : player_table) player.seat = Seat{};
}

// Players A to D in the game.
struct FailingCallsTest : testing::Test {
  FailingCallsTest() {
    main_thread_id = pthread_self();
    server_config = {};
    server_socket = bind_loopback(SOCK_DGRAM | SOCK_NONBLOCK);
    for (Slot slot = 0; slot < 4; ++slot) {
      players[slot] = bind_loopback(SOCK_DGRAM | SOCK_NONBLOCK);
      take_seat(player_table[slot], local_address(players[slot]));
      change_used_seat(player_table[slot], SeatState::IN_GAME);
    }
  }
  ~FailingCallsTest() override {
    is_clock_set = false;
    for (Script* script : {&sends, &batches, &connects, &sockets, &threads}) {
      script->clear();
    }
    for (const int player : players) close(player);
    close(server_socket);
    empty_table();
  }

  // The receivers of the datagrams since the last call: "AABD" if A got two, B one and D one.
  std::string receivers() const {
    std::string names;
    char byte = 0;
    for (std::size_t i = 0; i < 4; ++i) {
      while (recv(players[i], &byte, 1, 0) == 1) names += static_cast<char>('A' + i);
    }
    return names;
  }

  int players[4];
};

// Runs in a death test: redirects standard output to standard error, which the test reads.
void exit_with(int (*call)()) {
  dup2(STDERR_FILENO, STDOUT_FILENO);
  std::exit(call());
}

int run_server() {
  empty_table();
  std::snprintf(server_config.Port, sizeof server_config.Port, "%d", free_port());
  return server_main(1, nullptr);
}

int broadcast() {
  return broadcast_all(Ping{}), 0;
}

TEST_F(FailingCallsTest, ABroadcastContinuesAfterAPartialSend) {
  struct Case {
    Script batches;
    const char* receivers;
  };
  for (const Case& c : {
           Case{{1, 2, 1}, "ABCD"},
           Case{{-EINTR, 3, -EINTR, -EINTR}, "ABCD"},
           // The server waits once. After that, a datagram for which there is no room is lost.
           Case{{1, -EAGAIN}, "ABCD"},
           Case{{1, -EAGAIN, 1, -ENOBUFS}, "ABD"},
           Case{{-ENOBUFS, -EINTR, -EAGAIN, 1, -EAGAIN, -EAGAIN}, "B"},
       }) {
    batches = c.batches;
    broadcast();
    EXPECT_EQ(receivers(), c.receivers);
    EXPECT_TRUE(batches.empty());
  }
}

TEST_F(FailingCallsTest, OnlyErrorsOfTheRouteMakeAnAddressUnreachable) {
  const sockaddr_in to{AF_INET, htons(9), {htonl(0x01000000)}, {}};
  struct Case {
    Script sends;
    bool is_reachable;
  };
  for (const Case& c : {
           Case{{-EPERM}, false},
           Case{{-ENETUNREACH}, false},
           Case{{-EACCES}, false},
           Case{{-EINVAL}, false},
           Case{{-EINTR, -EAGAIN, -ENETUNREACH}, false},
           Case{{-ENOMEM}, true},
           Case{{-EOPNOTSUPP}, true},
           Case{{-EINTR, -EAGAIN, -EAGAIN}, true},
           Case{{-ENOBUFS, -ENOBUFS}, true},
       }) {
    sends = c.sends;
    EXPECT_EQ(udp_can_reach(server_socket, &to), c.is_reachable);
    EXPECT_TRUE(sends.empty());
  }
  EXPECT_EQ(receivers(), "") << "nothing is sent";
}

TEST_F(FailingCallsTest, AFailedBroadcastPrintsTheErrorAndExits) {
  for (const int error : {EPERM, EINVAL}) {
    const std::string line = std::string("error writing to socket:") + std::strerror(error) + "\n";
    batches = {1, -error};
    EXPECT_EXIT(exit_with(broadcast), testing::ExitedWithCode(1), "^" + line + "$");
  }
}

// Each pause is a voluntary context switch. A loop that spins has hardly any.
int run_and_count_pauses() {
  install_shutdown_handler();
  std::thread([main_thread = main_thread_id] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    pthread_kill(main_thread, SIGTERM);
  }).detach();
  run_main_loop();
  rusage used{};
  getrusage(RUSAGE_THREAD, &used);
  return used.ru_nvcsw > 5 ? 0 : 1;
}

TEST_F(FailingCallsTest, APersistentErrorDoesNotSpinAndASignalStops) {
  for (const auto fail : {+[] { close(server_socket); }, +[] { is_wait_failing = true; }}) {
    EXPECT_EXIT((fail(), exit_with(run_and_count_pauses)), testing::ExitedWithCode(0), "^$");
  }
}

TEST_F(FailingCallsTest, ASignalJustBeforeTheWaitEndsTheWait) {
  install_shutdown_handler();
  const auto wait = [] { return alarm(20), wait_for_input_or_stop(server_socket) ? 0 : 1; };
  is_stop_due = true;
  EXPECT_EXIT(exit_with(wait), testing::ExitedWithCode(0), "^$");
  is_stop_due = false;
  EXPECT_EXIT((std::raise(SIGTERM), exit_with(wait)), testing::ExitedWithCode(0), "^$");
}

// Replaces /proc/uptime with this text, and then with a file that does not exist.
void expect_uptime(const char* text, std::uint32_t ms) {
  std::FILE* file = std::tmpfile();
  std::fputs(text, file);
  std::fflush(file);
  const std::string name = "/proc/self/fd/" + std::to_string(fileno(file));
  uptime_file = name.c_str();
  EXPECT_EQ(uptime_ms(), ms) << text;
  std::fclose(file);
  EXPECT_EQ(uptime_ms(), ms) << text;
  uptime_file = nullptr;
}

// Without a valid file, the time continues from the last reading, measured with CLOCK_BOOTTIME.
TEST_F(FailingCallsTest, ReadsTheUptimeAndContinuesWithoutTheFile) {
  is_clock_set = true;
  clock_ms = 7'120;
  expect_uptime("12.34 1.00\n", 12'340);
  for (const unsigned later_ms : {0U, 300'450U}) {
    clock_ms = 7'120 + later_ms;
    for (const char* text : {"", "1e300 1\n", "inf", "nan", "-2 1\n"}) {
      expect_uptime(text, 12'340 + later_ms);
    }
  }
}

TEST_F(FailingCallsTest, PrintsLinesBeforeItExits) {
  struct Case {
    std::uint8_t announces;
    Script threads;
    int status;
    std::string lines;
  };
  const std::string removal =
      "Removing server from master list: Could not connect to zol master server!\n";
  is_stop_due = true;
  for (const Case& c : {
           Case{1, {-EAGAIN}, 0, "Error while creating announce thread!\n"},
           Case{0, {-EAGAIN}, 0, "Error while creating ping thread!\n"},
           Case{0, {IDLE}, 1, "Exitting...\n"},
           Case{1, {IDLE, IDLE}, 1, "Exitting...\n" + removal},
       }) {
    server_config.AnnounceServer = c.announces;
    threads = c.threads;
    EXPECT_EXIT(exit_with(run_server), testing::ExitedWithCode(c.status), "-\n" + c.lines + "$");
  }
  is_stop_due = false;
}

// The server waits in steps of 10 ms: for a second in a row, and then for 1 percent of the time. A
// console that takes a line from time to time does not refill the budget.
TEST_F(FailingCallsTest, WaitsForAFullConsoleForOnePercentOfTheTime) {
  is_clock_set = true;
  const int kept = dup(STDOUT_FILENO);
  pipe2(console_pipe, O_NONBLOCK);
  fcntl(console_pipe[1], F_SETPIPE_SZ, 4096);
  dup2(console_pipe[1], STDOUT_FILENO);
  std::signal(SIGPIPE, SIG_IGN);
  const std::string page(4096, '.');
  const auto print = [](int lines) {
    const std::int64_t before_ms = clock_ms;
    for (int i = 0; i < lines; ++i) console_print("line %d\n", i);
    return (clock_ms - before_ms) / 10;
  };
  struct Case {
    int ms_later;
    std::size_t filled;  // bytes
    int lines;
    std::int64_t waits;
    std::string text;
  };
  std::vector<std::string> wrong;
  waits_until_room = 50;
  for (const Case& c : {
           Case{0, 4096, 1, 50, "line 0\n"},
           Case{0, 0, 2, 0, "line 0\nline 1\n"},
           Case{0, 4096, 2, 50, page},
           Case{500, 4096, 3, 1, page},
           Case{1'000, 4096, 1, 1, page},
           Case{0, 4088, 1, 0, page.substr(8)},  // room for the line, not for the notice
           Case{0, 0, 1, 0, "7 lines are missing here\nline 0\n"},
           Case{5'000, 4096, 1, 5, page},
           Case{1'000'000, 4096, 3, 100, page},
       }) {
    clock_ms += c.ms_later;
    EXPECT_EQ(write(console_pipe[1], page.data(), c.filled), static_cast<ssize_t>(c.filled));
    const std::int64_t waits = print(c.lines);
    const std::string text = empty_console();
    if (waits != c.waits || text != c.text) wrong.push_back(std::to_string(waits) + " " + text);
  }
  close(console_pipe[0]);
  const std::int64_t waits_for_nobody = print(1);
  dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
  print(1);  // reset the number of missing lines for later tests
  dup2(kept, STDOUT_FILENO);
  for (const int handle : {kept, console_pipe[1]}) close(handle);
  EXPECT_EQ(wrong, std::vector<std::string>{});
  EXPECT_EQ(waits_for_nobody, 0);
}

TEST_F(FailingCallsTest, TriesARefusedConnectionThreeTimes) {
  const int listener = bind_loopback(SOCK_STREAM);
  ASSERT_EQ(listen(listener, 1), 0);
  const std::string port = std::to_string(ntohs(local_address(listener).sin_port));
  const auto connects_after = [&](unsigned refusals) {
    connects = Script(refusals, -ECONNREFUSED);
    const int handle = tcp_connect("127.0.0.1", port.c_str());
    return handle != -1 && socket_close(handle) == 0;
  };
  EXPECT_TRUE(connects_after(2));
  EXPECT_FALSE(connects_after(3));
  EXPECT_EQ(socket_error_code(), SOCKERR_CONNECT_FAILED);
  sockets = {-EMFILE, -EMFILE, -EMFILE};
  EXPECT_EQ(tcp_connect("127.0.0.1", "80"), -1) << "without a socket there is no further attempt";
  EXPECT_EQ(socket_error_code(), SOCKERR_SOCKET_FAILED);
  EXPECT_EQ(udp_open_port("80"), -1);
  EXPECT_EQ(socket_error_code(), SOCKERR_SOCKET_FAILED);
  EXPECT_EQ(open_client_socket(sockaddr_in{}), -1);
  EXPECT_EQ(socket_layer_state.open_sockets, 0);
  close(listener);
}

}  // namespace
