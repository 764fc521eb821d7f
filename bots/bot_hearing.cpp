// How the bots check what they receive: a datagram is an expected one, or is about a foreign
// player, or is wrong.

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstring>
#include <string_view>

#include "bots/bot.h"
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

static bool is_our_name(std::string_view name) {
  return std::any_of(fleet.bots.begin(), fleet.bots.begin() + fleet.size,
                     [name](const Bot& bot) { return name == bot.name.data(); });
}

// The line is "name-tag: slot.sequence phrase".
static Slot slot_of_chat(Datagram datagram) {
  const auto line = record_of<ChatLine>(datagram);
  const std::string_view text(line.text.data(), line.text.size());
  const std::size_t colon = text.find(": ");
  Slot slot = NO_SLOT;
  if (colon == std::string_view::npos) return NO_SLOT;
  const std::string_view name = text.substr(0, colon);
  if (is_our_name(name)) std::from_chars(text.data() + colon + 2, text.data() + text.size(), slot);
  return slot;
}

static bool names_no_slot(Datagram datagram) {
  return command_of(datagram) == CMD_CHAT_LINE || command_of(datagram) == CMD_PLAYER_STATE_FLOATS ||
         command_of(datagram) == CMD_PLAYER_CAR_STATUS;
}

// The slot of the player whom the datagram is about. NO_SLOT if it is unknown, as with the chat of
// a foreign player.
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

static void note_foreign(Slot slot) {
  fleet.foreign_slots |= 1U << slot;
  fleet.slots[slot].known = false;
}

static bool has_foreign_name(Datagram datagram) {
  if (datagram.size() != sizeof(PlayerInfo)) return false;
  const auto info = record_of<PlayerInfo>(datagram);
  const std::string_view name(info.name.data(), strnlen(info.name.data(), info.name.size()));
  return !is_our_name(name);
}

// A slot where no bot has been is foreign; any other one becomes foreign with the CMD_PLAYER_INFO
// of a foreign player, or when no bot is there any more and there are foreign players. There is one
// who has never entered when CMD_PLAYER_LEFT names a slot that no bot is in. From the first foreign
// player on nobody knows which CMD_PLAYER_INFO an entering bot gets (its own too, when someone else
// has joined since), so each unexpected one counts as foreign. So does each unexpected relay that
// names no slot: a short datagram of a foreign player repeats what a bot has reported. If a wrong
// datagram is taken for a foreign one, the right one still counts as lost.
static bool is_foreign(Datagram datagram, Slot slot) {
  if (slot == NO_SLOT || names_no_slot(datagram)) return fleet.foreign_slots != 0;
  if (slot >= SLOTS) return false;
  const bool is_info = command_of(datagram) == CMD_PLAYER_INFO;
  const bool never_ours = (fleet.our_slots >> slot & 1U) == 0;
  const bool has_left = command_of(datagram) == CMD_PLAYER_LEFT;
  const bool left_to_them =
      (fleet.foreign_slots != 0 || has_left) && fleet.slots[slot].bot == NO_BOT;
  if (never_ours || left_to_them || (is_info && has_foreign_name(datagram))) note_foreign(slot);
  if (is_info && (fleet.foreign_slots | fleet.unconfirmed_foreign_slots) != 0) return true;
  return (fleet.foreign_slots >> slot & 1U) != 0;
}

static const char* reason_of(Verdict verdict) {
  switch (verdict) {
    case Verdict::OUT_OF_ORDER:
      return "out of order";
    case Verdict::REPEATED:
      return "received before";
    default:
      return "not what was sent";
  }
}

static void handle_unexpected(const Bot& bot, Datagram datagram, const Match& found, Tally& tally,
                              Slot slot) {
  if (found.verdict != Verdict::OUT_OF_ORDER && is_foreign(datagram, slot)) {
    ++fleet.counters.foreign;
    return;
  }
  report_wrong(bot, datagram, tally, reason_of(found.verdict), found.expectation);
}

static void hear_relay(Bot& bot, Datagram datagram, std::uint64_t now_ns) {
  const Slot slot = slot_of(datagram);
  Match found{Verdict::UNEXPECTED, nullptr};
  if (slot < SLOTS) found = match(relay_ring(slot), bot.number, datagram, now_ns);
  if (found.verdict != Verdict::EXPECTED) {
    handle_unexpected(bot, datagram, found, relay_tally, slot);
    return;
  }
  // An optional relay may have been matched with an equal, older entry, so its delay is not known.
  if ((found.expectation->required & bot_bit(bot.number)) == 0) return;
  const std::uint64_t delay_ns = now_ns - found.expectation->sent_ns;
  histogram_add(fleet.delays, delay_ns);
  histogram_add(fleet.recent_delays, delay_ns);
}

// All bots must get the same answer, except for the slot.
static bool is_like_first(JoinAccepted accepted) {
  accepted.slot = 0;
  if (!fleet.first_accepted_known) {
    fleet.first_accepted = accepted;
    fleet.first_accepted_known = true;
    return accepted.game_type <= CATCH_PINKPANTHER &&
           accepted.welcome_message[TEXT_WIDTH - 1] == '\0';
  }
  return std::memcmp(&accepted, &fleet.first_accepted, sizeof accepted) == 0;
}

static void hear_join_answer(Bot& bot, Datagram datagram) {
  if (bot.stage != Stage::JOINING) return;  // too late: the bot has given up, see end_join
  if (command_of(datagram) == CMD_JOIN_REFUSED_FULL) return handle_refusal(bot);
  const auto accepted = record_of<JoinAccepted>(datagram);
  if (!is_like_first(accepted)) {
    report_wrong(bot, datagram, answer_tally, "unlike the first welcome", nullptr);
  }
  if (accepted.slot < SLOTS && fleet.slots[accepted.slot].bot == NO_BOT) {
    take_slot(bot, accepted.slot);
  } else {
    report_wrong(bot, datagram, answer_tally, "no free slot", nullptr);
  }
}

// The reply names the slot of the latest join: that of a bot, or that of a foreign player of whom
// no other datagram may have come yet. One who never enters is heard of when it leaves.
static void hear_enter_reply(Bot& bot, Datagram datagram, const Expectation& expectation) {
  const auto slot = record_of<EnterGameReply>(datagram).last_join_slot;
  const bool as_expected = slot == expectation.bytes[offsetof(EnterGameReply, last_join_slot)];
  if (!as_expected && fleet.foreign_slots == 0) {
    if (slot < SLOTS && fleet.slots[slot].bot == NO_BOT) {
      fleet.unconfirmed_foreign_slots |= 1U << slot;
    } else {
      report_wrong(bot, datagram, answer_tally, "not the slot of the latest join", &expectation);
    }
  }
  if (bot.stage != Stage::ENTERING) return;
  set_stage(bot, Stage::PLAYING);
  bot.due_ns = monotonic_ns() + fleet.step_ns;
}

static void hear_answer(Bot& bot, Datagram datagram, std::uint64_t now_ns) {
  const Match found = match(answer_ring(bot.number), bot.number, datagram, now_ns);
  if (found.verdict != Verdict::EXPECTED) {
    const bool names_slot =
        command_of(datagram) == CMD_PLAYER_INFO || command_of(datagram) == CMD_PLAYER_STATE;
    handle_unexpected(bot, datagram, found, answer_tally, names_slot ? slot_of(datagram) : SLOTS);
  } else if (command_of(datagram) == CMD_JOIN_ACCEPTED ||
             command_of(datagram) == CMD_JOIN_REFUSED_FULL) {
    hear_join_answer(bot, datagram);
  } else if (command_of(datagram) == CMD_ENTER_GAME_REPLY) {
    hear_enter_reply(bot, datagram, *found.expectation);
  }
}

// May come at any time to a player who has entered.
static void hear_pinkpanther(const Bot& bot, Datagram datagram) {
  const auto notice = record_of<PinkPanther>(datagram);
  const bool plausible = datagram.size() == sizeof notice &&
                         (notice.slot < SLOTS || notice.slot == NOBODY) && bot.has_entered &&
                         fleet.first_accepted.game_type == CATCH_PINKPANTHER;
  if (!plausible)
    report_wrong(bot, datagram, answer_tally, "unexpected news of the PinkPanther", nullptr);
}

static void hear_ping(const Bot& bot, Datagram datagram) {
  if (datagram.size() != sizeof(Ping) || !bot.has_entered) {
    report_wrong(bot, datagram, answer_tally, "ping before the bot has entered", nullptr);
  }
  send_bytes(bot, ClientCommand::CMD_PING_REPLY);
}

void hear(Bot& bot, Datagram datagram, std::uint64_t now_ns) {
  if (datagram.empty()) {
    report_wrong(bot, datagram, answer_tally, "empty", nullptr);
  } else if (command_of(datagram) == CMD_PING) {
    hear_ping(bot, datagram);
  } else if (command_of(datagram) == CMD_PINKPANTHER) {
    hear_pinkpanther(bot, datagram);
  } else if (command_of(datagram) == CMD_SERVER_SHUTDOWN &&
             datagram.size() == sizeof(ServerShutdown)) {
    fleet.server_stopped = true;
  } else if (is_relay(datagram)) {
    hear_relay(bot, datagram, now_ns);
  } else {
    hear_answer(bot, datagram, now_ns);
  }
}

void count_unconfirmed_slots() {
  const std::uint32_t unconfirmed = fleet.unconfirmed_foreign_slots & ~fleet.foreign_slots;
  answer_tally.wrong += static_cast<std::uint64_t>(std::popcount(unconfirmed));
}
