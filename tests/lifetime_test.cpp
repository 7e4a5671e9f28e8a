// A request never outlives its object: whatever is destroyed while something is asked for it, or
// registered for it, is never touched afterwards. The address sanitizer is the judge of most of
// this.

#include "support/log_capture.h"
#include "support/loop.h"
#include "support/polling.h"
#include "support/sanitizers.h"
#include "vornfc/appshell.h"
#include "vornfc/async_rcvr.h"
#include "vornfc/evtmgr_native.h"
#include "vornfc/exception.h"
#include "vornfc/file.h"
#include "vornfc/timer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace vornfc {
namespace {

class LifetimeTest : public testing::Test {
 protected:
  // Runs the loop, and after `reached` for enough turns for anything that was asked for to be
  // carried out.
  void let_it_turn(const Condition& reached = nullptr) {
    if (reached) loop.when(reached, [] {});
    for (int i = 0; i < 3; ++i) loop.on_dispatcher([] {});
    loop.run_calls();
  }

  Loop loop;
  VrnEvtMgr* const mgr = loop.mgr;
};

// ---- timers ----

TEST_F(LifetimeTest, TimerDestroyedElsewhereWhileItsStartIsInThePipe) {
  auto timer = std::make_unique<CountingTimer>("t");
  loop.on_dispatcher([&] {
    timer->startTimer(0, 0, 0, 0);
    elsewhere([&] { timer.reset(); });
  });
  let_it_turn();
  EXPECT_FALSE(timer);
}

TEST_F(LifetimeTest, QueuedTimerDestroyedElsewhere) {
  auto timer = std::make_unique<CountingTimer>("t");
  loop.on_dispatcher([&] { timer->startTimer(0, 1000, 0, 1000); });
  loop.on_dispatcher([&] { elsewhere([&] { timer.reset(); }); });
  let_it_turn();
  EXPECT_FALSE(timer);
}

// Deletes itself in its own callback.
class SelfDestroyingTimer : public VrnTimer {
 public:
  explicit SelfDestroyingTimer(int* calls) : VrnTimer("self"), count(calls) {}
  void timerExpired() override { end(); }
  void timerStopped() override { end(); }

 private:
  void end() {
    ++*count;
    delete this;
  }
  int* const count;
};

TEST_F(LifetimeTest, TimerDeletesItselfInItsExpiry) {
  int calls = 0;
  loop.on_dispatcher([&] { (new SelfDestroyingTimer(&calls))->startTimer(0, 0, 0, 0); });
  loop.run_until([&] { return calls == 1; });
}

TEST_F(LifetimeTest, TimerDeletesItselfWhenItIsStopped) {
  int calls = 0;
  loop.on_dispatcher([&] {
    auto* const timer = new SelfDestroyingTimer(&calls);
    timer->startTimer(60, 0, 0, 0);
    timer->stopTimer();
  });
  loop.run_until([&] { return calls == 1; });
}

TEST_F(LifetimeTest, TimerRestartedByItsStopIsDestroyedElsewhere) {
  auto timer = std::make_unique<CountingTimer>("t");
  loop.on_dispatcher([&] {
    timer->startTimer(60, 0, 0, 0);
    timer->stopTimer();
    timer->startTimer(0, 0, 0, 0);
  });
  loop.when([&] { return timer->expired == 1; },
            [&] {
              timer->startTimer(60, 0, 0, 0);
              elsewhere([&] { timer.reset(); });
            });
  let_it_turn();
}

TEST_F(LifetimeTest, ManagerDestroyedBeforeItsTimers) {
  auto queued = std::make_unique<CountingTimer>("queued");
  auto requested = std::make_unique<CountingTimer>("requested");
  elsewhere([&] { queued->startTimer(0, 0, 0, 0); });
  requested->startTimer(0, 0, 0, 0);
  VrnEvtMgr::destroy();
  EXPECT_EQ(VrnAppShell::evtmgr, nullptr);
  EXPECT_TRUE(queued->stopTimer());
  EXPECT_TRUE(requested->stopTimer());
  EXPECT_THROW(queued->startTimer(0, 0, 0, 0), VrnException);
  queued.reset();
  requested.reset();
}

TEST_F(LifetimeTest, TimersAreDestroyedAfterTheirManagerWithoutAStop) {
  auto queued = std::make_unique<CountingTimer>("queued");
  elsewhere([&] { queued->startTimer(0, 0, 0, 0); });
  VrnEvtMgr::destroy();
  queued.reset();
}

TEST_F(LifetimeTest, TimerOfALoopThatWasStoppedBeforeItRan) {
  auto timer = std::make_unique<CountingTimer>("t");
  timer->startTimer(0, 0, 0, 0);
  mgr->stopDispatcher();
  mgr->stopDispatcher();
  mgr->startDispatcher();
  timer.reset();
}

// An application that fails after it has started a timer, for instance.
TEST_F(LifetimeTest, TimerThatWasStartedAndNeverRan) {
  const auto start_and_leave = [] {
    {
      CountingTimer timer("t");
      timer.startTimer(60, 0, 0, 0);
    }
    std::exit(0);
  };
  EXPECT_EXIT(start_and_leave(), testing::ExitedWithCode(0), "");
}

// ---- watchers ----

// Deletes itself, and the file with it, when its watch ends.
class SelfDestroyingWatcher : public VrnAIO {
 public:
  SelfDestroyingWatcher(bool direction, int* calls) : VrnAIO(direction, "self"), count(calls) {}
  void aioReady(VrnFile*) override {
    ++*count;
    if (on_ready_too) delete this;
  }
  void aioCancelled(VrnFile* file, bool, bool) override {
    ++*count;
    delete file;
    delete this;
  }
  bool on_ready_too = false;

 private:
  int* const count;
};

// The reading end of a pipe in a file of its own; the test has the other.
struct LooseEnd {
  LooseEnd() {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    file = new VrnFile;
    file->assign(ends[0], "loose", true);
    peer = ends[1];
  }
  void hang_up() {
    close(peer);
    peer = -1;
  }
  ~LooseEnd() {
    if (peer != -1) close(peer);
  }
  VrnFile* file;  // not owned
  int peer;
};

TEST_F(LifetimeTest, StopQueuedForAWatcherThatAHangUpCancelsInTheSameTurn) {
  int calls = 0;
  LooseEnd end;
  auto* const watcher = new SelfDestroyingWatcher(RecordingAIO::Input, &calls);
  Connection trigger;
  // Registered first, so called first: it asks for the stop, then comes the hang-up.
  RecordingAIO stopper(RecordingAIO::Input, "stopper", [&](VrnFile* file) {
    char byte;
    EXPECT_EQ(read(file->fd, &byte, 1), 1);
    mgr->stopAIO(end.file, watcher);
  });
  loop.on_dispatcher([&] {
    mgr->startAIO(&trigger.file, &stopper);
    mgr->startAIO(end.file, watcher);
  });
  loop.on_dispatcher([&] {
    trigger.send("x");
    end.hang_up();
  });
  let_it_turn([&] { return calls == 1; });
  EXPECT_EQ(calls, 1);
}

TEST_F(LifetimeTest, WatcherDestroyedWhileItsStartIsInThePipe) {
  Connection connection;
  connection.send("x");
  loop.on_dispatcher([&] {
    RecordingAIO watcher(RecordingAIO::Input, "w");
    mgr->startAIO(&connection.file, &watcher);
  });
  let_it_turn();
  EXPECT_EQ(loop.entries.size(), 1U);  // the registrar's pipe
}

TEST_F(LifetimeTest, WatcherDestroyedWhileItsStopIsInThePipe) {
  Connection connection;
  auto watcher = std::make_unique<RecordingAIO>(RecordingAIO::Input, "w");
  loop.on_dispatcher([&] { mgr->startAIO(&connection.file, watcher.get()); });
  loop.on_dispatcher([&] {
    mgr->stopAIO(&connection.file, watcher.get());
    watcher.reset();
  });
  let_it_turn();
  EXPECT_EQ(loop.entries.size(), 1U);
}

TEST_F(LifetimeTest, WatcherDestroyedWhileRegistered) {
  Connection connection;
  auto watcher = std::make_unique<RecordingAIO>(RecordingAIO::Input, "w");
  RecordingAIO successor(RecordingAIO::Input, "successor");
  loop.on_dispatcher([&] { mgr->startAIO(&connection.file, watcher.get()); });
  loop.on_dispatcher([&] {
    connection.send("x");
    watcher.reset();
    mgr->startAIO(&connection.file, &successor);  // the place is free
  });
  loop.run_until([&] { return successor.received == "x"; });
}

TEST_F(LifetimeTest, WatcherDestroyedElsewhereWhileRegistered) {
  Connection connection;
  auto watcher = std::make_unique<RecordingAIO>(RecordingAIO::Input, "w");
  loop.on_dispatcher([&] { mgr->startAIO(&connection.file, watcher.get()); });
  loop.on_dispatcher([&] {
    connection.send("x");
    elsewhere([&] { watcher.reset(); });
  });
  let_it_turn();
  EXPECT_EQ(loop.entries.size(), 1U);
}

TEST_F(LifetimeTest, WatcherOfManyFilesDestroyed) {
  std::vector<std::unique_ptr<Connection>> connections;
  auto watcher = std::make_unique<RecordingAIO>(RecordingAIO::Input, "w");
  RecordingAIO writer(RecordingAIO::Output, "writer", [](VrnFile*) {});
  loop.on_dispatcher([&] {
    for (int i = 0; i < 20; ++i) {
      connections.push_back(std::make_unique<Connection>());
      mgr->startAIO(&connections.back()->file, watcher.get());
    }
    mgr->startAIO(&connections[7]->file, &writer);
  });
  loop.on_dispatcher([&] {
    watcher.reset();
    for (const auto& connection : connections) connection->send("x");
  });
  loop.run_until([&] { return writer.ready > 2; });
  EXPECT_EQ(loop.entries.size(), 2U);  // the pipe, and the writer's file
}

TEST_F(LifetimeTest, WatcherDeletesItselfWhenItsFileIsReady) {
  int calls = 0;
  Connection connection;
  connection.send("x");
  loop.on_dispatcher([&] {
    auto* const watcher = new SelfDestroyingWatcher(RecordingAIO::Input, &calls);
    watcher->on_ready_too = true;
    mgr->startAIO(&connection.file, watcher);
  });
  let_it_turn([&] { return calls == 1; });
  EXPECT_EQ(calls, 1);
}

TEST_F(LifetimeTest, OutputWatcherDestroysTheInputWatcherOfItsFileInTheSameTurn) {
  Connection connection;
  connection.send("x");
  auto reader = std::make_unique<RecordingAIO>(RecordingAIO::Input, "reader");
  int ready = 0;
  reader->on_ready = [&](VrnFile*) { ++ready; };
  RecordingAIO writer(RecordingAIO::Output, "writer", [&](VrnFile*) { reader.reset(); });
  loop.on_dispatcher([&] {
    mgr->startAIO(&connection.file, reader.get());
    mgr->startAIO(&connection.file, &writer);
  });
  loop.run_until([&] { return writer.ready > 2; });
  EXPECT_EQ(ready, 0);
}

TEST_F(LifetimeTest, HangUpOfBothDirectionsWhoseFirstCallbackDestroysTheSecondWatcher) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader", [](VrnFile*) {});
  auto writer = std::make_unique<RecordingAIO>(RecordingAIO::Output, "writer", [](VrnFile*) {});
  reader.on_cancelled = [&] { writer.reset(); };
  // A socket that was closed by the peer stays readable; a closed descriptor is only an error.
  const int fd = connection.file.fd;
  loop.on_dispatcher([&] {
    mgr->startAIO(&connection.file, &reader);
    mgr->startAIO(&connection.file, writer.get());
  });
  const int spare = dup(fd);
  loop.on_dispatcher([&] { close(fd); });
  loop.run_until([&] { return !reader.cancelled.empty(); });
  EXPECT_FALSE(writer);
  dup2(spare, fd);  // for the file to close
  close(spare);
}

// ---- files and receivers ----

TEST_F(LifetimeTest, FileDestroyedWhileItsStartIsInThePipe) {
  RecordingReceiver receiver("r");
  loop.on_dispatcher([&] {
    Connection connection;
    receiver.aioStart(&connection.file);
    EXPECT_EQ(receiver.aioFiles(), 1);
  });
  loop.on_dispatcher([&] {
    EXPECT_EQ(receiver.aioFiles(), 0);
    EXPECT_EQ(receiver.aioTerminate(), 0);
  });
  let_it_turn();
  EXPECT_TRUE(receiver.removed.empty());
}

TEST_F(LifetimeTest, FileDestroyedWhileItIsWatched) {
  auto connection = std::make_unique<Connection>();
  RecordingReceiver receiver("r");
  RecordingAIO writer(RecordingAIO::Output, "writer", [](VrnFile*) {});
  Connection successor;
  loop.on_dispatcher([&] {
    receiver.aioStart(&connection->file);
    mgr->startAIO(&connection->file, &writer);
  });
  loop.on_dispatcher([&] {
    connection->send("x");
    connection.reset();
    connection = std::make_unique<Connection>();  // as a rule on the same descriptor
    EXPECT_EQ(receiver.aioFiles(), 0);
    receiver.aioStart(&connection->file);
    connection->send("y");
  });
  loop.when([&] { return receiver.received == "y"; }, [&] { connection.reset(); });
  let_it_turn();
  EXPECT_TRUE(receiver.removed.empty());
  EXPECT_TRUE(writer.cancelled.empty());
}

TEST_F(LifetimeTest, FileDestroyedWhileItsStopIsInThePipe) {
  auto connection = std::make_unique<Connection>();
  RecordingReceiver receiver("r");
  loop.on_dispatcher([&] { receiver.aioStart(&connection->file); });
  loop.on_dispatcher([&] {
    EXPECT_FALSE(receiver.aioStop(&connection->file));
    connection.reset();
    EXPECT_EQ(receiver.aioTerminate(), 0);
  });
  let_it_turn();
  EXPECT_TRUE(receiver.removed.empty());
}

TEST_F(LifetimeTest, FileDestroyedElsewhereWhileItIsWatched) {
  auto connection = std::make_unique<Connection>();
  RecordingReceiver receiver("r");
  loop.on_dispatcher([&] { receiver.aioStart(&connection->file); });
  loop.on_dispatcher([&] {
    connection->send("x");
    elsewhere([&] { connection.reset(); });
  });
  let_it_turn();
  EXPECT_EQ(receiver.aioFiles(), 0);
}

TEST_F(LifetimeTest, FileDestroyedInTheCallbackThatIsToldOfIt) {
  auto connection = std::make_unique<Connection>();
  RecordingReceiver receiver("r");
  receiver.on_ready = [&](VrnFile*) { connection.reset(); };
  connection->send("x");
  loop.on_dispatcher([&] { receiver.aioStart(&connection->file); });
  loop.run_until([&] { return !connection; });
  EXPECT_EQ(receiver.aioFiles(), 0);
}

TEST_F(LifetimeTest, ReceiverWhoseCallbackThrewIsDestroyed) {
  Connection connection;
  connection.send("x");
  const int fd = connection.file.fd;
  auto receiver = std::make_unique<RecordingReceiver>("r");
  receiver->on_ready = [](VrnFile*) { throw VrnException(3, "no more"); };
  loop.on_dispatcher([&] { receiver->aioStart(&connection.file); });
  loop.run_until([&] { return receiver->ready == 1 && receiver->aioFiles() == 0; });
  receiver.reset();
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(LifetimeTest, FileOfAWatcherThatThrewDoesNotCloseItsDescriptorAgain) {
  auto connection = std::make_unique<Connection>();
  connection->send("x");
  const int fd = connection->file.fd;
  RecordingAIO watcher(RecordingAIO::Input, "w", [](VrnFile*) { throw VrnException(3, "no"); });
  loop.on_dispatcher([&] { mgr->startAIO(&connection->file, &watcher); });
  let_it_turn([&] { return watcher.ready == 1; });
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  ASSERT_EQ(dup2(STDIN_FILENO, fd), fd);  // the number is in use again
  connection.reset();
  EXPECT_NE(fcntl(fd, F_GETFD), -1);
  close(fd);
}

TEST_F(LifetimeTest, ReceiverDeletedInTheCallbackThatRemovesItsLastFile) {
  struct Receiver : VrnAsyncReceiver {
    explicit Receiver(bool* flag) : VrnAsyncReceiver("r"), gone(flag) {}
    ~Receiver() override { *gone = true; }
    void aioReady(VrnFile*) override {}
    void aioRemoved(VrnFile* file, bool, bool) override {
      delete file;
      if (aioFiles() == 0) delete this;
    }
    bool* const gone;
  };
  bool gone = false;
  LooseEnd first, second;
  loop.on_dispatcher([&] {
    auto* const receiver = new Receiver(&gone);
    receiver->aioStart(first.file);
    receiver->aioStart(second.file);
    EXPECT_EQ(receiver->aioTerminate(), 2);
  });
  loop.run_until([&] { return gone; });
}

TEST_F(LifetimeTest, ManagerDestroyedBeforeWhatItWatches) {
  Connection connection;
  auto receiver = std::make_unique<RecordingReceiver>("r");
  auto watcher = std::make_unique<RecordingAIO>(RecordingAIO::Output, "w");
  elsewhere([&] {
    receiver->aioStart(&connection.file);
    mgr->startAIO(&connection.file, watcher.get());
  });
  VrnEvtMgr::destroy();
  watcher.reset();
  EXPECT_EQ(receiver->aioTerminate(), 0);
  receiver.reset();
}

TEST_F(LifetimeTest, ManagerDestroyedBeforeAFileThatIsStillListed) {
  auto connection = std::make_unique<Connection>();
  RecordingReceiver receiver("r");
  receiver.aioStart(&connection->file);  // in the pipe for ever
  VrnEvtMgr::destroy();
  connection.reset();
  EXPECT_EQ(receiver.aioFiles(), 0);
}

TEST_F(LifetimeTest, ReceiverEndsBeforeTheFilesThatItForgot) {
  Connection connection;
  {
    RecordingReceiver receiver("r");
    RecordingReceiver other("other");
    loop.on_dispatcher([&] { receiver.aioStart(&connection.file); });
    loop.run_calls();
    receiver = other;  // takes nothing and forgets its files, which stay registered
    EXPECT_EQ(receiver.aioFiles(), 0);
  }
  connection.send("x");
}

// The first of two watchers of a file throws, and with it goes what was asked for the file before:
// its descriptor is closed, and the number soon another's.
TEST_F(LifetimeTest, RequestsForAFileWhoseDescriptorWasClosedAreVoid) {
  auto connection = std::make_unique<Connection>();
  std::unique_ptr<Connection> successor;
  RecordingAIO writer(RecordingAIO::Output, "writer", [](VrnFile*) {});
  RecordingAIO reader(RecordingAIO::Input, "reader", [&](VrnFile* file) {
    mgr->startAIO(file, &writer);
    throw VrnException(3, "no more");
  });
  connection->send("x");
  const int fd = connection->file.fd;
  loop.on_dispatcher([&] { mgr->startAIO(&connection->file, &reader); });
  loop.before_poll = [&] {  // in the same turn, before the start is carried out
    if (reader.ready == 0 || successor) return;
    successor = std::make_unique<Connection>();
    EXPECT_EQ(successor->file.fd, fd);
  };
  let_it_turn([&] { return successor != nullptr; });
  EXPECT_EQ(writer.ready, 0);
  EXPECT_EQ(loop.entries.size(), 1U);  // the registrar's pipe
}

// Its descriptor is closed, and the number as likely as not another file's.
TEST_F(LifetimeTest, FileOfAWatcherThatThrewIsNotWatchedAgain) {
  LogCapture log;
  Connection connection;
  connection.send("x");
  const std::string refusal = "EvtMgr: File file=" + std::to_string(connection.file.fd) +
                              " is closed, its watcher threw; AIO=w";
  RecordingAIO watcher(RecordingAIO::Input, "w", [](VrnFile*) { throw VrnException(3, "no"); });
  std::string thrown;
  const auto start_elsewhere = [&] {
    try {
      mgr->startAIO(&connection.file, &watcher);
    } catch (const VrnException& e) {
      thrown = e.what();
    }
  };
  loop.on_dispatcher([&] { mgr->startAIO(&connection.file, &watcher); });
  loop.when([&] { return watcher.ready == 1; }, [&] { elsewhere(start_elsewhere); });
  loop.on_dispatcher([&] { mgr->startAIO(&connection.file, &watcher); });
  let_it_turn();
  EXPECT_EQ(thrown, refusal);
  EXPECT_TRUE(
      log.contains("submitted request threw [VrnException: Error=3 (errno=0) - " + refusal));
  EXPECT_EQ(watcher.ready, 1);
}

// ---- signal handlers ----

TEST_F(LifetimeTest, HandlerDestroyedWhileRegistered) {
  auto handler = std::make_unique<RecordingHandler>();
  loop.on_dispatcher([&] { mgr->startSignal(handler.get(), SIGUSR1); });
  loop.on_dispatcher([&] {
    handler.reset();
    raise(SIGUSR1);
  });
  let_it_turn();
}

TEST_F(LifetimeTest, HandlerDestroyedWhileItsSignalIsPending) {
  auto handler = std::make_unique<RecordingHandler>();
  loop.on_dispatcher([&] { mgr->startSignal(handler.get(), SIGUSR1); });
  loop.on_dispatcher([&] {
    raise(SIGUSR1);
    handler.reset();
  });
  let_it_turn();
}

TEST_F(LifetimeTest, HandlerDestroyedWhileItsRequestsAreInThePipe) {
  loop.on_dispatcher([&] {
    RecordingHandler handler;
    mgr->startSignal(&handler, SIGUSR1);
    mgr->stopSignal(&handler, SIGUSR1, true);
    mgr->startSignal(&handler, SIGUSR2);
    mgr->stopSignal(&handler, -1, true);
  });
  let_it_turn();
}

TEST_F(LifetimeTest, HandlerDeletesItselfInItsCallback) {
  struct Handler : VrnSignalHandler {
    explicit Handler(int* calls) : count(calls) {}
    void signalReceived(int) override {
      ++*count;
      delete this;
    }
    void signalStopped(int) override {}
    const char* sigtag() const override { return "self"; }
    int* const count;
  };
  int calls = 0;
  loop.on_dispatcher([&] { mgr->startSignal(new Handler(&calls), SIGUSR1); });
  loop.on_dispatcher([&] { raise(SIGUSR1); });
  loop.when([&] { return calls == 1; }, [&] { raise(SIGUSR1); });
  let_it_turn();
  EXPECT_EQ(calls, 1);
}

TEST_F(LifetimeTest, ManagerDestroyedBeforeAHandler) {
  RecordingHandler handler;
  elsewhere([&] { mgr->startSignal(&handler, SIGUSR1); });
  VrnEvtMgr::destroy();
  raise(SIGUSR1);
  EXPECT_TRUE(handler.received.empty());
}

// ---- random walks ----

// Objects of every kind in numbered places, and steps that do anything to any of them: from
// callbacks of the objects themselves, from a timer that is due in every turn, and outside the
// loop. Time passes in poll() alone, so a seed gives the same walk again.
class Walk {
 public:
  explicit Walk(unsigned seed)
      : random(seed), driver(this), stand_in([this](pollfd* entries, nfds_t count, int timeout) {
          return wait(entries, count, timeout);
        }) {}
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;
  ~Walk() { sys::set_poll(nullptr); }

  // `before` steps while the loop has not begun, `during` while it runs, `after` when it has ended.
  void run(long before, long during, long after);

  void run_without_loop(long count);

  long callbacks = 0;
  long throws = 0;
  bool touched_the_dead = false;    // a callback of an object that is destroyed
  bool watched_a_stranger = false;  // a callback for a descriptor that is another file's by now

 private:
  static constexpr size_t places = 12;

  struct Timer;
  struct Watcher;
  struct Receiver;
  struct Handler;
  struct Link;

  struct Driver : VrnTimer {
    explicit Driver(Walk* owner) : VrnTimer("driver"), walk(owner) {}
    void timerExpired() override { walk->turn(); }
    void timerStopped() override {}
    Walk* const walk;
  };

  unsigned roll(unsigned sides) { return static_cast<unsigned>(random() % sides); }
  bool one_in(unsigned n) { return roll(n) == 0; }
  template <typename T>
  std::unique_ptr<T>& place(std::array<std::unique_ptr<T>, places>* all) {
    return (*all)[roll(places)];
  }

  void turn();
  void step();
  void step_timer();
  void step_watcher();
  void step_receiver();
  void step_link();
  void step_handler();
  void step_elsewhere();

  // What every callback does: some steps, which may destroy anything, the caller and its file
  // included, and an exception now and then. The caller touches nothing of its own afterwards.
  void callback(const void* object, const VrnFile* ready = nullptr);
  void prepare();
  void let_go(const void* object, const VrnFile* file);  // the watch has ended
  int wait(pollfd* entries, nfds_t count, int timeout);

  std::mt19937 random;
  VrnEvtMgr* const mgr = VrnAppShell::evtmgr;
  std::set<const void*> alive;
  std::array<std::unique_ptr<Timer>, places> timers;
  std::array<std::unique_ptr<Watcher>, places> watchers;
  std::array<std::unique_ptr<Receiver>, places> receivers;
  std::array<std::unique_ptr<Handler>, places> handlers;
  std::array<std::unique_ptr<Link>, places> links;  // the first to go, so that receivers are idle
  Driver driver;
  timeval now{1000000, 0};
  long steps_left = 0;
  int depth = 0;
  sys::Poll stand_in;
};

// Two connected descriptors, one of them in a file.
struct Walk::Link {
  explicit Link(Walk* owner) : walk(owner) {
    int ends[2];
    EXPECT_EQ(walk->one_in(2) ? socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends)
                              : pipe2(ends, O_CLOEXEC),
              0);
    file.assign(ends[0], "link", true);
    peer = ends[1];
    inode = inode_of(file.fd);
    fcntl(file.fd, F_SETFL, O_NONBLOCK);
    fcntl(peer, F_SETFL, O_NONBLOCK);
  }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;
  ~Link() { hang_up(); }
  void hang_up() {
    if (peer != -1) close(peer);
    peer = -1;
  }
  static void drain(const VrnFile* file) {
    char bytes[64];
    while (read(file->fd, bytes, sizeof bytes) > 0) {
    }
  }

  // False once the library has closed the descriptor, because a callback threw: its number is
  // nobody's then, or another file's.
  bool intact() const { return inode_of(file.fd) == inode; }

  static ino_t inode_of(int fd) {
    struct stat info {};
    return fstat(fd, &info) == 0 ? info.st_ino : 0;
  }

  // Whether `object` may ask for a watch. As a rule one that would be refused is left out, since
  // every refusal is a log line.
  bool take(const void* object, bool input) {
    if (!intact()) return false;
    const void*& holder = holders[input ? 0 : 1];
    if (holder && holder != object && walk->alive.count(holder) != 0) return walk->one_in(500);
    holder = object;
    return true;
  }
  bool held_by(const void* object) const {
    return holders[0] == object || holders[1] == object || walk->one_in(500);
  }

  Walk* const walk;
  VrnFile file;
  int peer;
  ino_t inode;
  std::array<const void*, 2> holders{};  // input, output; possibly no more
};

void Walk::let_go(const void* object, const VrnFile* file) {
  for (const auto& link : links) {
    if (!link || &link->file != file) continue;
    for (const void*& holder : link->holders) {
      if (holder == object) holder = nullptr;
    }
  }
}

struct Walk::Timer : VrnTimer {
  explicit Timer(Walk* owner) : VrnTimer("timer"), walk(owner) { walk->alive.insert(this); }
  ~Timer() override { walk->alive.erase(this); }
  void timerExpired() override {
    stop_pending = false;
    walk->callback(this);
  }
  void timerStopped() override {
    stopping = stop_pending = false;
    walk->callback(this);
  }
  Walk* const walk;
  bool stopping = false;      // timerStopped() will come: it must not be destroyed before
  bool stop_pending = false;  // the same, or a start has come on top of the stop
};

struct Walk::Watcher : VrnAIO {
  Watcher(Walk* owner, bool direction) : VrnAIO(direction, "watcher"), walk(owner) {
    walk->alive.insert(this);
  }
  ~Watcher() override { walk->alive.erase(this); }
  bool reads() const { return input; }
  void aioReady(VrnFile* file) override {
    if (input && walk->one_in(2)) Link::drain(file);
    walk->callback(this, file);
  }
  void aioCancelled(VrnFile* file, bool, bool) override {
    walk->let_go(this, file);
    walk->callback(this);
  }
  Walk* const walk;
};

struct Walk::Receiver : VrnAsyncReceiver {
  explicit Receiver(Walk* owner) : VrnAsyncReceiver("receiver"), walk(owner) {
    walk->alive.insert(this);
  }
  ~Receiver() override { walk->alive.erase(this); }
  void aioReady(VrnFile* file) override {
    if (walk->one_in(2)) Link::drain(file);
    walk->callback(this, file);
  }
  void aioRemoved(VrnFile* file, bool, bool) override {
    walk->let_go(this, file);
    walk->callback(this);
  }
  Walk* const walk;
};

struct Walk::Handler : VrnSignalHandler {
  explicit Handler(Walk* owner) : walk(owner) { walk->alive.insert(this); }
  ~Handler() override { walk->alive.erase(this); }
  void signalReceived(int) override { walk->callback(this); }
  void signalStopped(int) override { walk->callback(this); }
  const char* sigtag() const override { return "handler"; }
  Walk* const walk;
};

void Walk::callback(const void* object, const VrnFile* ready) {
  ++callbacks;
  if (alive.count(object) == 0) touched_the_dead = true;
  for (const auto& link : links) {
    if (link && &link->file == ready && !link->intact()) watched_a_stranger = true;
  }
  if (depth > 0) return;  // a callback of a direct stop, inside another one
  ++depth;
  for (unsigned i = roll(4); i > 0; --i) step();
  --depth;
  if (!one_in(200)) return;
  ++throws;
  throw VrnException(3, "walk");
}

void Walk::step() {
  if (steps_left <= 0) return;
  --steps_left;
  switch (roll(5)) {
    case 0: return step_timer();
    case 1: return step_watcher();
    case 2: return step_receiver();
    case 3: return step_link();
    default: return step_handler();
  }
}

void Walk::step_timer() {
  std::unique_ptr<Timer>& timer = place(&timers);
  if (!timer) {
    timer = std::make_unique<Timer>(this);
    return;
  }
  switch (roll(4)) {
    case 0:
    case 1:
      // A start during a stop takes the stop's confirmation away.
      timer->stopping = false;
      if (timer->getExpiryAbs(nullptr)) timer->stop_pending = true;
      timer->startTimer(0, static_cast<int>(roll(5000)), 0, one_in(4) ? 1500 : 0);
      return;
    case 2: timer->stopping = timer->stop_pending = !timer->stopTimer(); return;
    default:
      // Destroyed at once if it is idle, else by a later step that finds it idle.
      if (timer->getExpiryAbs(nullptr)) {
        timer->stopping = timer->stop_pending = !timer->stopTimer();
      } else if (!timer->stopping) {
        timer.reset();
      }
  }
}

void Walk::step_watcher() {
  std::unique_ptr<Watcher>& watcher = place(&watchers);
  if (!watcher) {
    watcher = std::make_unique<Watcher>(this, one_in(2));
    return;
  }
  Link* const link = place(&links).get();
  switch (roll(4)) {
    case 0:
    case 1:
      if (link && link->take(watcher.get(), watcher->reads())) {
        mgr->startAIO(&link->file, watcher.get());
      }
      return;
    case 2:
      if (link && link->held_by(watcher.get())) mgr->stopAIO(&link->file, watcher.get());
      return;
    default: watcher.reset(); return;  // registered or not
  }
}

void Walk::step_receiver() {
  std::unique_ptr<Receiver>& receiver = place(&receivers);
  if (!receiver) {
    receiver = std::make_unique<Receiver>(this);
    return;
  }
  Link* const link = place(&links).get();
  switch (roll(4)) {
    case 0:
    case 1:
      if (link && link->take(receiver.get(), true)) receiver->aioStart(&link->file);
      return;
    case 2:
      if (link) receiver->aioStop(&link->file);
      return;
    default:
      if (receiver->aioTerminate() == 0) receiver.reset();
  }
}

void Walk::step_link() {
  std::unique_ptr<Link>& link = place(&links);
  if (!link) {
    link = std::make_unique<Link>(this);
    return;
  }
  switch (roll(6)) {
    case 0: link->hang_up(); return;
    case 1: link.reset(); return;
    default:
      if (link->peer != -1 && write(link->peer, "x", 1) == -1) link->hang_up();
      return;
  }
}

void Walk::step_handler() {
  std::unique_ptr<Handler>& handler = place(&handlers);
  if (!handler) {
    handler = std::make_unique<Handler>(this);
    return;
  }
  const int signo = one_in(2) ? SIGUSR1 : SIGUSR2;
  switch (roll(6)) {
    case 0:
    case 1: mgr->startSignal(handler.get(), signo); return;
    case 2: mgr->stopSignal(one_in(4) ? nullptr : handler.get(), signo, true); return;
    case 3: mgr->stopSignal(handler.get(), -1, true); return;
    case 4: handler.reset(); return;
    default: raise(signo); return;
  }
}

// On another thread, but for objects whose callback is running.
void Walk::step_elsewhere() {
  elsewhere([this] {
    switch (roll(4)) {
      case 0:
        if (std::unique_ptr<Timer>& timer = place(&timers); timer && !timer->stop_pending) {
          timer.reset();  // queued, requested or idle
        }
        return;
      case 1: place(&watchers).reset(); return;
      case 2: place(&links).reset(); return;
      default: place(&handlers).reset(); return;
    }
  });
}

void Walk::turn() {
  for (unsigned i = roll(20); i > 0; --i) step();
  if (one_in(20)) step_elsewhere();
  if (steps_left <= 0) {
    mgr->stopDispatcher();
  } else {
    driver.startTimer(0, 0, 0, 0);
  }
}

int Walk::wait(pollfd* entries, nfds_t count, int timeout) {
  const int ready = sys::system_poll(entries, count, 0);
  now.tv_usec += ready == 0 && timeout > 0 ? timeout * 1000 : static_cast<int>(roll(300));
  now.tv_sec += now.tv_usec / 1000000;
  now.tv_usec %= 1000000;
  sys::set_clock(now);
  return ready;
}

void Walk::prepare() {
  signal(SIGUSR1, SIG_IGN);
  signal(SIGUSR2, SIG_IGN);
  signal(SIGPIPE, SIG_IGN);
  sys::set_clock(now);
  sys::set_poll(&stand_in);
}

void Walk::run(long before, long during, long after) {
  prepare();
  for (steps_left = before; steps_left > 0;) step();
  steps_left = during;
  driver.startTimer(0, 0, 0, 0);
  mgr->startDispatcher();
  EXPECT_EQ(steps_left, 0);
  // Nothing is queued any more, so what was logged until now is thrown.
  for (steps_left = after; steps_left > 0;) {
    try {
      step();
    } catch (const VrnException& e) {
      EXPECT_EQ(e.err(), 3) << e.what();
    }
  }
}

void Walk::run_without_loop(long count) {
  prepare();
  for (steps_left = count; steps_left > 0;) step();
}

// A seed in VORNFC_TEST_SEED repeats a walk.
unsigned walk_seed() {
  const char* const given = std::getenv("VORNFC_TEST_SEED");
  const unsigned seed =
      given ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device()();
  std::printf("VORNFC_TEST_SEED=%u\n", seed);
  std::fflush(stdout);  // it is wanted most when the process does not live to tell
  return seed;
}

#ifdef VORNFC_TEST_TSAN
constexpr long walk_length = 100000;
#else
constexpr long walk_length = 1000000;
#endif

TEST(WalkTest, EverythingIsStartedStoppedAndDestroyedAtAnyMoment) {
  VrnAppShell::evtmgr = VrnEvtMgr::instance(0);
  {
    Walk walk(walk_seed());
    walk.run(walk_length / 100, walk_length, walk_length / 100);
    EXPECT_FALSE(walk.touched_the_dead);
    EXPECT_FALSE(walk.watched_a_stranger);
    EXPECT_GT(walk.callbacks, walk_length / 20);
    EXPECT_GT(walk.throws, walk_length / 10000);
  }
  VrnEvtMgr::destroy();
}

// What is left when the manager goes is destroyed after it.
TEST(WalkTest, ObjectsOutliveTheManager) {
  for (int i = 0; i < 20; ++i) {
    VrnAppShell::evtmgr = VrnEvtMgr::instance(0);
    Walk walk(walk_seed());
    walk.run(100, walk_length / 1000, 0);
    VrnEvtMgr::destroy();
    EXPECT_FALSE(walk.touched_the_dead);
  }
}

// The loop never runs.
TEST(WalkTest, ObjectsAreUsedAndTheLoopNeverRuns) {
  VrnAppShell::evtmgr = VrnEvtMgr::instance(0);
  Walk walk(walk_seed());
  walk.run_without_loop(walk_length / 10);
  VrnEvtMgr::destroy();
  EXPECT_EQ(walk.callbacks, 0);
}

}  // namespace
}  // namespace vornfc
