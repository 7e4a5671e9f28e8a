// The example that tells the time, asked over UDP. TIMED is its path.
#include "support/daemon.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <random>
#include <regex>
#include <string>

namespace {

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<in_port_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

Socket udp_socket(int port = 0) {
  Socket result(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_in address = loopback(port);
  if (bind(result.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) return {};
  const timeval limit{20, 0};
  setsockopt(result.fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  return result;
}

// Below those that the system gives to clients, so that no client gets it meanwhile.
int free_udp_port() {
  std::random_device random;
  for (;;) {
    const int port = 10000 + static_cast<int>(random() % 20000);
    if (udp_socket(port).fd != -1) return port;
  }
}

struct TimedTest : testing::Test {
  TimedTest() {
    configure(port);
    daemon.start();
    EXPECT_TRUE(daemon.logs("Telling the time on"));
    send("?ready");
    EXPECT_EQ(receive().rfind("=ready ", 0), 0U);  // who answers takes signals, too
  }

  void configure(int served, const std::string& more = "") const {
    daemon.configure("[timed]\nADDRESS = 127.0.0.1:" + std::to_string(served) + "\n" + more);
  }

  void send(const std::string& question, int to = 0) const {
    const sockaddr_in address = loopback(to == 0 ? port : to);
    EXPECT_EQ(sendto(asker.fd, question.data(), question.size(), 0,
                     reinterpret_cast<const sockaddr*>(&address), sizeof address),
              static_cast<ssize_t>(question.size()));
  }

  std::string receive() const {
    char text[2048];
    const ssize_t size = recv(asker.fd, text, sizeof text, 0);
    return {text, size > 0 ? static_cast<size_t>(size) : 0};
  }

  const int port = free_udp_port();
  const Socket asker = udp_socket();
  Daemon daemon{TIMED};
};

// By the daemon's clock: that of time() is behind it by up to a tick of the kernel's.
time_t now() {
  timeval time;
  gettimeofday(&time, nullptr);
  return time.tv_sec;
}

TEST_F(TimedTest, AnswersWithTheTimeBehindTheQuestion) {
  const time_t before = now();
  send("?first");
  const std::string answer = receive();
  const time_t after = now();
  EXPECT_TRUE(std::regex_match(answer, std::regex("=first \\d{4}(-\\d\\d){2}T\\d\\d(:\\d\\d){2}Z")))
      << answer;
  tm parts{};
  ASSERT_NE(strptime(answer.c_str(), "=first %Y-%m-%dT%H:%M:%SZ", &parts), nullptr);
  const time_t told = timegm(&parts);
  EXPECT_GE(told, before);
  EXPECT_LE(told, after);
}

TEST_F(TimedTest, ManyQuestionsHaveAnAnswerEach) {
  for (int i = 0; i < 200; ++i) send("?" + std::to_string(i));
  for (int i = 0; i < 200; ++i) {
    EXPECT_EQ(receive().rfind("=" + std::to_string(i) + " ", 0), 0U) << i;
  }
}

// The next answer is to the question behind them.
TEST_F(TimedTest, WhatIsNoQuestionIsNotAnswered) {
  send("hello");
  send("=one 2026-11-15T13:05:09Z");
  send("");
  send("?" + std::string(65, 'x'));
  send(std::string(60000, '?'));
  send("?" + std::string(64, 'y'));
  EXPECT_EQ(receive().rfind("=" + std::string(64, 'y') + " ", 0), 0U);
}

TEST_F(TimedTest, AReloadChangesTheFormat) {
  configure(port, "FORMAT = year %Y\n");
  daemon.reload();
  ASSERT_TRUE(daemon.logs("as year %Y"));
  send("?a");
  EXPECT_TRUE(std::regex_match(receive(), std::regex("=a year \\d{4}")));
}

TEST_F(TimedTest, AReloadChangesTheAddress) {
  const int other = free_udp_port();
  const int before = daemon.descriptors();
  configure(other);
  daemon.reload();
  ASSERT_TRUE(daemon.logs("Telling the time on", 2));
  send("?there", other);
  EXPECT_EQ(receive().rfind("=there ", 0), 0U);
  EXPECT_NE(udp_socket(port).fd, -1) << "the former port is still served";
  EXPECT_TRUE(daemon.has_descriptors(before));
}

TEST_F(TimedTest, AFaultyReloadChangesNothing) {
  daemon.configure("[timed]\nFORMAT = none\n");
  daemon.reload();
  ASSERT_TRUE(daemon.logs("The settings stay as they were"));
  send("?x");
  EXPECT_NE(receive().find('T'), std::string::npos);
}

}  // namespace
