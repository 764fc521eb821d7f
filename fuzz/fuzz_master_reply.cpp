// Input: a reply of the master server in two pieces. Only the first piece may count.

#include <algorithm>
#include <string>

#include "announce/master_requests.h"
#include "announce/master_server.h"
#include "fuzz/check.h"
#include "net/sflsock.h"

constinit const char* const MASTER_HOST = "192.0.2.1";
constinit const char* const MASTER_SERVICE = "80";

static std::string reply, unread;  // the first piece; the bytes that the server must not use

static int verdict() {
  const std::size_t marker = reply.find("  \r\n");
  if (marker == std::string::npos) return MASTER_RESULT_NO_ANSWER;
  return static_cast<std::int8_t>(reply.c_str()[marker + 4] - '0');
}

// These functions replace the socket layer's TCP client.
int tcp_connect(const char* /*host*/, const char* /*service*/) {
  return 1000;
}

int tcp_write(int /*handle*/, const void* /*bytes*/, unsigned length) {
  return static_cast<int>(length);
}

// Also writes to the buffer after the bytes of this read: these bytes may complete a marker.
int tcp_read(int /*handle*/, void* buffer, unsigned length) {
  check(reply.size() <= length && length <= 512, "one read of 512 bytes");
  std::copy_n((reply + unread + std::string(length, ' ')).begin(), length,
              static_cast<char*>(buffer));
  return static_cast<int>(reply.size());
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input{data, size};
  const std::size_t split = std::min<std::size_t>(input.next() * 2U + 2U, input.left);
  reply.assign(input.bytes, input.bytes + split);
  unread.assign(input.bytes + split, input.bytes + input.left);
  check(master_announce() == verdict(), "the verdict of the first piece");
  return 0;
}
