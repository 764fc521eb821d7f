// Clients of the library in client/ on a network that loses, repeats and delays datagrams. Each
// client is judged. Prints every mistake, and exits with status 1 if there is one.
//
//   lossy_crowd SCENARIO HOST:PORT SEED
//
//   play     32 clients play, then rest: is each picture correct?
//   forget   the same without repeats of the own state: some pictures must be wrong
//   silence  32 clients: does one of them think that the server has stopped?
//   alone    the same for one client that only watches: it receives little but pings
//   full     6 clients, 4 slots: do 4 play all the time?

#include <poll.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "client/client_session.h"
#include "client/monotonic.h"
#include "client/reports.h"
#include "client/server_connection.h"

using namespace zol;

namespace {

constexpr std::uint64_t ACT_MS = 100;
constexpr int POLL_MS = 5;
constexpr unsigned MIN_DELAY_MS = 20;  // of a datagram that later ones overtake
constexpr unsigned MAX_DELAY_MS = 250;

struct Scenario {
  const char* name;
  unsigned clients;
  unsigned loss, repeats, delays;  // percent of the datagrams, in each direction
  std::uint64_t play_ms, rest_ms;
  bool judges_presence;  // too few players count as a fault
};
constexpr Scenario SCENARIOS[] = {{"play", 32, 10, 10, 10, 30'000, 15'000, true},
                                  {"forget", 32, 10, 10, 10, 30'000, 15'000, true},
                                  {"silence", 32, 30, 0, 0, 75'000, 0, false},
                                  {"alone", 1, 30, 0, 0, 75'000, 0, false},
                                  {"full", 6, 10, 10, 10, 60'000, 0, true}};
constexpr unsigned SLOTS_OF_FULL = 4;
// The game begins once there are players in all slots: on a full server a lost answer costs its
// client several waits. If some never get in, it begins without them.
constexpr std::uint64_t MAX_ENTERING_MS = 90'000;
// A join that the network repeats may still move its client, which then asks, enters again, and may
// lose these datagrams, too.
constexpr std::uint64_t SETTLE_MS = 10'000;

struct DelayedDatagram {
  std::uint64_t due_ms = 0;
  std::vector<std::uint8_t> bytes;
};

struct Client {
  int socket = -1;
  ClientSession session;
  std::vector<DelayedDatagram> on_their_way[2];  // to the server, from the server
  std::uint64_t act_due_ms = 0;
};

struct Result {
  unsigned forgotten = 0;
  unsigned too_few = 0;  // checks with fewer players than there was room for
};

std::mt19937 generator;

unsigned below(unsigned limit) {
  return std::uniform_int_distribution<unsigned>(0, limit - 1)(generator);
}

// Delivers what arrives now: delayed datagrams that are due, and the copies of the new datagram
// that the network makes.
template <typename Deliver>
void deliver_delayed(std::vector<DelayedDatagram>& delayed, std::uint64_t now_ms, Deliver deliver) {
  for (std::size_t i = 0; i < delayed.size();) {
    if (delayed[i].due_ms > now_ms) {
      ++i;
      continue;
    }
    deliver(Datagram(delayed[i].bytes));
    delayed[i] = delayed.back();
    delayed.pop_back();
  }
}

template <typename Deliver>
void pass_through(const Scenario& scenario, std::vector<DelayedDatagram>& delayed,
                  Datagram datagram, std::uint64_t now_ms, Deliver deliver) {
  const unsigned copies = below(100) < scenario.repeats ? 2 : 1;
  for (unsigned i = 0; i < copies; ++i) {
    if (below(100) < scenario.loss) continue;
    const bool is_late = i > 0 || below(100) < scenario.delays;
    if (!is_late) {
      deliver(datagram);
      continue;
    }
    const std::uint64_t due_ms = now_ms + MIN_DELAY_MS + below(MAX_DELAY_MS - MIN_DELAY_MS);
    delayed.push_back({due_ms, {datagram.begin(), datagram.end()}});
  }
}

FloatBits any_float() {
  return static_cast<FloatBits>(generator());
}

CarState any_car() {
  CarState car;
  car.car_type = static_cast<std::uint8_t>(below(256));
  car.car_color1 = static_cast<std::uint8_t>(below(256));
  car.car_color2 = static_cast<std::uint8_t>(below(256));
  for (std::uint8_t& byte : car.car_block_a) byte = static_cast<std::uint8_t>(below(256));
  for (std::uint8_t& byte : car.car_block_b) byte = static_cast<std::uint8_t>(below(256));
  car.car_byte = static_cast<std::uint8_t>(below(256));
  car.car_float = any_float();
  return car;
}

void act_in_car(ClientSession& session, const Position& place) {
  const CarState car = any_car();
  switch (below(8)) {
    case 0:
      return report_got_out(session, place);
    case 1:
      return report_left_car(session);
    case 2:
      return report_got_in(session, place, car);
    case 3:
      return report_car_block_a(session, car.car_block_a);
    case 4:
      return report_car_block_b(session, car.car_block_b);
    case 5:
      return report_car_status(session, car.car_byte, car.car_float);
    default:
      return report_position(session, place);
  }
}

void act(ClientSession& session) {
  const Position place = {any_float(), any_float(), any_float()};
  const unsigned choice = below(100);
  if (choice < 3) return report_weapon(session, static_cast<std::uint8_t>(below(256)));
  if (choice < 10) return report_state_floats(session, any_float(), any_float());
  if (choice < 11) {
    const int deaths = session.own.death_count.value_or(0) + 1;
    return report_death(session, static_cast<std::uint8_t>(deaths));
  }
  if (choice < 20 && session.own.in_car) return act_in_car(session, place);
  if (choice < 15) return report_got_in(session, place, any_car());
  if (choice < 20) return report_on_foot(session, any_float());
  report_position(session, place);
}

void step(const Scenario& scenario, Client& client, bool may_act, Result& result) {
  const std::uint64_t now_ms = monotonic_ms();
  ClientSession& session = client.session;
  const auto handle_datagram = [&](Datagram datagram) { session_hear(session, datagram, now_ms); };
  static Batch batch;
  receive_batch(client.socket, batch);
  for (std::size_t i = 0; i < batch.count; ++i) {
    pass_through(scenario, client.on_their_way[1], batch.datagrams[i], now_ms, handle_datagram);
  }
  deliver_delayed(client.on_their_way[1], now_ms, handle_datagram);
  if (session_step(session, now_ms) == SessionEvent::FORGOTTEN) ++result.forgotten;
  const bool is_watching = scenario.clients == 1;
  if (may_act && !is_watching && session.state == SessionState::PLAYING &&
      now_ms >= client.act_due_ms) {
    client.act_due_ms = now_ms + ACT_MS;
    act(session);
  }
  if (std::strcmp(scenario.name, "forget") == 0) session.own.has_reported = false;
  const auto send = [&](Datagram datagram) { send_datagram(client.socket, datagram); };
  for (Datagram datagram = outbox_take(session.outbox); !datagram.empty();
       datagram = outbox_take(session.outbox)) {
    pass_through(scenario, client.on_their_way[0], datagram, now_ms, send);
  }
  deliver_delayed(client.on_their_way[0], now_ms, send);
}

unsigned count_playing(const std::vector<Client>& clients) {
  return static_cast<unsigned>(std::ranges::count_if(
      clients, [](const Client& client) { return client.session.state == SessionState::PLAYING; }));
}

template <typename Field>
std::string difference(const char* name, const Field& seen, const Field& meant) {
  return seen == meant ? "" : std::string(" ") + name;
}

// The names of the wrong fields in the picture of a player.
std::string wrong_in(const PlayerPicture& seen, const ClientSession& meant) {
  if (!seen.has_record) return " unknown";
  const OwnPlayer& own = meant.own;
  std::string text = difference("name", seen.name, meant.name);
  text += difference("position", seen.state.position, own.state.position);
  text += difference("weapon", seen.state.state_b, own.state.state_b);
  // A driver cannot repeat it: CMD_FOOT_UPDATE would end the ride.
  if (!own.in_car) text += difference("float1", seen.state.state_f1, own.state.state_f1);
  text += difference("float2", seen.state.state_f2, own.state.state_f2);
  text += difference("float3", seen.state.state_f3, own.state.state_f3);
  text += difference("in_car", seen.in_car, own.in_car);
  text += difference("deaths", seen.death_count.value_or(0), own.death_count.value_or(0));
  const bool is_same_car = std::memcmp(&seen.car, &own.car, sizeof own.car) == 0;
  return seen.in_car && own.in_car && !is_same_car ? text + " car" : text;
}

// Returns the number of wrong pictures.
unsigned judge_pictures(const std::vector<Client>& clients) {
  unsigned wrong = 0;
  for (const Client& viewer : clients) {
    for (const Client& player : clients) {
      if (&viewer == &player) continue;
      const Slot slot = player.session.picture.own_slot;
      const bool is_slot = slot < MAX_CLIENTS;
      const std::string fields =
          is_slot ? wrong_in(viewer.session.picture.players[slot], player.session) : " no slot";
      if (fields.empty()) continue;
      ++wrong;
      std::printf("wrong: %s sees %s:%s\n", viewer.session.name.data(), player.session.name.data(),
                  fields.c_str());
    }
  }
  return wrong;
}

Result run(const Scenario& scenario, std::vector<Client>& clients) {
  Result result;
  std::vector<pollfd> waits;
  waits.reserve(clients.size());
  for (Client& client : clients) waits.push_back({client.socket, POLLIN, 0});
  const unsigned room = std::strcmp(scenario.name, "full") == 0 ? SLOTS_OF_FULL : scenario.clients;
  const std::uint64_t first_ms = monotonic_ms();
  std::uint64_t start_ms = 0;  // of the game
  for (std::uint64_t passed_ms = 0; passed_ms < scenario.play_ms + scenario.rest_ms;) {
    poll(waits.data(), waits.size(), POLL_MS);
    const bool is_played = start_ms != 0 && passed_ms < scenario.play_ms;
    for (Client& client : clients) step(scenario, client, is_played, result);
    const bool is_complete = count_playing(clients) >= room;
    const std::uint64_t now_ms = monotonic_ms();
    const bool may_wait = scenario.judges_presence && now_ms - first_ms < MAX_ENTERING_MS;
    const bool begins = is_complete || !may_wait;
    if (start_ms == 0 && begins) start_ms = now_ms;
    passed_ms = start_ms == 0 ? 0 : now_ms - start_ms;
    if (scenario.judges_presence && passed_ms > SETTLE_MS && !is_complete) ++result.too_few;
  }
  return result;
}

}  // namespace

int main(int count, char** arguments) {
  sockaddr_in server{};
  std::string error_text;
  const auto* scenario = std::ranges::find_if(SCENARIOS, [&](const Scenario& each) {
    return count == 4 && std::string_view(each.name) == arguments[1];
  });
  if (scenario == std::end(SCENARIOS) || !resolve_server(arguments[2], server, error_text)) {
    return std::fputs("usage: lossy_crowd SCENARIO HOST:PORT SEED\n", stderr), 2;
  }
  generator.seed(static_cast<unsigned>(std::atoi(arguments[3])));
  std::vector<Client> clients(scenario->clients);
  for (unsigned i = 0; i < clients.size(); ++i) {
    clients[i].socket = open_client_socket(server);
    std::snprintf(clients[i].session.name.data(), NAME_WIDTH, "Client %u", i);
  }
  const Result result = run(*scenario, clients);
  const unsigned pairs = scenario->clients * (scenario->clients - 1);
  const bool is_judged = scenario->rest_ms > 0;
  const unsigned wrong = is_judged ? judge_pictures(clients) : 0;
  if (is_judged) std::printf("%u of %u pictures right; ", pairs - wrong, pairs);
  std::printf("%u joined again for silence, %u looks saw too few players\n", result.forgotten,
              result.too_few);
  return wrong + result.forgotten + result.too_few > 0 ? 1 : 0;
}
