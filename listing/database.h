// The list as an SQLite database, which any number of processes use at a time. See
// https://www.sqlite.org/wal.html for what a killed process leaves behind: nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "listing/announcement.h"

struct sqlite3;

inline constexpr std::int64_t ENTRY_LIFE_S = 660;  // two announces and a little
// A process may wait for the lock after it has read the clock. An entry from a later time than this
// was written before the clock was set back.
inline constexpr std::int64_t CLOCK_SLACK_S = 10;
inline constexpr int MAX_ENTRIES = 10'000;
inline constexpr int DEFAULT_PORTS_PER_ADDRESS = 64;
inline constexpr int DEFAULT_PATIENCE_MS = 5'000;  // a server waits ten seconds for its answer

struct List {
  sqlite3* database = nullptr;
  std::string path{};
  int patience_ms = DEFAULT_PATIENCE_MS;  // for a lock that another process holds
  // The reason of the last failure: the file, the problem, the next step. Without a line feed.
  std::string complaint{};
  bool is_locked = false;  // the last failure was such a lock
};

// The digit that a server reads.
enum class ListVerdict : char { REFUSED = '0', LISTED = '1', UPDATED = '2' };

struct ListRules {
  int ports_per_address = DEFAULT_PORTS_PER_ADDRESS;
  bool asks = true;  // an entry is hidden until its server has answered
};

struct Entry {
  std::string address;
  Announcement server;
  std::int64_t first_seen_s = 0;  // since 1970, UTC
  std::int64_t last_seen_s = 0;
};

// A server to be asked whether it answers.
struct OpenQuestion {
  std::string address;
  int port = 0;
  std::int64_t first_seen_s = 0;  // tells an entry from a later one of the same address and port
};

struct Answer {
  OpenQuestion question;
  bool was_given = false;
};

// Opens the file, creates the list in an empty one, and upgrades a list of version 1. It changes no
// other file. False when it fails, and list.database is null.
bool open_list(List& list, const std::string& path);
void close_list(List& list);

// Enters, refreshes or removes the entry of this address and the announced port. Once this returns
// a verdict, the change is on the disk. Nothing when the database fails.
std::optional<ListVerdict> take_announcement(List& list, const std::string& address,
                                             const Announcement& announcement, std::int64_t now_s,
                                             const ListRules& rules);

// The visible entries that have not expired, most players first. Nothing when the database fails.
std::optional<std::vector<Entry>> read_list(List& list, std::int64_t now_s);

// The newest of each address come first, then the second newest of each, and so on: an address with
// many questions does not delay the others. Nothing when the database fails.
std::optional<std::vector<OpenQuestion>> read_open_questions(List& list, std::int64_t now_s);

// In one transaction. An entry that was removed or changed its state meanwhile stays as it is.
bool write_answers(List& list, const std::vector<Answer>& answers);
