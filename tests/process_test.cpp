// The real program: what it prints, how it stops, what it costs when idle.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "tests/bytes.h"
#include "tests/loopback.h"

namespace {

constexpr int PATIENCE_MS = 20'000;  // until a test gives a stuck server up
const std::string RULE = std::string(38, '-') + "\n";

bool readable(int handle) {
  pollfd wait{.fd = handle, .events = POLLIN, .revents = 0};
  return poll(&wait, 1, PATIENCE_MS) == 1;
}

class ProcessTest : public testing::Test {
 protected:
  ProcessTest() {
    EXPECT_NE(mkdtemp(folder), nullptr);
    close(bind_any_port());
  }

  ~ProcessTest() override {
    if (pid > 0) kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
    close(output);
    std::remove((std::string(folder) + "/zolserver.cfg").c_str());
    rmdir(folder);
  }

  // The port becomes the server's.
  int bind_any_port() {
    const int handle = bind_loopback(SOCK_DGRAM);
    port = ntohs(local_address(handle).sin_port);
    return handle;
  }

  void start(const std::string& config) {
    std::ofstream(std::string(folder) + "/zolserver.cfg") << config;
    int pipe_ends[2];
    ASSERT_EQ(pipe(pipe_ends), 0);
    pid = fork();
    if (pid == 0) {
      dup2(pipe_ends[1], STDOUT_FILENO);
      close_range(3, ~0U, 0);
      if (chdir(folder) == 0) execl(ZOLSERVER, "zolserver", nullptr);
      _exit(99);
    }
    close(pipe_ends[1]);
    output = pipe_ends[0];
  }

  void start_and_wait(const std::string& settings = "") {
    const std::string text = std::to_string(port);
    start("Port=" + text + "\n" + settings);
    ASSERT_EQ(read_to(RULE), "ZOL Server 0.4 ONLINE [Port: " + text + "]!!!\n" + RULE);
  }

  // What the server prints up to and including this text, or to its end.
  std::string read_to(const std::string& last) {
    std::string all;
    char c;
    while (!all.ends_with(last) && readable(output) && read(output, &c, 1) == 1) all += c;
    return all;
  }

  int exit_status() {
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    pid = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

  // A player in the game, on a socket of its own.
  int enter_game() {
    const int player = bind_loopback(SOCK_DGRAM);
    sockaddr_in server = local_address(player);
    server.sin_port = htons(port);
    EXPECT_EQ(connect(player, reinterpret_cast<sockaddr*>(&server), sizeof server), 0);
    say(player, bytes_of("0a \"Bob\" ..66 28 00"));
    EXPECT_EQ(heard(player)[0], 17);
    say(player, bytes_of("0f ..100"));
    const Bytes reply = heard(player);
    EXPECT_EQ(reply[0] + reply[2], 16) << "hour 0";
    EXPECT_LT(reply[3], 20) << "minute of a server that has just started";
    return player;
  }

  static void say(int player, const Bytes& bytes) {
    EXPECT_EQ(send(player, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }

  // The next datagram but for pings; one zero byte when none comes.
  static Bytes heard(int player) {
    Bytes bytes(300);
    do {
      const ssize_t size = readable(player) ? recv(player, bytes.data(), bytes.size(), 0) : -1;
      if (size < 0) return {0};
      bytes.resize(static_cast<std::size_t>(size));
    } while (bytes == Bytes{1});
    return bytes;
  }

  char folder[32] = "/tmp/zol_process_XXXXXX";
  std::uint16_t port = 0;
  pid_t pid = 0;
  int output = -1;
};

TEST_F(ProcessTest, EachStopSignalEndsItInOrder) {
  for (const int signal : {SIGINT, SIGHUP, SIGTERM}) {
    start_and_wait();
    const int player = enter_game();
    EXPECT_EQ(read_to("\n"), "Bob, Player [0] Connected!\n");
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task/*/comm";
    const std::string look = "for i in $(seq 200); do grep -qs zol-ping " + tasks;
    EXPECT_EQ(std::system((look + " && exit; sleep 0.05; done; exit 1").c_str()), 0);
    kill(pid, signal);
    EXPECT_EQ(heard(player), Bytes{19});
    EXPECT_EQ(read_to("none"), "Exitting...\n");
    EXPECT_EQ(exit_status(), 1);
    close(player);
    close(output);
  }
}

// The tests of the game set every global before they begin; here all are as the program has them.
TEST_F(ProcessTest, BeginsWithoutAPinkPanther) {
  start_and_wait("GameType=1\n");
  const int first = enter_game();
  EXPECT_EQ(read_to("\n"), "Bob, Player [0] Connected!\n");
  const int second = enter_game();
  EXPECT_EQ(read_to("now \n"), "Bob, Player [1] Connected!\nPlayer [0] is the PinkPanther now \n");
  EXPECT_EQ(heard(second)[0], 42);
  EXPECT_EQ(heard(second), (Bytes{209, 100}));
  EXPECT_EQ(heard(second), (Bytes{209, 0}));
  EXPECT_EQ(heard(first)[0], 42);
  close(first), close(second);
}

TEST_F(ProcessTest, KeepsNoDescriptorButItsSocket) {
  const auto descriptors = [this] {
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd");
    return std::distance(begin(all), end(all));
  };
  start_and_wait();
  const auto before = descriptors();
  for (int i = 0; i < 50; ++i) {
    const int player = enter_game();
    say(player, {60});
    close(player);
  }
  EXPECT_EQ(descriptors(), before);
  EXPECT_EQ(before, 4) << "the standard ones and the socket";
}

TEST_F(ProcessTest, SaysWhyItCannotStart) {
  const int taken = bind_any_port();
  for (const auto& [text, reason] : {std::pair{std::to_string(port), "7"}, {"65536", "3"}}) {
    start("Port=" + text + "\n");
    EXPECT_EQ(read_to("none"), std::string("error building socket: error num: ") + reason + "\n");
    EXPECT_EQ(exit_status(), 1);
    close(output);
  }
  close(taken);
}

TEST_F(ProcessTest, StopsUnderFullLoad) {
  start_and_wait();
  const int player = enter_game();
  const int witness = enter_game();
  EXPECT_EQ(read_to("[1] Connected!\n"),
            "Bob, Player [0] Connected!\nBob, Player [1] Connected!\n");
  EXPECT_EQ(heard(witness)[0], 42);
  std::atomic<bool> done = false;
  std::thread flood([&] {
    const Bytes update = bytes_of("64 ..16");
    while (!done) (void)send(player, update.data(), update.size(), 0);
  });
  EXPECT_EQ(heard(witness)[0], 200) << "the flood is being handled";
  kill(pid, SIGTERM);
  EXPECT_EQ(read_to("none"), "Exitting...\n");
  EXPECT_EQ(exit_status(), 1);
  done = true;
  flood.join();
}

TEST_F(ProcessTest, LivesOnWithoutAReaderAndCostsNothingWhenIdle) {
  start_and_wait();
  const int player = enter_game();
  close(output);
  output = -1;
  for (int i = 0; i < 100; ++i) say(player, {200, 0});
  say(player, bytes_of("0f ..100"));
  EXPECT_EQ(heard(player)[0], 16);

  // Nanoseconds that the main thread has run. It is back in its wait when they stand still.
  const auto ran = [this] {
    std::string ns;
    std::ifstream("/proc/" + std::to_string(pid) + "/schedstat") >> ns;
    return ns;
  };
  std::string before;
  do {
    before = ran();
    usleep(100'000);
  } while (before != ran());
  usleep(300'000);
  EXPECT_EQ(ran(), before);
  EXPECT_NE(before, "");
}

}  // namespace
