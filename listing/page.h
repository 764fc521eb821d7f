// The list as a page for people and as JSON for programs.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "listing/database.h"

// Selects the entries of the page and of the JSON.
struct Filter {
  bool hides_empty = false;
  std::optional<int> game_type = std::nullopt;  // nothing: all game types
};

// Reads "empty=no" and "game=0" or "game=1" from a query. Ignores other keys and values.
Filter read_filter(std::string_view query);

// is_asker_down: the page says that new servers do not appear, because zolask is not running.
std::string html_of(const std::vector<Entry>& entries, const Filter& filter, std::int64_t now_s,
                    bool is_asker_down);
std::string json_of(const std::vector<Entry>& entries, const Filter& filter);
// The page that replaces the list when the database fails.
std::string html_of_failure();
