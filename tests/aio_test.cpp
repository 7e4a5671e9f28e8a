#include "support/log_capture.h"
#include "support/loop.h"
#include "support/polling.h"
#include "vornfc/evtmgr_native.h"
#include "vornfc/exception.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace vornfc {
namespace {

using Names = std::vector<std::string>;
using Cancellations = std::vector<Cancelled>;
using Failure = std::pair<int, std::string>;

constexpr short INPUT_EVENTS = POLLIN | POLLPRI;

// The exception that `call` throws, as its code and message.
Failure failure_of(const Call& call) {
  try {
    call();
  } catch (const VrnException& e) {
    return {e.err(), e.what()};
  }
  return {0, "no VrnException"};
}

std::string address(const void* object) {
  char text[32];
  std::snprintf(text, sizeof text, "0x%x",
                static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(object)));
  return text;
}

bool is_open(int fd) {
  return fcntl(fd, F_GETFD) != -1;
}

class AioTest : public testing::Test {
 protected:
  // As another thread does, so that it takes effect at once.
  bool start(VrnFile* file, VrnAIO* aio) {
    bool done = false;
    elsewhere([&] { done = loop.mgr->startAIO(file, aio); });
    return done;
  }

  bool stop(VrnFile* file, VrnAIO* aio) {
    bool done = false;
    elsewhere([&] { done = loop.mgr->stopAIO(file, aio); });
    return done;
  }

  // What the loop does when poll() reports `events` for a file that was registered once.
  void handle(const VrnFile& file, short events) const {
    pollfd entry{file.fd, 0, events};
    VrnEvtMgrNative::iofile_t record;
    record.serial = 1;
    loop.mgr->handleIO(&entry, &record);
  }

  // The descriptors that reached the last poll(), by position.
  std::vector<int> polled() const {
    std::vector<int> result;
    for (const pollfd& entry : loop.entries) result.push_back(entry.fd);
    return result;
  }

  // The events for which the last poll() was asked on `fd`; 0: it was not there.
  short events_of(int fd) const {
    for (const pollfd& entry : loop.entries) {
      if (entry.fd == fd) return entry.events;
    }
    return 0;
  }

  LogCapture log;
  Loop loop;
};

// ---- readiness ----

TEST_F(AioTest, InputWatcherIsCalledWhenThereIsData) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  VrnFile* told = nullptr;
  reader.on_ready = [&](VrnFile* file) {
    told = file;
    char chunk[8];
    reader.received.assign(chunk, static_cast<std::size_t>(read(file->fd, chunk, sizeof chunk)));
  };
  loop.on_dispatcher([&] { EXPECT_TRUE(loop.mgr->startAIO(&connection.file, &reader)); });
  loop.on_dispatcher([&] {
    EXPECT_EQ(reader.ready, 0);
    connection.send("hello");
  });
  loop.run_until([&] { return reader.ready > 0; });
  EXPECT_EQ(told, &connection.file);
  EXPECT_EQ(reader.received, "hello");
  EXPECT_EQ(reader.ready, 1);
  EXPECT_EQ(reader.cancelled, Cancellations{});
}

TEST_F(AioTest, OutputWatcherIsNotCalledWithoutRoom) {
  Connection connection;
  RecordingAIO writer(RecordingAIO::Output, "writer");
  connection.fill();
  loop.on_dispatcher([&] { loop.mgr->startAIO(&connection.file, &writer); });
  loop.on_dispatcher([] {});
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_EQ(writer.ready, 0);
}

TEST_F(AioTest, OutputWatcherIsCalledAtEveryTurnThatHasRoom) {
  Connection connection;
  RecordingAIO writer(RecordingAIO::Output, "writer");
  loop.on_dispatcher([&] { loop.mgr->startAIO(&connection.file, &writer); });
  loop.run_until([&] { return writer.ready >= 3; });
}

// The loop takes the system's word for it: what is told as urgent is input.
TEST_F(AioTest, UrgentDataIsInput) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  start(&connection.file, &reader);
  handle(connection.file, POLLPRI);
  EXPECT_EQ(reader.ready, 1);
  EXPECT_EQ(reader.cancelled, Cancellations{});
}

TEST_F(AioTest, StartedBeforeTheLoopRuns) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  EXPECT_TRUE(loop.mgr->startAIO(&connection.file, &reader));
  connection.send("hello");
  loop.run_until([&] { return reader.received == "hello"; });
}

TEST_F(AioTest, StartOnAnotherThreadEndsTheWait) {
  using Clock = std::chrono::steady_clock;
  constexpr std::size_t TRIES = 20;
  Connection connections[TRIES];
  std::atomic<std::size_t> told{0};
  Clock::time_point told_at;
  RecordingAIO writer(RecordingAIO::Output, "writer");
  writer.on_ready = [&](VrnFile* file) {
    told_at = Clock::now();
    loop.mgr->stopAIO(file, &writer);
    ++told;
  };
  auto best = Clock::duration::max();
  std::thread starter;
  loop.on_dispatcher([&] {
    starter = std::thread([&] {
      for (std::size_t i = 0; i < TRIES; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));  // the loop goes to sleep
        const auto start = Clock::now();
        EXPECT_TRUE(loop.mgr->startAIO(&connections[i].file, &writer));
        while (told <= i) std::this_thread::yield();
        best = std::min(best, told_at - start);
      }
    });
  });
  loop.run_until([&] { return told == TRIES; });
  starter.join();
  EXPECT_LT(best, std::chrono::milliseconds(10));
}

TEST_F(AioTest, OneWatcherServesManyFiles) {
  Connection first("first");
  Connection second("second");
  RecordingAIO reader(RecordingAIO::Input, "reader");
  Names ready;
  reader.on_ready = [&](VrnFile* file) {
    ready.emplace_back(file->name());
    stop(file, &reader);
  };
  start(&second.file, &reader);
  start(&first.file, &reader);
  first.send("1");
  second.send("2");
  loop.run_until([&] { return ready.size() == 2; });
  EXPECT_EQ(ready, (Names{"second", "first"}));  // by position
}

TEST_F(AioTest, FirstWatchMakesTheDescriptorNonBlocking) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  EXPECT_EQ(fcntl(connection.file.fd, F_GETFL) & O_NONBLOCK, 0);
  start(&connection.file, &reader);
  EXPECT_NE(fcntl(connection.file.fd, F_GETFL) & O_NONBLOCK, 0);
}

// ---- entries ----

TEST_F(AioTest, BothDirectionsShareOneEntry) {
  if (!sys::gives_poll_the_table()) GTEST_SKIP() << "looks at what poll() is given";
  Connection connection;
  connection.fill();
  RecordingAIO reader(RecordingAIO::Input, "reader");
  RecordingAIO writer(RecordingAIO::Output, "writer");
  const int fd = connection.file.fd;
  loop.on_dispatcher([&] {
    loop.mgr->startAIO(&connection.file, &reader);
    loop.mgr->startAIO(&connection.file, &writer);
  });
  loop.on_dispatcher([] {});
  loop.on_dispatcher([&] {
    EXPECT_EQ(polled(), (std::vector<int>{loop.pipe_read_end, fd}));
    EXPECT_EQ(events_of(fd), POLLIN | POLLPRI | POLLOUT);
    loop.mgr->stopAIO(&connection.file, &writer);
  });
  loop.when([&] { return !writer.cancelled.empty(); }, [] {});
  loop.run_calls();
  EXPECT_EQ(polled(), (std::vector<int>{loop.pipe_read_end, fd}));
  EXPECT_EQ(events_of(fd), INPUT_EVENTS);
  EXPECT_EQ(writer.cancelled, (Cancellations{{&connection.file, false, false}}));
  EXPECT_EQ(reader.cancelled, Cancellations{});
}

TEST_F(AioTest, StopOfTheReaderLeavesTheWriter) {
  Connection connection;
  connection.fill();
  RecordingAIO reader(RecordingAIO::Input, "reader");
  RecordingAIO writer(RecordingAIO::Output, "writer");
  start(&connection.file, &reader);
  start(&connection.file, &writer);
  stop(&connection.file, &reader);
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_EQ(events_of(connection.file.fd), POLLOUT);
}

TEST_F(AioTest, RegistrarsPipeIsTheFirstEntryAndAsksForInput) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  loop.on_dispatcher([&] { start(&connection.file, &reader); });
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_EQ(polled(), (std::vector<int>{loop.pipe_read_end, connection.file.fd}));
  EXPECT_EQ(events_of(loop.pipe_read_end), INPUT_EVENTS);
}

TEST_F(AioTest, LastEntryTakesThePlaceOfOneThatGoes) {
  if (!sys::gives_poll_the_table()) GTEST_SKIP() << "looks at what poll() is given";
  Connection a("a");
  Connection b("b");
  Connection c("c");
  Connection d("d");
  RecordingAIO reader(RecordingAIO::Input, "reader");
  for (Connection* connection : {&a, &b, &c, &d}) start(&connection->file, &reader);
  stop(&b.file, &reader);
  loop.on_dispatcher([&] {
    EXPECT_EQ(polled(), (std::vector<int>{a.file.fd, d.file.fd, c.file.fd, loop.pipe_read_end}));
    // The entry that was moved is found at its new place, and the last one simply goes.
    elsewhere([&] { loop.mgr->stopAIO(&d.file, &reader); });
  });
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_EQ(polled(), (std::vector<int>{a.file.fd, loop.pipe_read_end, c.file.fd}));
}

TEST_F(AioTest, MovedEntryIsStillServedAndStopped) {
  Connection a("a");
  Connection b("b");
  RecordingAIO reader(RecordingAIO::Input, "reader");
  start(&a.file, &reader);
  start(&b.file, &reader);
  stop(&a.file, &reader);
  b.send("hello");
  loop.when([&] { return reader.received == "hello"; },
            [&] { loop.mgr->stopAIO(&b.file, &reader); });
  loop.run_until([&] { return !reader.cancelled.empty(); });
  EXPECT_EQ(polled(), std::vector<int>{loop.pipe_read_end});
}

TEST_F(AioTest, DescriptorMayBeWatchedAgain) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  RecordingAIO writer(RecordingAIO::Output, "writer");
  start(&connection.file, &reader);
  stop(&connection.file, &reader);
  start(&connection.file, &writer);
  loop.run_until([&] { return writer.ready > 0; });
  EXPECT_EQ(events_of(connection.file.fd), POLLOUT);
  EXPECT_FALSE(log.contains("Receiver="));
  EXPECT_TRUE(log.contains("- EvtMgr: Writer=writer remains - fd "));
}

TEST_F(AioTest, RecordsGrowToTwiceTheDescriptor) {
  Connection connection;
  VrnFile file;
  ASSERT_EQ(fcntl(connection.file.fd, F_DUPFD_CLOEXEC, 300), 300);
  file.assign(300, "high", true);
  RecordingAIO reader(RecordingAIO::Input, "reader");
  start(&file, &reader);
  connection.send("hello");
  loop.run_until([&] { return reader.received == "hello"; });
  EXPECT_TRUE(log.contains("pollfds=2 (cap=128), iofiles=600 (cap=600)") ||
              log.contains("pollfds=1 (cap=128), iofiles=600 (cap=600)"));
}

TEST_F(AioTest, DescriptorOfTheRecordCountGrowsThem) {
  Connection connection;
  VrnFile file;
  ASSERT_EQ(fcntl(connection.file.fd, F_DUPFD_CLOEXEC, 128), 128);
  file.assign(128, "high", true);
  RecordingAIO reader(RecordingAIO::Input, "reader");
  start(&file, &reader);
  connection.send("hello");
  loop.run_until([&] { return reader.received == "hello"; });
  EXPECT_TRUE(log.contains("iofiles=256 "));
}

// ---- the walk over the ready descriptors ----

TEST_F(AioTest, StopTakesEffectInTheSameTurn) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  RecordingAIO writer(RecordingAIO::Output, "writer");
  writer.on_ready = [&](VrnFile* file) {
    stop(file, &reader);
    stop(file, &writer);
  };
  start(&connection.file, &reader);
  start(&connection.file, &writer);
  connection.send("hello");
  loop.run_until([&] { return writer.ready == 1; });
  EXPECT_EQ(reader.ready, 0);
}

TEST_F(AioTest, OutputComesBeforeInput) {
  Connection connection;
  Names order;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  RecordingAIO writer(RecordingAIO::Output, "writer");
  reader.on_ready = [&](VrnFile* file) {
    order.emplace_back("input");
    stop(file, &reader);
  };
  writer.on_ready = [&](VrnFile* file) {
    order.emplace_back("output");
    stop(file, &writer);
  };
  start(&connection.file, &reader);
  start(&connection.file, &writer);
  connection.send("hello");
  loop.run_until([&] { return order.size() == 2; });
  EXPECT_EQ(order, (Names{"output", "input"}));
}

TEST_F(AioTest, EntryMovedToAPlaceAlreadyPassedWaitsForTheNextTurn) {
  Connection a("a");
  Connection b("b");
  Connection c("c");
  std::vector<std::pair<std::string, std::size_t>> ready;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  reader.on_ready = [&](VrnFile* file) {
    ready.emplace_back(file->name(), loop.timeouts.size());
    stop(file, &reader);
  };
  for (Connection* connection : {&a, &b, &c}) {
    start(&connection->file, &reader);
    connection->send("x");
  }
  loop.run_until([&] { return ready.size() == 3; });
  // The pipe's entry, which is last, takes the place of a; that of c the place of b.
  ASSERT_EQ(ready.size(), 3U);
  EXPECT_EQ(ready[0], (std::pair<std::string, std::size_t>{"a", 1}));
  EXPECT_EQ(ready[1], (std::pair<std::string, std::size_t>{"b", 1}));
  EXPECT_EQ(ready[2], (std::pair<std::string, std::size_t>{"c", 2}));
}

TEST_F(AioTest, CallbackMayRegisterMoreThanTheReserve) {
  std::vector<std::unique_ptr<Connection>> more;
  RecordingAIO late(RecordingAIO::Input, "late");
  RecordingAIO reader(RecordingAIO::Input, "reader");
  Connection first("first");
  Connection second("second");
  int served = 0;
  reader.on_ready = [&](VrnFile* file) {
    char byte;
    ASSERT_EQ(read(file->fd, &byte, 1), 1);
    if (++served > 1) return;
    for (int i = 0; i < 200; ++i) {
      more.push_back(std::make_unique<Connection>());
      more.back()->send("y");
      start(&more.back()->file, &late);
    }
  };
  for (Connection* connection : {&first, &second}) {
    start(&connection->file, &reader);
    connection->send("x");
  }
  loop.run_until([&] { return late.received.size() == 200; });
  EXPECT_EQ(served, 2);
  EXPECT_EQ(late.ready, 200);
}

// The descriptor number is another file's before the walk gets to it.
TEST_F(AioTest, EventOfAWatchThatEndedIsNotAnothers) {
  Connection first("first");
  auto second = std::make_unique<Connection>("second");
  const Connection other;
  VrnFile third;
  RecordingAIO stranger(RecordingAIO::Input, "stranger");
  RecordingAIO reader(RecordingAIO::Input, "reader");
  start(&first.file, &reader);
  start(&second->file, &reader);
  const int number = second->file.fd;
  reader.on_ready = [&](VrnFile* file) {
    stop(file, &reader);
    if (file != &first.file) return;
    second.reset();
    ASSERT_EQ(dup2(other.file.fd, number), number);
    third.assign(number, "third", true);
    start(&third, &stranger);
  };
  first.send("x");
  second->send("y");
  loop.when([&] { return reader.ready > 0; }, [] {});
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_EQ(reader.ready, 1);
  EXPECT_EQ(stranger.ready, 0);
}

// ---- stopping ----

TEST_F(AioTest, StopOnTheDispatcherThreadIsConfirmed) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  loop.on_dispatcher([&] { loop.mgr->startAIO(&connection.file, &reader); });
  loop.on_dispatcher([&] {
    EXPECT_FALSE(loop.mgr->stopAIO(&connection.file, &reader));
    EXPECT_TRUE(reader.cancelled.empty());
  });
  loop.run_until([&] { return !reader.cancelled.empty(); });
  EXPECT_EQ(reader.cancelled, (Cancellations{{&connection.file, false, false}}));
  EXPECT_TRUE(is_open(connection.file.fd));
}

TEST_F(AioTest, StopOnAnotherThreadIsDoneAtOnce) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  EXPECT_TRUE(start(&connection.file, &reader));
  EXPECT_TRUE(stop(&connection.file, &reader));
  connection.send("hello");
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_EQ(reader.ready, 0);
  EXPECT_EQ(reader.cancelled, Cancellations{});
}

TEST_F(AioTest, StopOnAnotherThreadAlsoEndsAStartOnItsWay) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  connection.send("hello");
  loop.on_dispatcher([&] {
    EXPECT_TRUE(loop.mgr->startAIO(&connection.file, &reader));
    elsewhere([&] { EXPECT_TRUE(loop.mgr->stopAIO(&connection.file, &reader)); });
  });
  for (int i = 0; i < 3; ++i) loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_EQ(reader.ready, 0);
  EXPECT_EQ(reader.cancelled, Cancellations{});
  EXPECT_EQ(loop.entries.size(), 1U);  // the registrar's pipe
}

TEST_F(AioTest, StopOfAWatcherThatIsNotRegisteredCallsNobody) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  RecordingAIO writer(RecordingAIO::Output, "writer");
  EXPECT_TRUE(stop(&connection.file, &reader));
  start(&connection.file, &writer);
  EXPECT_TRUE(stop(&connection.file, &reader));  // the other direction is watched
  loop.on_dispatcher([&] { EXPECT_FALSE(loop.mgr->stopAIO(&connection.file, &reader)); });
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_EQ(reader.cancelled, Cancellations{});
  EXPECT_EQ(writer.cancelled, Cancellations{});
}

TEST_F(AioTest, StopOfADescriptorBeyondTheRecordsDoesNothing) {
  VrnFile file;
  file.assign(5000, "far", false);
  RecordingAIO reader(RecordingAIO::Input, "reader");
  EXPECT_TRUE(stop(&file, &reader));
  EXPECT_EQ(reader.cancelled, Cancellations{});
}

TEST_F(AioTest, StopOfAWatcherThatDoesNotOwnTheSlot) {
  Connection connection("conn");
  RecordingAIO holder(RecordingAIO::Input, "holder");
  RecordingAIO stranger(RecordingAIO::Input, "stranger");
  start(&connection.file, &holder);
  Failure failure;
  elsewhere([&] { failure = failure_of([&] { loop.mgr->stopAIO(&connection.file, &stranger); }); });
  EXPECT_EQ(failure, (Failure{3, "EvtMgr: iomon=stranger doesn't own fd-0 conn=" +
                                     std::to_string(connection.file.fd) + " - owner=holder"}));
  connection.send("hello");
  loop.run_until([&] { return holder.received == "hello"; });
}

TEST_F(AioTest, ConflictOfAQueuedStopIsLogged) {
  Connection connection("conn");
  RecordingAIO holder(RecordingAIO::Output, "holder");
  RecordingAIO stranger(RecordingAIO::Output, "stranger");
  start(&connection.file, &holder);
  loop.on_dispatcher([&] { EXPECT_FALSE(loop.mgr->stopAIO(&connection.file, &stranger)); });
  loop.run_until([&] { return log.contains("AsyncRegistrar: submitted request threw ["); });
  EXPECT_TRUE(log.contains(" - EvtMgr: iomon=stranger doesn't own fd-1 conn=" +
                           std::to_string(connection.file.fd) + " - owner=holder]"));
  EXPECT_EQ(stranger.cancelled, Cancellations{});
}

TEST_F(AioTest, ExceptionFromAioCancelledIsLogged) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  reader.on_cancelled = [] { throw std::string("bad end"); };
  start(&connection.file, &reader);
  loop.on_dispatcher([&] { loop.mgr->stopAIO(&connection.file, &reader); });
  loop.run_until([&] { return !reader.cancelled.empty(); });
  EXPECT_TRUE(log.contains("EvtMgr: aioCancelled threw [string=bad end]"));
}

TEST_F(AioTest, StopAfterTheLoopIsDoneAtOnce) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  start(&connection.file, &reader);
  loop.run_calls();
  EXPECT_TRUE(loop.mgr->stopAIO(&connection.file, &reader));
  EXPECT_EQ(reader.cancelled, Cancellations{});
}

TEST_F(AioTest, StoppedManagerRefusesAWatch) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  loop.mgr->syncstopDispatcher();
  EXPECT_FALSE(start(&connection.file, &reader));
  EXPECT_EQ(fcntl(connection.file.fd, F_GETFL) & O_NONBLOCK, 0);
}

// ---- conflicts ----

TEST_F(AioTest, SecondWatcherOfADirectionConflicts) {
  Connection connection("conn");
  RecordingAIO holder(RecordingAIO::Output, "holder");
  RecordingAIO second(RecordingAIO::Output, "second");
  start(&connection.file, &holder);
  Failure failure;
  elsewhere([&] { failure = failure_of([&] { loop.mgr->startAIO(&connection.file, &second); }); });
  const std::string fd = std::to_string(connection.file.fd);
  const std::string file = address(&connection.file);
  EXPECT_EQ(failure.first, 3);
  EXPECT_EQ(failure.second, "EvtMgr conflict: AIO on fd conn=" + fd + " (" + file +
                                ") with rank=1 mon=second (" +
                                address(static_cast<VrnAIO*>(&second)) +
                                "), iofile fd is conn=" + fd + " (" + file + ") with mon=holder (" +
                                address(static_cast<VrnAIO*>(&holder)) + "), pidx=0, pollfd=" + fd);
}

TEST_F(AioTest, OtherFileOnTheDescriptorConflicts) {
  Connection connection("conn");
  VrnFile alias;
  alias.assign(connection.file.fd, "alias", false);
  RecordingAIO reader(RecordingAIO::Input, "reader");
  RecordingAIO writer(RecordingAIO::Output, "writer");
  start(&connection.file, &reader);
  Failure failure;
  elsewhere([&] { failure = failure_of([&] { loop.mgr->startAIO(&alias, &writer); }); });
  const std::string fd = std::to_string(connection.file.fd);
  EXPECT_EQ(failure.first, 3);
  EXPECT_EQ(failure.second, "EvtMgr conflict: AIO on fd alias=" + fd + " (" + address(&alias) +
                                ") with rank=1 mon=writer (" +
                                address(static_cast<VrnAIO*>(&writer)) +
                                "), iofile fd is conn=" + fd + " (" + address(&connection.file) +
                                ") with mon=N (0x0), pidx=0, pollfd=" + fd);
}

TEST_F(AioTest, ConflictOfAQueuedStartIsLoggedAndChangesNothing) {
  Connection connection("conn");
  RecordingAIO holder(RecordingAIO::Input, "holder");
  RecordingAIO second(RecordingAIO::Input, "second");
  loop.on_dispatcher([&] {
    EXPECT_TRUE(loop.mgr->startAIO(&connection.file, &holder));
    EXPECT_TRUE(loop.mgr->startAIO(&connection.file, &second));
  });
  loop.when([&] { return log.contains("AsyncRegistrar: submitted request threw ["); },
            [&] { connection.send("hello"); });
  loop.run_until([&] { return holder.received == "hello"; });
  EXPECT_TRUE(log.contains(" - EvtMgr conflict: AIO on fd conn="));
  EXPECT_EQ(second.ready, 0);
}

TEST_F(AioTest, DescriptorThatCannotBeSwitchedIsNotWatched) {
  VrnFile file;
  file.assign(99, "closed", false);
  RecordingAIO reader(RecordingAIO::Input, "reader");
  Failure failure;
  elsewhere([&] { failure = failure_of([&] { loop.mgr->startAIO(&file, &reader); }); });
  EXPECT_EQ(failure, (Failure{2, "VrnFile: Failed to get flags for fd=99 (9)"}));
  loop.run_calls();
  EXPECT_EQ(polled(), std::vector<int>{loop.pipe_read_end});
}

// ---- hang-ups and errors ----

TEST_F(AioTest, HangUpIsToldAfterTheData) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  VrnFile file;
  file.assign(pipe_ends[0], "pipe", true);
  ASSERT_EQ(write(pipe_ends[1], "ab", 2), 2);
  close(pipe_ends[1]);
  reader.on_ready = [&](VrnFile* ready) {
    EXPECT_TRUE(reader.cancelled.empty());
    char byte;
    ASSERT_EQ(read(ready->fd, &byte, 1), 1);
    reader.received += byte;
  };
  start(&file, &reader);
  loop.run_until([&] { return !reader.cancelled.empty(); });
  EXPECT_EQ(reader.received, "ab");
  EXPECT_EQ(reader.ready, 2);
  EXPECT_EQ(reader.cancelled, (Cancellations{{&file, true, false}}));
  EXPECT_TRUE(is_open(file.fd));
  if (!sys::gives_poll_the_table()) return;
  EXPECT_EQ(polled(), std::vector<int>{loop.pipe_read_end});
}

TEST_F(AioTest, ErrorOnTheDescriptorIsTold) {
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  VrnFile file;
  file.assign(pipe_ends[1], "pipe", true);
  RecordingAIO writer(RecordingAIO::Output, "writer");
  const std::string chunk(65536, 'x');
  ASSERT_EQ(write(file.fd, chunk.data(), chunk.size()), 65536);  // no room any more
  start(&file, &writer);
  close(pipe_ends[0]);
  loop.run_until([&] { return !writer.cancelled.empty(); });
  EXPECT_EQ(writer.cancelled, (Cancellations{{&file, true, true}}));
}

// Room and a broken pipe are reported together: the writer is called first, then told.
TEST_F(AioTest, ErrorIsToldInTheTurnThatCalledTheWriter) {
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  VrnFile file;
  file.assign(pipe_ends[1], "pipe", true);
  RecordingAIO writer(RecordingAIO::Output, "writer");
  start(&file, &writer);
  close(pipe_ends[0]);
  loop.run_until([&] { return !writer.cancelled.empty(); });
  EXPECT_EQ(writer.ready, 1);
  EXPECT_EQ(writer.cancelled, (Cancellations{{&file, true, true}}));
}

TEST_F(AioTest, ClosedDescriptorIsAnError) {
  Connection connection;
  VrnFile file;
  const int fd = dup(connection.file.fd);
  file.assign(fd, "file", false);
  RecordingAIO reader(RecordingAIO::Input, "reader");
  start(&file, &reader);
  close(fd);
  loop.run_until([&] { return !reader.cancelled.empty(); });
  EXPECT_EQ(reader.cancelled, (Cancellations{{&file, true, true}}));
}

TEST_F(AioTest, HangUpCancelsTheReaderThenTheWriter) {
  Connection connection;
  connection.fill();
  Names order;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  RecordingAIO writer(RecordingAIO::Output, "writer");
  reader.on_cancelled = [&] { order.emplace_back("reader"); };
  writer.on_cancelled = [&] { order.emplace_back("writer"); };
  start(&connection.file, &reader);
  start(&connection.file, &writer);
  handle(connection.file, POLLHUP);
  EXPECT_EQ(order, (Names{"reader", "writer"}));
  EXPECT_EQ(reader.cancelled, (Cancellations{{&connection.file, true, false}}));
  EXPECT_EQ(writer.cancelled, (Cancellations{{&connection.file, true, false}}));
}

TEST_F(AioTest, ReaderMayEndTheFileAndTheWriterAtAHangUp) {
  auto connection = std::make_unique<Connection>();
  auto writer = std::make_unique<RecordingAIO>(RecordingAIO::Output, "writer");
  RecordingAIO reader(RecordingAIO::Input, "reader");
  bool done = false;
  reader.on_cancelled = [&] {
    writer.reset();
    connection.reset();
    done = true;
  };
  start(&connection->file, &reader);
  start(&connection->file, writer.get());
  loop.on_dispatcher([&] { handle(connection->file, POLLERR); });
  loop.run_until([&] { return done; });
}

// The queued stop names a watcher and a file that end before it is read.
TEST_F(AioTest, QueuedStopDoesNotOutliveItsObjects) {
  const Connection connection;
  auto file = std::make_unique<VrnFile>();
  file->assign(dup(connection.file.fd), "file", true);
  auto reader = std::make_unique<RecordingAIO>(RecordingAIO::Input, "reader");
  start(file.get(), reader.get());
  reader->on_cancelled = [&] {
    reader.reset();
    file.reset();
  };
  loop.on_dispatcher([&] {
    EXPECT_FALSE(loop.mgr->stopAIO(file.get(), reader.get()));
    handle(*file, POLLHUP);
    EXPECT_EQ(reader, nullptr);
  });
  loop.on_dispatcher([] {});
  loop.run_calls();
}

// ---- callbacks that throw ----

TEST_F(AioTest, WatchOfACallbackThatThrowsEndsWithItsDescriptor) {
  auto connection = std::make_unique<Connection>("conn");
  RecordingAIO reader(RecordingAIO::Input, "reader");
  reader.on_ready = [](VrnFile*) { throw std::string("bad read"); };
  const int fd = connection->file.fd;
  connection->send("hello");
  start(&connection->file, &reader);
  loop.when([&] { return log.contains("threw"); }, [] {});
  loop.run_calls();
  EXPECT_TRUE(log.contains("EvtMgr: IO task threw [string=bad read]"));
  EXPECT_EQ(reader.ready, 1);
  EXPECT_EQ(reader.cancelled, Cancellations{});
  EXPECT_EQ(polled(), std::vector<int>{loop.pipe_read_end});
  EXPECT_FALSE(is_open(fd));
  // Closed once: whoever gets the number next keeps it.
  const Connection next;
  ASSERT_EQ(dup2(next.file.fd, fd), fd);
  connection.reset();
  EXPECT_TRUE(is_open(fd));
  close(fd);
}

// What the exception owns ends with it, on the dispatcher thread, and takes the manager's lock to
// end.
TEST_F(AioTest, ExceptionMayOwnAFile) {
  Connection connection("conn");
  RecordingAIO reader(RecordingAIO::Input, "reader");
  reader.on_ready = [](VrnFile*) { throw std::make_shared<VrnFile>(); };
  connection.send("hello");
  start(&connection.file, &reader);
  loop.when([&] { return log.contains("EvtMgr: IO task threw [Unidentified exception]"); }, [] {});
  loop.run_calls();
}

TEST_F(AioTest, FileThatDoesNotOwnItsDescriptorIsClosedToo) {
  Connection connection;
  VrnFile file;
  const int fd = dup(connection.file.fd);
  file.assign(fd, "file", false);
  RecordingAIO writer(RecordingAIO::Output, "writer");
  writer.on_ready = [](VrnFile*) { throw std::string("bad write"); };
  start(&file, &writer);
  loop.when([&] { return log.contains("threw"); }, [] {});
  loop.run_calls();
  EXPECT_FALSE(is_open(fd));
  EXPECT_EQ(writer.cancelled, Cancellations{});
}

TEST_F(AioTest, OtherDirectionOfADescriptorThatThrewIsTold) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  RecordingAIO writer(RecordingAIO::Output, "writer");
  writer.on_ready = [](VrnFile*) { throw std::string("bad write"); };
  start(&connection.file, &reader);
  start(&connection.file, &writer);
  loop.run_until([&] { return !reader.cancelled.empty(); });
  EXPECT_EQ(reader.cancelled, (Cancellations{{&connection.file, true, true}}));
  EXPECT_EQ(writer.cancelled, Cancellations{});
  EXPECT_EQ(reader.ready, 0);
}

TEST_F(AioTest, OthersAreServedInTheTurnOfACallbackThatThrows) {
  Connection bad("bad");
  Connection good("good");
  RecordingAIO thrower(RecordingAIO::Input, "thrower");
  RecordingAIO reader(RecordingAIO::Input, "reader");
  thrower.on_ready = [](VrnFile*) { throw std::runtime_error("bad read"); };
  start(&bad.file, &thrower);
  start(&good.file, &reader);
  bad.send("x");
  good.send("hello");
  loop.run_until([&] { return reader.received == "hello"; });
  EXPECT_TRUE(log.contains("EvtMgr: IO task threw [St13runtime_error=bad read]"));
}

TEST_F(AioTest, CallbackThatStopsItsWatchAndThrowsKeepsItsDescriptor) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  reader.on_ready = [&](VrnFile* file) {
    stop(file, &reader);
    throw std::string("bad read");
  };
  start(&connection.file, &reader);
  connection.send("hello");
  loop.when([&] { return log.contains("threw"); }, [] {});
  loop.run_calls();
  EXPECT_EQ(polled(), std::vector<int>{loop.pipe_read_end});
}

TEST(AioThrowTasksTest, ExceptionFromACallbackEndsTheLoop) {
  setenv("VORN_EM_THROWTASKS", "Y", 1);
  const LogCapture log;
  Loop loop;
  Connection connection("conn");
  RecordingAIO reader(RecordingAIO::Input, "reader");
  reader.on_ready = [](VrnFile*) { throw VrnException(42, "bad read"); };
  elsewhere([&] { loop.mgr->startAIO(&connection.file, &reader); });
  connection.send("hello");
  errno = 0;
  loop.run();
  EXPECT_TRUE(log.contains("EvtMgr: Error in dispatcher [VrnException: Error=42 (errno="));
  EXPECT_TRUE(log.contains("- EvtMgr: Receiver=reader remains - fd " +
                           std::to_string(connection.file.fd) + "=conn"));
  EXPECT_TRUE(is_open(connection.file.fd));
}

// ---- the end of registered objects ----

TEST_F(AioTest, DestroyedWatcherAndFileAreForgotten) {
  auto connection = std::make_unique<Connection>();
  auto other = std::make_unique<Connection>();
  auto reader = std::make_unique<RecordingAIO>(RecordingAIO::Input, "reader");
  RecordingAIO second(RecordingAIO::Input, "second");
  start(&connection->file, reader.get());
  start(&other->file, &second);
  loop.on_dispatcher([&] {
    reader.reset();
    other.reset();
  });
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_EQ(polled(), std::vector<int>{loop.pipe_read_end});
  EXPECT_EQ(second.cancelled, Cancellations{});
}

TEST_F(AioTest, WatcherAndFileMayOutliveTheEventManager) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  start(&connection.file, &reader);
  VrnEvtMgr::destroy();
}

// ---- numbers that are used again within a turn ----

// What is left of an event is not for a file that has its number now.
class ReusedNumberTest : public AioTest {
 protected:
  // The file ends, and another one of its number is watched, at once.
  void replace() {
    const int number = old->file.fd;
    old.reset();
    successor = std::make_unique<Connection>("new");
    ASSERT_EQ(successor->file.fd, number);
    start(&successor->file, &next);
  }

  // Runs on until the new file is read.
  void run_until_it_is_read() {
    loop.when([this] { return successor != nullptr; }, [this] { successor->send("y"); });
    loop.run_until([this] { return next.received == "y"; });
  }

  std::unique_ptr<Connection> old = std::make_unique<Connection>("old"), successor;
  RecordingAIO reader{RecordingAIO::Input, "reader"};
  RecordingAIO writer{RecordingAIO::Output, "writer"};
  RecordingAIO next{RecordingAIO::Input, "next"};
};

TEST_F(ReusedNumberTest, ByTheOutputWatcherOfAFileThatIsReadableToo) {
  writer.on_ready = [this](VrnFile*) { replace(); };
  old->send("x");
  loop.on_dispatcher([this] {
    start(&old->file, &reader);
    start(&old->file, &writer);
  });
  run_until_it_is_read();
  EXPECT_EQ(writer.ready, 1);
  EXPECT_EQ(reader.ready, 0);
  EXPECT_EQ(next.ready, 1);
}

TEST_F(ReusedNumberTest, ByTheFirstWatcherThatIsToldOfAHangUp) {
  RecordingAIO next_writer(RecordingAIO::Output, "next writer");
  next_writer.on_ready = [](VrnFile*) {};
  reader.on_cancelled = [&] {
    replace();
    start(&successor->file, &next_writer);
  };
  loop.on_dispatcher([this] {
    start(&old->file, &reader);
    start(&old->file, &writer);
    handle(old->file, POLLHUP);
  });
  run_until_it_is_read();
  EXPECT_EQ(reader.cancelled.size(), 1U);
  EXPECT_TRUE(writer.cancelled.empty());
  EXPECT_TRUE(next_writer.cancelled.empty());
}

TEST_F(ReusedNumberTest, ByAWatcherThatThenThrows) {
  reader.on_ready = [this](VrnFile*) {
    replace();
    throw std::string("bad");
  };
  old->send("x");
  loop.on_dispatcher([this] { start(&old->file, &reader); });
  run_until_it_is_read();
  EXPECT_TRUE(log.contains("EvtMgr: IO task threw [string=bad]"));
  EXPECT_TRUE(is_open(successor->file.fd));
}

TEST_F(AioTest, EntryOfAWatchThatHasEndedCallsNobody) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  start(&connection.file, &reader);
  handle(connection.file, POLLOUT);
  stop(&connection.file, &reader);
  handle(connection.file, POLLIN | POLLHUP);
  start(&connection.file, &reader);  // the next watch
  handle(connection.file, POLLIN);
  handle(connection.file, POLLHUP);
  EXPECT_EQ(reader.ready, 0);
  EXPECT_TRUE(reader.cancelled.empty());
  stop(&connection.file, &reader);
}

// ---- misuse ----

TEST_F(AioTest, NullAndUnassignedAreRefusedByName) {
  Connection connection("conn");
  VrnFile unassigned;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  EXPECT_EQ(failure_of([&] { loop.mgr->startAIO(nullptr, &reader); }),
            (Failure{3, "EvtMgr: Null file for AIO=reader"}));
  EXPECT_EQ(failure_of([&] { loop.mgr->startAIO(&connection.file, nullptr); }),
            (Failure{3, "EvtMgr: Null AIO for file=conn"}));
  EXPECT_EQ(failure_of([&] { loop.mgr->stopAIO(nullptr, &reader); }),
            (Failure{3, "EvtMgr: Null file for AIO=reader"}));
  EXPECT_EQ(failure_of([&] { loop.mgr->stopAIO(&connection.file, nullptr); }),
            (Failure{3, "EvtMgr: Null AIO for file=conn"}));
  EXPECT_EQ(failure_of([&] { loop.mgr->startAIO(&unassigned, &reader); }),
            (Failure{3, "EvtMgr: File _UNASSIGNED_ has no descriptor for AIO=reader"}));
  EXPECT_EQ(failure_of([&] { loop.mgr->startAIO(nullptr, nullptr); }),
            (Failure{3, "EvtMgr: Null AIO for file=<NULL>"}));
  EXPECT_EQ(failure_of([&] { loop.mgr->syncstartAIO(&unassigned, &reader); }),
            (Failure{3, "EvtMgr: File _UNASSIGNED_ has no descriptor for AIO=reader"}));
  const Failure null_entry{3, "EvtMgr: Null entry to handle"};
  pollfd entry{};
  VrnEvtMgrNative::iofile_t record;
  EXPECT_EQ(failure_of([&] { loop.mgr->handleIO(nullptr, nullptr); }), null_entry);
  EXPECT_EQ(failure_of([&] { loop.mgr->handleIO(nullptr, &record); }), null_entry);
  EXPECT_EQ(failure_of([&] { loop.mgr->handleIO(&entry, nullptr); }), null_entry);
  for (const int fd : {-1, 1 << 20}) {  // numbers that nobody has watched
    entry = {fd, POLLIN, POLLIN | POLLOUT | POLLHUP};
    EXPECT_NO_THROW(loop.mgr->handleIO(&entry, &record));
  }
  EXPECT_TRUE(stop(&unassigned, &reader));
  unassigned.fd = 0;  // though nothing was assigned
  EXPECT_EQ(failure_of([&] { loop.mgr->startAIO(&unassigned, &reader); }),
            (Failure{3, "EvtMgr: File _UNASSIGNED_ has no descriptor for AIO=reader"}));
  loop.mgr->syncstopAIO(&unassigned, &reader, true, false, false);
  EXPECT_TRUE(reader.cancelled.empty());
  unassigned.fd = -1;
}

// Whoever has an entry handled keeps the events that he gives, as far as they are asked for still.
TEST_F(AioTest, EntryThatIsHandledForACallerKeepsItsEventsAfterTheOutputWatcher) {
  Connection connection;
  std::vector<std::string> story;
  RecordingAIO writer(RecordingAIO::Output, "writer", [&](VrnFile*) { story.emplace_back("out"); });
  RecordingAIO reader(RecordingAIO::Input, "reader", [&](VrnFile*) { story.emplace_back("in"); });
  elsewhere([&] {
    loop.mgr->startAIO(&connection.file, &reader);
    loop.mgr->startAIO(&connection.file, &writer);
  });
  pollfd entry{connection.file.fd, POLLIN | POLLPRI | POLLOUT, POLLIN | POLLOUT};
  VrnEvtMgrNative::iofile_t record;
  record.aios = {&reader, &writer};
  record.file = &connection.file;
  loop.mgr->handleIO(&entry, &record);
  EXPECT_EQ(story, (std::vector<std::string>{"out", "in"}));
  story.clear();
  entry.revents = POLLOUT | POLLHUP;
  loop.mgr->handleIO(&entry, &record);
  EXPECT_EQ(story, std::vector<std::string>{"out"});
  EXPECT_EQ(reader.cancelled.size(), 1U);
  EXPECT_EQ(writer.cancelled.size(), 1U);
}

}  // namespace
}  // namespace vornfc
