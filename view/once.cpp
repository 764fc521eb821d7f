#include "view/once.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#include "client/client_session.h"
#include "client/monotonic.h"
#include "client/server_connection.h"
#include "client/stop_signals.h"
#include "text/names.h"

// The network loses datagrams. So the join is tried up to JOIN_TRIES times, and the questions are
// repeated until QUIET_ROUNDS rounds in a row have found no new player.
static constexpr int JOIN_TRIES = 4;
static constexpr int QUIET_ROUNDS = 3;
static constexpr std::uint64_t JOIN_WAIT_MS = 1'000;
// The wait for answers is a multiple of the round trip, at least this long.
static constexpr std::uint64_t MIN_SILENCE_MS = 200;
static constexpr std::uint64_t SILENCE_FACTOR = 4;
static constexpr std::uint64_t ASKING_MS = 10'000;  // then it shows the players that it knows

struct Query {
  int socket = -1;
  ClientSession session;
  int stop_signals = -1;
  int signal = 0;  // the signal that ended the query; 0: none
};

static bool is_waiting(const ClientSession& session) {
  return session.state == SessionState::JOINING && session.refusal[0] == '\0';
}

// Handles datagrams until none has arrived for silence_ms or until end_ms; during a join, only
// until its answer. False when the port is closed or a signal has arrived: that ends the query.
static bool receive_answers(Query& query, std::uint64_t silence_ms, std::uint64_t end_ms) {
  ClientSession& session = query.session;
  const bool is_joining = is_waiting(session);
  pollfd waits[] = {{.fd = query.stop_signals, .events = POLLIN, .revents = 0},
                    {.fd = query.socket, .events = POLLIN, .revents = 0}};
  const int silence = static_cast<int>(silence_ms);
  while (monotonic_ms() < end_ms && poll(waits, std::size(waits), silence) > 0) {
    query.signal = take_stop_signal(query.stop_signals);
    if (query.signal != 0) return false;
    static Batch batch;
    receive_batch(query.socket, batch);
    if (batch.count == 0) return false;
    for (std::size_t i = 0; i < batch.count; ++i)
      session_hear(session, batch.datagrams[i], monotonic_ms());
    if (is_joining && !is_waiting(session)) return true;
  }
  return true;
}

// Returns the round trip in milliseconds.
static std::uint64_t join(Query& query) {
  ClientSession& session = query.session;
  std::uint64_t sent_ms = 0;
  for (int i = 0; i < JOIN_TRIES && is_waiting(session); ++i) {
    session.due_ms = sent_ms = monotonic_ms();
    session_step(session, sent_ms);
    send_outbox(query.socket, session.outbox);
    if (!receive_answers(query, JOIN_WAIT_MS, sent_ms + JOIN_WAIT_MS)) break;
  }
  return monotonic_ms() - sent_ms;
}

static std::ptrdiff_t count_known_players(const GamePicture& picture) {
  return std::ranges::count_if(picture.players, &PlayerPicture::has_record);
}

static void query_all_slots(Query& query, std::uint64_t silence_ms) {
  const ClientSession& session = query.session;
  const GamePicture& picture = session.picture;
  const std::uint64_t end_ms = monotonic_ms() + ASKING_MS;
  int quiet_rounds = 0;
  while (quiet_rounds < QUIET_ROUNDS && monotonic_ms() < end_ms && query.signal == 0) {
    const std::ptrdiff_t count_before = count_known_players(picture);
    for (Slot slot = 0; slot < MAX_CLIENTS; ++slot) {
      if (picture.players[slot].has_record || slot == picture.own_slot) continue;
      send_datagram(query.socket, GetPlayerInfo{.slot = slot});
    }
    receive_answers(query, silence_ms, end_ms);
    quiet_rounds = count_known_players(picture) > count_before ? 0 : quiet_rounds + 1;
  }
}

static std::string number_text(FloatBits bits) {
  const auto number = std::bit_cast<float>(bits);
  if (!std::isfinite(number)) return "null";  // JSON has no other value for it
  char text[32];
  std::snprintf(text, sizeof text, "%.9g", static_cast<double>(number));
  return text;
}

static std::string json_of_player(Slot slot, const PlayerPicture& player) {
  std::string text = "{\"slot\":" + std::to_string(slot);
  text += ",\"name\":" + json_string(player.name.data()) + ",\"position\":[";
  for (std::size_t i = 0; i < player.state.position.size(); ++i) {
    if (i > 0) text += ',';
    text += number_text(player.state.position[i]);
  }
  text += "],\"car_type\":";
  text += player.in_car ? std::to_string(player.car.car_type) : "null";
  return text + ",\"weapon\":" + std::to_string(player.state.state_b) + "}";
}

static void print_json(const GamePicture& picture) {
  std::string players;
  for (Slot slot = 0; slot < MAX_CLIENTS; ++slot) {
    const PlayerPicture& player = picture.players[slot];
    if (!player.has_record) continue;
    if (!players.empty()) players += ',';
    players += json_of_player(slot, player);
  }
  std::printf("{\"welcome\":%s,\"game_type\":%d,\"players\":[%s]}\n",
              json_string(picture.welcome.data()).c_str(), picture.game_type, players.c_str());
}

static void print_table(const GamePicture& picture) {
  std::string lines;
  int count = 0;
  for (Slot slot = 0; slot < MAX_CLIENTS; ++slot) {
    const PlayerPicture& player = picture.players[slot];
    if (!player.has_record) continue;
    ++count;
    const std::string ride =
        player.in_car ? "car " + std::to_string(player.car.car_type) : "on foot";
    char line[64];
    std::snprintf(line, sizeof line, "%2u  %-8s weapon %-3u  ", unsigned{slot}, ride.c_str(),
                  unsigned{player.state.state_b});
    lines += line + printable(player.name.data(), NAME_WIDTH - 1) + "\n";
  }
  std::printf("%s, %s, %d %s\n%s", printable(picture.welcome.data()).c_str(),
              game_type_name(picture.game_type), count, count == 1 ? "player" : "players",
              lines.c_str());
}

static constexpr const char* ADVICE =
    ": check the address, the server, and whether firewalls and routers let UDP through";

static int print_error(const char* problem, const std::string& detail, int status) {
  std::fprintf(stderr, "zolview: %s%s\n", problem, detail.c_str());
  return status;
}

int show_once(const ViewOptions& options, int stop_signals) {
  Query query;
  query.socket = open_client_socket(options.server);
  query.stop_signals = stop_signals;
  ClientSession& session = query.session;
  if (query.socket == -1) {
    return print_error("cannot send to ",
                       std::string(options.server_text) + ": " + std::strerror(errno), 1);
  }
  std::copy(options.name.begin(), options.name.end(), session.name.begin());
  const std::uint64_t round_trip_ms = join(query);
  const bool has_joined = session.state != SessionState::JOINING;
  if (has_joined) {
    query_all_slots(query,
                    std::clamp(SILENCE_FACTOR * round_trip_ms, MIN_SILENCE_MS, JOIN_WAIT_MS));
  }
  session_leave(session);  // even without an answer, because it may be lost
  send_outbox(query.socket, session.outbox);
  close(query.socket);
  if (query.signal != 0) return 128 + query.signal;
  if (session.refusal[0] != '\0')
    return print_error("the server refused: ", printable(session.refusal.data()), 3);
  if (!has_joined)
    return print_error("no server answers at ", options.server_text + std::string(ADVICE), 1);
  options.json ? print_json(session.picture) : print_table(session.picture);
  return 0;
}
