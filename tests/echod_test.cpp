// The example echo server, run as a daemon between sockets of the test. ECHOD is its path.
#include "support/daemon.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

namespace {

struct EchodTest : testing::Test {
  void configure(int served, int idle = 60) const {
    daemon.configure("[echod]\nADDRESS = 127.0.0.1:" + std::to_string(served) +
                     "\nIDLE = " + std::to_string(idle) + "\n");
  }
  void start(int idle = 60) {
    configure(port, idle);
    daemon.start();
    ASSERT_TRUE(daemon.logs("Serving on"));
    caller = Socket::connected(port);
    EXPECT_TRUE(answers(caller));  // and takes signals, too
  }
  static bool answers(const Socket& socket) {
    return socket.send("hello") && socket.receive(5) == "hello";
  }

  const int port = free_port();
  Daemon daemon{ECHOD};
  Socket caller;
};

TEST_F(EchodTest, ACallerMayHaveALongAddress) {
  start();
  const Socket other(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = inet_addr("127.100.100.100");
  ASSERT_EQ(bind(other.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<in_port_t>(port));
  ASSERT_EQ(connect(other.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_TRUE(answers(other));
  EXPECT_TRUE(daemon.logs("caller-127.100.100.100:"));
}

TEST_F(EchodTest, ACallerThatResetsDisturbsNobody) {
  start();
  const int before = daemon.descriptors();
  Socket other = Socket::connected(port);
  EXPECT_TRUE(answers(other));
  other.reset();
  EXPECT_TRUE(daemon.has_descriptors(before));
  EXPECT_TRUE(answers(caller));
}

// It is not heard, has bytes waiting, and resets.
TEST_F(EchodTest, ACallerThatTakesNoEchoDisturbsNobody) {
  start();
  const int before = daemon.descriptors();
  Socket other = Socket::connected(port, 4096);
  const timeval soon{1, 0};
  setsockopt(other.fd, SOL_SOCKET, SO_SNDTIMEO, &soon, sizeof soon);
  const std::string part(1000000, 'x');
  int parts = 0;
  while (other.send(part)) ASSERT_LT(++parts, 256) << "the server takes it all";
  EXPECT_TRUE(answers(caller));
  other.reset();
  EXPECT_TRUE(daemon.has_descriptors(before));
}

TEST_F(EchodTest, ACallerThatTakesNoEchoIsIdle) {
  start(2);
  const Socket other = Socket::connected(port, 4096);
  const timeval soon{1, 0};
  setsockopt(other.fd, SOL_SOCKET, SO_SNDTIMEO, &soon, sizeof soon);
  const std::string part(1000000, 'x');
  while (other.send(part)) continue;
  EXPECT_TRUE(daemon.logs(" gone", 2));  // with the first one, which is silent
}

TEST_F(EchodTest, AReloadChangesTheAddressAndKeepsCallers) {
  start();
  const int before = daemon.descriptors();
  const int other_port = free_port();
  configure(other_port);
  daemon.reload();
  ASSERT_TRUE(daemon.logs("Serving on", 2));
  EXPECT_TRUE(answers(caller));
  EXPECT_TRUE(daemon.has_descriptors(before));
  EXPECT_EQ(Socket::connected(port).fd, -1);
  EXPECT_TRUE(answers(Socket::connected(other_port)));
}

TEST_F(EchodTest, AReloadChangesTheIdleTime) {
  start();
  configure(port, 1);
  daemon.reload();
  EXPECT_TRUE(caller.at_end());
}

TEST_F(EchodTest, AFaultyReloadChangesNothing) {
  start();
  const Socket taken = Socket::listening();
  configure(taken.port());
  daemon.reload();
  EXPECT_TRUE(daemon.logs("The settings stay as they were: "));
  EXPECT_TRUE(answers(caller));
  EXPECT_TRUE(answers(Socket::connected(port)));
}

}  // namespace
