#include "listing/page.h"

#include <ctime>

#include "text/names.h"

static constexpr const char* HEAD = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta http-equiv="refresh" content="30">
<title>ZOL servers</title>
<style>
:root { color-scheme: light dark; font: 16px/1.5 system-ui, sans-serif; }
body { max-width: 60rem; margin: 0 auto; padding: 1rem; }
nav { display: flex; flex-wrap: wrap; gap: 0 1.5rem; }
table { width: 100%; margin-top: 1rem; border-collapse: collapse; }
th, td { padding: .4rem .6rem; text-align: left; border-bottom: 1px solid #8886;
  white-space: nowrap; }
td:first-child { white-space: normal; overflow-wrap: anywhere; }
code { user-select: all; }
.free { opacity: .6; }
p { max-width: 40rem; }
@media (max-width: 50rem) {
  thead { display: none; }
  tr { display: flex; flex-wrap: wrap; gap: 0 1.2rem; padding: .5rem 0;
    border-bottom: 1px solid #8886; }
  td { padding: 0; border: 0; }
  td:first-child { width: 100%; font-weight: bold; }
  td::before { margin-right: .4em; font-size: .85em; opacity: .7; }
  td:nth-child(2)::before { content: "Address"; }
  td:nth-child(3)::before { content: "Players"; }
  td:nth-child(4)::before { content: "Game"; }
  td:nth-child(5)::before { content: "Seen"; }
}
</style>
</head>
<body>
<h1>ZOL servers</h1>
)";

static constexpr const char* TABLE = R"(<table>
<thead><tr><th>Name</th><th>Address</th><th>Players</th><th>Game</th><th>Seen</th></tr></thead>
<tbody>
)";

static constexpr const char* NO_MATCH = "<p>No listed server matches this choice.</p>\n";

static constexpr const char* EMPTY = R"(<p>No server is listed now.</p>
<p>A server lists itself here when <code>AnnounceServer=true</code> is in its
<code>zolserver.cfg</code> and it was built, or its machine was told, to announce to this host. It
appears within seconds of its start. It disappears when it stops, or 11 minutes after its last
announce.</p>
)";

static constexpr const char* ASKER_IS_DOWN =
    "<p>New servers do not appear now: the program that asks them, zolask, does not run.</p>\n";

static constexpr const char* END = "</body>\n</html>\n";

static const char* game_of(const Announcement& server) {
  return game_type_name(server.game_type);
}

static std::string escaped_html(const std::string& text) {
  std::string escaped;
  for (const char each : text) {
    switch (each) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\'':
        escaped += "&#39;";
        break;
      default:
        escaped += each;
    }
  }
  return escaped;
}

// The text must have no control characters, as the texts of an Announcement.
static std::string quoted_json(const std::string& text) {
  std::string quoted = "\"";
  for (const char each : text) {
    if (each == '"' || each == '\\') quoted += '\\';
    quoted += each;
  }
  return quoted + '"';
}

static std::string age_text(std::int64_t seconds) {
  if (seconds < 60) return "just now";
  return std::to_string(seconds / 60) + " min ago";
}

// Shows the address in place of a blank name.
static std::string row_of(const Entry& entry, std::int64_t now_s) {
  const Announcement& server = entry.server;
  const std::string count =
      std::to_string(server.players) + " of " + std::to_string(server.max_players);
  const std::string address = escaped_html(entry.address) + ":" + std::to_string(server.port);
  std::string row = server.players == 0 ? "<tr class=\"free\">" : "<tr>";
  row += "<td>" + (is_blank(server.name) ? address : escaped_html(server.name)) + "</td>";
  row += "<td><code>" + address + "</code></td>";
  row += "<td>" + count + "</td><td>" + game_of(server) + "</td>";
  return row + "<td>" + age_text(now_s - entry.last_seen_s) + "</td></tr>\n";
}

static std::string query_of(const Filter& filter) {
  std::string query = filter.hides_empty ? "empty=no" : "";
  if (filter.game_type) {
    if (!query.empty()) query += '&';
    query += "game=" + std::to_string(*filter.game_type);
  }
  return query;
}

// A link to the page with this filter; bold text instead if the filter is the current one. The link
// is relative, because the list may have any path on its web server.
static std::string link_to(const Filter& filter, const Filter& current, const char* text) {
  const std::string query = query_of(filter);
  if (query == query_of(current)) return std::string(" <b aria-current=\"true\">") + text + "</b>";
  const std::string target = query.empty() ? "./" : "?" + escaped_html(query);
  return " <a href=\"" + target + "\">" + text + "</a>";
}

static std::string links_of(const Filter& current) {
  std::string links = "<nav>\n<span>Servers:";
  links += link_to({false, current.game_type}, current, "all");
  links += link_to({true, current.game_type}, current, "with players");
  links += "</span>\n<span>Game:" + link_to({current.hides_empty, std::nullopt}, current, "any");
  for (const int type : {DEATHMATCH, CATCH_PINKPANTHER}) {
    links += link_to({current.hides_empty, type}, current, game_type_name(type));
  }
  return links + "</span>\n</nav>\n";
}

static bool matches_filter(const Entry& entry, const Filter& filter) {
  if (filter.hides_empty && entry.server.players == 0) return false;
  return !filter.game_type || entry.server.game_type == *filter.game_type;
}

struct Totals {
  std::size_t players = 0;
  std::size_t servers = 0;
};

static Totals totals_of(const std::vector<Entry>& entries, const Filter& filter) {
  Totals totals;
  for (const Entry& entry : entries) {
    if (!matches_filter(entry, filter)) continue;
    totals.players += static_cast<std::size_t>(entry.server.players);
    ++totals.servers;
  }
  return totals;
}

static std::string count_text(std::size_t count, const char* thing) {
  return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

// "3 players on 2 servers", or "3 players on 2 of 40 servers" if the filter hides some.
static std::string totals_text(const Totals& totals, std::size_t listed) {
  std::string sum = "<p>" + count_text(totals.players, "player") + " on ";
  if (totals.servers != listed) sum += std::to_string(totals.servers) + " of ";
  return sum + count_text(listed, "server") + "</p>\n";
}

Filter read_filter(std::string_view query) {
  Filter filter{.hides_empty = value_of(query, "empty") == "no"};
  for (const int type : {DEATHMATCH, CATCH_PINKPANTHER}) {
    if (value_of(query, "game") == std::to_string(type)) filter.game_type = type;
  }
  return filter;
}

std::string html_of(const std::vector<Entry>& entries, const Filter& filter, std::int64_t now_s,
                    bool is_asker_down) {
  std::string page = HEAD;
  if (is_asker_down) page += ASKER_IS_DOWN;
  if (entries.empty()) return page + EMPTY + END;
  const Totals totals = totals_of(entries, filter);
  page += totals_text(totals, entries.size()) + links_of(filter);
  if (totals.servers == 0) return page + NO_MATCH + END;
  page += TABLE;
  for (const Entry& entry : entries) {
    if (matches_filter(entry, filter)) page += row_of(entry, now_s);
  }
  return page + "</tbody>\n</table>\n" + END;
}

std::string html_of_failure() {
  return std::string(HEAD) + "<p>The list is unavailable. Please try again later.</p>\n" + END;
}

static std::string quoted_time(std::int64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm parts{};
  gmtime_r(&time, &parts);
  char text[32];
  std::strftime(text, sizeof text, "\"%Y-%m-%dT%H:%M:%SZ\"", &parts);
  return text;
}

static std::string object_of(const Entry& entry) {
  const Announcement& server = entry.server;
  std::string object = "{\"address\":" + quoted_json(entry.address);
  object += ",\"port\":" + std::to_string(server.port) + ",\"name\":" + quoted_json(server.name);
  object += ",\"players\":" + std::to_string(server.players);
  object += ",\"max_players\":" + std::to_string(server.max_players);
  object += ",\"game_type\":\"" + std::string(game_of(server)) + "\"";
  object += ",\"version\":" + std::to_string(server.version) + ",\"os\":" + quoted_json(server.os);
  object += ",\"first_seen\":" + quoted_time(entry.first_seen_s);
  return object + ",\"last_seen\":" + quoted_time(entry.last_seen_s) + "}";
}

std::string json_of(const std::vector<Entry>& entries, const Filter& filter) {
  const Totals totals = totals_of(entries, filter);
  std::string object = "{\"total_players\":" + std::to_string(totals.players);
  object += ",\"total_servers\":" + std::to_string(totals.servers) + ",\"servers\":[";
  const char* separator = "\n";
  for (const Entry& entry : entries) {
    if (!matches_filter(entry, filter)) continue;
    object += separator + object_of(entry);
    separator = ",\n";
  }
  return object + "\n]}\n";
}
