// The list as an SQLite database. Any number of processes may use it at a time, and may be killed
// at any time (https://www.sqlite.org/wal.html). Only one thread at a time may use a List.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "listing/announcement.h"

struct sqlite3;

inline constexpr std::int64_t ENTRY_LIFE_S = 660;  // two announces and 60 s
// A process may wait for the lock after it has read the clock, so an entry may be this much in the
// future. An entry further in the future was written before the clock was set back.
inline constexpr std::int64_t CLOCK_SLACK_S = 10;
inline constexpr int MAX_ENTRIES = 10'000;  // in the list
inline constexpr int DEFAULT_PORTS_PER_ADDRESS = 64;
inline constexpr int DEFAULT_LOCK_TIMEOUT_MS = 5'000;  // below the server's limit of ten seconds

struct List {
  sqlite3* database = nullptr;
  std::string path{};
  int lock_timeout_ms = DEFAULT_LOCK_TIMEOUT_MS;  // how long to wait for a lock of another process
  // The last failure: the file, the problem and what to do next. Without a line feed.
  std::string error_text{};
  bool is_locked = false;  // the last failure was a lock of another process
};

// The digit in the answer to a server.
enum class ListVerdict : char { REFUSED = '0', LISTED = '1', UPDATED = '2' };

struct ListRules {
  int ports_per_address = DEFAULT_PORTS_PER_ADDRESS;
  bool requires_answer = true;  // an entry is hidden until its server has answered zolask
};

struct Entry {
  std::string address;
  Announcement server;
  std::int64_t first_seen_s = 0;  // seconds since 1970, UTC
  std::int64_t last_seen_s = 0;
};

// A server that zolask has to ask.
struct PendingEntry {
  std::string address;
  int port = 0;
  std::int64_t first_seen_s = 0;  // distinguishes entries of the same address and port
};

struct Answer {
  PendingEntry question;
  bool has_answered = false;
};

// Opens the list. Creates it if the file is missing or empty; upgrades a list of version 1. Does
// not change a file of another program. On failure returns false with list.error_text set;
// list.database is then null.
bool open_list(List& list, const std::string& path);
void close_list(List& list);

// Adds, refreshes or removes the entry of this address and the announced port. When it returns a
// verdict, the change is on the disk. Nothing, with list.error_text set, when the database fails.
std::optional<ListVerdict> apply_announcement(List& list, const std::string& address,
                                              const Announcement& announcement, std::int64_t now_s,
                                              const ListRules& rules);

// The visible entries that have not expired, sorted by players, most first. Nothing when the
// database fails.
std::optional<std::vector<Entry>> read_list(List& list, std::int64_t now_s);

// The entries to ask, in this order: the newest entry of each address, then the second newest of
// each address, and so on. So an address with many entries does not delay the others. Nothing when
// the database fails.
std::optional<std::vector<PendingEntry>> read_pending_entries(List& list, std::int64_t now_s);

// Writes all answers in one transaction. An entry that was removed or has changed its state
// meanwhile is skipped. False when the database fails.
bool write_answers(List& list, const std::vector<Answer>& answers);
