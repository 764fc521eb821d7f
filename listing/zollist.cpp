// The server list, as a CGI program (RFC 3875): one process answers one request. The web server
// provides connections, TLS, limits and logs. From the environment, in addition to the variables of
// CGI:
//
//   ZOLLIST_DATABASE            the file of the list; its directory must be writable
//   ZOLLIST_PORTS_PER_ADDRESS   how many servers one address may list; 64 by default
//   ZOLLIST_ASK                 "no" also shows servers that have not answered zolask
//   ZOLLIST_BANS                the file of the banned addresses

#include <arpa/inet.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include "listing/asker_lock.h"
#include "listing/bans.h"
#include "listing/database.h"
#include "listing/page.h"

static std::string variable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

static void answer(const char* status, const char* headers, const std::string& body) {
  std::printf("Status: %s\r\nContent-Length: %zu\r\nX-Content-Type-Options: nosniff\r\n%s\r\n",
              status, body.size(), headers);
  if (variable("REQUEST_METHOD") != "HEAD") std::fwrite(body.data(), 1, body.size(), stdout);
}

static constexpr const char* PLAIN = "Content-Type: text/plain\r\nCache-Control: no-store\r\n";
static constexpr const char* HTML =
    "Content-Type: text/html; charset=utf-8\r\n"
    "Cache-Control: no-cache\r\n"
    "Content-Security-Policy: default-src 'none'; style-src 'unsafe-inline'\r\n";
static constexpr const char* JSON =
    "Content-Type: application/json\r\n"
    "Cache-Control: public, max-age=15\r\n"
    "Access-Control-Allow-Origin: *\r\n";

static void print_error(const std::string& error_text) {
  std::fprintf(stderr, "zollist: %s\n", error_text.c_str());
}

static ListRules rules() {
  ListRules rules{.requires_answer = variable("ZOLLIST_ASK") != "no"};
  const std::string text = variable("ZOLLIST_PORTS_PER_ADDRESS");
  std::from_chars(text.data(), text.data() + text.size(), rules.ports_per_address);
  return rules;
}

// A missing file is like an empty file: nobody is banned.
static std::string read_file(const std::string& path) {
  std::string content;
  std::FILE* file = std::fopen(path.c_str(), "re");
  if (file == nullptr && errno == ENOENT) return content;
  char block[4096];
  std::size_t size = 0;
  while (file != nullptr && (size = std::fread(block, 1, sizeof block, file)) > 0) {
    content.append(block, size);
  }
  if (file == nullptr || std::ferror(file) != 0) {
    print_error(path + ": " + std::strerror(errno) + ": nobody is banned; make the file readable");
  }
  if (file != nullptr) std::fclose(file);
  return content;
}

static std::vector<Ban> bans() {
  const std::string path = variable("ZOLLIST_BANS");
  if (path.empty()) return {};
  const Bans found = read_bans(read_file(path), path);
  for (const std::string& error_text : found.errors) print_error(error_text);
  return found.bans;
}

// A foreign web page can make a browser send any query, but not this header.
static bool is_from_server() {
  return variable("HTTP_USER_AGENT").starts_with("ZOL/0.1 (");
}

// A server reads the digit after the first line end that follows two blanks. Without it, the server
// behaves as if the list had not answered.
static void answer_server(List& list, std::int64_t now_s) {
  const std::string address = variable("REMOTE_ADDR");
  const std::string query = variable("QUERY_STRING");
  const auto announcement = read_announcement(query);
  in_addr parsed{};
  std::optional<ListVerdict> verdict = ListVerdict::REFUSED;
  if (announcement && inet_pton(AF_INET, address.c_str(), &parsed) == 1 &&
      !is_banned(bans(), address, announcement->port)) {
    verdict = apply_announcement(list, address, *announcement, now_s, rules());
  }
  if (!verdict) {
    print_error(list.error_text);
    return answer("503 Service Unavailable", PLAIN, "unavailable\n");
  }
  answer("200 OK", PLAIN, "  \r\n" + std::string(1, static_cast<char>(*verdict)) + "\n");
}

static std::optional<std::vector<Entry>> entries_without_bans(List& list, std::int64_t now_s) {
  auto entries = read_list(list, now_s);
  if (!entries) print_error(list.error_text);
  if (!entries || entries->empty()) return entries;
  std::erase_if(*entries, [banned = bans()](const Entry& entry) {
    return is_banned(banned, entry.address, entry.server.port);
  });
  return entries;
}

static void answer_reader(List& list, std::int64_t now_s, bool wants_json) {
  const auto entries = list.database ? entries_without_bans(list, now_s) : std::nullopt;
  const bool is_asker_down = rules().requires_answer && !is_asker_running(list.path);
  const Filter filter = read_filter(variable("QUERY_STRING"));
  if (wants_json) {
    entries ? answer("200 OK", JSON, json_of(*entries, filter))
            : answer("503 Service Unavailable", PLAIN, "unavailable\n");
  } else {
    entries ? answer("200 OK", HTML, html_of(*entries, filter, now_s, is_asker_down))
            : answer("503 Service Unavailable", HTML, html_of_failure());
  }
}

static void open_named_list(List& list) {
  const std::string path = variable("ZOLLIST_DATABASE");
  if (path.empty()) {
    print_error("ZOLLIST_DATABASE is not set: set it to the file of the list");
  } else if (!open_list(list, path)) {
    print_error(list.error_text);
  }
}

// Answers a request that does not need the list. False for any other request.
static bool answer_at_once(const std::string& method, const std::string& path, bool is_server) {
  const bool is_known = is_server || path == "/servers.json" || path == "/";
  // A HEAD request must not change the list, so an announce must be a GET.
  if (method != "GET" && (method != "HEAD" || is_server)) {
    answer("405 Method Not Allowed",
           is_server ? "Content-Type: text/plain\r\nAllow: GET\r\n"
                     : "Content-Type: text/plain\r\nAllow: GET, HEAD\r\n",
           "only GET is allowed\n");
  } else if (!is_known) {
    answer("404 Not Found", PLAIN, "not found\n");
  } else if (is_server && !is_from_server()) {
    answer(
        "403 Forbidden", PLAIN,
        "Only servers announce themselves here: the User-Agent must start with \"ZOL/0.1 (\".\n");
  } else {
    return false;
  }
  return true;
}

int main() {
  std::signal(SIGXFSZ, SIG_IGN);  // a write beyond the size limit fails like a full disk
  const std::string path = variable("SCRIPT_NAME") + variable("PATH_INFO");
  const bool is_server = path == "/cgi-bin/zol.pl";
  if (answer_at_once(variable("REQUEST_METHOD"), path, is_server)) return EXIT_SUCCESS;
  List list;
  open_named_list(list);
  const std::int64_t now_s = std::time(nullptr);
  if (!is_server) {
    answer_reader(list, now_s, path == "/servers.json");
  } else if (list.database != nullptr) {
    answer_server(list, now_s);
  } else {
    answer("503 Service Unavailable", PLAIN, "unavailable\n");
  }
  close_list(list);
  return EXIT_SUCCESS;
}
