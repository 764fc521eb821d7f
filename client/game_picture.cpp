#include "client/game_picture.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

namespace zol {

using enum ServerCommand;

static constexpr std::uint32_t DAY_MINUTES = 24 * 60;

// Nothing when the datagram has another size: the server's datagrams are always complete.
template <WireRecord Record>
static std::optional<Record> whole_record_of(Datagram datagram) {
  if (datagram.size() != sizeof(Record)) return std::nullopt;
  return record_of<Record>(datagram);
}

template <std::size_t width>
static void copy_text(std::array<char, width>& to, const char* from, std::size_t from_width) {
  to = {};
  std::memcpy(to.data(), from, strnlen(from, std::min(from_width, width - 1)));
}

// Apply a datagram to a player. Some relays also show whether the player sits in a car. The
// datagram about getting in or out may be lost, so the picture uses them.

// The mark of an entry alone is no news, because players also enter again. Another name is.
static void apply(PlayerPicture& player, const PlayerInfo& info) {
  std::array<char, NAME_WIDTH> name{};
  copy_text(name, info.name.data(), info.name.size());
  if (player.has_record && player.name != name) player = {.is_here = true};
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
static PlayerPicture* hear_about(GamePicture& picture, Datagram datagram) {
  const auto record = whole_record_of<Record>(datagram);
  if (!record || record->slot >= MAX_CLIENTS) return nullptr;
  PlayerPicture& player = picture.players[record->slot];
  player.is_here = true;
  player.unanswered = 0;
  apply(player, *record);
  return &player;
}

template <WireRecord Record>
static void hear_relay(GamePicture& picture, Datagram datagram, std::uint64_t now_ms) {
  PlayerPicture* player = hear_about<Record>(picture, datagram);
  if (player == nullptr) return;
  player->heard_ms = now_ms;
  if (!std::is_same_v<Record, PlayerDied>) player->is_playing = true;
}

static bool is_late_answer(const GamePicture& picture, const PlayerInfo& info,
                           std::uint64_t now_ms) {
  if (info.just_entered != 0 || info.slot >= MAX_CLIENTS) return false;
  const std::uint64_t left_ms = picture.players[info.slot].left_ms;
  return left_ms != 0 && now_ms - left_ms < LATE_ANSWER_MS;
}

static void hear_info(GamePicture& picture, Datagram datagram, std::uint64_t now_ms) {
  const auto info = whole_record_of<PlayerInfo>(datagram);
  if (!info || is_late_answer(picture, *info, now_ms)) return;
  PlayerPicture* player = hear_about<PlayerInfo>(picture, datagram);
  if (player == nullptr) return;
  if (info->just_entered != 0 || player->heard_ms == 0) player->heard_ms = now_ms;
  player->record_ms = now_ms;
}

static void hear_left(GamePicture& picture, Datagram datagram, std::uint64_t now_ms) {
  const auto notice = whole_record_of<PlayerLeft>(datagram);
  if (!notice || notice->slot >= MAX_CLIENTS) return;
  picture.players[notice->slot] = {.left_ms = now_ms};
  if (picture.pinkpanther == notice->slot) picture.pinkpanther = NOBODY;
}

// Applies a relay without a slot. If a player already has the values, the relay is a repeat. If it
// may be about several players, the picture asks for their records.
template <typename MayBe, typename Has, typename Take>
static void hear_unnamed(GamePicture& picture, std::uint64_t now_ms, MayBe may_be, Has has,
                         Take take) {
  PlayerPicture* only = nullptr;
  unsigned count = 0;
  for (Slot slot = 0; slot < MAX_CLIENTS; ++slot) {
    PlayerPicture& player = picture.players[slot];
    if (slot == picture.own_slot || !player.is_here || !may_be(player)) continue;
    if (has(player)) return;
    only = &player;
    ++count;
  }
  if (count == 1) return take(*only);
  picture.unnamed_ms = now_ms;
}

static void hear_state_floats(GamePicture& picture, Datagram datagram, std::uint64_t now_ms) {
  const auto relay = whole_record_of<PlayerStateFloats>(datagram);
  if (!relay) return;
  hear_unnamed(
      picture, now_ms, [](const PlayerPicture&) { return true; },
      [&](const PlayerPicture& player) {
        return player.state.state_f2 == relay->state_f2 && player.state.state_f3 == relay->state_f3;
      },
      [&](PlayerPicture& player) {
        player.state.state_f2 = relay->state_f2;
        player.state.state_f3 = relay->state_f3;
      });
}

static void hear_car_status(GamePicture& picture, Datagram datagram, std::uint64_t now_ms) {
  const auto relay = whole_record_of<PlayerCarStatus>(datagram);
  if (!relay) return;
  hear_unnamed(
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
static void hear_clock(GamePicture& picture, Datagram datagram, std::uint64_t now_ms) {
  const auto clock = whole_record_of<Record>(datagram);
  if (!clock) return;
  picture.is_clock_known = true;
  picture.clock_minutes = (clock->hour * 60U + clock->minute) % DAY_MINUTES;
  picture.clock_ms = now_ms;
}

// If the reply names another player's slot, that player joined last. Its record is not among those
// that follow, so the picture adds the player and asks for the record.
static void hear_entered(GamePicture& picture, Datagram datagram, std::uint64_t now_ms) {
  hear_clock<EnterGameReply>(picture, datagram, now_ms);
  const auto reply = whole_record_of<EnterGameReply>(datagram);
  if (reply && reply->last_join_slot < MAX_CLIENTS) {
    picture.players[reply->last_join_slot].is_here = true;
  }
}

static void hear_chat(GamePicture& picture, Datagram datagram) {
  const auto line = whole_record_of<ChatLine>(datagram);
  if (!line) return;
  ChatText& text = picture.chat[picture.chat_count++ % CHAT_LINES];
  copy_text(text, line->text.data(), line->text.size());
}

static void hear_pinkpanther(GamePicture& picture, Datagram datagram) {
  const auto notice = whole_record_of<PinkPanther>(datagram);
  if (notice) picture.pinkpanther = notice->slot;
}

void picture_hear(GamePicture& picture, Datagram datagram, std::uint64_t now_ms) {
  if (datagram.empty()) return;
  switch (ServerCommand{datagram[0]}) {
    case CMD_ENTER_GAME_REPLY:
      return hear_entered(picture, datagram, now_ms);
    case CMD_CHAT_LINE:
      return hear_chat(picture, datagram);
    case CMD_PLAYER_INFO:
      return hear_info(picture, datagram, now_ms);
    case CMD_PLAYER_STATE:
      hear_about<PlayerStateReply>(picture, datagram);
      return;
    case CMD_PLAYER_LEFT:
      return hear_left(picture, datagram, now_ms);
    case CMD_GAME_CLOCK:
      return hear_clock<GameClock>(picture, datagram, now_ms);
    case CMD_PLAYER_POSITION:
      return hear_relay<PlayerPosition>(picture, datagram, now_ms);
    case CMD_PLAYER_FOOT_UPDATE:
      return hear_relay<PlayerFootUpdate>(picture, datagram, now_ms);
    case CMD_PLAYER_CAR_BLOCK_A:
      return hear_relay<PlayerCarBlockA>(picture, datagram, now_ms);
    case CMD_PLAYER_CAR_BLOCK_B:
      return hear_relay<PlayerCarBlockB>(picture, datagram, now_ms);
    case CMD_PLAYER_GOT_CAR:
      return hear_relay<PlayerGotCar>(picture, datagram, now_ms);
    case CMD_PLAYER_LEFT_CAR:
      return hear_relay<PlayerLeftCar>(picture, datagram, now_ms);
    case CMD_PLAYER_WEAPON:
      return hear_relay<PlayerWeapon>(picture, datagram, now_ms);
    case CMD_PLAYER_STATE_FLOATS:
      return hear_state_floats(picture, datagram, now_ms);
    case CMD_PLAYER_CAR_STATUS:
      return hear_car_status(picture, datagram, now_ms);
    case CMD_PINKPANTHER:
      return hear_pinkpanther(picture, datagram);
    case CMD_PLAYER_DIED:
      return hear_relay<PlayerDied>(picture, datagram, now_ms);
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

static bool was_asked_lately(const PlayerPicture& player, std::uint64_t now_ms) {
  return player.asked_ms != 0 && now_ms - player.asked_ms < ASK_AGAIN_MS;
}

static bool is_in_doubt(const GamePicture& picture, const PlayerPicture& player,
                        std::uint64_t now_ms) {
  const bool may_be_old = picture.unnamed_ms > player.record_ms;
  const std::uint64_t age_ms = may_be_old ? UNNAMED_AGE_MS : RECORD_AGE_MS;
  const bool is_known = player.has_record && now_ms - player.record_ms < age_ms;
  return player.is_here && !is_known && !was_asked_lately(player, now_ms);
}

// The next one of the slots without any datagram so far, in turn.
static Slot next_unknown(GamePicture& picture, std::uint64_t now_ms) {
  if (now_ms - picture.asked_unknown_ms < ASK_UNKNOWN_MS) return NO_SLOT;
  for (Slot tried = 0; tried < MAX_CLIENTS; ++tried) {
    picture.unknown_slot = static_cast<Slot>((picture.unknown_slot + 1) % MAX_CLIENTS);
    PlayerPicture& player = picture.players[picture.unknown_slot];
    if (picture.unknown_slot == picture.own_slot || player.is_here) continue;
    if (was_asked_lately(player, now_ms)) continue;
    picture.asked_unknown_ms = player.asked_ms = now_ms;
    return picture.unknown_slot;
  }
  return NO_SLOT;
}

// The server does not answer a question about the asker.
Slot next_question(GamePicture& picture, std::uint64_t now_ms) {
  for (Slot slot = 0; slot < MAX_CLIENTS; ++slot) {
    PlayerPicture& player = picture.players[slot];
    if (slot == picture.own_slot || !is_in_doubt(picture, player, now_ms)) continue;
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
