// The example that stays connected, to a server of the test. RECONNECTD is its path.
#include "support/daemon.h"
#include "support/wait_for.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

namespace {

// The first `count` delays that were logged, in milliseconds.
std::vector<int> delays(const Daemon& daemon, int count) {
  EXPECT_TRUE(daemon.logs("trying again in ", count));
  const std::string log = daemon.log(), text = "trying again in ";
  std::vector<int> result;
  for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
    result.push_back(std::stoi(log.substr(at + text.size())));
  }
  result.resize(static_cast<size_t>(count));
  return result;
}

struct ReconnectdTest : testing::Test {
  void start(int port, const std::string& more = "") {
    configure(port, more);
    daemon.start();
  }
  void configure(int port, const std::string& more = "") const {
    daemon.configure("[reconnectd]\nSERVER = 127.0.0.1:" + std::to_string(port) + "\n" + more);
  }

  Daemon daemon{RECONNECTD};
  const Socket server = Socket::listening();
};

TEST_F(ReconnectdTest, LogsTheLinesOfTheServer) {
  start(server.port());
  const Socket peer = server.accept();
  EXPECT_TRUE(daemon.logs("Connected to 127.0.0.1:"));
  EXPECT_TRUE(peer.send("first\nsec"));
  EXPECT_TRUE(daemon.logs("Received: first\n"));
  EXPECT_TRUE(peer.send("ond\n"));
  EXPECT_TRUE(daemon.logs("Received: second\n"));
}

TEST_F(ReconnectdTest, ComesBackWhenTheServerHangsUp) {
  start(server.port(), "FIRST = 10\n");
  server.accept().send("one\n");
  EXPECT_TRUE(daemon.logs("the server has hung up"));
  const Socket second = server.accept();
  second.send("two\n");
  EXPECT_TRUE(daemon.logs("Received: two\n"));
}

TEST_F(ReconnectdTest, ComesBackAfterAReset) {
  start(server.port(), "FIRST = 10\n");
  Socket first = server.accept();
  const int before = daemon.descriptors();
  first.reset();
  const Socket second = server.accept();
  EXPECT_TRUE(daemon.has_descriptors(before));
}

// Each delay is between a half and the whole of the one that is due.
TEST_F(ReconnectdTest, TheDelayDoublesUpToTheLimit) {
  start(free_port(), "FIRST = 20\nLIMIT = 100\n");
  int due = 20;
  for (const int delay : delays(daemon, 8)) {
    EXPECT_GE(delay, due / 2);
    EXPECT_LE(delay, due);
    due = std::min(2 * due, 100);
  }
}

TEST_F(ReconnectdTest, TheDelaysAreNotAllTheSame) {
  start(free_port(), "FIRST = 100\nLIMIT = 100\n");
  const std::vector<int> all = delays(daemon, 20);
  EXPECT_NE(*std::min_element(all.begin(), all.end()), *std::max_element(all.begin(), all.end()));
}

// It waits at least as long as it says.
TEST_F(ReconnectdTest, DoesNotComeBackBeforeTheDelay) {
  start(server.port(), "FIRST = 1000\n");
  server.accept().send("x\n");
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(daemon.logs("the server has hung up"));
  server.accept();
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(400));
}

TEST_F(ReconnectdTest, OnlyAServerThatSendsBeginsTheDelayAnew) {
  start(server.port(), "FIRST = 20\nLIMIT = 2000\n");
  for (int i = 0; i < 4; ++i) server.accept();
  server.accept().send("well again\n");
  const std::vector<int> all = delays(daemon, 5);
  EXPECT_GE(all[3], 80);
  EXPECT_LE(all[4], 20);
}

TEST_F(ReconnectdTest, AnAttemptThatTakesTooLongIsGivenUp) {
  const Socket full = Socket::listening(0);
  std::vector<Socket> waiting;
  for (int i = 0; i < 8; ++i) {
    waiting.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr address{};
    socklen_t size = sizeof address;
    getsockname(full.fd, &address, &size);
    (void)connect(waiting.back().fd, &address, size);
  }
  start(full.port(), "FIRST = 10\nCONNECT_TIMEOUT = 200\n");
  EXPECT_TRUE(daemon.logs("no answer", 2));
}

TEST_F(ReconnectdTest, ANameThatDoesNotResolveIsTriedAgain) {
  daemon.configure("[reconnectd]\nSERVER = 127.0.0.1:nosuch\nFIRST = 10\n");
  daemon.start();
  EXPECT_TRUE(daemon.logs("Bad portspec (nosuch)", 3));
}

TEST_F(ReconnectdTest, AReloadChangesTheServer) {
  start(server.port());
  const Socket former = server.accept();
  former.send("ready\n");
  EXPECT_TRUE(daemon.logs("Received: ready"));  // and takes signals, too
  const int before = daemon.descriptors();
  const Socket elsewhere = Socket::listening();
  configure(elsewhere.port());
  daemon.reload();
  const Socket peer = elsewhere.accept();
  EXPECT_TRUE(former.at_end());
  peer.send("here\n");
  EXPECT_TRUE(daemon.logs("Received: here\n"));
  EXPECT_TRUE(daemon.has_descriptors(before));
}

TEST_F(ReconnectdTest, AFaultyReloadLeavesTheConnectionAlone) {
  start(server.port());
  const Socket peer = server.accept();
  peer.send("ready\n");
  EXPECT_TRUE(daemon.logs("Received: ready"));
  configure(server.port(), "LIMIT = 0\n");
  daemon.reload();
  EXPECT_TRUE(daemon.logs("Invalid LIMIT (0)"));
  peer.send("still here\n");
  EXPECT_TRUE(daemon.logs("Received: still here\n"));
}

}  // namespace
