#include "bots/expectations.h"

#include <algorithm>
#include <bit>
#include <cstring>

using enum ServerCommand;

struct Ring {
  std::array<Expectation, RING_SIZE> entries;
  std::uint64_t end = 0;
};

static constexpr std::uint64_t DAY_S = 1440;  // a day of the game
static constexpr std::uint64_t CLOCK_TOLERANCE_S = 2;

static std::array<Ring, RINGS> rings;
static std::array<std::array<std::uint64_t, MAX_BOTS>, RINGS> cursors;
static std::uint64_t outstanding_count;

// The time on our clock, in seconds, when the game's clock showed 0:00, modulo a day of the game.
static std::uint64_t game_start_s;
static bool game_start_known;

constinit Tally relay_tally;
constinit Tally answer_tally;

static std::uint64_t count_of(BotSet bots) {
  return static_cast<std::uint64_t>(std::popcount(bots));
}

static Expectation& entry_of(unsigned ring, std::uint64_t number) {
  return rings[ring].entries[number % RING_SIZE];
}

static std::uint64_t oldest_of(unsigned ring) {
  return rings[ring].end > RING_SIZE ? rings[ring].end - RING_SIZE : 0;
}

static void tally_and_clear(unsigned ring, Expectation& entry) {
  Tally& tally = ring < SLOTS ? relay_tally : answer_tally;
  const std::uint64_t lost = count_of(entry.required & ~entry.received);
  tally.expected += count_of(entry.received) + lost;
  tally.received += count_of(entry.received);
  tally.lost += lost;
  outstanding_count -= lost;
  entry = {};
}

std::uint64_t expect(unsigned ring, const Expectation& expectation) {
  const std::uint64_t number = rings[ring].end++;
  Expectation& entry = entry_of(ring, number);
  tally_and_clear(ring, entry);
  entry = expectation;
  outstanding_count += count_of(entry.required);
  return number;
}

// The server reads its clock twice, for the hour and for the minute, between our send and our
// receive. So each is compared separately with every second of this interval. The first time of day
// that is received sets game_start_s.
static bool clock_fits(unsigned hour, unsigned minute, std::uint64_t sent_ns,
                       std::uint64_t now_ns) {
  if (hour > 23 || minute > 59) return false;
  const std::uint64_t sent_s = sent_ns / 1'000'000'000 + DAY_S;
  const std::uint64_t now_s = now_ns / 1'000'000'000 + DAY_S;
  if (!game_start_known) game_start_s = now_s - (hour * 60 + minute);
  game_start_known = true;
  bool hour_fits = false;
  bool minute_fits = false;
  const std::uint64_t to = now_s + CLOCK_TOLERANCE_S;
  for (std::uint64_t s = sent_s - CLOCK_TOLERANCE_S; s <= to; ++s) {
    const std::uint64_t elapsed = (s + DAY_S - game_start_s) % DAY_S;
    hour_fits |= elapsed / 60 == hour;
    minute_fits |= elapsed % 60 == minute;
  }
  return hour_fits && minute_fits;
}

static bool is_match(const Expectation& entry, Datagram datagram, std::uint64_t now_ns) {
  if (command_of(entry.bytes) == CMD_JOIN_ACCEPTED &&
      command_of(datagram) == CMD_JOIN_REFUSED_FULL) {
    return true;
  }
  if (datagram.size() != entry.size) return false;
  if (std::memcmp(entry.bytes.data(), datagram.data(), entry.compared_size) != 0) return false;
  if (command_of(datagram) == CMD_GAME_CLOCK) {
    return clock_fits(datagram[1], datagram[2], entry.sent_ns, now_ns);
  }
  if (command_of(datagram) == CMD_ENTER_GAME_REPLY) {
    return clock_fits(datagram[2], datagram[3], entry.sent_ns, now_ns);
  }
  return true;
}

// The status of an entry for one receiver.
enum class Status { REQUIRED, OPTIONAL, RECEIVED, UNRELATED };

static Status status_of(const Expectation& entry, BotSet receiver) {
  if ((entry.received & receiver) != 0) return Status::RECEIVED;
  if ((entry.required & receiver) != 0) return Status::REQUIRED;
  return (entry.optional & receiver) != 0 ? Status::OPTIONAL : Status::UNRELATED;
}

struct Arrival {
  unsigned ring;
  BotSet receiver;  // one bit
  Datagram datagram;
  std::uint64_t now_ns;
};

// The number of the first entry in [from, to) that has this status and matches the datagram; `to`
// if there is none.
static std::uint64_t find(const Arrival& arrival, Status status, std::uint64_t from,
                          std::uint64_t to) {
  for (std::uint64_t number = from; number < to; ++number) {
    const Expectation& entry = entry_of(arrival.ring, number);
    if (status_of(entry, arrival.receiver) == status &&
        is_match(entry, arrival.datagram, arrival.now_ns)) {
      return number;
    }
  }
  return to;
}

static Match mark_received(const Arrival& arrival, std::uint64_t number, Verdict verdict) {
  Expectation& entry = entry_of(arrival.ring, number);
  if ((entry.required & arrival.receiver) != 0) --outstanding_count;
  entry.received |= arrival.receiver;
  return {verdict, &entry};
}

static Expectation* next_required(const Arrival& arrival, std::uint64_t cursor) {
  for (std::uint64_t number = cursor; number < rings[arrival.ring].end; ++number) {
    Expectation& entry = entry_of(arrival.ring, number);
    if (status_of(entry, arrival.receiver) == Status::REQUIRED) return &entry;
  }
  return nullptr;
}

// Prefers a required entry to an earlier, equal optional entry, because the optional datagram may
// never arrive. If it does arrive, the cursor may be past its entry, so optional entries match in
// any order.
Match match(unsigned ring, unsigned receiver, Datagram datagram, std::uint64_t now_ns) {
  const Arrival arrival{ring, bot_bit(receiver), datagram, now_ns};
  const std::uint64_t end = rings[ring].end;
  const std::uint64_t oldest = oldest_of(ring);
  std::uint64_t& cursor = cursors[ring][receiver];
  cursor = std::max(cursor, oldest);

  std::uint64_t number = find(arrival, Status::REQUIRED, cursor, end);
  if (number == end) number = find(arrival, Status::OPTIONAL, cursor, end);
  if (number != end) {
    cursor = number + 1;
    return mark_received(arrival, number, Verdict::EXPECTED);
  }
  number = find(arrival, Status::REQUIRED, oldest, cursor);
  if (number != cursor) return mark_received(arrival, number, Verdict::OUT_OF_ORDER);
  number = find(arrival, Status::OPTIONAL, oldest, cursor);
  if (number != cursor) return mark_received(arrival, number, Verdict::EXPECTED);
  const bool repeated = find(arrival, Status::RECEIVED, oldest, end) != end;
  return {repeated ? Verdict::REPEATED : Verdict::UNEXPECTED, next_required(arrival, cursor)};
}

void make_required(unsigned ring, std::uint64_t number, BotSet bots) {
  if (number < oldest_of(ring)) return;
  Expectation& entry = entry_of(ring, number);
  outstanding_count += count_of(bots & ~entry.required & ~entry.received);
  entry.required |= bots;
}

void make_optional(unsigned receiver, std::uint64_t since_ns) {
  const BotSet bit = bot_bit(receiver);
  for (unsigned ring = 0; ring < RINGS; ++ring) {
    const std::uint64_t oldest = oldest_of(ring);
    for (std::uint64_t number = oldest; number < rings[ring].end; ++number) {
      Expectation& entry = entry_of(ring, number);
      if ((entry.required & ~entry.received & bit) == 0 || entry.sent_ns < since_ns) continue;
      entry.required &= ~bit;
      entry.optional |= bit;
      --outstanding_count;
    }
  }
}

std::uint64_t outstanding() {
  return outstanding_count;
}

void tally_remaining() {
  for (unsigned ring = 0; ring < RINGS; ++ring) {
    for (std::uint64_t number = oldest_of(ring); number < rings[ring].end; ++number) {
      tally_and_clear(ring, entry_of(ring, number));
    }
  }
}
