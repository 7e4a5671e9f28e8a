#include "vornfc/async_rcvr.h"

#include "support/log_capture.h"
#include "support/loop.h"
#include "support/manager.h"
#include "vornfc/appshell.h"
#include "vornfc/exception.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace vornfc {
namespace {

using Removals = std::vector<Cancelled>;
using Failure = std::pair<int, std::string>;

// The exception that `call` throws, as its code and message.
Failure failure_of(const Call& call) {
  try {
    call();
  } catch (const VrnException& e) {
    return {e.err(), e.what()};
  }
  return {0, "no VrnException"};
}

class AsyncReceiverTest : public testing::Test {
 protected:
  LogCapture log;
  Loop loop;
  Connection connection{"conn"};
};

using AsyncReceiverDeathTest = AsyncReceiverTest;

// ---- receiving ----

TEST_F(AsyncReceiverTest, IsCalledForEachOfItsFiles) {
  Connection second("second");
  RecordingReceiver receiver("receiver");
  loop.on_dispatcher([&] {
    receiver.aioStart(&connection.file);
    receiver.aioStart(&second.file);
    EXPECT_EQ(receiver.aioFiles(), 2);
    EXPECT_TRUE(receiver.aioFile(&connection.file));
    EXPECT_TRUE(receiver.aioFile(&second.file));
    connection.send("1");
    second.send("2");
  });
  loop.when([&] { return receiver.received.size() == 2; },
            [&] { EXPECT_EQ(receiver.aioTerminate(), 2); });
  loop.run_until([&] { return receiver.removed.size() == 2; });
  EXPECT_EQ(receiver.aioFiles(), 0);
}

TEST_F(AsyncReceiverTest, StartedOnAnotherThread) {
  RecordingReceiver receiver("receiver");
  connection.send("hello");
  elsewhere([&] { receiver.aioStart(&connection.file); });
  loop.run_until([&] { return receiver.received == "hello"; });
}

TEST_F(AsyncReceiverTest, FileStartedTwiceIsOneEntry) {
  RecordingReceiver receiver("receiver");
  loop.on_dispatcher([&] {
    receiver.aioStart(&connection.file);
    receiver.aioStart(&connection.file);
    EXPECT_EQ(receiver.aioFiles(), 1);
    connection.send("hello");
  });
  loop.when([&] { return receiver.received == "hello"; },
            [&] { EXPECT_FALSE(receiver.aioStop(&connection.file)); });
  loop.run_until([&] { return !receiver.removed.empty(); });
  EXPECT_EQ(receiver.removed, (Removals{{&connection.file, false, false}}));
}

TEST_F(AsyncReceiverTest, NameIsInTheLogLines) {
  RecordingReceiver receiver("receiver");
  elsewhere([&] { receiver.aioStart(&connection.file); });
  loop.run_calls();
  EXPECT_TRUE(log.contains("- EvtMgr: Receiver=receiver remains - fd " +
                           std::to_string(connection.file.fd) + "=conn"));
}

// ---- stopping ----

TEST_F(AsyncReceiverTest, StopOfAFileThatWasNeverStarted) {
  RecordingReceiver receiver("receiver");
  loop.on_dispatcher([&] { EXPECT_TRUE(receiver.aioStop(&connection.file)); });
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_TRUE(receiver.aioStop(&connection.file));
  EXPECT_TRUE(receiver.removed.empty());
}

TEST_F(AsyncReceiverTest, StopOnTheDispatcherThreadIsConfirmed) {
  RecordingReceiver receiver("receiver");
  loop.on_dispatcher([&] { receiver.aioStart(&connection.file); });
  loop.on_dispatcher([&] {
    EXPECT_FALSE(receiver.aioStop(&connection.file));
    EXPECT_TRUE(receiver.aioFile(&connection.file));  // until it is confirmed
  });
  loop.run_until([&] { return !receiver.removed.empty(); });
  EXPECT_EQ(receiver.removed, (Removals{{&connection.file, false, false}}));
  EXPECT_FALSE(receiver.aioFile(&connection.file));
  EXPECT_EQ(receiver.aioFiles(), 0);
}

// Both requests are carried out in the next turn; the list follows the watch that goes on.
TEST_F(AsyncReceiverTest, AFileThatIsStoppedAndStartedAgainStaysListed) {
  RecordingReceiver receiver("receiver");
  loop.on_dispatcher([&] { receiver.aioStart(&connection.file); });
  loop.on_dispatcher([&] {
    for (int i = 0; i < 3; ++i) {
      EXPECT_FALSE(receiver.aioStop(&connection.file));
      receiver.aioStart(&connection.file);
    }
    connection.send("hello");
  });
  loop.when([&] { return receiver.received == "hello"; },
            [&] {
              EXPECT_EQ(receiver.removed.size(), 3U);
              EXPECT_TRUE(receiver.aioFile(&connection.file));
              EXPECT_FALSE(receiver.aioStop(&connection.file));
            });
  loop.run_until([&] { return receiver.removed.size() == 4; });
  EXPECT_EQ(receiver.aioFiles(), 0);
}

// Each signal puts a record of its own into the registrar's pipe.
TEST_F(AsyncReceiverTest, StartAndStopBehindManySignalsKeepTheirOrder) {
  RecordingHandler handler;
  RecordingReceiver receiver("receiver");
  loop.on_dispatcher([&] { loop.mgr->startSignal(&handler, SIGUSR2); });
  loop.on_dispatcher([&] {
    for (int i = 0; i < 40; ++i) raise(SIGUSR2);
    receiver.aioStart(&connection.file);
    EXPECT_FALSE(receiver.aioStop(&connection.file));
  });
  loop.run_until([&] { return !receiver.removed.empty(); });
  EXPECT_EQ(receiver.removed, (Removals{{&connection.file, false, false}}));
  EXPECT_EQ(receiver.aioFiles(), 0);
  EXPECT_FALSE(log.contains("remains - fd"));
}

TEST_F(AsyncReceiverTest, StopOnAnotherThreadIsDoneAtOnce) {
  RecordingReceiver receiver("receiver");
  elsewhere([&] {
    receiver.aioStart(&connection.file);
    EXPECT_TRUE(receiver.aioStop(&connection.file));
    EXPECT_FALSE(receiver.aioFile(&connection.file));
  });
  connection.send("hello");
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_EQ(receiver.ready, 0);
  EXPECT_TRUE(receiver.removed.empty());
}

TEST_F(AsyncReceiverTest, TerminateOfAnEmptyReceiver) {
  RecordingReceiver receiver("receiver");
  EXPECT_EQ(receiver.aioTerminate(), 0);
}

TEST_F(AsyncReceiverTest, TerminateOnAnotherThreadLeavesNothing) {
  Connection second;
  RecordingReceiver receiver("receiver");
  elsewhere([&] {
    receiver.aioStart(&connection.file);
    receiver.aioStart(&second.file);
    EXPECT_EQ(receiver.aioTerminate(), 0);
    EXPECT_EQ(receiver.aioFiles(), 0);
  });
  loop.run_calls();
  EXPECT_FALSE(log.contains("remains"));
  EXPECT_TRUE(receiver.removed.empty());
}

TEST_F(AsyncReceiverTest, TerminateStopsInTheOrderOfTheAddresses) {
  Connection more[5];
  RecordingReceiver receiver("receiver");
  loop.on_dispatcher([&] {
    for (int i : {3, 0, 4, 2, 1}) receiver.aioStart(&more[i].file);
    EXPECT_EQ(receiver.aioTerminate(), 5);
  });
  loop.run_until([&] { return receiver.removed.size() == 5; });
  for (std::size_t i = 0; i < 5; ++i) EXPECT_EQ(receiver.removed[i].file, &more[i].file) << i;
}

TEST_F(AsyncReceiverTest, TerminateAfterTheLoopIsDoneAtOnce) {
  RecordingReceiver receiver("receiver");
  elsewhere([&] { receiver.aioStart(&connection.file); });
  loop.run_calls();
  EXPECT_EQ(receiver.aioTerminate(), 0);
}

TEST_F(AsyncReceiverTest, HangUpDropsTheFile) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  VrnFile file;
  file.assign(ends[0], "pipe", true);
  RecordingReceiver receiver("receiver");
  elsewhere([&] { receiver.aioStart(&file); });
  receiver.on_removed = [&] { EXPECT_FALSE(receiver.aioFile(&file)); };
  close(ends[1]);
  loop.run_until([&] { return !receiver.removed.empty(); });
  EXPECT_EQ(receiver.removed, (Removals{{&file, true, false}}));
}

TEST_F(AsyncReceiverTest, ErrorDropsTheFile) {
  VrnFile file;
  const int fd = dup(connection.file.fd);
  file.assign(fd, "file", false);
  RecordingReceiver receiver("receiver");
  elsewhere([&] { receiver.aioStart(&file); });
  close(fd);
  loop.run_until([&] { return !receiver.removed.empty(); });
  EXPECT_EQ(receiver.removed, (Removals{{&file, true, true}}));
}

TEST_F(AsyncReceiverTest, LastRemovalMayEndTheReceiverAndTheFile) {
  auto short_lived = std::make_unique<Connection>();
  auto receiver = std::make_unique<RecordingReceiver>("receiver");
  receiver->on_removed = [&] {
    short_lived.reset();
    receiver.reset();
  };
  loop.on_dispatcher([&] {
    receiver->aioStart(&short_lived->file);
    receiver->aioStop(&short_lived->file);
  });
  loop.run_until([&] { return !receiver; });
}

// ---- a callback that throws ----

TEST_F(AsyncReceiverTest, FileWhoseCallbackThrewIsDropped) {
  auto receiver = std::make_unique<RecordingReceiver>("receiver");
  receiver->on_ready = [](VrnFile*) { throw std::string("bad read"); };
  const int fd = connection.file.fd;
  elsewhere([&] { receiver->aioStart(&connection.file); });
  connection.send("hello");
  loop.when([&] { return log.contains("EvtMgr: IO task threw [string=bad read]"); },
            [&] {
              EXPECT_EQ(receiver->aioFiles(), 0);
              EXPECT_FALSE(receiver->aioFile(&connection.file));
              EXPECT_TRUE(receiver->removed.empty());
              receiver.reset();  // on the dispatcher thread, with nothing pending
            });
  loop.run_calls();
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

// ---- copies ----

TEST_F(AsyncReceiverTest, CopyHasTheNameButNotTheFiles) {
  RecordingReceiver receiver("receiver");
  Connection second("second");
  elsewhere([&] {
    receiver.aioStart(&connection.file);
    RecordingReceiver copy(receiver);
    EXPECT_EQ(copy.aioFiles(), 0);
    EXPECT_FALSE(copy.aioFile(&connection.file));
    copy.aioStart(&second.file);
    EXPECT_EQ(receiver.aioFiles(), 1);
    EXPECT_EQ(copy.aioTerminate(), 0);
  });
  RecordingReceiver kept(receiver);
  elsewhere([&] { kept.aioStart(&second.file); });
  loop.run_calls();
  EXPECT_TRUE(log.contains("- EvtMgr: Receiver=receiver remains - fd " +
                           std::to_string(second.file.fd) + "=second"));
}

TEST_F(AsyncReceiverTest, AssignedReceiverForgetsItsFilesWhichStayRegistered) {
  RecordingReceiver target("target");
  RecordingReceiver source("source");
  Connection second("second");
  elsewhere([&] {
    target.aioStart(&connection.file);
    source.aioStart(&second.file);
  });
  VrnAsyncReceiver& result = static_cast<VrnAsyncReceiver&>(target) = source;
  EXPECT_EQ(&result, &target);
  EXPECT_EQ(target.aioFiles(), 0);
  EXPECT_EQ(source.aioFiles(), 1);
  connection.send("hello");
  loop.run_until([&] { return target.received == "hello"; });
  EXPECT_TRUE(log.contains("- EvtMgr: Receiver=target remains"));
}

// ---- locks ----

TEST_F(AsyncReceiverTest, OperationsTakeTheLockUnlessItIsHeld) {
  // The lock is for derived classes.
  class Locked : public RecordingReceiver {
   public:
    Locked() : RecordingReceiver("locked") {}
    VrnMutex* lock() const { return mutex.get(); }
  };
  Locked receiver;
  const auto waits_for_the_lock = [&](const Call& operation) {
    std::atomic<bool> begun{false};
    std::atomic<bool> done{false};
    receiver.lock()->lock();
    std::thread user([&] {
      begun = true;
      operation();
      done = true;
    });
    while (!begun) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));  // room for a wrong success
    const bool waited = !done;
    receiver.lock()->unlock();
    user.join();
    return waited && done;
  };
  VrnFile* const file = &connection.file;
  EXPECT_TRUE(waits_for_the_lock([&] { receiver.aioStart(file); }));
  EXPECT_TRUE(waits_for_the_lock([&] { EXPECT_TRUE(receiver.aioFile(file)); }));
  EXPECT_TRUE(waits_for_the_lock([&] { EXPECT_EQ(receiver.aioFiles(), 1); }));
  EXPECT_TRUE(waits_for_the_lock([&] { EXPECT_TRUE(receiver.aioStop(file)); }));
  EXPECT_TRUE(waits_for_the_lock([&] { EXPECT_EQ(receiver.aioTerminate(), 0); }));
  elsewhere([&] {
    const VrnMutexGuard guard(receiver.lock());
    receiver.aioStart(file, true);
    EXPECT_TRUE(receiver.aioFile(file, true));
    EXPECT_EQ(receiver.aioFiles(true), 1);
    EXPECT_TRUE(receiver.aioStop(file, true));
    EXPECT_EQ(receiver.aioTerminate(true), 0);
  });
}

// ---- failures ----

TEST_F(AsyncReceiverTest, FailedStartLeavesTheFileOut) {
  RecordingReceiver first("first");
  RecordingReceiver second("second");
  elsewhere([&] {
    first.aioStart(&connection.file);
    EXPECT_EQ(failure_of([&] { second.aioStart(&connection.file); }).first, 3);
    EXPECT_FALSE(second.aioFile(&connection.file));  // and the lock is free again
    EXPECT_EQ(second.aioFiles(), 0);
  });
  loop.run_calls();
}

TEST_F(AsyncReceiverTest, StartWithoutAnEventManagerIsRefused) {
  RecordingReceiver receiver("lonely");
  VrnAppShell::evtmgr = nullptr;
  EXPECT_EQ(failure_of([&] { receiver.aioStart(&connection.file); }),
            (Failure{3, "VrnAsyncRcvr: No Event Manager for lonely"}));
  EXPECT_EQ(receiver.aioFiles(), 0);
  VrnAppShell::evtmgr = loop.mgr;
}

TEST_F(AsyncReceiverTest, NullIsRefusedByName) {
  RecordingReceiver receiver("receiver");
  EXPECT_EQ(failure_of([&] { receiver.aioStart(nullptr); }),
            (Failure{3, "VrnAsyncRcvr: Null file for receiver"}));
  EXPECT_TRUE(receiver.aioStop(nullptr));
}

TEST_F(AsyncReceiverTest, ActiveReceiverEndsOnAnotherThread) {
  auto receiver = std::make_unique<RecordingReceiver>("receiver");
  loop.on_dispatcher([&] {
    elsewhere([&] {
      receiver->aioStart(&connection.file);
      receiver.reset();
    });
  });
  loop.run_calls();
  EXPECT_FALSE(log.contains("remains"));
}

TEST_F(AsyncReceiverTest, MayOutliveTheEventManager) {
  RecordingReceiver receiver("receiver");
  elsewhere([&] { receiver.aioStart(&connection.file); });
  VrnEvtMgr::destroy();
  EXPECT_EQ(receiver.aioTerminate(), 0);
}

TEST_F(AsyncReceiverDeathTest, DestroyedWhileItsStopsAreUnderWay) {
  const auto destroy_while_active = [&] {
    loop.on_dispatcher([&] {
      RecordingReceiver receiver("receiver");
      receiver.aioStart(&connection.file);
    });
    loop.run_calls();
    std::exit(0);
  };
  EXPECT_EXIT(destroy_while_active(), testing::ExitedWithCode(1),
              "VrnAsyncRcvr destroyed while active - ABORT APP !");
}

TEST_F(AsyncReceiverTest, FileWithoutADescriptorIsRefused) {
  VrnFile unassigned;
  RecordingReceiver receiver("receiver");
  const Failure refused{3, "EvtMgr: File _UNASSIGNED_ has no descriptor for AIO=receiver"};
  EXPECT_EQ(failure_of([&] { receiver.aioStart(&unassigned); }), refused);
  EXPECT_EQ(receiver.aioFiles(), 0);
}

// ---- starts and stops that fail ----

// What comes meanwhile on another thread comes inside the answer of the event manager here.
class AnsweredReceiverTest : public testing::Test {
 protected:
  static bool refuse() { throw VrnException(3, "refused"); }

  void start() { receiver->aioStart(file); }
  void confirm_end() { static_cast<VrnAIO*>(receiver.get())->aioCancelled(file, false, false); }

  // The file's stop is under way.
  void start_and_stop() {
    start();
    manager.on_stop = [](VrnFile*, VrnAIO*) { return false; };
    EXPECT_FALSE(receiver->aioStop(file));
  }

  LogCapture log;
  StandInManager manager;
  Connection connection{"conn"};
  VrnFile* const file = &connection.file;
  const Failure refusal{3, "refused"};
  std::unique_ptr<RecordingReceiver> receiver = std::make_unique<RecordingReceiver>("receiver");
};

using AnsweredReceiverDeathTest = AnsweredReceiverTest;

TEST_F(AnsweredReceiverTest, RefusedStartLeavesTheFileOut) {
  manager.on_start = [](VrnFile*, VrnAIO*) { return refuse(); };
  EXPECT_EQ(failure_of([&] { start(); }), refusal);
  EXPECT_FALSE(receiver->aioFile(file));
}

TEST_F(AnsweredReceiverTest, RefusedSecondStartLeavesTheFileIn) {
  start();
  manager.on_start = [](VrnFile*, VrnAIO*) { return refuse(); };
  EXPECT_EQ(failure_of([&] { start(); }), refusal);
  EXPECT_TRUE(receiver->aioFile(file));
}

TEST_F(AnsweredReceiverTest, RefusedRestartDoesNotOutliveTheStop) {
  start_and_stop();
  manager.on_start = [](VrnFile*, VrnAIO*) { return refuse(); };
  EXPECT_EQ(failure_of([&] { start(); }), refusal);
  EXPECT_TRUE(receiver->aioFile(file));  // until the end of the stop
  confirm_end();
  EXPECT_FALSE(receiver->aioFile(file));
  EXPECT_EQ(receiver->removed, (Removals{{file, false, false}}));
}

TEST_F(AnsweredReceiverTest, RefusedRestartWhoseStopEndsMeanwhile) {
  start_and_stop();
  manager.on_start = [&](VrnFile*, VrnAIO*) {
    confirm_end();
    return refuse();
  };
  EXPECT_EQ(failure_of([&] { start(); }), refusal);
  EXPECT_FALSE(receiver->aioFile(file));
}

TEST_F(AnsweredReceiverTest, StartThatEndsBeforeItsAnswer) {
  manager.on_start = [&](VrnFile*, VrnAIO*) {
    confirm_end();
    return false;
  };
  start();
  EXPECT_FALSE(receiver->aioFile(file));
  manager.on_start = [&](VrnFile*, VrnAIO*) {
    confirm_end();
    return refuse();
  };
  EXPECT_EQ(failure_of([&] { start(); }), refusal);
  EXPECT_FALSE(receiver->aioFile(file));
}

TEST_F(AnsweredReceiverTest, StopWhoseFileLeavesBeforeItsAnswer) {
  start();
  manager.on_stop = [&](VrnFile*, VrnAIO*) {
    confirm_end();
    return true;
  };
  EXPECT_TRUE(receiver->aioStop(file));
  EXPECT_EQ(receiver->aioFiles(), 0);
  start();
  manager.on_stop = [&](VrnFile*, VrnAIO*) {
    confirm_end();
    return refuse();
  };
  EXPECT_EQ(failure_of([&] { receiver->aioStop(file); }), refusal);
  EXPECT_EQ(receiver->aioFiles(), 0);
}

// Which files can be watched is for the event manager to tell.
TEST_F(AnsweredReceiverTest, FileWithoutADescriptorThatIsAccepted) {
  VrnFile unassigned;
  receiver->aioStart(&unassigned);
  EXPECT_TRUE(receiver->aioFile(&unassigned));
  EXPECT_TRUE(receiver->aioStop(&unassigned));
  EXPECT_FALSE(receiver->aioFile(&unassigned));
}

TEST_F(AnsweredReceiverDeathTest, StopThatThrowsInTheDestructorEndsTheProcess) {
  start();
  const auto destroy = [&] {
    manager.on_stop = [](VrnFile*, VrnAIO*) { return refuse(); };
    receiver.reset();
  };
  EXPECT_EXIT(destroy(), testing::ExitedWithCode(1),
              "VrnAsyncRcvr: Failed to stop receiver \\[VrnException: Error=3 .* - refused\\]\n"
              ".*VrnAsyncRcvr destroyed while active - ABORT APP !\n");
}

}  // namespace
}  // namespace vornfc
