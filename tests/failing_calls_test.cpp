// System calls that fail, by wraps that the linker puts in their place.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <deque>
#include <fstream>

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

// One entry for each call: what it returns, or an errno as a negative number.
using Script = std::deque<int>;
static Script opens, reads, sleeps, receives, polls, sends, batches, connects, sockets, threads;
static std::string log;       // what was called with what, in order
static bool scripted;         // the calls below are those of a FailingCallsTest
static int waits_until_room;  // polls for nothing, until the console's reader empties the pipe
static int console_pipe[2];
static std::int64_t clock_ms = 7'120;  // the clock of a FailingCallsTest
static const char* uptime_text;        // what the next read gives, unless it is null

static int play(Script& script, int behind_its_end) {
  if (script.empty()) return behind_its_end;
  const int result = script.front();
  script.pop_front();
  return result < 0 ? (errno = -result, -1) : result;
}

static std::string empty_console() {
  std::string text(4096, '\0');
  const ssize_t length = read(console_pipe[0], text.data(), text.size());
  text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return text;
}

extern "C" {
int __real_open64(const char* path, int flags, ...);
decltype(read) __real_read;
decltype(socket) __real_socket;
decltype(connect) __real_connect;
decltype(gethostbyname_r) __real_gethostbyname_r;
decltype(setsockopt) __real_setsockopt;
decltype(clock_gettime) __real_clock_gettime;
decltype(nanosleep) __real_nanosleep;
decltype(poll) __real_poll;
decltype(recvfrom) __real_recvfrom;
decltype(sendto) __real_sendto;
decltype(sendmmsg) __real_sendmmsg;

int __wrap_open64(const char* path, int flags, ...) {
  return opens.empty() ? __real_open64(path, flags) : play(opens, 0);
}
ssize_t __wrap_read(int handle, void* buffer, std::size_t size) {
  if (const char* text = std::exchange(uptime_text, nullptr)) {
    return static_cast<ssize_t>(std::strlen(strcpy(static_cast<char*>(buffer), text)));
  }
  return reads.empty() ? __real_read(handle, buffer, size) : play(reads, 0);
}
int __wrap_setsockopt(int handle, int level, int option, const void* value, socklen_t size) {
  if (option != SO_REUSEADDR) {
    log += std::to_string(option) + "=" + std::to_string(*static_cast<const int*>(value)) + " ";
  }
  return __real_setsockopt(handle, level, option, value, size);
}
int __wrap_clock_gettime(clockid_t id, timespec* now) {
  if (!scripted) return __real_clock_gettime(id, now);
  *now = {.tv_sec = clock_ms / 1000, .tv_nsec = clock_ms % 1000 * 1'000'000 + 999};
  return 0;
}
int __wrap_nanosleep(const timespec* time, timespec* left) {
  if (!scripted) return __real_nanosleep(time, left);
  log += "pause " + std::to_string(time->tv_sec) + "." + std::to_string(time->tv_nsec) + " ";
  *left = {.tv_sec = 3, .tv_nsec = 4};
  return play(sleeps, 0);
}
int __wrap_poll(pollfd* waits, nfds_t count, int limit) {
  if (!scripted) return __real_poll(waits, count, limit);
  clock_ms += limit;
  if (waits == nullptr && --waits_until_room == 0) empty_console();
  const std::string events = waits == nullptr ? "nothing" : std::to_string(waits->events);
  return log += "poll " + events + " " + std::to_string(limit) + " ", 0;
}
// As the kernel does it: blocked signals are let in for the wait alone.
int __wrap_ppoll(pollfd* waits, nfds_t /*count*/, const timespec* limit, const sigset_t* mask) {
  log += "wait " + std::to_string(waits->events) + (limit == nullptr ? " " : "! ");
  if (polls.size() == 1) {
    std::raise(SIGTERM);
    log += stop_requested() ? "early " : "";
    sigset_t kept;
    pthread_sigmask(SIG_SETMASK, mask, &kept);
    pthread_sigmask(SIG_SETMASK, &kept, nullptr);
  }
  return play(polls, 0);
}
int __wrap_gethostbyname_r(const char* name, hostent* entry, char* work, std::size_t size,
                           hostent** found, int* error) {
  if (!scripted) return __real_gethostbyname_r(name, entry, work, size, found, error);
  return *found = nullptr, 0;
}
int __wrap_socket(int family, int type, int protocol) {
  return sockets.empty() ? __real_socket(family, type, protocol) : play(sockets, 0);
}
int __wrap_connect(int handle, const sockaddr* to, socklen_t length) {
  if (!scripted) return __real_connect(handle, to, length);
  log += "connect ";
  return play(connects, 0);
}
unsigned __wrap_sleep(unsigned seconds) {
  return log += "sleep " + std::to_string(seconds) + " ", 0;
}
int __wrap_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
  return threads.empty() ? 0 : -play(threads, 0);
}
int __wrap_pthread_setname_np(pthread_t /*thread*/, const char* name) {
  return log.append(name).append(" "), 0;
}
int __wrap_pthread_detach(pthread_t /*thread*/) {
  return log += "detached ", 0;
}
ssize_t __wrap_recvfrom(int handle, void* buffer, std::size_t size, int flags, sockaddr* from,
                        socklen_t* length) {
  if (!scripted) return __real_recvfrom(handle, buffer, size, flags, from, length);
  return play(receives, (errno = EAGAIN, -1));
}
ssize_t __wrap_sendto(int handle, const void* bytes, std::size_t size, int flags,
                      const sockaddr* to, socklen_t length) {
  if (!scripted) return __real_sendto(handle, bytes, size, flags, to, length);
  return play(sends, static_cast<int>(size));
}
int __wrap_sendmmsg(int handle, mmsghdr* messages, unsigned count, int flags) {
  if (!scripted) return __real_sendmmsg(handle, messages, count, flags);
  const int served = play(batches, static_cast<int>(count));
  for (unsigned i = 0; i < count; ++i) {
    const auto* port = static_cast<const char*>(messages[i].msg_hdr.msg_name);
    if (port == nullptr || static_cast<int>(i) < served) log += port == nullptr ? '?' : port[3];
  }
  return served;
}

// The same calls of code with _FORTIFY_SOURCE, which tells the C library the size of the buffer as
// well. Which calls those are differs between compilers and C libraries.
int __wrap___open64_2(const char* path, int flags) {
  return __wrap_open64(path, flags);
}
ssize_t __wrap___read_chk(int handle, void* buffer, std::size_t size, std::size_t /*room*/) {
  return __wrap_read(handle, buffer, size);
}
int __wrap___poll_chk(pollfd* waits, nfds_t count, int limit, std::size_t /*room*/) {
  return __wrap_poll(waits, count, limit);
}
int __wrap___ppoll_chk(pollfd* waits, nfds_t count, const timespec* limit, const sigset_t* mask,
                       std::size_t /*room*/) {
  return __wrap_ppoll(waits, count, limit, mask);
}
ssize_t __wrap___recvfrom_chk(int handle, void* buffer, std::size_t size, std::size_t /*room*/,
                              int flags, sockaddr* from, socklen_t* length) {
  return __wrap_recvfrom(handle, buffer, size, flags, from, length);
}
}

namespace {

struct FailingCallsTest : testing::Test {
  FailingCallsTest() {
    scripted = true;
    log.clear();
  }
  ~FailingCallsTest() override { scripted = false; }
};

// Standard output goes to standard error, where a test of an exit can see it.
void end_after(int (*call)()) {
  dup2(STDERR_FILENO, STDOUT_FILENO);
  main_thread_id = pthread_self();
  std::exit(call());
}

void choose_port() {
  std::snprintf(server_config.Port, sizeof server_config.Port, "%d", free_port());
}

int run_server() {
  return server_main(1, nullptr);
}

// To the ports A to D.
int broadcast_to_four() {
  for (Slot slot = 0; slot < 4; ++slot) {
    take_seat(player_table[slot], {AF_INET, htons('A' + slot), {}, {}});
    change_used_seat(player_table[slot], SeatState::IN_GAME);
  }
  return broadcast_all(Ping{}), 0;
}

TEST_F(FailingCallsTest, SendsGoOnWhereTheyStopped) {
  batches = {1, 2, 1, -EINTR, 3, -EINTR, 1};
  broadcast_to_four(), broadcast_to_four();
  EXPECT_EQ(std::exchange(log, ""), "ABCDABCD");
  // One wait for all of a broadcast; what finds no room then is lost.
  batches = {1, -EAGAIN, 1, -ENOBUFS, 1};
  broadcast_to_four();
  EXPECT_EQ(std::exchange(log, ""), "Apoll 4 5 BD");
  batches = {-ENOBUFS, -EINTR, -EAGAIN, 1, -EAGAIN, -EAGAIN};
  broadcast_to_four();
  EXPECT_EQ(std::exchange(log, ""), "poll 0 5 B");
  sends = {-EINTR, -EAGAIN};
  send_record({}, Ping{}, SendErrorText::WITHOUT_BLANK);
  EXPECT_EQ(std::exchange(log, ""), "poll 4 5 ");
  EXPECT_TRUE(sends.empty() && batches.empty());
  sends = {-EPERM, -ENETUNREACH, -EACCES, -EINVAL, -ENOMEM, 0};
  const sockaddr_in to{AF_INET, 1, {.s_addr = 1}, {}};
  for (const bool reaches : {false, false, false, false, true, true}) {
    EXPECT_EQ(udp_can_reach(0, &to), reaches);
  }
  sends = {-EINTR, -EAGAIN, -ENETUNREACH};
  EXPECT_FALSE(udp_can_reach(0, &to)) << "the third answer counts";
  sends = {-EINTR, -EAGAIN, -EAGAIN};
  EXPECT_TRUE(udp_can_reach(0, &to)) << "no error of the route";
  const sockaddr_in this_machine{AF_INET, 1, {.s_addr = htonl(0x00FFFFFF)}, {}};
  EXPECT_FALSE(udp_can_reach(0, &this_machine)) << "whatever the system says";
}

TEST_F(FailingCallsTest, FailedSendsSayWhyAndABroadcastEndsTheProcess) {
  for (const int error : {EPERM, EACCES, ENETUNREACH, EHOSTUNREACH, EINVAL, EAGAIN, ENOBUFS}) {
    const std::string line = std::string("error writing to socket:") + std::strerror(error) + "\n";
    const bool is_full = error == EAGAIN || error == ENOBUFS;
    sends = batches = Script(11, -error);
    EXPECT_EXIT(end_after(broadcast_to_four), testing::ExitedWithCode(is_full ? 0 : 1),
                is_full ? "^$" : "^" + line + "$");
    testing::internal::CaptureStdout();
    send_record({}, Ping{}, SendErrorText::WITHOUT_BLANK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line);
    EXPECT_EQ(sends.size(), is_full ? 9U : 10U) << "attempts left";
  }
  log.clear();
}

TEST_F(FailingCallsTest, ErrorsPauseAndASignalDuringTheWaitStops) {
  receives = {-EAGAIN, -EAGAIN, -ENOMEM, -EAGAIN};
  polls = {-EINTR, -ENOMEM, -EINTR};
  EXPECT_EXIT(end_after([] {
                install_shutdown_handler();
                run_main_loop();
                std::fputs(log.c_str(), stderr);
                return 0;
              }),
              testing::ExitedWithCode(0), "^wait 1 wait 1 pause 0.50000 pause 0.50000 wait 1 $");
  polls.clear(), receives.clear();
}

TEST_F(FailingCallsTest, WaitsGoOnAfterASignal) {
  sleeps = {-EINTR};
  sleep_us(12'000'007);
  EXPECT_EQ(std::exchange(log, ""), "pause 12.7000 pause 3.4 ");
}

// Time goes on from the file's last reading, by the boot clock.
TEST_F(FailingCallsTest, TheBootClockStandsInForTheFile) {
  clock_ms = 7'120;
  const std::uint32_t shown = uptime_ms();
  opens = {-EMFILE};
  reads = {-EIO, 0};
  for (const unsigned later_s : {0U, 0U, 300U}) {
    clock_ms = 7'120 + later_s * 1000;
    EXPECT_NEAR(uptime_ms() - shown, later_s * 1000, later_s * 10) << "for single precision";
  }
  EXPECT_NE(shown, 7120U);
  for (const char* text : {"1e300 1\n", "inf", "nan", "-1 1\n"}) {
    uptime_text = text;
    EXPECT_NEAR(uptime_ms() - shown, 300'000, 3'000) << text;
  }
}

TEST_F(FailingCallsTest, ThreadsAreNamedAndTheirFailuresEndTheStart) {
  server_config.AnnounceServer = 1;
  choose_port();
  const auto start = [] {
    std::atexit([] { std::fputs(log.c_str(), stderr); });
    return run_server();
  };
  threads = {-EAGAIN};
  EXPECT_EXIT(end_after(start), testing::ExitedWithCode(0),
              "-\nError while creating announce thread!\n8=4194304 7=4194304 $");
  threads = {0, -EAGAIN};
  EXPECT_EXIT(end_after(start), testing::ExitedWithCode(0),
              "-\nError while creating ping thread!\n.* zol-announce detached $");
  threads.clear();
}

TEST_F(FailingCallsTest, AStopTakesTheServerOffTheListLast) {
  choose_port();
  polls = {-EINTR};
  server_config.AnnounceServer = 1;
  EXPECT_EXIT(end_after(run_server), testing::ExitedWithCode(1),
              "-\nExitting...\nRemoving server from master list: Could not connect to zol master "
              "server!\n$");
  server_config.AnnounceServer = 0;
  EXPECT_EXIT(end_after(run_server), testing::ExitedWithCode(1), "-\nExitting...\n$");
  polls.clear();
}

// The game waits in steps of 10 ms: a second in a row, and then 1 percent of the time. A console
// that takes lines now and then gives no time back.
TEST_F(FailingCallsTest, AFullConsoleIsWaitedForOnePercentOfTheTime) {
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
    bool is_full;
    int lines;
    std::int64_t waits;
    std::string text;
  };
  std::vector<std::string> wrong;
  waits_until_room = 50;
  for (const Case& c : {
           Case{0, true, 1, 50, "line 0\n"},
           Case{0, false, 2, 0, "line 0\nline 1\n"},
           Case{0, true, 2, 50, page},
           Case{500, true, 3, 1, page},
           Case{1'000, true, 1, 1, page},
           Case{0, false, 1, 0, "6 lines are missing here\nline 0\n"},
           Case{5'000, true, 1, 5, page},
           Case{1'000'000, true, 3, 100, page},
       }) {
    clock_ms += c.ms_later;
    if (c.is_full && write(console_pipe[1], page.data(), page.size()) != 4096) break;
    const std::int64_t waits = print(c.lines);
    const std::string text = empty_console();
    if (waits != c.waits || text != c.text) wrong.push_back(std::to_string(waits) + " " + text);
  }
  close(console_pipe[0]);
  const std::int64_t waits_for_nobody = print(1);
  dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
  print(1);  // none is missing for the tests that follow
  dup2(kept, STDOUT_FILENO);
  for (const int handle : {kept, console_pipe[1]}) close(handle);
  EXPECT_EQ(wrong, std::vector<std::string>{});
  EXPECT_EQ(waits_for_nobody, 0);
}

TEST_F(FailingCallsTest, ARefusedConnectionIsTriedThreeTimes) {
  connects = {-ECONNREFUSED, -ECONNREFUSED, -ECONNREFUSED};
  EXPECT_EQ(tcp_connect("127.0.0.1", "80"), -1);
  EXPECT_EQ(socket_error_code(), SOCKERR_CONNECT_FAILED);
  connects = {-ECONNREFUSED, -EINPROGRESS};
  EXPECT_EQ(socket_close(tcp_connect("127.0.0.1", "80")), 0);
  sockets = {-EMFILE, -EMFILE};
  EXPECT_EQ(tcp_connect("127.0.0.1", "80"), -1) << "no socket, no further attempt";
  EXPECT_EQ(socket_error_code(), 5);
  EXPECT_EQ(udp_open_port("80"), -1);
  EXPECT_EQ(socket_error_code(), 5);
  EXPECT_EQ(std::exchange(log, ""),
            "connect sleep 0 connect sleep 0 connect connect sleep 0 connect ");
  EXPECT_EQ(socket_layer_state.open_sockets, 0);
}

}  // namespace
