// The announcer against a master server that plays its part inside the waits of the server, so that
// neither side ever waits for the other.

#include <deque>

#include "announce/announce_thread.h"
#include "announce/master_requests.h"
#include "announce/master_server.h"
#include "net/sflsock.h"
#include "net/socket_layer_state.h"
#include "tests/game.h"
#include "tests/loopback.h"

static char service_text[8];
static char host_text[64];
const char* const MASTER_HOST = host_text;
const char* const MASTER_SERVICE = service_text;

namespace {

// What the master server does with a connection: wait for so many of the server's pauses, send
// these pieces one a pause, then close; or close at once with a reset.
struct Script {
  std::vector<std::string> pieces;
  int pauses = 0;
  bool reset = false;
};

class AnnounceTest : public GameTest {
 public:
  AnnounceTest() {
    master = this;
    on_sleep = [] {
      const int allocated = allocations;
      master->take_part();
      allocations = allocated;  // the master server's own do not count
    };
    listener = bind_loopback(SOCK_STREAM | SOCK_NONBLOCK);
    EXPECT_EQ(listen(listener, 8), 0);
    const sockaddr_in address = local_address(listener);
    std::snprintf(service_text, sizeof service_text, "%d", ntohs(address.sin_port));
    std::snprintf(host_text, sizeof host_text, "127.0.0.1");
    std::snprintf(server_config.ServerName, sizeof server_config.ServerName, "A b  &=%%s");
    std::snprintf(server_config.Port, sizeof server_config.Port, "+7x");
  }

  ~AnnounceTest() override {
    on_sleep = nullptr;
    hang_up();
    close(listener);
    socket_layer_state.open_sockets = 0;
  }

  void hang_up() {
    if (connection != -1) close(connection);
    connection = -1;
  }

  void take_part() {
    ++fake_now_ms;
    if (connection == -1 && !scripts.empty()) connection = accept(listener, nullptr, nullptr);
    if (connection == -1) return;
    Script& script = scripts.front();
    char buffer[2048];
    const ssize_t size = recv(connection, buffer, sizeof buffer, MSG_DONTWAIT);
    if (size > 0) request.append(buffer, static_cast<std::size_t>(size));
    if (script.pauses-- > 0) return;
    if (script.reset) {
      const linger now{.l_onoff = 1, .l_linger = 0};
      setsockopt(connection, SOL_SOCKET, SO_LINGER, &now, sizeof now);
      script.pieces.clear();
    }
    if (!script.pieces.empty()) {
      const std::string piece = script.pieces.front();
      script.pieces.erase(script.pieces.begin());
      EXPECT_EQ(send(connection, piece.data(), piece.size(), MSG_NOSIGNAL),
                static_cast<ssize_t>(piece.size()));
      return;
    }
    hang_up();
    scripts.pop_front();
  }

  // One call of the announcer; what it printed.
  template <typename Call>
  std::string during(const Script& script, Call call) {
    hang_up();
    scripts = {script};
    request.clear();
    slept_us = 0;
    testing::internal::CaptureStdout();
    const int allocated = allocations;
    call();
    EXPECT_EQ(allocations, allocated);
    return testing::internal::GetCapturedStdout();
  }

  static AnnounceTest* master;
  int listener = -1;
  int connection = -1;
  std::deque<Script> scripts;
  std::string request;
};

AnnounceTest* AnnounceTest::master = nullptr;

void seat(std::size_t slot, SeatState state) {
  player_table[slot].seat = Seat{state};
}

const std::string NO_CONNECTION = "Could not connect to zol master server!\n";
const std::string REFUSED =
    "Could not announce server at the zol master server - Check your config...\n";
const std::string HEAD = "HTTP/1.1 200 OK\r\n\r\n";
const std::string MARK = "  \r\n";
constexpr std::uint64_t BUDGET_US = 10'000'000;

Script verdict(const std::string& byte) {
  return {.pieces = {HEAD + MARK + byte + "\n"}};
}

std::string requested(const std::string& first_line) {
  return first_line +
         " HTTP/1.1\nHost: 127.0.0.1\nUser-Agent: ZOL/0.1 (127.0.0.1)\n"
         "Accept: */*;q=0.1\nAccept-Charset: *;q=0.7\nKeep-Alive: 300\n"
         "Connection: keep-alive\n\n";
}

TEST_F(AnnounceTest, RequestsAreExact) {
  server_config.GameType = 1;
  server_config.maxClients = 19;
  seat(0, SeatState::JOINED);
  seat(3, SeatState::IN_GAME);
  seat(7, SeatState::LEAVING);
  seat(20, SeatState::JOINED);
  during(verdict("1"), [] { EXPECT_EQ(master_announce(), MASTER_RESULT_LISTED); });
  EXPECT_EQ(request, requested("GET /cgi-bin/zol.pl?name=A+b++&=%s&p=2&mp=19&gt=1&port=+7x&v=40"
                               "&os=lin"));
  EXPECT_EQ(during(verdict("0"), master_remove_server),
            "Removing server from master list: success\n");
  EXPECT_EQ(request, requested("GET /cgi-bin/zol.pl?name=A+b++&=%s&p=0&mp=19&gt=1&port=+7x&v=40"
                               "&disconnect=1"));
  EXPECT_EQ(socket_layer_state.open_sockets, 0);
}

TEST_F(AnnounceTest, JudgesTheFirstReadAlone) {
  const std::string long_head(512, 'x');
  struct Case {
    Script script;
    int result;
    std::uint64_t slept;  // at least
    int left_open;
  };
  const Case cases[] = {
      {verdict("0"), 0, 0, 0},
      {verdict("2"), 2, 0, 0},
      {verdict("A"), 17, 0, 0},
      {verdict("\xFF"), static_cast<std::int8_t>(0xFF - '0'), 0, 0},
      {{.pieces = {MARK + "1" + MARK + "2"}}, 1, 0, 0},
      {{.pieces = {HEAD + MARK}}, -'0', 0, 0},
      {{.pieces = {HEAD + "1"}}, -1, 0, 0},
      {{.pieces = {HEAD + "  \r", "\n1"}}, -1, 0, 0},
      {{.pieces = {long_head.substr(4) + MARK + "1"}}, -'0', 0, 0},
      {{.pieces = {long_head + MARK + "1"}}, -1, 0, 0},
      {{.pieces = {}}, -1, 0, 0},
      {{.pieces = {verdict("1").pieces[0]}, .pauses = 998}, 1, BUDGET_US - 10'000, 0},
      {{.pieces = {verdict("1").pieces[0]}, .pauses = 999}, -1, BUDGET_US, 1},
      {{.pieces = {}, .pauses = 5000}, -1, BUDGET_US, 1},
      {{.pieces = {}, .pauses = 0, .reset = true}, -1, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    const std::string printed = during(c.script, [&c] { EXPECT_EQ(master_announce(), c.result); });
    EXPECT_EQ(printed, c.result == -1 ? NO_CONNECTION : "");
    EXPECT_GE(slept_us, c.slept);
    EXPECT_LE(slept_us, BUDGET_US);
    EXPECT_EQ(socket_layer_state.open_sockets, c.left_open);
    socket_layer_state.open_sockets = 0;
  }
  EXPECT_EQ(during({.pieces = {}, .pauses = 5000}, master_remove_server),
            "Removing server from master list: " + NO_CONNECTION);
}

TEST_F(AnnounceTest, SurvivesAMasterServerThatIsNotThere) {
  close(listener);
  EXPECT_EQ(during({}, [] { EXPECT_EQ(master_announce(), -1); }), NO_CONNECTION);
  std::snprintf(host_text, sizeof host_text, "no such host");
  EXPECT_EQ(during({}, [] { EXPECT_EQ(master_announce(), -1); }), NO_CONNECTION);
}

TEST_F(AnnounceTest, TheFirstAnnounceDecidesWhetherThereAreOthers) {
  const std::string start = "Announcing server at the zol master server...\n";
  struct Case {
    Script script;
    std::string printed;
    std::uint8_t goes_on, game_type;
  };
  for (const Case& c : {
           Case{verdict("1"), "This server is now listed on the zol server list\n", 1, 1},
           Case{verdict("2"), "This server was updated on the zol server list\n", 1, 1},
           Case{verdict("7"), "", 1, 1},
           Case{verdict("7"), "", 1, 0},
           Case{verdict("0"), REFUSED, 0, 1},
           Case{{.pieces = {HEAD}}, NO_CONNECTION, 0, 1},
       }) {
    server_config.GameType = c.game_type;
    player_table[1].is_pinkpanther = player_table[16].is_pinkpanther = 1;
    seat(1, SeatState::JOINED);
    pinkpanther_reselect = 1 - c.game_type;
    fake_now_ms = 4000;
    AnnounceState state;
    EXPECT_EQ(during(c.script, [&] { EXPECT_EQ(announce_first(state), c.goes_on); }),
              start + c.printed);
    EXPECT_EQ(state.last_announce_ms, 4000U);
    EXPECT_EQ(state.previous_count, c.goes_on);
    EXPECT_EQ(pinkpanther_reselect, c.goes_on & c.game_type);
    EXPECT_EQ(player_table[1].is_pinkpanther, 1 - c.goes_on);
    EXPECT_EQ(player_table[16].is_pinkpanther, 1) << "not given to players";
  }
}

TEST_F(AnnounceTest, AnnouncesAgainOnAChangeOrAfterFiveMinutes) {
  AnnounceState state{.last_announce_ms = 0xFFFFFF00, .previous_count = 0};
  struct Case {
    std::uint32_t now;
    std::uint8_t slot_0;
    Script script;
    bool announces;
    std::string printed;
  };
  for (const Case& c : {
           Case{0xFFFFFF00 + 299'999, 0, verdict("1"), false, ""},
           Case{0xFFFFFF00 + 300'000, 0, verdict("1"), true, ""},
           Case{0xFFFFFF00 + 305'000, 0, verdict("1"), false, ""},
           Case{0xFFFFFF00 + 310'000, 1, verdict("0"), true, REFUSED},
           Case{0xFFFFFF00 + 315'000, 1, verdict("1"), false, ""},
           Case{0xFFFFFF00 + 609'999, 1, verdict("1"), false, ""},
           Case{0xFFFFFF00 + 610'000, 1, {.pieces = {HEAD}}, true, NO_CONNECTION},
           Case{0xFFFFFF00 + 615'000, 0, verdict("2"), true, ""},
           Case{0xFFFFFF00 + 914'999, 0, verdict("2"), false, ""},
           Case{0xFFFFFF00 + 915'000, 0, verdict("2"), true, ""},
       }) {
    fake_now_ms = c.now;
    seat(0, c.slot_0 != 0 ? SeatState::JOINED : SeatState::FREE);
    EXPECT_EQ(during(c.script, [&] { announce_check(state); }), c.printed) << c.now;
    EXPECT_EQ(!request.empty(), c.announces) << c.now;
  }
}

TEST_F(AnnounceTest, TheThreadAnnouncesThenChecksEveryFiveSeconds) {
  scripts = {verdict("1"), verdict("2"), verdict("2")};
  on_sleep = [] {
    master->take_part();
    if (slept_us >= 5'000'000) seat(0, SeatState::JOINED);  // between two checks
    if (slept_us >= 5'020'000) seat(1, SeatState::JOINED);  // during the announce of that
    if (slept_us >= 15'000'000) throw slept_us.load();
  };
  testing::internal::CaptureStdout();
  EXPECT_THROW(announce_thread(nullptr), std::uint64_t);
  testing::internal::GetCapturedStdout();
  EXPECT_LT(slept_us, 15'100'000U) << "three checks, and the pauses of two announces";
  EXPECT_TRUE(scripts.empty());
}

TEST_F(AnnounceTest, WritingToAConnectionThatWasResetIsAnErrorAndNoSignal) {
  const int handle = tcp_connect("", service_text);
  scripts = {{.pieces = {}, .reset = true}};
  take_part();
  for (int i = 0; i < 2; ++i) EXPECT_EQ(tcp_write(handle, "x", 1), -1);
  socket_close(handle);
}

}  // namespace
