// What people and programs see of the list.
#pragma once

#include <string>
#include <vector>

#include "listing/database.h"

// nobody_asks: new servers do not appear, since the asker does not run.
std::string html_of(const std::vector<Entry>& entries, std::int64_t now_s, bool nobody_asks);
std::string json_of(const std::vector<Entry>& entries);
// The page in place of the list when the database fails.
std::string html_of_failure();
