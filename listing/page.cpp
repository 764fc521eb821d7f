#include "listing/page.h"

#include <ctime>

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
table { width: 100%; border-collapse: collapse; }
th, td { padding: .4rem .6rem; text-align: left; border-bottom: 1px solid #8886; }
td { overflow-wrap: anywhere; }
td.count { white-space: nowrap; }
code { user-select: all; }
.free { opacity: .6; }
p { max-width: 40rem; }
@media (max-width: 40rem) {
  thead { display: none; }
  tr { display: block; padding: .5rem 0; border-bottom: 1px solid #8886; }
  td { display: inline-block; padding: 0 .8rem 0 0; border: 0; }
  td:first-child { display: block; font-weight: bold; }
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

static constexpr const char* EMPTY = R"(<p>No server is listed now.</p>
<p>A server lists itself here when <code>AnnounceServer=true</code> stands in its
<code>zolserver.cfg</code> and it was built, or its machine was told, to announce to this host. It
appears within seconds of its start and disappears when it stops, or 11 minutes after it was last
heard of.</p>
)";

static constexpr const char* NOBODY_ASKS =
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

// Of what a name can be; it has no control characters.
static std::string quoted_json(const std::string& text) {
  std::string quoted = "\"";
  for (const char each : text) {
    if (each == '"' || each == '\\') quoted += '\\';
    quoted += each;
  }
  return quoted + '"';
}

static std::string ago(std::int64_t seconds) {
  if (seconds < 60) return "just now";
  return std::to_string(seconds / 60) + " min ago";
}

static std::string row_of(const Entry& entry, std::int64_t now_s) {
  const Announcement& server = entry.server;
  const std::string count =
      std::to_string(server.players) + " of " + std::to_string(server.max_players);
  std::string row = server.players == 0 ? "<tr class=\"free\">" : "<tr>";
  row += "<td>" + escaped_html(server.name) + "</td>";
  row += "<td><code>" + escaped_html(entry.address) + ":" + std::to_string(server.port) +
         "</code></td>";
  row += "<td class=\"count\">" + count + "</td><td>" + game_of(server) + "</td>";
  return row + "<td>" + ago(now_s - entry.last_seen_s) + "</td></tr>\n";
}

std::string html_of(const std::vector<Entry>& entries, std::int64_t now_s, bool nobody_asks) {
  std::string page = HEAD;
  if (nobody_asks) page += NOBODY_ASKS;
  if (entries.empty()) return page + EMPTY + END;
  page += TABLE;
  for (const Entry& entry : entries) page += row_of(entry, now_s);
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

std::string json_of(const std::vector<Entry>& entries) {
  std::string array = "[";
  for (const Entry& entry : entries) {
    array += array.size() == 1 ? "\n" : ",\n";
    array += object_of(entry);
  }
  return array + "\n]\n";
}
