// The example log collector, sent to by the system's logger command. LOGSINKD is its path.
#include "support/daemon.h"
#include "support/wait_for.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

namespace {

struct LogsinkdTest : testing::Test {
  LogsinkdTest() {
    configure("DBG");
    daemon.start();
    EXPECT_TRUE(daemon.logs("Collecting on"));
  }

  void configure(const std::string& level) {
    daemon.configure("[logsinkd]\nADDRESS = 127.0.0.1:" + std::to_string(port) +
                     "\n[sink]\nFILENAME = " + sink() + "\nLEVEL = " + level + "\n");
  }

  std::string sink() const { return (daemon.dir / "sink").string(); }

  std::string text() const {
    std::ifstream stream(sink(), std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  // Whether the records end in these lines, however long that takes.
  bool collects(const std::string& end) const {
    return wait_for([&] {
      const std::string all = text();
      return all.size() >= end.size() && all.compare(all.size() - end.size(), end.size(), end) == 0;
    });
  }

  int logger(const std::string& arguments) const {
    const std::string command =
        "logger -n 127.0.0.1 -P " + std::to_string(port) + " --rfc3164 " + arguments;
    return std::system(command.c_str());
  }

  const int port = free_port();
  Daemon daemon{LOGSINKD};
};

TEST_F(LogsinkdTest, CollectsWhatLoggerSendsOverTcp) {
  ASSERT_EQ(logger("-T -t greeter 'Good morning'"), 0);
  EXPECT_TRUE(collects("greeter: Good morning\n")) << text();
}

TEST_F(LogsinkdTest, CollectsWhatLoggerSendsOverUdp) {
  ASSERT_EQ(logger("-d -t greeter 'Good evening'"), 0);
  EXPECT_TRUE(collects("greeter: Good evening\n")) << text();
}

TEST_F(LogsinkdTest, SeveritiesBecomeLevels) {
  ASSERT_EQ(logger("-T -p user.err -t a bad"), 0);
  EXPECT_TRUE(collects("a: bad\n"));
  EXPECT_NE(text().find(" ERR "), std::string::npos);
  ASSERT_EQ(logger("-T -p user.debug -t a detail"), 0);
  EXPECT_TRUE(collects("a: detail\n"));
  EXPECT_NE(text().find(" DBG "), std::string::npos);
}

TEST_F(LogsinkdTest, AFileOfLinesArrivesWholeAndInOrder) {
  std::string expected;
  {
    std::ofstream lines(daemon.dir / "lines");
    for (int i = 0; i < 2000; ++i) lines << "line " << i << "\n";
  }
  ASSERT_EQ(logger("-T -t file -f " + (daemon.dir / "lines").string()), 0);
  ASSERT_TRUE(collects("file: line 1999\n"));
  const std::string all = text();
  size_t at = 0;
  for (int i = 0; i < 2000 && at != std::string::npos; ++i) {
    at = all.find("file: line " + std::to_string(i) + "\n", at);
    EXPECT_NE(at, std::string::npos) << i;
  }
}

TEST_F(LogsinkdTest, ALineMayArriveInPiecesAndWithoutAnEnd) {
  Socket sender = Socket::connected(port);
  EXPECT_TRUE(sender.send("first\nsec"));
  EXPECT_TRUE(collects("first\n"));
  EXPECT_TRUE(sender.send("ond\r\nthi"));
  EXPECT_TRUE(collects("second\n"));
  sender.close();
  EXPECT_TRUE(collects("thi\n"));
}

TEST_F(LogsinkdTest, ControlCharactersAreNotWritten) {
  const Socket sender = Socket::connected(port);
  EXPECT_TRUE(sender.send(std::string("a\x1b[31mb\0c%s%n\n", 14)));
  EXPECT_TRUE(collects("a?[31mb?c%s%n\n")) << text();
}

TEST_F(LogsinkdTest, AnEndlessLineIsWrittenInPieces) {
  const int before = daemon.descriptors();
  {
    const Socket sender = Socket::connected(port);
    std::string line;
    line.resize(10000000, 'x');
    EXPECT_TRUE(sender.send(line + "\n"));
  }
  EXPECT_TRUE(daemon.has_descriptors(before));
  EXPECT_TRUE(wait_for([&] { return text().size() > 100000; }));
  ASSERT_EQ(logger("-T -t after it"), 0);
  EXPECT_TRUE(collects("after: it\n"));
}

TEST_F(LogsinkdTest, AReloadChangesTheLevel) {
  const Socket sender = Socket::connected(port);
  EXPECT_TRUE(sender.send("<11>here\n"));
  ASSERT_TRUE(wait_for([&] { return text().find("here") != std::string::npos; }));
  configure("ERR");
  daemon.reload();  // of one that answers: it takes signals, too
  EXPECT_TRUE(wait_for([&] {
    const std::string before = text();
    EXPECT_TRUE(sender.send("<13>dropped\n<11>kept\n"));
    EXPECT_TRUE(wait_for([&] { return text().find("kept", before.size()) != std::string::npos; }));
    return text().find("dropped", before.size()) == std::string::npos;
  }));
}

}  // namespace
