// The protocol, version 40: every command code and every datagram, and nothing else.
//
// One datagram is one message. Its first byte is the command code; its fields are at fixed offsets;
// multi-byte values are little-endian. Codes 41, 43 and 60 have one meaning from client to server
// and another from server to client.
//
// The layout of a record in memory is its layout on the wire. Assertions check its size and that it
// has no padding. Bytes without a meaning are named unused. A default-constructed record has its
// code, and zeros elsewhere except in PinkPanther. Floats are 32-bit patterns: the server never
// computes with a client's float, so it relays every bit unchanged, signalling NaNs included.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>

namespace zol {

static_assert(std::endian::native == std::endian::little,
              "records are sent as their bytes in memory");

inline constexpr std::uint16_t PROTOCOL_VERSION = 40;
inline constexpr const char* SERVER_VERSION = "0.4";

inline constexpr std::size_t NAME_WIDTH = 64;  // bytes, including the terminating NUL
inline constexpr std::size_t TEXT_WIDTH = 64;  // bytes of a chat line, a refusal or the welcome
inline constexpr std::size_t RECEIVE_BUFFER_SIZE = 256;  // bytes; the rest of a datagram is lost

inline constexpr std::int32_t MAX_CLIENTS = 32;  // slots
using Slot = std::uint8_t;                       // a player's number, from 0 to MAX_CLIENTS - 1
inline constexpr Slot NO_SLOT = 255;
inline constexpr Slot NOBODY = 100;  // in CMD_PINKPANTHER: no player has the role

enum GameType : std::uint8_t { DEATHMATCH = 0, CATCH_PINKPANTHER = 1 };

inline constexpr const char* game_type_name(int game_type) {
  return game_type == CATCH_PINKPANTHER ? "CatchPinkPanther" : "Deathmatch";
}

// Client to server.
enum class ClientCommand : std::uint8_t {
  CMD_PING_REPLY = 2,
  CMD_JOIN = 10,
  CMD_ENTER_GAME = 15,
  CMD_CHAT = 31,
  CMD_GET_PLAYER_INFO = 40,
  CMD_GET_PLAYER_STATE = 41,
  CMD_VEHICLE = 43,
  CMD_PLAYER_LEFT = 60,
  CMD_POSITION_UPDATE = 100,
  CMD_CAR_STATE = 101,
  CMD_LEAVE_CAR = 102,
  CMD_DIED = 103,
  CMD_FOOT_UPDATE = 110,
  CMD_CAR_BLOCK_A = 120,
  CMD_CAR_BLOCK_B = 121,
  CMD_WEAPON = 122,
  CMD_STATE_FLOATS = 123,
  CMD_CAR_STATUS = 124,
};

// Server to client.
enum class ServerCommand : std::uint8_t {
  CMD_PING = 1,
  CMD_JOIN_REFUSED_FULL = 12,
  CMD_JOIN_REFUSED_VERSION = 14,
  CMD_ENTER_GAME_REPLY = 16,
  CMD_JOIN_ACCEPTED = 17,
  CMD_SERVER_SHUTDOWN = 19,
  CMD_CHAT_LINE = 30,
  CMD_NOT_IN_CAR = 41,
  CMD_PLAYER_INFO = 42,
  CMD_PLAYER_STATE = 43,
  CMD_PLAYER_LEFT = 60,
  CMD_GAME_CLOCK = 72,
  CMD_PLAYER_POSITION = 200,
  CMD_PLAYER_FOOT_UPDATE = 201,
  CMD_PLAYER_CAR_BLOCK_A = 202,
  CMD_PLAYER_CAR_BLOCK_B = 203,
  CMD_PLAYER_GOT_CAR = 204,
  CMD_PLAYER_LEFT_CAR = 205,
  CMD_PLAYER_WEAPON = 206,
  CMD_PLAYER_STATE_FLOATS = 207,
  CMD_PLAYER_CAR_STATUS = 208,
  CMD_PINKPANTHER = 209,
  CMD_PLAYER_DIED = 220,
};

// The 32 bits of a float that a client sent. A position is three floats.
using FloatBits = std::uint32_t;
using Position = std::array<std::uint32_t, 3>;
using CarBlockA = std::array<std::uint8_t, 28>;
using CarBlockB = std::array<std::uint8_t, 24>;
template <std::size_t count>
using Unused = std::array<std::uint8_t, count>;

// Blocks that several datagrams share.

struct PlayerState {
  Position position{};
  FloatBits state_f1 = 0;
  std::uint8_t state_b = 0;  // the weapon type
  Unused<3> unused_1{};
  FloatBits state_f2 = 0;
  FloatBits state_f3 = 0;
};

struct CarState {
  std::uint8_t car_type = 0;
  std::uint8_t car_color1 = 0;
  std::uint8_t car_color2 = 0;
  Unused<1> unused_1{};
  CarBlockA car_block_a{};
  CarBlockB car_block_b{};
  std::uint8_t car_byte = 0;
  Unused<3> unused_2{};
  FloatBits car_float = 0;
};

// Client to server. A command without a record consists only of its code.

struct JoinRequest {
  ClientCommand command = ClientCommand::CMD_JOIN;
  std::array<char, NAME_WIDTH> name{};
  Unused<1> unused_1{};
  std::uint16_t version = 0;  // PROTOCOL_VERSION
};

struct EnterGame {
  ClientCommand command = ClientCommand::CMD_ENTER_GAME;
  Unused<3> unused_1{};
  PlayerState state{};
  std::uint8_t in_car = 0;  // 0: on foot, and car is not read
  Unused<3> unused_2{};
  CarState car{};
};

// The text ends with a NUL or with the datagram, which may be shorter than this record.
struct Chat {
  ClientCommand command = ClientCommand::CMD_CHAT;
  std::array<char, RECEIVE_BUFFER_SIZE - 1> text{};
};

struct GetPlayerInfo {
  ClientCommand command = ClientCommand::CMD_GET_PLAYER_INFO;
  Slot slot = 0;
};

struct GetPlayerState {
  ClientCommand command = ClientCommand::CMD_GET_PLAYER_STATE;
  Slot slot = 0;
};

struct PositionUpdate {
  ClientCommand command = ClientCommand::CMD_POSITION_UPDATE;
  Unused<3> unused_1{};
  Position position{};
};

struct Vehicle {
  ClientCommand command = ClientCommand::CMD_VEHICLE;
  std::uint8_t got_in = 0;  // 0: left its car, and car is not read
  Unused<2> unused_1{};
  Position position{};
  CarState car{};
};

struct CarStateReport {
  ClientCommand command = ClientCommand::CMD_CAR_STATE;
  Unused<3> unused_1{};
  Position position{};
  CarState car{};
};

struct Died {
  ClientCommand command = ClientCommand::CMD_DIED;
  std::uint8_t death_count = 0;
};

struct FootUpdate {
  ClientCommand command = ClientCommand::CMD_FOOT_UPDATE;
  Unused<3> unused_1{};
  FloatBits state_f1 = 0;
};

struct CarBlockAUpdate {
  ClientCommand command = ClientCommand::CMD_CAR_BLOCK_A;
  Unused<3> unused_1{};
  CarBlockA car_block_a{};
};

struct CarBlockBUpdate {
  ClientCommand command = ClientCommand::CMD_CAR_BLOCK_B;
  Unused<3> unused_1{};
  CarBlockB car_block_b{};
};

struct Weapon {
  ClientCommand command = ClientCommand::CMD_WEAPON;
  std::uint8_t state_b = 0;
};

struct CarStatus {
  ClientCommand command = ClientCommand::CMD_CAR_STATUS;
  std::uint8_t car_byte = 0;
  Unused<2> unused_1{};
  FloatBits car_float = 0;
};

struct StateFloats {
  ClientCommand command = ClientCommand::CMD_STATE_FLOATS;
  Unused<3> unused_1{};
  FloatBits state_f2 = 0;
  FloatBits state_f3 = 0;
};

// Server to client.

struct JoinAccepted {
  ServerCommand command = ServerCommand::CMD_JOIN_ACCEPTED;
  Slot slot = 0;
  std::uint8_t game_type = 0;
  char welcome_message[TEXT_WIDTH] = {};
};

struct JoinRefusedFull {
  ServerCommand command = ServerCommand::CMD_JOIN_REFUSED_FULL;
  char text[TEXT_WIDTH] = {};
};

struct JoinRefusedVersion {
  ServerCommand command = ServerCommand::CMD_JOIN_REFUSED_VERSION;
  char text[TEXT_WIDTH] = {};
};

struct EnterGameReply {
  ServerCommand command = ServerCommand::CMD_ENTER_GAME_REPLY;
  Slot last_join_slot = 0;  // the free slot that the latest join of any sender found, or NO_SLOT
  std::uint8_t hour = 0;
  std::uint8_t minute = 0;
};

struct PlayerInfo {
  ServerCommand command = ServerCommand::CMD_PLAYER_INFO;
  Slot slot = 0;
  std::uint8_t just_entered = 0;  // 1: this player has just entered the game
  std::array<char, NAME_WIDTH + 1> name{};
  PlayerState state{};
  std::uint8_t in_car = 0;  // 0 or 1; at 0, all of car is zero
  Unused<3> unused_1{};
  CarState car{};
};

struct PlayerStateReply {
  ServerCommand command = ServerCommand::CMD_PLAYER_STATE;
  Slot slot = 0;
  std::uint8_t in_car = 0;  // as in PlayerInfo
  Unused<1> unused_1{};
  Position position{};
  CarState car{};
};

struct PlayerLeft {
  ServerCommand command = ServerCommand::CMD_PLAYER_LEFT;
  Slot slot = 0;
};

struct ServerShutdown {
  ServerCommand command = ServerCommand::CMD_SERVER_SHUTDOWN;
};

struct GameClock {
  ServerCommand command = ServerCommand::CMD_GAME_CLOCK;
  std::uint8_t hour = 0;
  std::uint8_t minute = 0;
};

struct ChatLine {
  ServerCommand command = ServerCommand::CMD_CHAT_LINE;
  std::array<char, TEXT_WIDTH> text{};  // without a NUL if the text fills the field
};

struct PlayerPosition {
  ServerCommand command = ServerCommand::CMD_PLAYER_POSITION;
  Slot slot = 0;
  Unused<2> unused_1{};
  Position position{};
};

struct PlayerFootUpdate {
  ServerCommand command = ServerCommand::CMD_PLAYER_FOOT_UPDATE;
  Slot slot = 0;
  Unused<2> unused_1{};
  FloatBits state_f1 = 0;
};

struct PlayerCarBlockA {
  ServerCommand command = ServerCommand::CMD_PLAYER_CAR_BLOCK_A;
  Slot slot = 0;
  Unused<2> unused_1{};
  CarBlockA car_block_a{};
};

struct PlayerCarBlockB {
  ServerCommand command = ServerCommand::CMD_PLAYER_CAR_BLOCK_B;
  Slot slot = 0;
  Unused<2> unused_1{};
  CarBlockB car_block_b{};
};

struct PlayerGotCar {
  ServerCommand command = ServerCommand::CMD_PLAYER_GOT_CAR;
  Slot slot = 0;
  Unused<2> unused_1{};
  Position position{};
  CarState car{};
};

struct PlayerLeftCar {
  ServerCommand command = ServerCommand::CMD_PLAYER_LEFT_CAR;
  Slot slot = 0;
  Unused<2> unused_1{};
  Position position{};
  FloatBits state_f1 = 0;
};

struct PlayerWeapon {
  ServerCommand command = ServerCommand::CMD_PLAYER_WEAPON;
  Slot slot = 0;
  std::uint8_t state_b = 0;
};

// Contains no slot: a receiver cannot tell which player this is about.
struct PlayerCarStatus {
  ServerCommand command = ServerCommand::CMD_PLAYER_CAR_STATUS;
  Unused<1> unused_1{};
  std::uint8_t car_byte = 0;
  Unused<1> unused_2{};
  FloatBits car_float = 0;
};

struct PlayerDied {
  ServerCommand command = ServerCommand::CMD_PLAYER_DIED;
  Slot slot = 0;
  std::uint8_t death_count = 0;
};

struct NotInCar {
  ServerCommand command = ServerCommand::CMD_NOT_IN_CAR;
  Slot slot = 0;
};

struct Ping {
  ServerCommand command = ServerCommand::CMD_PING;
};

// Contains no slot, like PlayerCarStatus.
struct PlayerStateFloats {
  ServerCommand command = ServerCommand::CMD_PLAYER_STATE_FLOATS;
  Unused<3> unused_1{};
  FloatBits state_f2 = 0;
  FloatBits state_f3 = 0;
};

struct PinkPanther {
  ServerCommand command = ServerCommand::CMD_PINKPANTHER;
  Slot slot = NOBODY;
};

// A record or a bare code, at most as large as the receive buffer. Padding is rejected, because it
// would send uninitialised bytes. A span is rejected, because its pointer would be sent.
template <typename Record>
concept WireRecord = requires {
  requires std::is_aggregate_v<Record> || std::is_enum_v<Record>;
  requires std::has_unique_object_representations_v<Record>;
  requires sizeof(Record) <= RECEIVE_BUFFER_SIZE;
};

// A non-owning view of the bytes of one datagram. A record converts to a view of its bytes.
struct Datagram : std::span<const std::uint8_t> {
  using span::span;
  Datagram(std::span<const std::uint8_t> bytes) : span(bytes) {}
  template <WireRecord Record>
  Datagram(const Record& record)
      : span(reinterpret_cast<const std::uint8_t*>(&record), sizeof record) {}
};

// Copies the first bytes of a datagram into a record. A short datagram leaves the other bytes of
// the record at their initial values.
template <WireRecord Record>
Record record_of(Datagram datagram) {
  Record record;
  std::memcpy(&record, datagram.data(), std::min(datagram.size(), sizeof record));
  return record;
}

// Without padding, the sizes and the order of the fields fix the offsets.
template <std::size_t size, WireRecord... Records>
inline constexpr bool all_have_size = ((sizeof(Records) == size) && ...);

static_assert(all_have_size<1, ServerShutdown, Ping>);
static_assert(all_have_size<2, GetPlayerInfo, GetPlayerState, Died, Weapon, PlayerLeft, NotInCar,
                            PinkPanther>);
static_assert(all_have_size<3, GameClock, PlayerWeapon, PlayerDied>);
static_assert(all_have_size<4, EnterGameReply>);
static_assert(all_have_size<8, FootUpdate, CarStatus, PlayerFootUpdate, PlayerCarStatus>);
static_assert(all_have_size<12, StateFloats, PlayerStateFloats>);
static_assert(all_have_size<16, PositionUpdate, PlayerPosition>);
static_assert(all_have_size<20, PlayerLeftCar>);
static_assert(all_have_size<28, PlayerState, CarBlockBUpdate, PlayerCarBlockB>);
static_assert(all_have_size<32, CarBlockAUpdate, PlayerCarBlockA>);
static_assert(all_have_size<64, CarState>);
static_assert(all_have_size<65, JoinRefusedFull, JoinRefusedVersion, ChatLine>);
static_assert(all_have_size<67, JoinAccepted>);
static_assert(all_have_size<68, JoinRequest>);
static_assert(all_have_size<80, Vehicle, CarStateReport, PlayerStateReply, PlayerGotCar>);
static_assert(all_have_size<100, EnterGame>);
static_assert(all_have_size<164, PlayerInfo>);
static_assert(all_have_size<256, Chat>);

}  // namespace zol
