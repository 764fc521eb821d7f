// What people and programs see of the list.
#pragma once

#include <string>
#include <vector>

#include "listing/database.h"

std::string html_of(const std::vector<Entry>& entries, std::int64_t now_s);
std::string json_of(const std::vector<Entry>& entries);
// The page in place of the list when the database fails.
std::string html_of_failure();
