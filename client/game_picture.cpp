#include "client/game_picture.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

namespace zol {

using enum ServerCommand;

static constexpr std::uint32_t DAY_MINUTES = 24 * 60;

// Nothing when the datagram has another size than the record: no server sends such a datagram.
template <WireRecord Record>
static std::optional<Record> complete_record_of(Datagram datagram) {
  if (datagram.size() != sizeof(Record)) return std::nullopt;
  return record_of<Record>(datagram);
}

template <std::size_t width>
static void copy_text(std::array<char, width>& to, const char* from, std::size_t from_width) {
  to = {};
  std::memcpy(to.data(), from, strnlen(from, std::min(from_width, width - 1)));
}

// The functions `apply` update a player from a datagram. The datagram about getting in or out of a
// car may be lost, so every relay that shows whether the player is in a car sets in_car.

// A different name means another player. just_entered does not, because players also enter again.
static void apply(PlayerPicture& player, const PlayerInfo& info) {
  std::array<char, NAME_WIDTH> name{};
  copy_text(name, info.name.data(), info.name.size());
  if (player.has_record && player.name != name) player = {.is_present = true};
  if (info.just_entered != 0) player.is_playing = false;
  player.has_record = true;
  player.name = name;
  player.state = info.state;
  player.in_car = info.in_car != 0;
  if (player.in_car) player.car = info.car;
}

static void apply(PlayerPicture& player, const PlayerStateReply& reply) {
  player.state.position = reply.position;
  player.in_car = reply.in_car != 0;
  if (player.in_car) player.car = reply.car;
}

static void apply(PlayerPicture& player, const PlayerPosition& relay) {
  player.state.position = relay.position;
}

static void apply(PlayerPicture& player, const PlayerFootUpdate& relay) {
  player.state.state_f1 = relay.state_f1;
  player.in_car = false;
}

static void apply(PlayerPicture& player, const PlayerGotCar& relay) {
  player.state.position = relay.position;
  player.car = relay.car;
  player.in_car = true;
}

static void apply(PlayerPicture& player, const PlayerLeftCar& relay) {
  player.state.position = relay.position;
  player.state.state_f1 = relay.state_f1;
  player.in_car = false;
}

static void apply(PlayerPicture& player, const PlayerCarBlockA& relay) {
  player.car.car_block_a = relay.car_block_a;
  player.in_car = true;
}

static void apply(PlayerPicture& player, const PlayerCarBlockB& relay) {
  player.car.car_block_b = relay.car_block_b;
  player.in_car = true;
}

static void apply(PlayerPicture& player, const PlayerWeapon& relay) {
  player.state.state_b = relay.state_b;
}

static void apply(PlayerPicture& player, const PlayerDied& relay) {
  player.death_count = relay.death_count;
  player.in_car = false;
}

// Returns the player that the datagram is about, or null.
template <WireRecord Record>
static PlayerPicture* apply_to_player(GamePicture& picture, Datagram datagram) {
  const auto record = complete_record_of<Record>(datagram);
  if (!record || record->slot >= MAX_CLIENTS || record->slot == picture.own_slot) return nullptr;
  PlayerPicture& player = picture.players[record->slot];
  player.is_present = true;
  player.unanswered = 0;
  apply(player, *record);
  return &player;
}

template <WireRecord Record>
static void apply_relay(GamePicture& picture, Datagram datagram, std::uint64_t now_ms) {
  PlayerPicture* player = apply_to_player<Record>(picture, datagram);
  if (player == nullptr) return;
  player->last_active_ms = now_ms;
  if (!std::is_same_v<Record, PlayerDied>) player->is_playing = true;
}

static bool is_late_answer(const GamePicture& picture, const PlayerInfo& info,
                           std::uint64_t now_ms) {
  if (info.just_entered != 0 || info.slot >= MAX_CLIENTS) return false;
  const std::uint64_t left_ms = picture.players[info.slot].left_ms;
  return left_ms != 0 && now_ms - left_ms < LATE_ANSWER_MS;
}

static void apply_info(GamePicture& picture, Datagram datagram, std::uint64_t now_ms) {
  const auto info = complete_record_of<PlayerInfo>(datagram);
  if (!info || is_late_answer(picture, *info, now_ms)) return;
  PlayerPicture* player = apply_to_player<PlayerInfo>(picture, datagram);
  if (player == nullptr) return;
  if (info->just_entered != 0 || player->last_active_ms == 0) player->last_active_ms = now_ms;
  player->record_ms = now_ms;
}

static void apply_left(GamePicture& picture, Datagram datagram, std::uint64_t now_ms) {
  const auto notice = complete_record_of<PlayerLeft>(datagram);
  if (!notice || notice->slot >= MAX_CLIENTS || notice->slot == picture.own_slot) return;
  picture.players[notice->slot] = {.left_ms = now_ms};
  if (picture.pinkpanther == notice->slot) picture.pinkpanther = NOBODY;
}

// Applies a relay without a slot. may_be: the player may have caused it. has: the player has the
// values already, so the relay is a repeat. take: stores the values in the player. If several
// players may have caused the relay, the picture asks for their records.
template <typename MayBe, typename Has, typename Take>
static void apply_ambiguous_relay(GamePicture& picture, std::uint64_t now_ms, MayBe may_be, Has has,
                                  Take take) {
  PlayerPicture* only = nullptr;
  unsigned count = 0;
  for (Slot slot = 0; slot < MAX_CLIENTS; ++slot) {
    PlayerPicture& player = picture.players[slot];
    if (slot == picture.own_slot || !player.is_present || !may_be(player)) continue;
    if (has(player)) return;
    only = &player;
    ++count;
  }
  if (count == 1) return take(*only);
  picture.ambiguous_ms = now_ms;
}

static void apply_state_floats(GamePicture& picture, Datagram datagram, std::uint64_t now_ms) {
  const auto relay = complete_record_of<PlayerStateFloats>(datagram);
  if (!relay) return;
  apply_ambiguous_relay(
      picture, now_ms, [](const PlayerPicture&) { return true; },
      [&](const PlayerPicture& player) {
        return player.state.state_f2 == relay->state_f2 && player.state.state_f3 == relay->state_f3;
      },
      [&](PlayerPicture& player) {
        player.state.state_f2 = relay->state_f2;
        player.state.state_f3 = relay->state_f3;
      });
}

static void apply_car_status(GamePicture& picture, Datagram datagram, std::uint64_t now_ms) {
  const auto relay = complete_record_of<PlayerCarStatus>(datagram);
  if (!relay) return;
  apply_ambiguous_relay(
      picture, now_ms, [](const PlayerPicture& player) { return player.in_car; },
      [&](const PlayerPicture& player) {
        return player.car.car_byte == relay->car_byte && player.car.car_float == relay->car_float;
      },
      [&](PlayerPicture& player) {
        player.car.car_byte = relay->car_byte;
        player.car.car_float = relay->car_float;
      });
}

template <WireRecord Record>
static void apply_clock(GamePicture& picture, Datagram datagram, std::uint64_t now_ms) {
  const auto clock = complete_record_of<Record>(datagram);
  if (!clock) return;
  picture.is_clock_known = true;
  picture.clock_minutes = (clock->hour * 60U + clock->minute) % DAY_MINUTES;
  picture.clock_ms = now_ms;
}

// If the reply names another player's slot, that player joined last. Its record is not among those
// that follow, so the picture adds the player and asks for the record.
static void apply_enter_reply(GamePicture& picture, Datagram datagram, std::uint64_t now_ms) {
  apply_clock<EnterGameReply>(picture, datagram, now_ms);
  const auto reply = complete_record_of<EnterGameReply>(datagram);
  if (reply && reply->last_join_slot < MAX_CLIENTS) {
    picture.players[reply->last_join_slot].is_present = true;
  }
}

static void apply_chat(GamePicture& picture, Datagram datagram) {
  const auto line = complete_record_of<ChatLine>(datagram);
  if (!line) return;
  ChatText& text = picture.chat[picture.chat_count++ % CHAT_LINES];
  copy_text(text, line->text.data(), line->text.size());
}

static void apply_pinkpanther(GamePicture& picture, Datagram datagram) {
  const auto notice = complete_record_of<PinkPanther>(datagram);
  if (notice) picture.pinkpanther = notice->slot;
}

void picture_apply(GamePicture& picture, Datagram datagram, std::uint64_t now_ms) {
  if (datagram.empty()) return;
  switch (ServerCommand{datagram[0]}) {
    case CMD_ENTER_GAME_REPLY:
      return apply_enter_reply(picture, datagram, now_ms);
    case CMD_CHAT_LINE:
      return apply_chat(picture, datagram);
    case CMD_PLAYER_INFO:
      return apply_info(picture, datagram, now_ms);
    case CMD_PLAYER_STATE:
      apply_to_player<PlayerStateReply>(picture, datagram);
      return;
    case CMD_PLAYER_LEFT:
      return apply_left(picture, datagram, now_ms);
    case CMD_GAME_CLOCK:
      return apply_clock<GameClock>(picture, datagram, now_ms);
    case CMD_PLAYER_POSITION:
      return apply_relay<PlayerPosition>(picture, datagram, now_ms);
    case CMD_PLAYER_FOOT_UPDATE:
      return apply_relay<PlayerFootUpdate>(picture, datagram, now_ms);
    case CMD_PLAYER_CAR_BLOCK_A:
      return apply_relay<PlayerCarBlockA>(picture, datagram, now_ms);
    case CMD_PLAYER_CAR_BLOCK_B:
      return apply_relay<PlayerCarBlockB>(picture, datagram, now_ms);
    case CMD_PLAYER_GOT_CAR:
      return apply_relay<PlayerGotCar>(picture, datagram, now_ms);
    case CMD_PLAYER_LEFT_CAR:
      return apply_relay<PlayerLeftCar>(picture, datagram, now_ms);
    case CMD_PLAYER_WEAPON:
      return apply_relay<PlayerWeapon>(picture, datagram, now_ms);
    case CMD_PLAYER_STATE_FLOATS:
      return apply_state_floats(picture, datagram, now_ms);
    case CMD_PLAYER_CAR_STATUS:
      return apply_car_status(picture, datagram, now_ms);
    case CMD_PINKPANTHER:
      return apply_pinkpanther(picture, datagram);
    case CMD_PLAYER_DIED:
      return apply_relay<PlayerDied>(picture, datagram, now_ms);
    default:
      return;
  }
}

GamePicture picture_of_join(const JoinAccepted& accepted) {
  GamePicture picture;
  picture.own_slot = accepted.slot;
  picture.game_type = accepted.game_type;
  copy_text(picture.welcome, accepted.welcome_message, sizeof accepted.welcome_message);
  return picture;
}

static bool was_asked_recently(const PlayerPicture& player, std::uint64_t now_ms) {
  return player.asked_ms != 0 && now_ms - player.asked_ms < ASK_AGAIN_MS;
}

static bool is_stale(const GamePicture& picture, const PlayerPicture& player,
                     std::uint64_t now_ms) {
  const bool is_ambiguous = picture.ambiguous_ms > player.record_ms;
  const std::uint64_t age_ms = is_ambiguous ? AMBIGUOUS_AGE_MS : RECORD_AGE_MS;
  const bool is_known = player.has_record && now_ms - player.record_ms < age_ms;
  return player.is_present && !is_known && !was_asked_recently(player, now_ms);
}

// Returns the slots that no datagram has named, in turn.
static Slot next_unknown(GamePicture& picture, std::uint64_t now_ms) {
  if (now_ms - picture.asked_unknown_ms < ASK_UNKNOWN_MS) return NO_SLOT;
  for (Slot tried = 0; tried < MAX_CLIENTS; ++tried) {
    picture.unknown_slot = static_cast<Slot>((picture.unknown_slot + 1) % MAX_CLIENTS);
    PlayerPicture& player = picture.players[picture.unknown_slot];
    if (picture.unknown_slot == picture.own_slot || player.is_present) continue;
    if (was_asked_recently(player, now_ms)) continue;
    picture.asked_unknown_ms = player.asked_ms = now_ms;
    return picture.unknown_slot;
  }
  return NO_SLOT;
}

// Skips the own slot: the server does not answer a player's question about itself.
Slot next_question(GamePicture& picture, std::uint64_t now_ms) {
  for (Slot slot = 0; slot < MAX_CLIENTS; ++slot) {
    PlayerPicture& player = picture.players[slot];
    if (slot == picture.own_slot || !is_stale(picture, player, now_ms)) continue;
    if (player.unanswered == MAX_QUESTIONS) {
      player = {.asked_ms = now_ms};
      continue;
    }
    ++player.unanswered;
    player.asked_ms = now_ms;
    return slot;
  }
  return next_unknown(picture, now_ms);
}

std::uint32_t game_minutes(const GamePicture& picture, std::uint64_t now_ms) {
  const std::uint64_t passed = (now_ms - picture.clock_ms) / 1000;
  return static_cast<std::uint32_t>((picture.clock_minutes + passed) % DAY_MINUTES);
}

}  // namespace zol
