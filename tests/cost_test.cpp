// What an event costs in calls of the system and in allocations: a change that makes it dearer
// fails here.
#include "support/allocations.h"
#include "support/polling.h"
#include "vornfc/appshell.h"
#include "vornfc/async_rcvr.h"
#include "vornfc/asyncw.h"
#include "vornfc/evtmgr.h"
#include "vornfc/file.h"
#include "vornfc/log.h"
#include "vornfc/timer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

// Of the thread that counts, which is the one that runs the loop.
thread_local bool counting = false;
int reads = 0, writes = 0, polls = 0, others = 0;

void count(int* calls) {
  if (counting) ++*calls;
}

}  // namespace

ssize_t read(int fd, void* data, size_t size) {
  count(&reads);
  return syscall(SYS_read, fd, data, size);
}
ssize_t write(int fd, const void* data, size_t size) {
  count(&writes);
  return syscall(SYS_write, fd, data, size);
}
int fcntl(int fd, int command, ...) {
  count(&others);
  va_list args;
  va_start(args, command);
  const long argument = va_arg(args, long);
  va_end(args);
  return static_cast<int>(syscall(SYS_fcntl, fd, command, argument));
}

namespace vornfc {
namespace {

constexpr int Warm = 100;  // events before the count begins: containers reach their size
constexpr int Counted = 1000;

struct CostTest : testing::Test {
  CostTest() : mgr(VrnEvtMgr::instance(0)) {
    VrnAppShell::evtmgr = mgr;
    sys::set_poll(&counting_poll);
    EXPECT_EQ(sys::allocations() > 0, sys::counts_allocations());
  }
  ~CostTest() override {
    sys::set_poll(nullptr);
    VrnEvtMgr::destroy();
  }

  // Called by each event's callback: begins to count, and ends the loop after the last one.
  void step() {
    if (++events == Warm) {
      reads = writes = polls = others = 0;
      allocated = -sys::allocations();
      counting = true;
    }
    if (events != Warm + Counted) return;
    counting = false;
    allocated += sys::allocations();
    mgr->stopDispatcher();
  }

  VrnEvtMgr* const mgr;
  int events = 0;
  long allocated = 0;  // by the thread of the loop
  const sys::Poll counting_poll = [](pollfd* entries, nfds_t size, int timeout) {
    count(&polls);
    return sys::system_poll(entries, size, timeout);
  };
};

// Sends back what comes, and takes a step each time.
struct Echo : VrnAsyncReceiver {
  explicit Echo(CostTest* cost_test) : VrnAsyncReceiver("echo"), test(cost_test) {}
  void aioReady(VrnFile* file) override {
    char buffer[64];
    const ssize_t size = read(file->fd, buffer, sizeof buffer);
    test->step();
    EXPECT_EQ(writer->awrite(buffer, static_cast<int>(size)), 0);
  }
  void aioRemoved(VrnFile*, bool, bool) override {}

  CostTest* const test;
  VrnAsyncWriter* writer = nullptr;
};

TEST_F(CostTest, AnEchoedMessageIsThreeCallsAndNoAllocation) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  VrnFile file;
  file.assign(ends[0], "file", true);
  VrnAsyncWriter writer(&file, false);
  Echo echo(this);
  echo.writer = &writer;
  echo.aioStart(&file);
  std::thread client([&] {
    char byte = 'x';
    for (int i = 0; i < Warm + Counted; ++i) {
      EXPECT_EQ(::write(ends[1], &byte, 1), 1);
      EXPECT_EQ(::read(ends[1], &byte, 1), 1);
    }
  });
  mgr->startDispatcher();
  client.join();
  close(ends[1]);
  // The count begins and ends in the middle of a message.
  EXPECT_EQ(polls, Counted);
  EXPECT_EQ(reads, Counted);
  EXPECT_EQ(writes, Counted);
  EXPECT_EQ(others, 0);
  EXPECT_EQ(allocated, 0);
}

// Passes a byte on to itself, so that it is always ready.
struct Passer : VrnAsyncReceiver {
  Passer(CostTest* cost_test, int write_end)
      : VrnAsyncReceiver("passer"), test(cost_test), fd(write_end) {}
  void aioReady(VrnFile* file) override {
    char byte;
    EXPECT_EQ(read(file->fd, &byte, 1), 1);
    EXPECT_EQ(write(fd, &byte, 1), 1);
    test->step();
  }
  void aioRemoved(VrnFile*, bool, bool) override {}

  CostTest* const test;
  const int fd;
};

// All of them are polled once a second, in case that one was closed.
TEST_F(CostTest, IdleDescriptorsAreNotPolled) {
  constexpr int Idle = 200;
  int most_polled = 0, polled_all = 0;
  const sys::Poll looking = [&](pollfd* entries, nfds_t size, int timeout) {
    if (counting) {
      if (size > Idle) {
        ++polled_all;
      } else {
        most_polled = std::max(most_polled, static_cast<int>(size));
      }
    }
    return sys::system_poll(entries, size, timeout);
  };
  sys::set_poll(&looking);
  std::deque<VrnFile> files;
  std::vector<int> write_ends;
  for (int i = 0; i <= Idle; ++i) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    files.emplace_back().assign(ends[0], "pipe", true);
    write_ends.push_back(ends[1]);
  }
  Passer passer(this, write_ends.back());
  for (VrnFile& file : files) passer.aioStart(&file);
  ASSERT_EQ(::write(write_ends.back(), "x", 1), 1);
  mgr->startDispatcher();
  EXPECT_LE(most_polled, 3);  // the busy one, the queue, the registrar's pipe
  EXPECT_LE(polled_all, 20);
  for (const int fd : write_ends) close(fd);
}

// Each expiry starts the timer anew: a request, so a write and a read of the registrar's pipe.
struct Rearmed : VrnTimer {
  explicit Rearmed(CostTest* cost_test) : VrnTimer("rearmed"), test(cost_test) {}
  void timerExpired() override {
    test->step();
    if (test->events < Warm + Counted) startTimer(0, 0, 0, 0);
  }
  void timerStopped() override {}

  CostTest* const test;
};

TEST_F(CostTest, ATimerThatIsStartedAnewIsThreeCallsAndNoAllocation) {
  Rearmed timer(this);
  timer.startTimer(0, 0, 0, 0);
  mgr->startDispatcher();
  EXPECT_EQ(polls, Counted);
  EXPECT_EQ(reads, Counted);
  EXPECT_EQ(writes, Counted);
  EXPECT_EQ(others, 0);
  EXPECT_EQ(allocated, 0);
}

TEST_F(CostTest, ManyTimersOfOneTurnTravelTogether) {
  std::deque<Rearmed> timers;
  for (int i = 0; i < 100; ++i) timers.emplace_back(this).startTimer(0, 0, 0, 0);
  mgr->startDispatcher();
  EXPECT_LE(polls, 50);
  EXPECT_LE(reads, 50);
  EXPECT_LE(writes, 50);
  EXPECT_EQ(allocated, 0);
}

TEST_F(CostTest, ATurnWithoutWorkIsOnePoll) {
  struct Far : VrnTimer {
    Far() : VrnTimer("far") {}
    void timerExpired() override {}
    void timerStopped() override {}
  } far_away;
  far_away.startTimer(1000, 0, 0, 0);
  const sys::Poll idle = [this](pollfd* entries, nfds_t size, int timeout) {
    count(&polls);
    if (events >= Warm + Counted) return sys::system_poll(entries, size, timeout);
    step();
    return 0;
  };
  sys::set_poll(&idle);
  mgr->startDispatcher();
  EXPECT_EQ(polls, Counted);
  EXPECT_EQ(reads, 0);
  EXPECT_EQ(others, 0);
  EXPECT_EQ(allocated, 0);
  sys::set_poll(&counting_poll);
  // The one write was the request to stop, after the count.
  EXPECT_EQ(writes, 0);
}

TEST(RecordCostTest, ARecordIsOneCallAndNoAllocation) {
  const std::string path = "/tmp/vornfc_cost." + std::to_string(getpid());
  {
    VrnLog log("cost", path.c_str(), 1, 3, "", 3);
    for (int i = 0; i < Warm; ++i) log.log(3, "%d", i);
    reads = writes = others = 0;
    const long before = sys::allocations();
    counting = true;
    for (int i = 0; i < Counted; ++i) log.log(3, "%s %d", "record", i);
    for (int i = 0; i < Counted; ++i) log.log(4, "%s %d", "filtered", i);
    counting = false;
    EXPECT_EQ(sys::allocations(), before);
    EXPECT_EQ(writes, Counted);
    EXPECT_EQ(reads, 0);
    EXPECT_EQ(others, 0);
  }
  unlink(path.c_str());
}

}  // namespace
}  // namespace vornfc
