#include "listing/database.h"

#include <sqlite3.h>

#include <chrono>
#include <memory>

static constexpr int BUSY_MS = 5'000;  // a server waits ten seconds for its answer
static constexpr int PAUSE_MS = 5;
static constexpr std::int64_t SCHEMA_VERSION = 1;

static constexpr const char* CREATE = R"(
CREATE TABLE server (
  address TEXT NOT NULL,
  port INTEGER NOT NULL,
  name TEXT NOT NULL,
  os TEXT NOT NULL,
  players INTEGER NOT NULL,
  max_players INTEGER NOT NULL,
  game_type INTEGER NOT NULL,
  version INTEGER NOT NULL,
  first_seen INTEGER NOT NULL,
  last_seen INTEGER NOT NULL,
  PRIMARY KEY (address, port)
) STRICT, WITHOUT ROWID;
CREATE INDEX server_last_seen ON server (last_seen);
PRAGMA user_version = 1;
)";

struct Finalize {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

static void bind(sqlite3_stmt* statement, int index, std::int64_t value) {
  sqlite3_bind_int64(statement, index, value);
}

static void bind(sqlite3_stmt* statement, int index, const std::string& value) {
  sqlite3_bind_text(statement, index, value.data(), static_cast<int>(value.size()),
                    SQLITE_TRANSIENT);
}

// Null when the database fails.
template <typename... Values>
static Statement prepare(sqlite3* list, const char* text, const Values&... values) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(list, text, -1, &statement, nullptr) != SQLITE_OK) return nullptr;
  int index = 0;
  (bind(statement, ++index, values), ...);
  return Statement(statement);
}

template <typename... Values>
static bool run(sqlite3* list, const char* text, const Values&... values) {
  const Statement statement = prepare(list, text, values...);
  int result = SQLITE_ROW;
  while (statement && result == SQLITE_ROW) result = sqlite3_step(statement.get());
  return result == SQLITE_DONE;
}

// The first column of the first row.
template <typename... Values>
static std::optional<std::int64_t> number(sqlite3* list, const char* text,
                                          const Values&... values) {
  const Statement statement = prepare(list, text, values...);
  if (!statement || sqlite3_step(statement.get()) != SQLITE_ROW) return std::nullopt;
  return sqlite3_column_int64(statement.get(), 0);
}

// Ends the transaction: for good when all was well, else as if it had not been.
static bool end_transaction(sqlite3* list, bool is_well) {
  if (is_well && run(list, "COMMIT")) return true;
  run(list, "ROLLBACK");
  return false;
}

// Two processes may find an empty file at once: the second looks again when it is its turn.
static bool create_if_empty(sqlite3* list) {
  const auto version = number(list, "PRAGMA user_version");
  if (!version || *version != 0) return version == SCHEMA_VERSION;
  if (!run(list, "BEGIN IMMEDIATE")) return false;
  const bool is_empty = number(list, "PRAGMA user_version") == 0;
  const bool is_well =
      !is_empty || sqlite3_exec(list, CREATE, nullptr, nullptr, nullptr) == SQLITE_OK;
  return end_transaction(list, is_well) && number(list, "PRAGMA user_version") == SCHEMA_VERSION;
}

// A verdict must survive a power failure, too, so each commit is synced.
static bool prepare_list(sqlite3* list) {
  return run(list, "PRAGMA journal_mode = WAL") && run(list, "PRAGMA synchronous = FULL") &&
         create_if_empty(list);
}

// The time-out does not count while another process turns an empty file into a list.
static bool prepare_when_free(sqlite3* list) {
  const auto begin = std::chrono::steady_clock::now();
  bool is_ready = prepare_list(list);
  while (!is_ready && sqlite3_errcode(list) == SQLITE_BUSY &&
         std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(BUSY_MS)) {
    sqlite3_sleep(PAUSE_MS);
    is_ready = prepare_list(list);
  }
  return is_ready;
}

sqlite3* open_list(const char* path, std::string& complaint) {
  sqlite3* list = nullptr;
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
  const bool is_open = sqlite3_open_v2(path, &list, flags, nullptr) == SQLITE_OK;
  if (is_open) {
    sqlite3_busy_timeout(list, BUSY_MS);
    if (prepare_when_free(list)) return list;
  }
  complaint = std::string(path) + ": " + (list == nullptr ? "no memory" : sqlite3_errmsg(list));
  if (is_open && sqlite3_errcode(list) == SQLITE_OK) {
    complaint = std::string(path) + ": made by another version of this program";
  }
  sqlite3_close(list);
  return nullptr;
}

void close_list(sqlite3* list) {
  sqlite3_close(list);
}

static bool has_room(sqlite3* list, const std::string& address, int ports_per_address) {
  const auto of_address = number(list, "SELECT count(*) FROM server WHERE address = ?", address);
  const auto of_all = number(list, "SELECT count(*) FROM server");
  return of_address && of_all && *of_address < ports_per_address && *of_all < MAX_ENTRIES;
}

static bool write_entry(sqlite3* list, const std::string& address, const Announcement& server,
                        std::int64_t now_s) {
  return run(list,
             "INSERT INTO server VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?9)"
             " ON CONFLICT DO UPDATE SET name = ?3, os = ?4, players = ?5, max_players = ?6,"
             " game_type = ?7, version = ?8, last_seen = ?9",
             address, server.port, server.name, server.os, server.players, server.max_players,
             server.game_type, server.version, now_s);
}

// In a transaction. Nothing when the database fails.
static std::optional<ListVerdict> change(sqlite3* list, const std::string& address,
                                         const Announcement& server, std::int64_t now_s,
                                         int ports_per_address) {
  const std::int64_t port = server.port;
  const auto known =
      number(list, "SELECT count(*) FROM server WHERE address = ? AND port = ?", address, port);
  if (!known) return std::nullopt;
  if (server.is_removal) {
    const bool is_well =
        run(list, "DELETE FROM server WHERE address = ? AND port = ?", address, port);
    return is_well ? std::optional(ListVerdict::UPDATED) : std::nullopt;
  }
  if (*known == 0 && !has_room(list, address, ports_per_address)) return ListVerdict::REFUSED;
  if (!write_entry(list, address, server, now_s)) return std::nullopt;
  return *known == 0 ? ListVerdict::LISTED : ListVerdict::UPDATED;
}

std::optional<ListVerdict> take_announcement(sqlite3* list, const std::string& address,
                                             const Announcement& announcement, std::int64_t now_s,
                                             int ports_per_address) {
  if (!run(list, "BEGIN IMMEDIATE")) return std::nullopt;
  std::optional<ListVerdict> verdict;
  if (run(list, "DELETE FROM server WHERE last_seen <= ?", now_s - ENTRY_LIFE_S)) {
    verdict = change(list, address, announcement, now_s, ports_per_address);
  }
  return end_transaction(list, verdict.has_value()) ? verdict : std::nullopt;
}

static std::string text_at(sqlite3_stmt* statement, int column) {
  const unsigned char* text = sqlite3_column_text(statement, column);
  return text == nullptr ? "" : reinterpret_cast<const char*>(text);
}

std::optional<std::vector<Entry>> read_list(sqlite3* list, std::int64_t now_s) {
  const Statement rows = prepare(
      list,
      "SELECT address, port, name, os, players, max_players, game_type, version, first_seen,"
      " last_seen FROM server WHERE last_seen > ? ORDER BY players DESC, name, address, port",
      now_s - ENTRY_LIFE_S);
  if (!rows) return std::nullopt;
  std::vector<Entry> entries;
  int result = 0;
  while ((result = sqlite3_step(rows.get())) == SQLITE_ROW) {
    const auto integer = [&](int column) { return sqlite3_column_int(rows.get(), column); };
    entries.push_back({
        .address = text_at(rows.get(), 0),
        .server = {.name = text_at(rows.get(), 2),
                   .os = text_at(rows.get(), 3),
                   .players = integer(4),
                   .max_players = integer(5),
                   .game_type = integer(6),
                   .port = integer(1),
                   .version = integer(7)},
        .first_seen_s = sqlite3_column_int64(rows.get(), 8),
        .last_seen_s = sqlite3_column_int64(rows.get(), 9),
    });
  }
  return result == SQLITE_DONE ? std::optional(std::move(entries)) : std::nullopt;
}
