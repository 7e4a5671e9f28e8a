// The example relay, run as a daemon between sockets of the test. RELAYD is its path.
#include "support/daemon.h"
#include "support/wait_for.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>

#include <chrono>
#include <string>
#include <vector>

namespace {

using std::to_string;

std::string rule(const std::string& name, int port, int target) {
  return name + " = 127.0.0.1:" + to_string(port) + "; 127.0.0.1:" + to_string(target) + "\n";
}

std::string pattern(size_t size) {
  std::string text(size, '\0');
  unsigned state = 1;
  for (char& c : text) {
    state = state * 1664525 + 1013904223;
    c = static_cast<char>(state >> 24);
  }
  return text;
}

// Fills the queue of callers that wait for `server`, so that the next one waits for ever.
std::vector<Socket> fill_backlog(const Socket& server) {
  std::vector<Socket> callers;
  for (int i = 0; i < 8; ++i) {
    Socket caller(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr address{};
    socklen_t size = sizeof address;
    getsockname(server.fd, &address, &size);
    (void)connect(caller.fd, &address, size);
    callers.push_back(std::move(caller));
  }
  return callers;
}

struct RelaydTest : testing::Test {
  // One rule, from `port` to the test's own server.
  void start(const std::string& settings = "", rlim_t descriptors = 0) {
    daemon.configure("[relayd]\n" + settings + "[rules]\n" + rule("r", port, server.port()));
    daemon.start(descriptors);
    ASSERT_TRUE(daemon.logs("r: 127.0.0.1:"));
  }

  // Both ends of one relayed connection.
  void connect() {
    client = Socket::connected(port);
    ASSERT_NE(client.fd, -1);
    target = server.accept();
  }

  Daemon daemon{RELAYD};
  const Socket server = Socket::listening();
  const int port = free_port();
  Socket client, target;
};

TEST_F(RelaydTest, PassesBytesBothWays) {
  start();
  connect();
  const std::string there = pattern(3000000), back = pattern(2000000);
  EXPECT_TRUE(client.send("hello"));
  EXPECT_EQ(target.receive(5), "hello");
  EXPECT_TRUE(target.send("world"));
  EXPECT_EQ(client.receive(5), "world");
  client.finish();
  target.finish();
  EXPECT_TRUE(daemon.logs("closed, 5 bytes to the target, 5 back"));
}

TEST_F(RelaydTest, PassesTheEndOfOneDirectionOn) {
  start();
  connect();
  EXPECT_TRUE(client.send("question"));
  client.finish();
  EXPECT_EQ(target.receive_all(), "question");
  EXPECT_TRUE(target.send(pattern(1000000)));  // long after
  target.finish();
  EXPECT_EQ(client.receive_all(), pattern(1000000));
  EXPECT_TRUE(daemon.logs("closed, 8 bytes to the target, 1000000 back"));
}

TEST_F(RelaydTest, TheTargetMayFinishFirst) {
  start();
  connect();
  EXPECT_TRUE(target.send("banner"));
  target.finish();
  EXPECT_EQ(client.receive_all(), "banner");
  EXPECT_TRUE(client.send("answer"));
  client.finish();
  EXPECT_EQ(target.receive_all(), "answer");
  EXPECT_TRUE(daemon.logs("closed, 6 bytes to the target, 6 back"));
}

TEST_F(RelaydTest, WhatTheOtherSideDoesNotTakeIsNotRead) {
  start("LIMIT = 65536\n");
  connect();
  const std::string part = pattern(65536);
  size_t sent = 0;
  const timeval soon{1, 0};
  setsockopt(client.fd, SOL_SOCKET, SO_SNDTIMEO, &soon, sizeof soon);
  for (;;) {
    const ssize_t count = ::send(client.fd, part.data(), part.size(), MSG_NOSIGNAL);
    if (count <= 0) break;
    sent += static_cast<size_t>(count);
    ASSERT_LT(sent, 256U << 20) << "the relay takes it all";
  }
  EXPECT_TRUE(target.send("still alive"));
  EXPECT_EQ(client.receive(11), "still alive");
  client.finish();
  EXPECT_EQ(target.receive_all().size(), sent);
}

TEST_F(RelaydTest, AClientThatResetsEndsItsConnectionOnly) {
  start();
  connect();
  const int before = daemon.descriptors();
  Socket other = Socket::connected(port);
  const Socket other_target = server.accept();
  EXPECT_TRUE(other.send("x"));
  EXPECT_EQ(other_target.receive(1), "x");
  other.reset();
  EXPECT_TRUE(other_target.at_end());
  EXPECT_TRUE(daemon.has_descriptors(before));
  EXPECT_TRUE(client.send("y"));
  EXPECT_EQ(target.receive(1), "y");
}

TEST_F(RelaydTest, ATargetThatResetsWithBytesWaitingEndsTheConnection) {
  start();
  const int before = daemon.descriptors();
  connect();
  client.send(pattern(500000));
  target.reset();
  EXPECT_TRUE(client.at_end());
  EXPECT_TRUE(daemon.has_descriptors(before));
}

TEST_F(RelaydTest, ARefusedConnectClosesTheCaller) {
  daemon.configure("[rules]\n" + rule("r", port, free_port()));
  daemon.start();
  const int before = daemon.descriptors();
  client = Socket::connected(port);
  EXPECT_TRUE(client.at_end());
  EXPECT_TRUE(daemon.logs("cannot reach C/TCP-127.0.0.1:"));
  EXPECT_TRUE(daemon.logs("not connected, 0 bytes to the target, 0 back"));
  EXPECT_TRUE(daemon.has_descriptors(before));
}

TEST_F(RelaydTest, AConnectThatTakesTooLongClosesTheCaller) {
  const Socket full = Socket::listening(0);
  const std::vector<Socket> waiting = fill_backlog(full);
  daemon.configure("[relayd]\nCONNECT_TIMEOUT = 1\n[rules]\n" + rule("r", port, full.port()));
  daemon.start();
  const int before = daemon.descriptors();
  client = Socket::connected(port);
  EXPECT_TRUE(client.at_end());
  EXPECT_TRUE(daemon.logs("timed out, 0 bytes to the target, 0 back"));
  EXPECT_TRUE(daemon.has_descriptors(before));
}

TEST_F(RelaydTest, AnIdleConnectionIsClosed) {
  start("IDLE = 1\n");
  connect();
  EXPECT_TRUE(client.send("x"));
  EXPECT_EQ(target.receive(1), "x");
  EXPECT_TRUE(client.at_end());
  EXPECT_TRUE(target.at_end());
  EXPECT_TRUE(daemon.logs("timed out, 1 bytes to the target, 0 back"));
}

TEST_F(RelaydTest, AReloadLeavesLiveConnectionsAlone) {
  const int second_port = free_port(), third_port = free_port();
  daemon.configure("[rules]\n" + rule("r", port, server.port()) +
                   rule("goes", second_port, server.port()));
  daemon.start();
  ASSERT_TRUE(daemon.logs("goes: 127.0.0.1:"));
  connect();
  Socket second = Socket::connected(second_port);
  const Socket second_target = server.accept();

  const Socket elsewhere = Socket::listening();
  daemon.configure("[rules]\n" + rule("r", port, elsewhere.port()) +
                   rule("comes", third_port, server.port()));
  daemon.reload();
  ASSERT_TRUE(daemon.logs("comes: 127.0.0.1:"));

  EXPECT_TRUE(client.send("a"));
  EXPECT_EQ(target.receive(1), "a");
  EXPECT_TRUE(second.send("b"));
  EXPECT_EQ(second_target.receive(1), "b");
  EXPECT_EQ(Socket::connected(second_port).fd, -1);
  const Socket third = Socket::connected(third_port);
  const Socket third_target = server.accept();
  EXPECT_TRUE(third.send("c"));
  EXPECT_EQ(third_target.receive(1), "c");
  const Socket fourth = Socket::connected(port);
  const Socket fourth_target = elsewhere.accept();
  EXPECT_TRUE(fourth.send("d"));
  EXPECT_EQ(fourth_target.receive(1), "d");
}

TEST_F(RelaydTest, AFaultyReloadChangesNoRuleThatStands) {
  start();
  connect();
  daemon.configure("[rules]\n" + rule("r", port, server.port()) + "bad = 127.0.0.1:nosuch; 1\n");
  daemon.reload();
  EXPECT_TRUE(daemon.logs("Not all settings are applied: "));
  EXPECT_TRUE(daemon.logs("Bad portspec (nosuch)"));
  EXPECT_TRUE(client.send("x"));
  EXPECT_EQ(target.receive(1), "x");
  const Socket another = Socket::connected(port);
  EXPECT_NE(server.accept().fd, -1);
  daemon.configure("[rules]\n" + rule("r", port, server.port()));
  daemon.reload();
  EXPECT_TRUE(daemon.logs("r: 127.0.0.1:", 3));  // it still listens to changes
}

// Two limits, so that now the caller and now the connection to the target finds no descriptor left.
TEST_F(RelaydTest, RunsOutOfDescriptorsAndGoesOn) {
#ifdef VORNFC_TEST_UBSAN
  GTEST_SKIP() << "the sanitizer opens a pipe to look at an exception";
#endif
  for (const rlim_t limit : {rlim_t{40}, rlim_t{41}}) {
    Daemon relay(RELAYD);
    const int served = free_port();
    relay.configure("[rules]\n" + rule("r", served, server.port()));
    relay.start(limit);
    const int before = relay.descriptors();
    std::vector<Socket> clients, targets;
    const timeval soon{1, 0}, moment{0, 20000}, late{20, 0};
    setsockopt(server.fd, SOL_SOCKET, SO_RCVTIMEO, &soon, sizeof soon);
    for (;;) {
      clients.push_back(Socket::connected(served));
      Socket accepted(accept4(server.fd, nullptr, nullptr, SOCK_CLOEXEC));
      if (accepted.fd == -1) break;
      targets.push_back(std::move(accepted));
      ASSERT_LT(targets.size(), limit);
    }
    EXPECT_GE(targets.size(), 10U);
    EXPECT_TRUE(relay.logs(" ERR "));
    clients.clear();
    targets.clear();
    // A caller that had to wait is relayed now, though it has left: until its target hangs up too.
    setsockopt(server.fd, SOL_SOCKET, SO_RCVTIMEO, &moment, sizeof moment);
    EXPECT_TRUE(wait_for([&] {
      const Socket left_over(accept4(server.fd, nullptr, nullptr, SOCK_CLOEXEC));
      return relay.descriptors() == before;
    }));
    setsockopt(server.fd, SOL_SOCKET, SO_RCVTIMEO, &late, sizeof late);
    client = Socket::connected(served);
    EXPECT_TRUE(client.send("x"));
    // A caller that had to wait comes before this one, though it has left.
    std::string received;
    for (int i = 0; i < 3 && received.empty(); ++i) {
      target = server.accept();
      received = target.receive(1);
    }
    EXPECT_EQ(received, "x");
  }
}

TEST_F(RelaydTest, EndsWithEveryConnectionClosed) {
  start();
  connect();
  EXPECT_TRUE(client.send("xyz"));
  EXPECT_EQ(target.receive(3), "xyz");
  daemon.send(SIGTERM);
  EXPECT_TRUE(client.at_end());
  EXPECT_TRUE(target.at_end());
  EXPECT_TRUE(daemon.ends());
  EXPECT_NE(daemon.log().find("shut down, 3 bytes to the target, 0 back"), std::string::npos);
}

}  // namespace
