#include "bench/crowd.h"

#include <string>
#include <thread>
#include <utility>

#include "client/server_connection.h"
#include "server/protocol.h"

static constexpr std::chrono::seconds LIMIT{10};

template <WireRecord Record>
static std::string bytes_of(const Record& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

static bool send_bytes(int handle, std::string_view bytes) {
  return send_datagram(handle, {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
}

// Calls handler for the waiting datagrams, at most max_count of them.
template <typename Handler>
static void receive_waiting(int handle, std::size_t max_count, Handler handler) {
  static Batch batch;
  receive_batch(handle, batch, max_count);
  for (std::size_t i = 0; i < batch.count; ++i) {
    const Datagram& datagram = batch.datagrams[i];
    handler(std::string_view(reinterpret_cast<const char*>(datagram.data()), datagram.size()));
  }
}

// CMD_PING_REPLY has no record.
static const std::string PING_REPLY(1, static_cast<char>(ClientCommand::CMD_PING_REPLY));
static const std::string PING = bytes_of(Ping{});
static const std::string GAME_CLOCK = bytes_of(GameClock{});

// The datagram of an update, and the datagram that all other players must receive.
static std::pair<std::string, std::string> exchange_of(Update kind, std::uint32_t update,
                                                       std::uint8_t slot) {
  const Position position = {update, ~update, 0x7FA0'0001};
  switch (kind) {
    case Update::POSITION:
      return {bytes_of(PositionUpdate{.position = position}),
              bytes_of(PlayerPosition{.slot = slot, .position = position})};
    case Update::CAR_STATE:
      return {bytes_of(CarStateReport{.position = position}),
              bytes_of(PlayerGotCar{.slot = slot, .position = position})};
    case Update::DEATH:
      return {bytes_of(Died{.death_count = 1}),
              bytes_of(PlayerDied{.slot = slot, .death_count = 1})};
    case Update::STATE_FLOATS:
      break;
  }
  return {bytes_of(StateFloats{.state_f2 = update, .state_f3 = ~update}),
          bytes_of(PlayerStateFloats{.state_f2 = update, .state_f3 = ~update})};
}

// Whether the server answers the sender of such an update with CMD_GAME_CLOCK.
static bool is_answered(Update kind) {
  return kind == Update::CAR_STATE || kind == Update::STATE_FLOATS;
}

// Drops datagrams until one has the code of this record. Returns its second byte, which is the slot
// in most records; -1 after ten seconds.
template <WireRecord Record>
static int await_record(int handle, const Record& record) {
  int second = -1;
  const Clock::time_point limit = Clock::now() + LIMIT;
  while (second == -1 && Clock::now() < limit) {
    receive_waiting(handle, 1, [&](std::string_view datagram) {
      if (datagram[0] == bytes_of(record)[0]) second = static_cast<std::uint8_t>(datagram[1]);
    });
  }
  return second;
}

// The entering player must receive the records of all others, and each of them its record.
static bool enter_game(const Crowd& crowd, int handle) {
  bool is_in =
      send_bytes(handle, bytes_of(EnterGame{})) && await_record(handle, EnterGameReply{}) != -1;
  for (unsigned i = 0; i < crowd.size && is_in; ++i) {
    is_in = await_record(handle, PlayerInfo{}) != -1 &&
            await_record(crowd.players[i].handle, PlayerInfo{}) != -1;
  }
  return is_in;
}

bool join_player(Crowd& crowd, bool is_floor, const sockaddr_in& server) {
  const int handle = open_client_socket(server);
  const JoinRequest request{.name = {'p'}, .version = PROTOCOL_VERSION};
  if (handle == -1 || !send_bytes(handle, bytes_of(request))) return false;
  const int slot = await_record(handle, JoinAccepted{});
  if (slot == -1 || (!is_floor && !enter_game(crowd, handle))) return false;
  crowd.players[crowd.size++] = {.handle = handle, .slot = static_cast<std::uint8_t>(slot)};
  return true;
}

static const Player& sender_of(const Crowd& crowd, std::uint32_t update) {
  return crowd.players[update % crowd.size];
}

static void skip_unanswered(const Crowd& crowd, Player& player) {
  if (&player == &sender_of(crowd, player.next) && !is_answered(crowd.kind)) ++player.next;
}

void begin_updates(Crowd& crowd, Update kind) {
  crowd.kind = kind;
  crowd.right = 0;
  crowd.wrong = 0;
  for (unsigned i = 0; i < crowd.size; ++i) {
    crowd.players[i].next = crowd.sent;
    skip_unanswered(crowd, crowd.players[i]);
  }
}

bool send_update(Crowd& crowd) {
  const Player& sender = sender_of(crowd, crowd.sent);
  return send_bytes(sender.handle, exchange_of(crowd.kind, crowd.sent++, sender.slot).first);
}

unsigned datagrams_per_update(const Crowd& crowd) {
  return is_answered(crowd.kind) ? crowd.size : crowd.size - 1;
}

// Does not check the time in CMD_GAME_CLOCK, because only the server knows it.
static bool is_expected(const Crowd& crowd, const Player& player, std::string_view datagram) {
  const Player& sender = sender_of(crowd, player.next);
  if (&player != &sender) {
    return datagram == exchange_of(crowd.kind, player.next, sender.slot).second;
  }
  return datagram.size() == GAME_CLOCK.size() && datagram[0] == GAME_CLOCK[0];
}

static void receive_all(Crowd& crowd, Player& player) {
  receive_waiting(player.handle, RECEIVE_BATCH, [&](std::string_view datagram) {
    if (datagram == PING) {
      send_bytes(player.handle, PING_REPLY);
      return;
    }
    ++(is_expected(crowd, player, datagram) ? crowd.right : crowd.wrong);
    ++player.next;
    skip_unanswered(crowd, player);
  });
}

bool await_update(Crowd& crowd, std::uint32_t update) {
  const Clock::time_point limit = Clock::now() + LIMIT;
  for (unsigned i = 0; i < crowd.size; ++i) {
    while (crowd.players[i].next <= update) {
      receive_all(crowd, crowd.players[i]);
      if (Clock::now() > limit) return false;
    }
  }
  return true;
}

void answer_pings_until(Crowd& crowd, Clock::time_point time) {
  while (Clock::now() < time) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    for (unsigned i = 0; i < crowd.size; ++i) receive_all(crowd, crowd.players[i]);
  }
}
