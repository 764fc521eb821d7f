// What people and programs see of the list.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "listing/database.h"

// Which entries a reader wants, of the page and of JSON alike.
struct Filter {
  bool hides_empty = false;
  std::optional<int> game_type = std::nullopt;  // all, without one
};

// From "empty=no" and "game=0" or "game=1". Other keys and values change nothing.
Filter read_filter(std::string_view query);

// nobody_asks: new servers do not appear, since the asker does not run.
std::string html_of(const std::vector<Entry>& entries, const Filter& filter, std::int64_t now_s,
                    bool nobody_asks);
std::string json_of(const std::vector<Entry>& entries, const Filter& filter);
// The page in place of the list when the database fails.
std::string html_of_failure();
