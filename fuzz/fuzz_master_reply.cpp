// Any reply of a master server, in any pieces: only the first piece counts.

#include <algorithm>
#include <string>

#include "announce/master_requests.h"
#include "announce/master_server.h"
#include "fuzz/check.h"
#include "net/sflsock.h"

constinit const char* const MASTER_HOST = "192.0.2.1";
constinit const char* const MASTER_SERVICE = "80";

static std::string reply, rest;  // the first piece, and what the server must never read

static int verdict() {
  const std::size_t marker = reply.find("  \r\n");
  if (marker == std::string::npos) return MASTER_RESULT_NO_ANSWER;
  return static_cast<std::int8_t>(reply.c_str()[marker + 4] - '0');
}

// Replaces the function of the socket layer.
int tcp_connect(const char* /*host*/, const char* /*service*/) {
  return 1000;
}

int tcp_write(int /*handle*/, const void* /*bytes*/, unsigned length) {
  return static_cast<int>(length);
}

// The bytes after the read ones are the most misleading: they may complete a marker.
int tcp_read(int /*handle*/, void* buffer, unsigned length) {
  check(reply.size() <= length && length <= 512, "one read of 512 bytes");
  std::copy_n((reply + rest + std::string(length, ' ')).begin(), length,
              static_cast<char*>(buffer));
  return static_cast<int>(reply.size());
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input{data, size};
  const std::size_t split = std::min<std::size_t>(input.next() * 2U + 2U, input.left);
  reply.assign(input.bytes, input.bytes + split);
  rest.assign(input.bytes + split, input.bytes + input.left);
  check(master_announce() == verdict(), "the verdict of the first piece");
  return 0;
}
