// Shows how servers will read their settings, before they are started.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "announce/master_server.h"
#include "check/doubts.h"
#include "config/config_reader.h"
#include "config/server_config.h"
#include "net/sflsock.h"

// Exit statuses. The worst of all directories counts.
enum Status { GOOD = 0, DOUBTFUL = 1, BAD = 2 };

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
static bool wants_port;
static bool must_have_settings;
static std::string directory;  // being checked
static bool has_closed_file;   // its settings cannot be read
static Status status;          // the worst so far

static void say(Status found, const std::string& where, const std::string& what) {
  if (wants_port && found != BAD) return;
  std::fprintf(stderr, "%s: %s\n", where.c_str(), what.c_str());
  status = std::max(status, found);
}

static void complain_of_file(const char* name, const char* reason) {
  has_closed_file = true;
  const bool is_denied = std::strcmp(reason, std::strerror(EACCES)) == 0;
  const char* advice = is_denied ? "; make it readable for the user that runs the server" : "";
  say(BAD, directory + "/" + name, std::string(reason) + advice);
}

// Returns 0, or the errno of the failure to open the port. A server shares its port with any socket
// that allows it. This socket does not, so it fails if the port is in use.
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

// The ports of the directories must differ.
static void check_port(in_port_t port, std::map<in_port_t, std::string>& ports) {
  const std::string text = "port " + std::to_string(ntohs(port));
  const auto [other, is_new] = ports.emplace(port, directory);
  if (!is_new) say(BAD, directory, text + " is also the port of " + other->second);
  const int reason = is_start ? try_port(port) : 0;
  if (reason == EADDRINUSE)
    say(BAD, directory, text + " is in use; is the server running already?");
  // EPERM comes from SocketBindDeny in the unit.
  if (reason == EACCES || reason == EPERM) {
    say(BAD, directory, text + " needs a privilege that is missing here");
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
  has_closed_file = false;
  std::FILE* file = open_settings(complain_of_file);
  if (file == nullptr && has_closed_file) return;
  if (file == nullptr) {
    say(must_have_settings ? BAD : DOUBTFUL, directory,
        "no zolserver.cfg and no zolserver.conf; a server would use the defaults");
  } else {
    const char* name = access("zolserver.cfg", R_OK) == 0 ? "zolserver.cfg" : "zolserver.conf";
    for (const Doubt& doubt : read_with_doubts(file)) {
      say(DOUBTFUL, directory + "/" + name + ":" + std::to_string(doubt.line), doubt.text);
    }
    std::fclose(file);
  }
  const std::optional<in_port_t> port = port_to_bind(server_config.Port, "udp");
  if (port) check_port(*port, ports);
  if (!port) say(BAD, directory, "the server would not start: Port is no port number");
  if (port && wants_port) std::printf("%d\n", ntohs(*port));
  if (!is_start && !wants_port)
    print_settings(port ? "port " + std::to_string(ntohs(*port)) : "no port");
}

static int complain_of_argument(const char* argument) {
  std::fprintf(stderr, "zolcheck: unknown option \"%s\"; see --help\n", argument);
  return BAD;
}

int main(int count, char** arguments) {
  std::vector<std::string> directories;
  for (int i = 1; i < count; ++i) {
    const std::string_view argument = arguments[i];
    if (argument == "--help") return std::fputs(HELP, stdout) < 0 ? BAD : GOOD;
    if (argument == "--start" || argument == "--port") {
      (argument == "--start" ? is_start : wants_port) = true;
    } else if (argument.starts_with('-')) {
      return complain_of_argument(arguments[i]);
    } else {
      directories.emplace_back(argument);
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
      say(BAD, each, std::strerror(errno));
    }
  }
  return is_start && status == DOUBTFUL ? GOOD : status;
}
