// How bots check the datagrams that they receive. A datagram is expected; or it may be about others
// and is not judged; or it is wrong.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "bots/bot_common.h"
#include "bots/report.h"

using enum ServerCommand;

static bool is_relay(Datagram datagram) {
  switch (command_of(datagram)) {
    case CMD_CHAT_LINE:
    case CMD_PLAYER_LEFT:
    case CMD_PLAYER_DIED:
      return true;
    case CMD_PLAYER_INFO:
      return record_of<PlayerInfo>(datagram).just_entered != 0;
    default:
      return command_of(datagram) >= CMD_PLAYER_POSITION &&
             command_of(datagram) <= CMD_PLAYER_CAR_STATUS;
  }
}

static Slot slot_of_chat(Datagram datagram) {
  const auto line = record_of<ChatLine>(datagram);
  const std::string_view text(line.text.data(), line.text.size());
  for (Slot slot = 0; slot < SLOTS; ++slot) {
    if (text.find(PLACES[slot]) != std::string_view::npos) return slot;
  }
  return NO_SLOT;
}

static bool names_no_slot(Datagram datagram) {
  return command_of(datagram) == CMD_CHAT_LINE || command_of(datagram) == CMD_PLAYER_STATE_FLOATS ||
         command_of(datagram) == CMD_PLAYER_CAR_STATUS;
}

// The slot of the player that the datagram is about. NO_SLOT if the slot is unknown, for example in
// a chat line of others.
static Slot slot_of(Datagram datagram) {
  if (!names_no_slot(datagram)) return datagram.size() > 1 ? datagram[1] : NO_SLOT;
  if (command_of(datagram) == CMD_CHAT_LINE) return slot_of_chat(datagram);
  if (command_of(datagram) == CMD_PLAYER_STATE_FLOATS) {
    const FloatBits bits = record_of<PlayerStateFloats>(datagram).state_f2;
    return bits >> 16U == fleet.process_tag ? static_cast<Slot>(bits) : NO_SLOT;
  }
  const auto relay = record_of<PlayerCarStatus>(datagram);
  return relay.car_float >> 16U == fleet.process_tag ? relay.car_byte : NO_SLOT;
}

// Others cause relays, and answers with their records. The bot itself causes every other answer.
static bool may_be_about_others(Datagram datagram, Slot slot) {
  switch (command_of(datagram)) {
    case CMD_PLAYER_INFO:
    case CMD_PLAYER_STATE:
      return slot < SLOTS;
    default:
      return is_relay(datagram) && (slot < SLOTS || names_no_slot(datagram));
  }
}

static void count_others(Datagram datagram, Slot slot) {
  ++fleet.counters.not_judged;
  const bool is_record = command_of(datagram) == CMD_PLAYER_INFO && slot < SLOTS;
  if (!is_record || fleet.slots[slot].bot != NO_BOT) return;
  fleet.other_slots |= 1U << slot;
}

static const char* reason_of(Verdict verdict) {
  switch (verdict) {
    case Verdict::OUT_OF_ORDER:
      return "out of order";
    case Verdict::REPEATED:
      return "a repeat of an earlier datagram";
    default:
      return "not an expected datagram";
  }
}

static void handle_unexpected(const Bot& bot, Datagram datagram, const Match& found, Tally& tally) {
  const Slot slot = slot_of(datagram);
  if (!fleet.alone && found.verdict != Verdict::OUT_OF_ORDER &&
      may_be_about_others(datagram, slot)) {
    count_others(datagram, slot);
    return;
  }
  report_wrong(bot, datagram, tally, reason_of(found.verdict), found.expectation);
}

static void check_relay(Bot& bot, Datagram datagram, std::uint64_t now_ns) {
  const Slot slot = slot_of(datagram);
  Match found{Verdict::UNEXPECTED, nullptr};
  if (slot < SLOTS) found = match(relay_ring(slot), bot.number, datagram, now_ns);
  if (found.verdict != Verdict::EXPECTED) {
    handle_unexpected(bot, datagram, found, relay_tally);
    return;
  }
  // The delay of an optional relay is unknown: the relay may have matched an equal, older entry.
  if ((found.expectation->required & bot_bit(bot.number)) == 0) return;
  const std::uint64_t delay_ns = now_ns - found.expectation->sent_ns;
  histogram_add(fleet.delays, delay_ns);
  histogram_add(fleet.recent_delays, delay_ns);
}

// All bots must get the same answer, except for the slot.
static bool equals_first_accepted(JoinAccepted accepted) {
  accepted.slot = 0;
  if (!fleet.first_accepted_known) {
    fleet.first_accepted = accepted;
    fleet.first_accepted_known = true;
    return accepted.game_type <= CATCH_PINKPANTHER &&
           accepted.welcome_message[TEXT_WIDTH - 1] == '\0';
  }
  return std::memcmp(&accepted, &fleet.first_accepted, sizeof accepted) == 0;
}

// The server refuses a bot when every slot below its limit is taken.
static bool is_valid_refusal(Datagram datagram, Slot first_free) {
  for (unsigned limit = 1; limit <= SLOTS; ++limit) {
    JoinRefusedFull refusal;
    std::snprintf(refusal.text, sizeof refusal.text, "Maximum allowed players: %u", limit);
    if (std::ranges::equal(Datagram(refusal), datagram)) {
      return !knows_slots() || first_free >= limit;
    }
  }
  return false;
}

static const char* find_fault(const JoinAccepted& accepted, Slot first_free) {
  if (!equals_first_accepted(accepted)) return "differs from the first CMD_JOIN_ACCEPTED";
  if (accepted.slot >= SLOTS || fleet.slots[accepted.slot].bot != NO_BOT)
    return "the slot is not free";
  if (knows_slots() && accepted.slot != first_free) return "not the first free slot";
  return nullptr;
}

static void check_join_answer(Bot& bot, Datagram datagram, const Expectation& due) {
  if (bot.stage != Stage::JOINING) return;  // too late: end_join has ended the join
  const Slot first_free = due.bytes[offsetof(JoinAccepted, slot)];
  if (command_of(datagram) == CMD_JOIN_REFUSED_FULL) {
    if (!is_valid_refusal(datagram, first_free)) {
      report_wrong(bot, datagram, answer_tally, "a refusal with a wrong text, or with a free slot",
                   &due);
    }
    return handle_refusal(bot);
  }
  const auto accepted = record_of<JoinAccepted>(datagram);
  const char* fault = find_fault(accepted, first_free);
  if (fault != nullptr) report_wrong(bot, datagram, answer_tally, fault, &due);
  if (accepted.slot < SLOTS && fleet.slots[accepted.slot].bot == NO_BOT) {
    take_slot(bot, accepted.slot);
  }
}

static void handle_enter_reply(Bot& bot) {
  if (bot.stage != Stage::ENTERING) return;
  set_stage(bot, Stage::PLAYING);
  bot.due_ns = monotonic_ns() + fleet.step_ns;
}

static void check_answer(Bot& bot, Datagram datagram, std::uint64_t now_ns) {
  const Match found = match(answer_ring(bot.number), bot.number, datagram, now_ns);
  if (found.verdict != Verdict::EXPECTED) {
    handle_unexpected(bot, datagram, found, answer_tally);
  } else if (command_of(datagram) == CMD_JOIN_ACCEPTED ||
             command_of(datagram) == CMD_JOIN_REFUSED_FULL) {
    check_join_answer(bot, datagram, *found.expectation);
  } else if (command_of(datagram) == CMD_ENTER_GAME_REPLY) {
    handle_enter_reply(bot);
  }
}

// The server sends the notice to every player in the game. A bot that enters or leaves at that
// moment may or may not get it.
static void expect_shutdown() {
  for (unsigned i = 0; i < fleet.size; ++i) {
    const bool plays = fleet.bots[i].stage == Stage::PLAYING;
    Expectation expectation = expectation_of(ServerShutdown{});
    expectation.sent_ns = 0;  // so that make_optional does not change it
    expectation.required = plays ? bot_bit(i) : 0;
    expectation.optional = bot_bit(i);
    expect(answer_ring(i), expectation);
  }
  fleet.server_stopped = true;
}

// The notice may arrive at any time after the bot has entered.
static void check_pinkpanther(const Bot& bot, Datagram datagram) {
  const auto notice = record_of<PinkPanther>(datagram);
  const bool plausible = datagram.size() == sizeof notice &&
                         (notice.slot < SLOTS || notice.slot == NOBODY) && bot.has_entered &&
                         fleet.first_accepted.game_type == CATCH_PINKPANTHER;
  if (!plausible) report_wrong(bot, datagram, answer_tally, "unexpected CMD_PINKPANTHER", nullptr);
}

static void check_ping(const Bot& bot, Datagram datagram) {
  if (datagram.size() != sizeof(Ping) || !bot.has_entered) {
    report_wrong(bot, datagram, answer_tally, "CMD_PING before the bot has entered", nullptr);
  }
  send_bytes(bot, ClientCommand::CMD_PING_REPLY);
}

void handle_datagram(Bot& bot, Datagram datagram, std::uint64_t now_ns) {
  if (datagram.empty()) {
    report_wrong(bot, datagram, answer_tally, "an empty datagram", nullptr);
  } else if (command_of(datagram) == CMD_PING) {
    check_ping(bot, datagram);
  } else if (command_of(datagram) == CMD_PINKPANTHER) {
    check_pinkpanther(bot, datagram);
  } else if (is_relay(datagram)) {
    check_relay(bot, datagram, now_ns);
  } else {
    const bool stops =
        datagram.size() == sizeof(ServerShutdown) && command_of(datagram) == CMD_SERVER_SHUTDOWN;
    if (stops && !fleet.server_stopped) expect_shutdown();
    check_answer(bot, datagram, now_ns);
  }
}
