#include "listing/database.h"

#include <sqlite3.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>

static constexpr int PAUSE_MS = 5;  // between two attempts to open a locked list
static constexpr std::int64_t SCHEMA_VERSION = 2;

// The states of an entry. The numbers are stored in the file.
enum State : std::int64_t {
  ABSENT = -1,  // there is no entry
  PENDING = 0,  // zolask will ask the server
  SILENT = 1,   // the server did not answer zolask
  VISIBLE = 2,  // the server has answered, or does not have to answer
};

// Returns the version of the list in a file: 0 for an empty file, -1 for a file of another program.
// The application_id 0x5A4F4C4C is "ZOLL". Lists of version 1 have no application_id, so this
// checks their columns. It is one statement, so that no other process changes the file in the
// middle.
static constexpr const char* VERSION_OF_LIST = R"(
SELECT CASE
  WHEN application_id = 0x5A4F4C4C THEN user_version
  WHEN application_id <> 0 THEN -1
  WHEN user_version = 0 AND NOT EXISTS (SELECT 1 FROM sqlite_schema) THEN 0
  WHEN user_version = 1 AND (SELECT group_concat(name) FROM pragma_table_info('server')) =
    'address,port,name,os,players,max_players,game_type,version,first_seen,last_seen' THEN 1
  ELSE -1 END
FROM pragma_application_id, pragma_user_version
)";

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
  state INTEGER NOT NULL DEFAULT 2,
  PRIMARY KEY (address, port)
) STRICT, WITHOUT ROWID;
CREATE INDEX server_last_seen ON server (last_seen);
CREATE INDEX server_state ON server (state, last_seen);
PRAGMA application_id = 0x5A4F4C4C;
PRAGMA user_version = 2;
)";

// Version 1 had no zolask, so its entries stay visible.
static constexpr const char* UPGRADE = R"(
ALTER TABLE server ADD COLUMN state INTEGER NOT NULL DEFAULT 2;
CREATE INDEX server_state ON server (state, last_seen);
PRAGMA application_id = 0x5A4F4C4C;
PRAGMA user_version = 2;
)";

struct Finalize {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

static bool is_full(int system_error) {
  return system_error == ENOSPC || system_error == EDQUOT || system_error == EFBIG;
}

// The failure and what to do next. SQLite keeps the error of the system call only for the results
// SQLITE_IOERR and SQLITE_CANTOPEN.
static std::string reason_of(const List& list) {
  sqlite3* database = list.database;
  const int result = sqlite3_errcode(database) & 0xFF;
  const bool has_system_error = result == SQLITE_IOERR || result == SQLITE_CANTOPEN;
  const int system_error = has_system_error ? sqlite3_system_errno(database) : 0;
  if (result == SQLITE_FULL || is_full(system_error)) {
    return "the disk or the quota is full: free some space, nothing else is needed";
  }
  std::string text = sqlite3_errmsg(database);
  if (system_error != 0) text += std::string(" (") + std::strerror(system_error) + ")";
  switch (result) {
    case SQLITE_BUSY:
      return text + ": another process held its lock for " + std::to_string(list.lock_timeout_ms) +
             " ms; find that process with fuser(1)";
    case SQLITE_NOTADB:
      return text + ": name another file in ZOLLIST_DATABASE, or move this one away";
    case SQLITE_CORRUPT:
      return text +
             ": the file is damaged; stop the list and delete the file, and the servers that "
             "run list themselves again within five minutes";
    case SQLITE_CANTOPEN:
    case SQLITE_PERM:
    case SQLITE_READONLY:
      return text + ": this program's user must be able to write the file and its directory";
    default:
      return text;
  }
}

// Stores the first failure of a call, because later failures are its consequences. Returns false.
static bool fail(List& list) {
  if (!list.error_text.empty()) return false;
  list.error_text = list.path + ": " + reason_of(list);
  list.is_locked = (sqlite3_errcode(list.database) & 0xFF) == SQLITE_BUSY;
  return false;
}

static void bind(sqlite3_stmt* statement, int index, std::int64_t value) {
  sqlite3_bind_int64(statement, index, value);
}

static void bind(sqlite3_stmt* statement, int index, const std::string& value) {
  sqlite3_bind_text(statement, index, value.data(), static_cast<int>(value.size()),
                    SQLITE_TRANSIENT);
}

// Prepares a statement and binds its values. Null when the database fails.
template <typename... Values>
static Statement prepare(List& list, const char* text, const Values&... values) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(list.database, text, -1, &statement, nullptr) != SQLITE_OK) {
    fail(list);
    return nullptr;
  }
  int index = 0;
  (bind(statement, ++index, values), ...);
  return Statement(statement);
}

template <typename... Values>
static bool run(List& list, const char* text, const Values&... values) {
  const Statement statement = prepare(list, text, values...);
  int result = statement ? SQLITE_ROW : SQLITE_ERROR;
  while (result == SQLITE_ROW) result = sqlite3_step(statement.get());
  return result == SQLITE_DONE || fail(list);
}

// The first column of the first row. The query must have a row. Nothing when the database fails.
template <typename... Values>
static std::optional<std::int64_t> number(List& list, const char* text, const Values&... values) {
  const Statement statement = prepare(list, text, values...);
  if (statement && sqlite3_step(statement.get()) == SQLITE_ROW) {
    return sqlite3_column_int64(statement.get(), 0);
  }
  fail(list);
  return std::nullopt;
}

// Commits the transaction if is_ok. Rolls it back otherwise, and when the commit fails.
static bool end_transaction(List& list, bool is_ok) {
  if (is_ok && run(list, "COMMIT")) return true;
  sqlite3_exec(list.database, "ROLLBACK", nullptr, nullptr, nullptr);
  return false;
}

// Two processes may find an old or empty file at the same time, so this reads the version again
// once it has the lock.
static bool create_or_upgrade(List& list) {
  if (!run(list, "BEGIN IMMEDIATE")) return false;
  const auto version = number(list, VERSION_OF_LIST);
  const char* text = version == 0 ? CREATE : version == 1 ? UPGRADE : "";
  const bool is_ok =
      version &&
      (sqlite3_exec(list.database, text, nullptr, nullptr, nullptr) == SQLITE_OK || fail(list));
  return end_transaction(list, is_ok);
}

static bool reject_version(List& list, std::int64_t version) {
  list.error_text = list.path;
  list.error_text += version < 0 ? ": another program's database, not changed: name another file "
                                   "in ZOLLIST_DATABASE"
                                 : ": version " + std::to_string(version) +
                                       " of the list; this program supports no version after " +
                                       std::to_string(SCHEMA_VERSION) + ": install a newer zollist";
  return false;
}

// synchronous = FULL: a verdict must survive a power failure.
static bool prepare_list(List& list) {
  const auto version = number(list, VERSION_OF_LIST);
  if (!version) return false;
  if (*version < 0 || *version > SCHEMA_VERSION) return reject_version(list, *version);
  return run(list, "PRAGMA journal_mode = WAL") && run(list, "PRAGMA synchronous = FULL") &&
         (*version == SCHEMA_VERSION || create_or_upgrade(list));
}

// SQLite does not apply its busy time-out while another process creates the list, so this repeats.
static bool prepare_when_free(List& list) {
  const auto begin = std::chrono::steady_clock::now();
  bool is_ready = prepare_list(list);
  while (!is_ready && sqlite3_errcode(list.database) == SQLITE_BUSY &&
         std::chrono::steady_clock::now() - begin <
             std::chrono::milliseconds(list.lock_timeout_ms)) {
    sqlite3_sleep(PAUSE_MS);
    list.error_text.clear();
    is_ready = prepare_list(list);
  }
  return is_ready;
}

bool open_list(List& list, const std::string& path) {
  list.path = path;
  list.error_text.clear();
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
  const bool is_open = sqlite3_open_v2(path.c_str(), &list.database, flags, nullptr) == SQLITE_OK;
  if (is_open) {
    sqlite3_busy_timeout(list.database, list.lock_timeout_ms);
    if (prepare_when_free(list)) return true;
  }
  fail(list);
  close_list(list);
  return false;
}

void close_list(List& list) {
  sqlite3_close(list.database);
  list.database = nullptr;
}

// Deletes the entries that the query selects. Returns whether it deleted any; nothing when the
// database fails.
template <typename... Values>
static std::optional<bool> delete_rows(List& list, const std::string& query,
                                       const Values&... values) {
  const std::string text = "DELETE FROM server WHERE (address, port) IN (" + query + ")";
  if (!run(list, text.c_str(), values...)) return std::nullopt;
  return sqlite3_changes(list.database) > 0;
}

// Deletes one entry with this state: the newest entry of the address that has most such entries, if
// it has more than more_than.
static std::optional<bool> evict_newest(List& list, State state, std::int64_t more_than) {
  return delete_rows(list,
                     "SELECT address, port FROM server WHERE state = ?1 AND address = ("
                     "  SELECT address FROM server WHERE state = ?1 GROUP BY address"
                     "  HAVING count(*) > ?2 ORDER BY count(*) DESC, min(last_seen) LIMIT 1)"
                     " ORDER BY first_seen DESC, last_seen DESC, port DESC LIMIT 1",
                     state, more_than);
}

// Makes room for a new entry of this address. If the address has `most` entries, it deletes the
// oldest silent entry of the address. Otherwise, in a full list, it deletes, in this order of
// preference: the oldest silent entry; a pending entry, then a visible entry, of an address that
// has more of them than this address will have; a pending entry of an address that has as many as
// this address will have. So an address with many entries does not keep a new address out, and a
// new address does not remove the only visible entry of another address. Returns false if it cannot
// make room.
static std::optional<bool> make_room(List& list, const std::string& address, int most) {
  const auto own = number(list, "SELECT count(*) FROM server WHERE address = ?", address);
  if (!own) return std::nullopt;
  if (*own >= most) {
    return delete_rows(list,
                       "SELECT address, port FROM server WHERE address = ? AND state = ?"
                       " ORDER BY last_seen LIMIT 1",
                       address, SILENT);
  }
  const auto all = number(list, "SELECT count(*) FROM server");
  if (!all) return std::nullopt;
  if (*all < MAX_ENTRIES) return true;
  auto has_room = delete_rows(
      list, "SELECT address, port FROM server WHERE state = ? ORDER BY last_seen LIMIT 1", SILENT);
  if (has_room == false) has_room = evict_newest(list, PENDING, *own + 1);
  if (has_room == false) has_room = evict_newest(list, VISIBLE, *own + 1);
  if (has_room == false) has_room = evict_newest(list, PENDING, *own);
  return has_room;
}

static bool write_entry(List& list, const std::string& address, const Announcement& server,
                        std::int64_t now_s, State state) {
  return run(list,
             "INSERT INTO server VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?9, ?10)"
             " ON CONFLICT DO UPDATE SET name = ?3, os = ?4, players = ?5, max_players = ?6,"
             " game_type = ?7, version = ?8, last_seen = ?9, state = ?10",
             address, server.port, server.name, server.os, server.players, server.max_players,
             server.game_type, server.version, now_s, state);
}

// Call in a transaction. Nothing when the database fails.
static std::optional<ListVerdict> add_or_update(List& list, const std::string& address,
                                                const Announcement& server, std::int64_t now_s,
                                                const ListRules& rules) {
  const auto known =
      number(list, "SELECT ifnull((SELECT state FROM server WHERE address = ? AND port = ?), -1)",
             address, server.port);
  if (!known) return std::nullopt;
  if (*known == ABSENT) {
    const auto has_room = make_room(list, address, rules.ports_per_address);
    if (!has_room) return std::nullopt;
    if (!*has_room) return ListVerdict::REFUSED;
  }
  // With each announce, a silent server is asked again.
  const State state = rules.requires_answer && *known != VISIBLE ? PENDING : VISIBLE;
  if (!write_entry(list, address, server, now_s, state)) return std::nullopt;
  if (*known == ABSENT) return ListVerdict::LISTED;
  return rules.requires_answer && *known == SILENT ? ListVerdict::REFUSED : ListVerdict::UPDATED;
}

static std::optional<ListVerdict> remove(List& list, const std::string& address, int port) {
  const bool is_ok = run(list, "DELETE FROM server WHERE address = ? AND port = ?", address, port);
  return is_ok ? std::optional(ListVerdict::UPDATED) : std::nullopt;
}

std::optional<ListVerdict> apply_announcement(List& list, const std::string& address,
                                              const Announcement& announcement, std::int64_t now_s,
                                              const ListRules& rules) {
  list.error_text.clear();
  if (!run(list, "BEGIN IMMEDIATE")) return std::nullopt;
  std::optional<ListVerdict> verdict;
  if (run(list, "DELETE FROM server WHERE last_seen <= ? OR last_seen > ?", now_s - ENTRY_LIFE_S,
          now_s + CLOCK_SLACK_S)) {
    verdict = announcement.is_removal ? remove(list, address, announcement.port)
                                      : add_or_update(list, address, announcement, now_s, rules);
  }
  return end_transaction(list, verdict.has_value()) ? verdict : std::nullopt;
}

static std::string text_at(sqlite3_stmt* statement, int column) {
  const unsigned char* text = sqlite3_column_text(statement, column);
  return text == nullptr ? "" : reinterpret_cast<const char*>(text);
}

// Selects the entries with this state that have not expired, and converts each row with take_row.
template <typename Record, typename TakeRow>
static std::optional<std::vector<Record>> read_rows(List& list, const char* text, State state,
                                                    std::int64_t now_s, TakeRow take_row) {
  list.error_text.clear();
  const Statement rows = prepare(list, text, state, now_s - ENTRY_LIFE_S, now_s + CLOCK_SLACK_S);
  if (!rows) return std::nullopt;
  std::vector<Record> records;
  int result = 0;
  while ((result = sqlite3_step(rows.get())) == SQLITE_ROW) records.push_back(take_row(rows.get()));
  if (result == SQLITE_DONE) return records;
  fail(list);
  return std::nullopt;
}

std::optional<std::vector<Entry>> read_list(List& list, std::int64_t now_s) {
  return read_rows<Entry>(
      list,
      "SELECT address, port, name, os, players, max_players, game_type, version, first_seen,"
      " last_seen FROM server WHERE state = ? AND last_seen > ? AND last_seen <= ?"
      " ORDER BY players DESC, name, address, port",
      VISIBLE, now_s, [](sqlite3_stmt* row) {
        const auto integer = [&](int column) { return sqlite3_column_int(row, column); };
        return Entry{
            .address = text_at(row, 0),
            .server = {.name = text_at(row, 2),
                       .os = text_at(row, 3),
                       .players = integer(4),
                       .max_players = integer(5),
                       .game_type = integer(6),
                       .port = integer(1),
                       .version = integer(7)},
            .first_seen_s = sqlite3_column_int64(row, 8),
            .last_seen_s = sqlite3_column_int64(row, 9),
        };
      });
}

std::optional<std::vector<PendingEntry>> read_pending_entries(List& list, std::int64_t now_s) {
  return read_rows<PendingEntry>(
      list,
      "SELECT address, port, first_seen FROM server"
      " WHERE state = ? AND last_seen > ? AND last_seen <= ?"
      " ORDER BY row_number() OVER (PARTITION BY address ORDER BY last_seen DESC), last_seen DESC",
      PENDING, now_s, [](sqlite3_stmt* row) {
        return PendingEntry{.address = text_at(row, 0),
                            .port = sqlite3_column_int(row, 1),
                            .first_seen_s = sqlite3_column_int64(row, 2)};
      });
}

bool write_answers(List& list, const std::vector<Answer>& answers) {
  list.error_text.clear();
  if (!run(list, "BEGIN IMMEDIATE")) return false;
  bool is_ok = true;
  for (const auto& [question, has_answered] : answers) {
    is_ok = is_ok && run(list,
                         "UPDATE server SET state = ? WHERE address = ? AND port = ?"
                         " AND first_seen = ? AND state = ?",
                         has_answered ? VISIBLE : SILENT, question.address, question.port,
                         question.first_seen_s, PENDING);
  }
  return end_transaction(list, is_ok);
}
