// The server list, as a CGI program (RFC 3875): one process answers one request. The web server
// brings the connections, TLS, limits and logs. From the environment, besides what CGI defines:
//
//   ZOLLIST_DATABASE            the file of the list; its directory must be writable
//   ZOLLIST_PORTS_PER_ADDRESS   how many servers one address may list; 64 by default

#include <arpa/inet.h>

#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>

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

static int ports_per_address() {
  const std::string text = variable("ZOLLIST_PORTS_PER_ADDRESS");
  int number = DEFAULT_PORTS_PER_ADDRESS;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

// Servers look for the digit behind a line that ends in two blanks. Without one they take the list
// for unreachable.
static void answer_server(sqlite3* list, std::int64_t now_s) {
  const std::string address = variable("REMOTE_ADDR");
  const std::string query = variable("QUERY_STRING");
  const auto announcement = read_announcement(query);
  in_addr parsed{};
  std::optional<ListVerdict> verdict = ListVerdict::REFUSED;
  if (announcement && inet_pton(AF_INET, address.c_str(), &parsed) == 1) {
    verdict = take_announcement(list, address, *announcement, now_s, ports_per_address());
  }
  if (!verdict) return answer("503 Service Unavailable", PLAIN, "unavailable\n");
  answer("200 OK", PLAIN, "  \r\n" + std::string(1, static_cast<char>(*verdict)) + "\n");
}

static void answer_reader(sqlite3* list, std::int64_t now_s, bool wants_json) {
  const auto entries = list == nullptr ? std::nullopt : read_list(list, now_s);
  const Filter filter = read_filter(variable("QUERY_STRING"));
  if (wants_json) {
    entries ? answer("200 OK", JSON, json_of(*entries, filter))
            : answer("503 Service Unavailable", PLAIN, "unavailable\n");
  } else {
    entries ? answer("200 OK", HTML, html_of(*entries, filter, now_s))
            : answer("503 Service Unavailable", HTML, html_of_failure());
  }
}

static sqlite3* open_named_list() {
  std::string complaint = "ZOLLIST_DATABASE is not set";
  const std::string path = variable("ZOLLIST_DATABASE");
  sqlite3* list = path.empty() ? nullptr : open_list(path.c_str(), complaint);
  if (list == nullptr) std::fprintf(stderr, "zollist: %s\n", complaint.c_str());
  return list;
}

int main() {
  std::signal(SIGXFSZ, SIG_IGN);  // a file at its size limit is a full disk, and no end
  const std::string method = variable("REQUEST_METHOD");
  const std::string path = variable("SCRIPT_NAME") + variable("PATH_INFO");
  const bool is_server = path == "/cgi-bin/zol.pl";
  const bool wants_json = path == "/servers.json";
  if (method != "GET" && method != "HEAD") {
    answer("405 Method Not Allowed", "Content-Type: text/plain\r\nAllow: GET, HEAD\r\n",
           "GET alone\n");
    return EXIT_SUCCESS;
  }
  if (!is_server && !wants_json && path != "/") {
    answer("404 Not Found", PLAIN, "not found\n");
    return EXIT_SUCCESS;
  }
  sqlite3* list = open_named_list();
  const std::int64_t now_s = std::time(nullptr);
  if (!is_server) {
    answer_reader(list, now_s, wants_json);
  } else if (list == nullptr) {
    answer("503 Service Unavailable", PLAIN, "unavailable\n");
  } else {
    answer_server(list, now_s);
  }
  close_list(list);
  return EXIT_SUCCESS;
}
