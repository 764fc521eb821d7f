// zolcheck: shows how servers will read their settings, before their start.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "announce/master_server.h"
#include "check/diagnostics.h"
#include "config/config_reader.h"
#include "config/server_config.h"
#include "net/sflsock.h"

// Exit statuses. The highest status of all directories is the status of the program.
enum Status { GOOD = 0, SUSPICIOUS = 1, BAD = 2 };

static constexpr const char* HELP =
    "usage: zolcheck [--start | --port] [DIRECTORY...]\n"
    "\n"
    "Shows how a ZOL Server will read its settings in each directory, by default this one: the\n"
    "settings on standard output, every suspicious line on standard error.\n"
    "\n"
    "  --start  checks right before a start: a port that is in use is a failure, a named "
    "directory\n"
    "           without settings is a failure, a suspicious line is none; prints no settings\n"
    "  --port   prints only the port number, for scripts\n"
    "\n"
    "Exit status: 0 all correct, 1 suspicious lines, 2 a server would not start as intended.\n";

static bool is_start;
static bool is_port_only;
static bool must_have_settings;
static std::string directory;     // the directory that is being checked
static bool has_unreadable_file;  // its file of settings cannot be read
static Status status;             // the highest status so far

static void report(Status found, const std::string& where, const std::string& what) {
  if (is_port_only && found != BAD) return;
  std::fprintf(stderr, "%s: %s\n", where.c_str(), what.c_str());
  status = std::max(status, found);
}

static void report_file_error(const char* name, const char* reason) {
  has_unreadable_file = true;
  const bool is_denied = std::strcmp(reason, std::strerror(EACCES)) == 0;
  const char* advice = is_denied ? "; make it readable for the user that runs the server" : "";
  report(BAD, directory + "/" + name, std::string(reason) + advice);
}

// Returns 0, or the errno of the failed bind(2). Two sockets with SO_REUSEADDR may share a port,
// and a server sets it. This socket does not set it, so its bind fails if the port is in use.
static int try_port(in_port_t port) {
  const int handle = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = port;
  const int result = bind(handle, reinterpret_cast<const sockaddr*>(&local), sizeof local);
  const int reason = result == 0 ? 0 : errno;
  close(handle);
  return reason;
}

// ports: the directories that were checked before, by port.
static void check_port(in_port_t port, std::map<in_port_t, std::string>& ports) {
  const std::string text = "port " + std::to_string(ntohs(port));
  const auto [other, is_new] = ports.emplace(port, directory);
  if (!is_new) report(BAD, directory, text + " is also the port of " + other->second);
  const int reason = is_start ? try_port(port) : 0;
  if (reason == EADDRINUSE)
    report(BAD, directory, text + " is in use; is the server running already?");
  // EPERM: the systemd unit forbids the port with SocketBindDeny.
  if (reason == EACCES || reason == EPERM) {
    report(BAD, directory, text + " needs a privilege that is missing here");
  }
}

static void print_settings(const std::string& port) {
  const ServerConfig& config = server_config;
  const std::string listed = std::string("listed on ") + MASTER_HOST;
  std::printf("%s: %s, %s, %d players, %s, %s\n", directory.c_str(),
              quoted(config.ServerName).c_str(), port.c_str(), config.maxClients,
              game_type_name(config.GameType),
              config.AnnounceServer != 0 ? listed.c_str() : "not listed");
}

static void check_directory(std::map<in_port_t, std::string>& ports) {
  server_config = {};
  has_unreadable_file = false;
  std::FILE* file = open_settings(report_file_error);
  if (file == nullptr && has_unreadable_file) return;
  if (file == nullptr) {
    report(must_have_settings ? BAD : SUSPICIOUS, directory,
           "no zolserver.cfg and no zolserver.conf; a server would use the defaults");
  } else {
    const char* name = access("zolserver.cfg", R_OK) == 0 ? "zolserver.cfg" : "zolserver.conf";
    for (const Diagnostic& diagnostic : read_with_diagnostics(file)) {
      report(SUSPICIOUS, directory + "/" + name + ":" + std::to_string(diagnostic.line),
             diagnostic.text);
    }
    std::fclose(file);
  }
  const std::optional<in_port_t> port = port_to_bind(server_config.Port, "udp");
  if (port) check_port(*port, ports);
  if (!port)
    report(BAD, directory, "the server would not start: Port is not a port number; use 1 to 65535");
  if (port && is_port_only) std::printf("%d\n", ntohs(*port));
  if (!is_start && !is_port_only)
    print_settings(port ? "port " + std::to_string(ntohs(*port)) : "no port");
}

static int report_unknown_option(const char* argument) {
  std::fprintf(stderr, "zolcheck: unknown option \"%s\"; see --help\n", argument);
  return BAD;
}

int main(int count, char** arguments) {
  std::vector<std::string> directories;
  for (int i = 1; i < count; ++i) {
    const std::string_view argument = arguments[i];
    if (argument == "--help") return std::fputs(HELP, stdout) < 0 ? BAD : GOOD;
    if (argument == "--start" || argument == "--port") {
      (argument == "--start" ? is_start : is_port_only) = true;
    } else if (argument.starts_with('-')) {
      return report_unknown_option(arguments[i]);
    } else {
      // Without the slashes at the end, which a shell's pattern "*/" adds.
      const std::size_t length = argument.find_last_not_of('/') + 1;
      directories.emplace_back(argument.substr(0, std::max<std::size_t>(length, 1)));
    }
  }
  must_have_settings = is_start && !directories.empty();
  if (directories.empty()) directories.emplace_back(".");
  const int here = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  std::map<in_port_t, std::string> ports;
  for (const std::string& each : directories) {
    directory = each;
    if (fchdir(here) == 0 && chdir(each.c_str()) == 0) {
      check_directory(ports);
    } else {
      report(BAD, each, std::strerror(errno));
    }
  }
  return is_start && status == SUSPICIOUS ? GOOD : status;
}
