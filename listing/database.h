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
inline constexpr int MAX_ENTRIES = 10'000;
inline constexpr int DEFAULT_PORTS_PER_ADDRESS = 64;

// The digit that a server reads.
enum class ListVerdict : char { REFUSED = '0', LISTED = '1', UPDATED = '2' };

struct Entry {
  std::string address;
  Announcement server;
  std::int64_t first_seen_s = 0;  // since 1970, UTC
  std::int64_t last_seen_s = 0;
};

// Opens the file and makes what is missing in it. Null when that is impossible; complaint says why.
sqlite3* open_list(const char* path, std::string& complaint);
void close_list(sqlite3* list);

// Enters, refreshes or removes the entry of this address and the announced port. Once this returns
// a verdict, the change is on the disk. Nothing when the database fails.
std::optional<ListVerdict> take_announcement(sqlite3* list, const std::string& address,
                                             const Announcement& announcement, std::int64_t now_s,
                                             int ports_per_address);

// All entries that have not expired, most players first. Nothing when the database fails.
std::optional<std::vector<Entry>> read_list(sqlite3* list, std::int64_t now_s);
