#include "tools/expectations.h"

#include <algorithm>
#include <bit>
#include <cstring>

using enum ServerCommand;

struct Ring {
  std::array<Expectation, RING_SIZE> entries;
  std::uint64_t end = 0;
};

static constexpr std::uint64_t DAY_S = 1440;  // of the game: one of its minutes is a second
static constexpr std::uint64_t CLOCK_TOLERANCE_S = 2;

static std::array<Ring, RINGS> rings;
static std::array<std::array<std::uint64_t, MAX_BOTS>, RINGS> cursors;
static std::uint64_t outstanding_count;

// Second of our clock, plus whole days, at which the game's clock stood at zero.
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

static void settle(unsigned ring, Expectation& entry) {
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
  settle(ring, entry);
  entry = expectation;
  outstanding_count += count_of(entry.required);
  return number;
}

// Both halves of the time are read off the clock one after the other somewhere between our send and
// our receive, so each is tried on its own against every second of that time. The first time of day
// seen sets the start.
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

static bool is_refusal(Bytes datagram) {
  static constexpr char TEXT[] = "Maximum allowed players: ";
  return datagram.size() == sizeof(JoinRefused) && command_of(datagram) == CMD_JOIN_REFUSED_FULL &&
         std::memcmp(&datagram[1], TEXT, sizeof TEXT - 1) == 0;
}

static bool fits(const Expectation& entry, Bytes datagram, std::uint64_t now_ns) {
  if (command_of(entry.bytes) == CMD_JOIN_ACCEPTED && is_refusal(datagram)) return true;
  if (datagram.size() != entry.length) return false;
  if (std::memcmp(entry.bytes.data(), datagram.data(), entry.compared) != 0) return false;
  if (command_of(datagram) == CMD_GAME_CLOCK) {
    return clock_fits(datagram[1], datagram[2], entry.sent_ns, now_ns);
  }
  if (command_of(datagram) == CMD_ENTER_GAME_REPLY) {
    return clock_fits(datagram[2], datagram[3], entry.sent_ns, now_ns);
  }
  return true;
}

enum class Wanted { REQUIRED, OPTIONAL, RECEIVED };

static bool is_wanted(const Expectation& entry, Wanted wanted, BotSet receiver) {
  if ((entry.received & receiver) != 0) return wanted == Wanted::RECEIVED;
  if ((entry.required & receiver) != 0) return wanted == Wanted::REQUIRED;
  return (entry.optional & receiver) != 0 && wanted == Wanted::OPTIONAL;
}

struct Heard {
  unsigned ring;
  BotSet receiver;
  Bytes datagram;
  std::uint64_t now_ns;
};

// The first such entry that the datagram may be, or to.
static std::uint64_t find(const Heard& heard, Wanted wanted, std::uint64_t from, std::uint64_t to) {
  for (std::uint64_t number = from; number < to; ++number) {
    const Expectation& entry = entry_of(heard.ring, number);
    if (is_wanted(entry, wanted, heard.receiver) && fits(entry, heard.datagram, heard.now_ns)) {
      return number;
    }
  }
  return to;
}

static Match receive(const Heard& heard, std::uint64_t number, Verdict verdict) {
  Expectation& entry = entry_of(heard.ring, number);
  if ((entry.required & heard.receiver) != 0) --outstanding_count;
  entry.received |= heard.receiver;
  return {verdict, &entry};
}

static Expectation* next_due(const Heard& heard, std::uint64_t cursor) {
  for (std::uint64_t number = cursor; number < rings[heard.ring].end; ++number) {
    Expectation& entry = entry_of(heard.ring, number);
    if (is_wanted(entry, Wanted::REQUIRED, heard.receiver)) return &entry;
  }
  return nullptr;
}

// What is required goes before what is optional, so that an optional one that never came cannot
// take the place of a later one like it. Of the optional the order does not count for that reason.
Match match(unsigned ring, unsigned receiver, Bytes datagram, std::uint64_t now_ns) {
  const Heard heard{ring, only(receiver), datagram, now_ns};
  const std::uint64_t end = rings[ring].end;
  const std::uint64_t oldest = oldest_of(ring);
  std::uint64_t& cursor = cursors[ring][receiver];
  cursor = std::max(cursor, oldest);

  std::uint64_t number = find(heard, Wanted::REQUIRED, cursor, end);
  if (number == end) number = find(heard, Wanted::OPTIONAL, cursor, end);
  if (number != end) {
    cursor = number + 1;
    return receive(heard, number, Verdict::EXPECTED);
  }
  number = find(heard, Wanted::REQUIRED, oldest, cursor);
  if (number != cursor) return receive(heard, number, Verdict::OUT_OF_ORDER);
  number = find(heard, Wanted::OPTIONAL, oldest, cursor);
  if (number != cursor) return receive(heard, number, Verdict::EXPECTED);
  const bool repeated = find(heard, Wanted::RECEIVED, oldest, end) != end;
  return {repeated ? Verdict::REPEATED : Verdict::UNEXPECTED, next_due(heard, cursor)};
}

void require(unsigned ring, std::uint64_t number, BotSet bots) {
  if (number < oldest_of(ring)) return;
  Expectation& entry = entry_of(ring, number);
  outstanding_count += count_of(bots & ~entry.required & ~entry.received);
  entry.required |= bots;
}

void excuse(unsigned receiver, std::uint64_t since_ns) {
  const BotSet bit = only(receiver);
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

void settle_expectations() {
  for (unsigned ring = 0; ring < RINGS; ++ring) {
    for (Expectation& entry : rings[ring].entries) settle(ring, entry);
  }
}
