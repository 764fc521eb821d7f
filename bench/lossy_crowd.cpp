// Clients of the library in client/, on a network that loses, repeats and delays datagrams. Prints
// every fault of a client. Exit status: 0 without a fault, 1 with a fault, 2 for bad arguments.
//
//   lossy_crowd SCENARIO HOST:PORT SEED
//
//   play     32 clients play, then pause: is each picture correct?
//   forget   the same without repeats of the own state: some pictures must be wrong
//   silence  32 clients: does one of them report FORGOTTEN, although the server runs?
//   alone    the same for one client that only watches: it receives hardly more than pings
//   full     6 clients, 4 slots: are 4 clients PLAYING all the time?

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
constexpr unsigned MIN_DELAY_MS = 20;  // of a delayed datagram
constexpr unsigned MAX_DELAY_MS = 250;

struct Scenario {
  const char* name;
  unsigned clients;
  unsigned loss, repeats, delays;  // percent of the datagrams, in each direction
  std::uint64_t play_ms, pause_ms;
  bool requires_players;  // too few playing clients are a fault
};
constexpr Scenario SCENARIOS[] = {{"play", 32, 10, 10, 10, 30'000, 15'000, true},
                                  {"forget", 32, 10, 10, 10, 30'000, 15'000, true},
                                  {"silence", 32, 30, 0, 0, 75'000, 0, false},
                                  {"alone", 1, 30, 0, 0, 75'000, 0, false},
                                  {"full", 6, 10, 10, 10, 60'000, 0, true}};
constexpr unsigned SLOTS_OF_FULL = 4;
// The game begins when all slots have players, at the latest after this time: on a full server, a
// client needs several tries after a lost answer.
constexpr std::uint64_t MAX_ENTERING_MS = 90'000;
// After the begin, a repeated join may still move its client to another slot. The client then asks
// for its slot and enters again, and these datagrams may be lost, too.
constexpr std::uint64_t SETTLE_MS = 10'000;

struct DelayedDatagram {
  std::uint64_t due_ms = 0;
  std::vector<std::uint8_t> bytes;
};

struct Client {
  int socket = -1;
  ClientSession session;
  std::vector<DelayedDatagram> in_flight[2];  // [0] to the server, [1] from the server
  std::uint64_t act_due_ms = 0;
};

struct Result {
  unsigned forgotten = 0;
  unsigned too_few = 0;  // checks with fewer playing clients than slots
};

std::mt19937 generator;

unsigned random_below(unsigned limit) {
  return std::uniform_int_distribution<unsigned>(0, limit - 1)(generator);
}

// Delivers and removes the delayed datagrams that are due.
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

// A new datagram: drops, delivers or delays it and its copies, as the scenario says.
template <typename Deliver>
void pass_through(const Scenario& scenario, std::vector<DelayedDatagram>& delayed,
                  Datagram datagram, std::uint64_t now_ms, Deliver deliver) {
  const unsigned copies = random_below(100) < scenario.repeats ? 2 : 1;
  for (unsigned i = 0; i < copies; ++i) {
    if (random_below(100) < scenario.loss) continue;
    const bool is_late = i > 0 || random_below(100) < scenario.delays;
    if (!is_late) {
      deliver(datagram);
      continue;
    }
    const std::uint64_t due_ms = now_ms + MIN_DELAY_MS + random_below(MAX_DELAY_MS - MIN_DELAY_MS);
    delayed.push_back({due_ms, {datagram.begin(), datagram.end()}});
  }
}

FloatBits random_float() {
  return static_cast<FloatBits>(generator());
}

CarState random_car() {
  CarState car;
  car.car_type = static_cast<std::uint8_t>(random_below(256));
  car.car_color1 = static_cast<std::uint8_t>(random_below(256));
  car.car_color2 = static_cast<std::uint8_t>(random_below(256));
  for (std::uint8_t& byte : car.car_block_a) byte = static_cast<std::uint8_t>(random_below(256));
  for (std::uint8_t& byte : car.car_block_b) byte = static_cast<std::uint8_t>(random_below(256));
  car.car_byte = static_cast<std::uint8_t>(random_below(256));
  car.car_float = random_float();
  return car;
}

void act_in_car(ClientSession& session, const Position& place) {
  const CarState car = random_car();
  switch (random_below(8)) {
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
  const Position place = {random_float(), random_float(), random_float()};
  const unsigned choice = random_below(100);
  if (choice < 3) return report_weapon(session, static_cast<std::uint8_t>(random_below(256)));
  if (choice < 10) return report_state_floats(session, random_float(), random_float());
  if (choice < 11) {
    const int deaths = session.own.death_count.value_or(0) + 1;
    return report_death(session, static_cast<std::uint8_t>(deaths));
  }
  if (choice < 20 && session.own.in_car) return act_in_car(session, place);
  if (choice < 15) return report_got_in(session, place, random_car());
  if (choice < 20) return report_on_foot(session, random_float());
  report_position(session, place);
}

void step(const Scenario& scenario, Client& client, bool may_act, Result& result) {
  const std::uint64_t now_ms = monotonic_ms();
  ClientSession& session = client.session;
  const auto handle_datagram = [&](Datagram datagram) { session_hear(session, datagram, now_ms); };
  static Batch batch;
  receive_batch(client.socket, batch);
  for (std::size_t i = 0; i < batch.count; ++i) {
    pass_through(scenario, client.in_flight[1], batch.datagrams[i], now_ms, handle_datagram);
  }
  deliver_delayed(client.in_flight[1], now_ms, handle_datagram);
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
    pass_through(scenario, client.in_flight[0], datagram, now_ms, send);
  }
  deliver_delayed(client.in_flight[0], now_ms, send);
}

unsigned count_playing(const std::vector<Client>& clients) {
  return static_cast<unsigned>(std::ranges::count_if(
      clients, [](const Client& client) { return client.session.state == SessionState::PLAYING; }));
}

template <typename Field>
std::string difference(const char* name, const Field& actual, const Field& expected) {
  return actual == expected ? "" : std::string(" ") + name;
}

// The names of the wrong fields in the picture of a player.
std::string wrong_in(const PlayerPicture& actual, const ClientSession& expected) {
  if (!actual.has_record) return " unknown";
  const OwnPlayer& own = expected.own;
  std::string text = difference("name", actual.name, expected.name);
  text += difference("position", actual.state.position, own.state.position);
  text += difference("weapon", actual.state.state_b, own.state.state_b);
  // A client does not repeat state_f1 in a car, because CMD_FOOT_UPDATE would end the ride.
  if (!own.in_car) text += difference("float1", actual.state.state_f1, own.state.state_f1);
  text += difference("float2", actual.state.state_f2, own.state.state_f2);
  text += difference("float3", actual.state.state_f3, own.state.state_f3);
  text += difference("in_car", actual.in_car, own.in_car);
  text += difference("deaths", actual.death_count.value_or(0), own.death_count.value_or(0));
  const bool is_same_car = std::memcmp(&actual.car, &own.car, sizeof own.car) == 0;
  return actual.in_car && own.in_car && !is_same_car ? text + " car" : text;
}

// Returns the number of wrong pictures.
unsigned check_pictures(const std::vector<Client>& clients) {
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
  const unsigned player_limit =
      std::strcmp(scenario.name, "full") == 0 ? SLOTS_OF_FULL : scenario.clients;
  const std::uint64_t first_ms = monotonic_ms();
  std::uint64_t start_ms = 0;  // of the game; 0 before its start
  for (std::uint64_t passed_ms = 0; passed_ms < scenario.play_ms + scenario.pause_ms;) {
    poll(waits.data(), waits.size(), POLL_MS);
    const bool is_running = start_ms != 0 && passed_ms < scenario.play_ms;
    for (Client& client : clients) step(scenario, client, is_running, result);
    const bool is_complete = count_playing(clients) >= player_limit;
    const std::uint64_t now_ms = monotonic_ms();
    const bool may_wait = scenario.requires_players && now_ms - first_ms < MAX_ENTERING_MS;
    const bool begins = is_complete || !may_wait;
    if (start_ms == 0 && begins) start_ms = now_ms;
    passed_ms = start_ms == 0 ? 0 : now_ms - start_ms;
    if (scenario.requires_players && passed_ms > SETTLE_MS && !is_complete) ++result.too_few;
  }
  return result;
}

}  // namespace

int main(int count, char** arguments) {
  sockaddr_in server{};
  std::string error_text = "unknown scenario, or too few or too many arguments";
  const auto* scenario = std::ranges::find_if(SCENARIOS, [&](const Scenario& each) {
    return count == 4 && std::string_view(each.name) == arguments[1];
  });
  if (scenario == std::end(SCENARIOS) || !resolve_server(arguments[2], server, error_text)) {
    std::fprintf(
        stderr,
        "lossy_crowd: %s\nusage: lossy_crowd play|forget|silence|alone|full HOST:PORT SEED\n",
        error_text.c_str());
    return 2;
  }
  generator.seed(static_cast<unsigned>(std::atoi(arguments[3])));
  std::vector<Client> clients(scenario->clients);
  for (unsigned i = 0; i < clients.size(); ++i) {
    clients[i].socket = open_client_socket(server);
    std::snprintf(clients[i].session.name.data(), NAME_WIDTH, "Client %u", i);
  }
  const Result result = run(*scenario, clients);
  const unsigned pairs = scenario->clients * (scenario->clients - 1);
  const bool checks_pictures = scenario->pause_ms > 0;
  const unsigned wrong = checks_pictures ? check_pictures(clients) : 0;
  if (checks_pictures) std::printf("%u of %u pictures correct; ", pairs - wrong, pairs);
  std::printf("%u joins after silence, %u checks with too few players\n", result.forgotten,
              result.too_few);
  return wrong + result.forgotten + result.too_few > 0 ? 1 : 0;
}
