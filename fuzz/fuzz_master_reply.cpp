// Any master server: late, silent, gone, or with any reply in any pieces.

#include <algorithm>
#include <string>

#include "announce/master_requests.h"
#include "announce/master_server.h"
#include "fuzz/check.h"
#include "net/sflsock.h"

constinit const char* const MASTER_HOST = "192.0.2.1";
constinit const char* const MASTER_SERVICE = "80";

constexpr int BUDGET = 1000;  // attempts that may find the connection not ready

static struct Master {
  bool connects = false;
  int late_writes = 0, late_reads = 0;
  std::string reply, rest;  // the first piece, and what the server must never look at
} master;

static int verdict_of(const Master& from) {
  const bool answers = from.connects && from.late_writes < BUDGET && from.late_reads < BUDGET;
  const std::size_t marker = from.reply.find("  \r\n");
  if (!answers || marker == std::string::npos) return MASTER_RESULT_NO_ANSWER;
  return static_cast<std::int8_t>(from.reply.c_str()[marker + 4] - '0');
}

// In place of the socket layer's.
int tcp_connect(const char* /*host*/, const char* /*service*/) {
  return master.connects ? 1000 : -1;
}

int tcp_write(int /*handle*/, const void* bytes, unsigned length) {
  check(std::string(static_cast<const char*>(bytes), length).ends_with("\n\n"), "a request");
  return master.late_writes-- > 0 ? -1 : static_cast<int>(length);
}

// What lies behind the bytes read is as misleading as can be: it may complete a marker.
int tcp_read(int /*handle*/, void* buffer, unsigned length) {
  if (master.late_reads-- > 0) return -1;
  check(master.reply.size() <= length && length <= 512, "one read of 512 bytes");
  std::copy_n((master.reply + master.rest + std::string(length, ' ')).begin(), length,
              static_cast<char*>(buffer));
  return static_cast<int>(master.reply.size());
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input{data, size};
  const auto late = [&] { return input.next() % 4 * 333 + input.next() % 3; };
  Master described{.connects = input.next() != 0, .late_writes = late(), .late_reads = late()};
  const std::size_t split = std::min<std::size_t>(input.next() * 2U + 2U, input.left);
  described.reply.assign(input.bytes, input.bytes + split);
  described.rest.assign(input.bytes + split, input.bytes + input.left);
  master = described;
  check(master_announce() == verdict_of(described), "the verdict of the first piece");
  master = described;
  master_remove_server();
  return 0;
}
