#include "bench/crowd.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

static constexpr std::int64_t SECOND_NS = 1'000'000'000;
static constexpr std::int64_t JOIN_LIMIT_NS = 20 * SECOND_NS;  // under instrumentation it is slow
static constexpr std::int64_t SILENCE_LIMIT_NS = SECOND_NS;
static constexpr unsigned BATCH = 32;  // datagrams taken by one receive

using Buffer = std::array<std::uint8_t, RECEIVE_BUFFER_SIZE>;

static constexpr Exchange EXCHANGES[] = {
    {wire_size<PlayerPosition>, 0, CMD_POSITION_UPDATE, CMD_PLAYER_POSITION},
    {wire_size<PlayerGotCar>, 1, CMD_CAR_STATE, CMD_PLAYER_GOT_CAR},
    {wire_size<PlayerDied>, 0, CMD_DIED, CMD_PLAYER_DIED},
    // Of a player who has died before.
    {wire_size<PlayerStateFloats>, 1, CMD_STATE_FLOATS, CMD_PLAYER_STATE_FLOATS},
};

const Exchange* find_exchange(std::uint8_t command) {
  for (const Exchange& exchange : EXCHANGES) {
    if (exchange.command == command) return &exchange;
  }
  return nullptr;
}

std::int64_t now_ns() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * SECOND_NS + now.tv_nsec;
}

void sleep_until(std::int64_t time_ns) {
  timespec time{};
  time.tv_sec = static_cast<time_t>(time_ns / SECOND_NS);
  time.tv_nsec = static_cast<long>(time_ns % SECOND_NS);
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr) == EINTR) {
  }
}

template <WireRecord Record>
static bool send_from(int handle, const Record& record) {
  return send(handle, &record, sizeof record, 0) == static_cast<ssize_t>(sizeof record);
}

static int connected_socket(std::uint16_t port) {
  const int handle = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  // As much as the system gives, so that what is lost is lost on the way in, not here.
  const int bytes = 8 << 20;
  setsockopt(handle, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_port = htons(port);
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const auto* address = reinterpret_cast<const sockaddr*>(&server);
  return connect(handle, address, sizeof server) == 0 ? handle : -1;
}

// Receives datagrams until one with this code comes.
static bool await_code(int handle, std::uint8_t code, Buffer& buffer) {
  const std::int64_t limit = now_ns() + JOIN_LIMIT_NS;
  while (now_ns() < limit) {
    pollfd wait{.fd = handle, .events = POLLIN, .revents = 0};
    poll(&wait, 1, 100);
    if (recv(handle, buffer.data(), buffer.size(), 0) > 0 && buffer[0] == code) return true;
  }
  std::fprintf(stderr, "zolload: waited in vain for datagram %d\n", code);
  return false;
}

static bool enter_game(int handle, unsigned already_joined) {
  Buffer buffer;
  if (!send_from(handle, EnterGame{}) || !await_code(handle, CMD_ENTER_GAME_REPLY, buffer)) {
    return false;
  }
  for (unsigned i = 0; i < already_joined; ++i) {
    if (!await_code(handle, CMD_PLAYER_INFO, buffer)) return false;
  }
  return true;
}

static bool join_player(Crowd& crowd, Target target, std::uint16_t port) {
  Buffer buffer{};
  const unsigned number = crowd.size;
  const int handle = connected_socket(port);
  if (handle == -1) return false;
  JoinRequest request;
  request.version = {PROTOCOL_VERSION, 0};
  std::snprintf(request.name.data(), request.name.size(), "player %u", number);
  if (!send_from(handle, request) || !await_code(handle, CMD_JOIN_ACCEPTED, buffer)) return false;
  crowd.handles[number] = handle;
  crowd.slots[number] = buffer[1];
  if (target == Target::FLOOR) return true;
  if (!enter_game(handle, number)) return false;
  for (unsigned i = 0; i < number; ++i) {
    if (!await_code(crowd.handles[i], CMD_PLAYER_INFO, buffer)) return false;
  }
  return true;
}

bool join_crowd(Crowd& crowd, Target target, std::uint16_t port, unsigned size) {
  for (crowd.size = 0; crowd.size < size; ++crowd.size) {
    if (!join_player(crowd, target, port)) return false;
  }
  return true;
}

static unsigned sender_of(std::uint32_t update, const Crowd& crowd) {
  return update % crowd.size;
}

// The number of the update, and words that no other field could be mistaken for.
static Position position_of(std::uint32_t update) {
  return {update, ~update, 0x7FA0'0001};
}

bool send_update(Crowd& crowd, std::uint8_t command) {
  const std::uint32_t update = crowd.updates_sent++;
  const int handle = crowd.handles[sender_of(update, crowd)];
  const Position position = position_of(update);
  if (command == CMD_POSITION_UPDATE)
    return send_from(handle, PositionUpdate{.position = position});
  if (command == CMD_CAR_STATE) return send_from(handle, CarStateReport{.position = position});
  if (command == CMD_DIED) return send_from(handle, Died{.death_count = 1});
  return send_from(handle, StateFloats{.state_f2 = update, .state_f3 = ~update});
}

static void count_datagram(Crowd& crowd, int handle, const Buffer& datagram, std::size_t length,
                           const Exchange& exchange) {
  Tally& tally = crowd.tally;
  if (datagram[0] == exchange.relay_command && length == exchange.relay_size) {
    ++tally.relays;
  } else if (datagram[0] == CMD_GAME_CLOCK && exchange.answers != 0) {
    ++tally.answers;
  } else if (datagram[0] == CMD_PING) {
    const std::uint8_t reply = CMD_PING_REPLY;
    send(handle, &reply, sizeof reply, 0);
    ++tally.pings;
  } else {
    ++tally.wrong;
  }
}

struct Batch {
  std::array<Buffer, BATCH> buffers;
  std::array<iovec, BATCH> payloads;
  std::array<mmsghdr, BATCH> messages;
};

static Batch& prepared_batch() {
  static Batch batch{};
  for (unsigned i = 0; i < BATCH && batch.messages[i].msg_hdr.msg_iovlen == 0; ++i) {
    batch.payloads[i] = {batch.buffers[i].data(), batch.buffers[i].size()};
    batch.messages[i].msg_hdr.msg_iov = &batch.payloads[i];
    batch.messages[i].msg_hdr.msg_iovlen = 1;
  }
  return batch;
}

void collect(Crowd& crowd, const Exchange& exchange) {
  Batch& batch = prepared_batch();
  for (unsigned player = 0; player < crowd.size; ++player) {
    const int handle = crowd.handles[player];
    const int count = recvmmsg(handle, batch.messages.data(), BATCH, 0, nullptr);
    for (int i = 0; i < count; ++i) {
      const auto index = static_cast<std::size_t>(i);
      count_datagram(crowd, handle, batch.buffers[index], batch.messages[index].msg_len, exchange);
    }
  }
}

bool collect_until(Crowd& crowd, const Exchange& exchange, std::uint64_t expected) {
  const Tally& tally = crowd.tally;
  std::int64_t limit = now_ns() + SILENCE_LIMIT_NS;
  while (tally.relays + tally.answers < expected) {
    const std::uint64_t before = tally.relays + tally.answers;
    collect(crowd, exchange);
    const std::int64_t now = now_ns();
    if (tally.relays + tally.answers > before) limit = now + SILENCE_LIMIT_NS;
    if (now > limit) return false;
  }
  return true;
}

static bool await_record(Crowd& crowd, int handle, const PlayerPosition& expected,
                         std::int64_t limit) {
  const Exchange nothing{};
  Buffer buffer{};
  while (now_ns() < limit) {
    const ssize_t length = recv(handle, buffer.data(), buffer.size(), 0);
    if (length <= 0) continue;
    if (std::memcmp(buffer.data(), &expected, sizeof expected) == 0) return true;
    count_datagram(crowd, handle, buffer, static_cast<std::size_t>(length), nothing);
  }
  return false;
}

bool await_last_update(Crowd& crowd) {
  const std::uint32_t update = crowd.updates_sent - 1;
  const unsigned sender = sender_of(update, crowd);
  const PlayerPosition expected{.slot = crowd.slots[sender], .position = position_of(update)};
  const std::int64_t limit = now_ns() + SILENCE_LIMIT_NS;
  for (unsigned player = 0; player < crowd.size; ++player) {
    if (player == sender) continue;
    if (!await_record(crowd, crowd.handles[player], expected, limit)) return false;
    ++crowd.tally.relays;
  }
  return true;
}

void answer_pings_until(Crowd& crowd, std::int64_t time_ns) {
  const Exchange nothing{};
  std::array<pollfd, MAX_PLAYERS> waits{};
  for (unsigned i = 0; i < crowd.size; ++i) waits[i] = {crowd.handles[i], POLLIN, 0};
  for (std::int64_t now = now_ns(); now < time_ns; now = now_ns()) {
    const auto left_ms = static_cast<int>((time_ns - now) / 1'000'000) + 1;
    if (poll(waits.data(), crowd.size, left_ms) > 0) collect(crowd, nothing);
  }
}
