#include "net/sflsock.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <string>

#include "announce/master_server.h"
#include "net/socket_layer_state.h"
#include "tests/loopback.h"
#include "util/sflstr.h"

namespace {

int option_of(int handle, int option) {
  int value = 0;
  socklen_t length = sizeof value;
  EXPECT_EQ(getsockopt(handle, SOL_SOCKET, option, &value, &length), 0);
  return value;
}

TEST(SflsockTest, OpensThePortInTheLow16Bits) {
  const int port = free_port();
  const std::string number = std::to_string(port);
  for (const std::string& text : {number, " \t+00" + number + "abc", std::to_string(port + 65536),
                                  std::to_string(port - 65536), std::string("domain")}) {
    socket_layer_state.port_offset = text == "domain" ? port - 53 : 0;
    socket_layer_state.last_error = SOCKERR_BAD_HOST;
    const int handle = udp_open_port(text.c_str());
    ASSERT_NE(handle, -1) << text << ": " << socket_error_code();
    EXPECT_EQ(socket_layer_state.open_sockets, 1);
    EXPECT_EQ(socket_error_code(), SOCKERR_NONE);
    const sockaddr_in address = local_address(handle);
    EXPECT_EQ(ntohs(address.sin_port), port) << text;
    EXPECT_EQ(address.sin_addr.s_addr, INADDR_ANY);
    EXPECT_TRUE(fcntl(handle, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(option_of(handle, SO_REUSEADDR), 1);
    EXPECT_EQ(socket_close(handle), 0);
    EXPECT_EQ(socket_close(handle), 0) << "the handle is not a socket any more";
    EXPECT_EQ(socket_layer_state.open_sockets, 0);
  }
  socket_layer_state.port_offset = 0;
}

// The kernel may limit the size, and it doubles the size; see socket(7).
TEST(SflsockTest, RequestsLargeBuffers) {
  const int handle = udp_open_port(std::to_string(free_port()).c_str());
  for (const auto& [option, file] : {std::pair(SO_RCVBUF, "/proc/sys/net/core/rmem_max"),
                                     std::pair(SO_SNDBUF, "/proc/sys/net/core/wmem_max")}) {
    int limit = 0;
    std::ifstream(file) >> limit;
    EXPECT_EQ(option_of(handle, option), 2 * std::min(limit, 4 << 20)) << file;
  }
  socket_close(handle);
}

TEST(SflsockTest, ReportsWhyItCannotOpen) {
  for (const char* text : {"0", "abc", "65536", "-65536", "-99999999999"}) {
    EXPECT_EQ(udp_open_port(text), -1) << text;
    EXPECT_EQ(socket_error_code(), SOCKERR_BAD_SERVICE) << text;
  }
  socket_layer_state.port_offset = -5;
  EXPECT_EQ(udp_open_port("5"), -1) << "0 with the offset";
  socket_layer_state.port_offset = 0;
  EXPECT_EQ(new_inet_socket("no-such-protocol"), -1);
  EXPECT_EQ(socket_error_code(), 4);

  // A socket without SO_REUSEADDR has the port. The socket that fails stays open and counted.
  const int taken = bind_loopback(SOCK_DGRAM);
  const std::string port = std::to_string(ntohs(local_address(taken).sin_port));
  EXPECT_EQ(udp_open_port(port.c_str()), -1);
  EXPECT_EQ(socket_error_code(), SOCKERR_BIND_FAILED);
  EXPECT_EQ(socket_layer_state.open_sockets, 1);
  socket_layer_state.open_sockets = 0;
  close(taken);
}

TEST(SflsockTest, DefinesATextForEachError) {
  std::string texts;
  for (const char* text : SOCKET_ERROR_TEXTS) texts += std::string(text) + "; ";
  EXPECT_EQ(texts,
            "No errors; System does not support sockets; Host is not known; Service or port not "
            "known; Protocol not known; Connection failed on socket(); Connection failed on "
            "connect(); Port is already used by another server; Connection failed on listen(); ");
}

TEST(SflsockTest, SendsReceivesAndTruncates) {
  const int one = udp_open_port(std::to_string(free_port()).c_str());
  socket_layer_state.bind_address = htonl(INADDR_LOOPBACK);  // for the next bind only
  const int two = udp_open_port(std::to_string(free_port()).c_str());
  const sockaddr_in to = local_address(two);
  EXPECT_EQ(to.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(socket_layer_state.bind_address, 0U);
  std::string buffer(256, '.');
  sockaddr_in sender{};
  EXPECT_EQ(udp_receive(two, buffer.data(), 256, &sender), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_STREQ(system_error_text(), "Resource temporarily unavailable");
  EXPECT_EQ(udp_send(one, std::string(300, 'x').data(), 300, &to), 300);
  EXPECT_EQ(udp_receive(two, buffer.data(), 256, &sender), 256);
  EXPECT_EQ(sender.sin_port, local_address(one).sin_port);

  sockaddr_in nowhere = to;
  nowhere.sin_port = 0;
  EXPECT_TRUE(udp_can_reach(one, &to));
  EXPECT_FALSE(udp_can_reach(one, &nowhere));
  nowhere = to;
  nowhere.sin_addr.s_addr = inet_addr("0.255.255.255");
  EXPECT_FALSE(udp_can_reach(one, &nowhere));
  EXPECT_EQ(udp_receive(two, buffer.data(), 256, &sender), -1) << "a probe sends nothing";
  socket_close(one);
  socket_close(two);
}

TEST(SflsockTest, ResolvesHostsAndServices) {
  struct Case {
    const char *host, *service, *address;
    int port;
  };
  for (const Case& c :
       {Case{"192.0.2.1", "80", "192.0.2.1", 80}, Case{nullptr, "http", "127.0.0.1", 80},
        Case{"", "xyz", "127.0.0.1", 0}, Case{"localhost", "65616", "127.0.0.1", 80}}) {
    sockaddr_in endpoint{};
    EXPECT_EQ(resolve_endpoint(c.host, c.service, "tcp", &endpoint), 0) << c.service;
    EXPECT_EQ(endpoint.sin_family, AF_INET);
    EXPECT_EQ(endpoint.sin_addr.s_addr, inet_addr(c.address));
    EXPECT_EQ(ntohs(endpoint.sin_port), c.port);
  }
  EXPECT_EQ(connect_with_retries("no such host", "80", "tcp", nullptr, 1, 0), -1);
  EXPECT_EQ(socket_error_code(), SOCKERR_BAD_HOST);
  EXPECT_STREQ(MASTER_SERVICE, "80");
}

TEST(SflsockTest, ComparesBytesIgnoringCase) {
  EXPECT_EQ(compare_ignoring_case("Port", "pORT"), 0);
  EXPECT_LT(compare_ignoring_case("port", "pOst"), 0);
  EXPECT_GT(compare_ignoring_case("\xFF", "z"), 0);
}

TEST(SflsockTest, ChecksItsArguments) {
  sockaddr_in address{};
  char buffer[1];
  EXPECT_DEATH(udp_open_port(""), "^\nAssertion failed: sflsock, line [0-9]+\n$");
  EXPECT_DEATH(udp_receive(0, nullptr, 1, &address), "sflsock");
  EXPECT_DEATH(udp_receive(0, buffer, 1, nullptr), "sflsock");
  EXPECT_DEATH(udp_can_reach(0, nullptr), "sflsock");
  EXPECT_DEATH(udp_send(0, nullptr, 1, &address), "sflsock");
  EXPECT_DEATH(udp_send(0, buffer, 1, nullptr), "sflsock");
  EXPECT_DEATH(udp_send_to_each(0, std::array<sockaddr_in, 33>{}, {}), "sflsock");
  EXPECT_DEATH(tcp_connect(buffer, nullptr), "sflsock");
  EXPECT_DEATH(resolve_endpoint(buffer, "80", "", &address), "sflsock");
  EXPECT_DEATH(resolve_endpoint(buffer, "80", "tcp", nullptr), "sflsock");
  EXPECT_DEATH(connect_with_retries(nullptr, "", "tcp", nullptr, 1, 0), "sflsock");
  EXPECT_DEATH(compare_ignoring_case(nullptr, ""), "sflstr");
  EXPECT_DEATH(trim(nullptr), "sflstr");
  EXPECT_DEATH(compare_ignoring_case("", nullptr), "sflstr");
}

// If the effective user of a process differs from its real user, the process changes to the real
// user after the first bind.
TEST(SflsockTest, DropsPrivilegesAfterTheFirstBind) {
  if (getuid() != 0) GTEST_SKIP() << "needs root";
  for (const char* port : {"0", "1"}) {
    EXPECT_EXIT(
        {
          if (setresuid(65534, 0, 0) != 0) _exit(1);
          new (&socket_layer_state) SocketLayerState;
          const int result = *port == '1' ? drop_privileges() : raise_privileges();
          if (result != 0 || geteuid() != (*port == '1' ? 65534U : 0U)) _exit(4);
          const int handle = udp_open_port(port);
          if ((handle != -1) != (*port == '1')) _exit(2);
          _exit(geteuid() == 65534 ? 0 : 3);
        },
        testing::ExitedWithCode(0), "");
  }
}

}  // namespace
