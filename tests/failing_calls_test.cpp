// System calls that fail, by wraps that the linker puts in their place.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <deque>

#include "server/clock.h"
#include "server/main_loop.h"
#include "server/player_table.h"
#include "server/sending.h"
#include "server/server_state.h"
#include "server/shutdown.h"

int server_main();

// One entry a call: what it returns, or an errno as a negative number.
using Script = std::deque<int>;
static Script opens, reads, clocks, receives, polls, sends, batches;
static std::string log;  // ports that were sent to, polls by event and limit, pauses

static int play(Script& script, int behind_its_end) {
  if (script.empty()) return behind_its_end;
  const int result = script.front();
  script.pop_front();
  return result < 0 ? (errno = -result, -1) : result;
}

extern "C" {
int __real_open64(const char* path, int flags, ...);
ssize_t __real_read(int handle, void* buffer, std::size_t size);

int __wrap_open64(const char* path, int flags, ...) {
  return opens.empty() ? __real_open64(path, flags) : play(opens, 0);
}
ssize_t __wrap_read(int handle, void* buffer, std::size_t size) {
  return reads.empty() ? __real_read(handle, buffer, size) : play(reads, 0);
}
int __wrap_clock_gettime(clockid_t /*id*/, timespec* now) {
  *now = {.tv_sec = 7, .tv_nsec = 120'000'000};
  return play(clocks, 0);
}
int __wrap_nanosleep(const timespec* time, timespec* /*left*/) {
  log += "pause " + std::to_string(time->tv_nsec) + " ";
  return 0;
}
int __wrap_poll(pollfd* waits, nfds_t /*count*/, int limit) {
  log += "poll " + std::to_string(waits->events) + " " + std::to_string(limit) + " ";
  return 0;
}
// As the kernel does it: blocked signals are let in for the wait alone.
int __wrap_ppoll(pollfd* waits, nfds_t /*count*/, const timespec* limit, const sigset_t* mask) {
  log += "wait " + std::to_string(waits->events) + (limit == nullptr ? " " : "! ");
  if (polls.size() == 1) {
    std::raise(SIGTERM);
    EXPECT_FALSE(stop_requested());
    sigset_t kept;
    pthread_sigmask(SIG_SETMASK, mask, &kept);
    pthread_sigmask(SIG_SETMASK, &kept, nullptr);
  }
  return play(polls, 0);
}
ssize_t __wrap_sendto(int, const void*, std::size_t size, int, const void* /*to*/, socklen_t) {
  return play(sends, static_cast<int>(size));
}
long __wrap_syscall(long number, int, mmsghdr* messages, unsigned count, ...) {
  if (number == SYS_recvfrom) return play(receives, (errno = EAGAIN, -1));
  const int served = play(batches, static_cast<int>(count));
  for (int i = 0; i < served; ++i) log += static_cast<const char*>(messages[i].msg_hdr.msg_name)[3];
  return served;
}
}

// Standard output goes to standard error, where a test of an exit can see it.
static void end_after(int (*call)()) {
  dup2(STDERR_FILENO, STDOUT_FILENO);
  main_thread_id = pthread_self();
  std::exit(call());
}

// To the ports A to D.
static int broadcast() {
  for (std::uint8_t i = 0; i < 4; ++i) {
    occupy_slot(player_table[i], {AF_INET, htons('A' + i), {}, {}}, "");
    enter_game(player_table[i]);
  }
  return broadcast_all(bytes_of(Ping{})), 0;
}

TEST(FailingCallsTest, SendsGoOnWhereTheyStopped) {
  batches = {1, 2, 1, -EINTR, 3, -EINTR, 1};
  broadcast(), broadcast();
  batches = {2, -EAGAIN, 1, -ENOBUFS, -EAGAIN};
  broadcast();
  EXPECT_EQ(std::exchange(log, ""), "ABCDABCDABpoll 4 10 Cpoll 0 10 poll 4 10 D");
  sends = {-EINTR, -EAGAIN, -ENOBUFS};
  EXPECT_TRUE(send_record({}, Ping{}, SendErrorText::WITHOUT_BLANK));
  EXPECT_EQ(std::exchange(log, ""), "poll 4 10 poll 0 10 ");
}

TEST(FailingCallsTest, OnlyAnEmptySocketEndsADrainAndErrorsPause) {
  receives = {-EINTR, -ENOMEM, -ECONNREFUSED, -EINTR, -EAGAIN, -EBADF};
  drain_socket();
  EXPECT_EQ(std::exchange(log, ""), "pause 50000 pause 50000 ");
  // What stood behind EAGAIN comes up in the next drain.
  polls = {-EINTR, -ENOMEM, -EINTR};
  EXPECT_EXIT(end_after([] {
                install_shutdown_handler();
                run_main_loop();
                return log == "pause 50000 wait 1 wait 1 pause 50000 wait 1 " ? 0 : 2;
              }),
              testing::ExitedWithCode(0), "");
  polls.clear();
}

TEST(FailingCallsTest, FailedSendsSayWhyAndABroadcastEndsTheProcess) {
  for (const int error : {EPERM, EACCES, ENETUNREACH, EHOSTUNREACH, EINVAL, EAGAIN, ENOBUFS}) {
    const std::string line = std::string("error writing to socket:") + std::strerror(error) + "\n";
    sends = batches = Script(11, -error);
    EXPECT_EXIT(end_after(broadcast), testing::ExitedWithCode(1), "^" + line + "$");
    testing::internal::CaptureStdout();
    EXPECT_FALSE(send_record({}, Ping{}, SendErrorText::WITHOUT_BLANK));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line);
    EXPECT_EQ(sends.size(), error == EAGAIN || error == ENOBUFS ? 0U : 10U) << "attempts left";
  }
}

TEST(FailingCallsTest, TheBootClockStandsInForTheFile) {
  opens = {-EMFILE};
  reads = {-EIO, 0};
  for (int i = 0; i < 3; ++i) EXPECT_EQ(uptime_ms(), 7120U);
  EXPECT_NE(uptime_ms(), 7120U) << "the file again";
  opens = {-EACCES};
  clocks = {-EINVAL};
  EXPECT_EXIT(end_after(server_main), testing::ExitedWithCode(1),
              "^error reading the system clock: Invalid argument\n$");
}
