#include "vornfc/evtmgr.h"

#include "support/faults.h"
#include "support/log_capture.h"
#include "support/loop.h"
#include "vornfc/appshell.h"
#include "vornfc/evtmgr_native.h"
#include "vornfc/exception.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace vornfc {
namespace {

using Lines = std::vector<std::string>;
using Failure = std::pair<int, std::string>;

constexpr timeval START{1000, 0};

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

// ---- the one manager ----

class InstanceTest : public testing::Test {
 protected:
  void TearDown() override { VrnEvtMgr::destroy(); }

  LogCapture log;
};

TEST_F(InstanceTest, IsMadeOnce) {
  VrnEvtMgr* const manager = VrnEvtMgr::instance(0);
  ASSERT_NE(manager, nullptr);
  EXPECT_NE(dynamic_cast<VrnEvtMgrNative*>(manager), nullptr);
  EXPECT_EQ(VrnEvtMgr::instance(0), manager);
  EXPECT_EQ(VrnEvtMgr::instance(), manager);
}

TEST_F(InstanceTest, MayBeAskedForWithoutMakingIt) {
  EXPECT_EQ(VrnEvtMgr::instance(1), nullptr);
  EXPECT_EQ(VrnEvtMgr::instance(1), nullptr);  // none was made
  VrnEvtMgr* const manager = VrnEvtMgr::instance(0);
  EXPECT_EQ(VrnEvtMgr::instance(1), manager);
}

TEST_F(InstanceTest, MustNotExist) {
  ASSERT_NE(VrnEvtMgr::instance(2), nullptr);
  EXPECT_EQ(failure_of([] { VrnEvtMgr::instance(2); }),
            (Failure{6, "EvtMgr.instance: already exists"}));
  EXPECT_EQ(failure_of([] { VrnEvtMgr::instance(2 + 4); }),
            (Failure{6, "EvtMgr.instance: already exists"}));
}

TEST_F(InstanceTest, NullIfItExists) {
  ASSERT_NE(VrnEvtMgr::instance(4), nullptr);
  EXPECT_EQ(VrnEvtMgr::instance(4), nullptr);
}

TEST_F(InstanceTest, MustExist) {
  EXPECT_EQ(failure_of([] { VrnEvtMgr::instance(8); }),
            (Failure{6, "EvtMgr.instance: doesn't exist"}));
  EXPECT_EQ(failure_of([] { VrnEvtMgr::instance(8 + 1); }),
            (Failure{6, "EvtMgr.instance: doesn't exist"}));
  VrnEvtMgr* const manager = VrnEvtMgr::instance(0);
  EXPECT_EQ(VrnEvtMgr::instance(8), manager);
}

// Were the lock kept by a throw, the next call would wait for ever.
TEST_F(InstanceTest, LockIsGivenBackOnEveryPath) {
  failure_of([] { VrnEvtMgr::instance(8); });
  VrnEvtMgr::instance(1);
  VrnEvtMgr::instance(0);
  failure_of([] { VrnEvtMgr::instance(2); });
  VrnEvtMgr::instance(4);
  elsewhere([] { EXPECT_NE(VrnEvtMgr::instance(0), nullptr); });
}

TEST_F(InstanceTest, DestroyEndsIt) {
  VrnEvtMgr::destroy();  // there is none
  const std::string name = address(VrnEvtMgr::instance(0));
  VrnEvtMgr::destroy();
  EXPECT_EQ(VrnEvtMgr::instance(1), nullptr);
  EXPECT_EQ(log.lines(), (Lines{"EvtMgr.ctor - this=" + name + ", armode=Yes, throwtasks=No",
                                "EvtMgr.dtor - this=" + name,
                                "AsyncRegistrar.dtor: Enter with unreg_reqs=0, stopped=No"}));
}

TEST_F(InstanceTest, DestroyedManagerIsNotTheShellsAnyMore) {
  VrnAppShell::evtmgr = VrnEvtMgr::instance(0);
  VrnEvtMgr::destroy();
  EXPECT_EQ(VrnAppShell::evtmgr, nullptr);
}

TEST_F(InstanceTest, SecondObjectIsRefused) {
  VrnEvtMgr* const manager = VrnEvtMgr::instance(0);
  EXPECT_EQ(failure_of([] { const VrnEvtMgrNative second; }), (Failure{6, "Duplicate EvtMgr"}));
  EXPECT_EQ(VrnEvtMgr::instance(8), manager);
}

TEST_F(InstanceTest, FailedConstructionLeavesNone) {
  // A sanitizer makes a pipe of its own when it meets an object of a class for the first time.
  VrnEvtMgr::instance(0);
  VrnEvtMgr::destroy();
  const std::vector<int> before = open_descriptors();
  sys::fail_next("pipe", EMFILE);
  EXPECT_EQ(failure_of([] { VrnEvtMgr::instance(0); }),
            (Failure{2, "EvtMgr: Failed to create ARhelper pipe"}));
  EXPECT_EQ(VrnEvtMgr::instance(1), nullptr);
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_NE(VrnEvtMgr::instance(0), nullptr);
}

// An application may bring a manager of its own.
class OtherManager : public VrnEvtMgr {
 public:
  explicit OtherManager(bool* destroyed) : gone(destroyed) {}
  ~OtherManager() override { *gone = true; }
  void startDispatcher() override {}
  void stopDispatcher() override {}
  bool startAIO(VrnFile*, VrnAIO*) override { return false; }
  bool stopAIO(VrnFile*, VrnAIO*) override { return false; }
  bool startTimer(VrnTimer*) override { return false; }
  bool stopTimer(VrnTimer*) override { return false; }
  VrnSignalHandler* startSignal(VrnSignalHandler*, int) override { return nullptr; }
  bool stopSignal(VrnSignalHandler*, int, bool) override { return false; }

 private:
  bool* gone;
};

TEST_F(InstanceTest, AnotherKindOfManagerIsTheOne) {
  bool destroyed = false;
  auto* const other = new OtherManager(&destroyed);
  EXPECT_EQ(VrnEvtMgr::instance(0), other);
  EXPECT_EQ(failure_of([] { const VrnEvtMgrNative second; }), (Failure{6, "Duplicate EvtMgr"}));
  VrnEvtMgr::destroy();
  EXPECT_TRUE(destroyed);
  EXPECT_EQ(VrnEvtMgr::instance(1), nullptr);
}

// ---- settings ----

class SettingsTest : public testing::Test {
 protected:
  std::string construction_line() {
    VrnEvtMgr::instance(0);
    const std::string line = log.lines().at(0);
    VrnEvtMgr::destroy();
    return line.substr(line.find(", "));
  }

  LogCapture log;
};

TEST_F(SettingsTest, RequestsAlwaysGoThroughTheRegistrar) {
  setenv("VORN_EM_ARMODE", "n", 1);
  EXPECT_EQ(construction_line(), ", armode=Yes, throwtasks=No");
}

TEST_F(SettingsTest, RequestsGoThroughTheRegistrarAlsoWhenAsked) {
  setenv("VORN_EM_ARMODE", "Y", 1);
  EXPECT_EQ(construction_line(), ", armode=Yes, throwtasks=No");
}

TEST_F(SettingsTest, ThrowTasksIsYInEitherCase) {
  setenv("VORN_EM_THROWTASKS", "Y", 1);
  EXPECT_EQ(construction_line(), ", armode=Yes, throwtasks=Yes");
}

TEST_F(SettingsTest, ThrowTasksIsNothingButY) {
  setenv("VORN_EM_THROWTASKS", "yes", 1);
  EXPECT_EQ(construction_line(), ", armode=Yes, throwtasks=No");
}

struct Precision {
  const char* name;   // of the case
  const char* value;  // of the variable; null: not set
  int microseconds;   // that make a millisecond of waiting
};

// Or GoogleTest shows its bytes, the padding too.
std::ostream& operator<<(std::ostream& out, const Precision& precision) {
  return out << precision.microseconds << " us";
}

class PrecisionTest : public SettingsTest, public testing::WithParamInterface<Precision> {};

TEST_P(PrecisionTest, MicrosecondsPerMillisecondOfWaiting) {
  if (GetParam().value) setenv("VORN_EM_TIMERPREC", GetParam().value, 1);
  Loop loop;
  loop.use_own_clock(START);
  CountingTimer timer("t");
  timer.startTimer(0, 120000, 0, 0);
  loop.run_until([&] { return timer.expired == 1; });
  const int expected = 120000 / GetParam().microseconds;
  EXPECT_EQ(std::count(loop.timeouts.begin(), loop.timeouts.end(), expected), 1);
}

INSTANTIATE_TEST_SUITE_P(
    Of, PrecisionTest,
    testing::Values(Precision{"NotSet", nullptr, 1000}, Precision{"Empty", "", 1000},
                    Precision{"TooSmall", "500", 1000}, Precision{"JustTooSmall", "999", 1000},
                    Precision{"JustAbove", "1001", 1001}, Precision{"Above", "2000", 2000},
                    Precision{"LeadingDigits", "1500us", 1500}, Precision{"Junk", "junk", 1000},
                    Precision{"Negative", "-2000", 1000}),
    [](const auto& precision) { return std::string(precision.param.name); });

// ---- the loop ----

class EvtMgrTest : public testing::Test {
 protected:
  // The lines from the first that begins with `start` on.
  Lines lines_from(const std::string& start) const {
    const Lines all = log.lines();
    const auto it = std::find_if(all.begin(), all.end(), [&](const std::string& line) {
      return line.compare(0, start.size(), start) == 0;
    });
    return {it, all.end()};
  }

  bool has_line(const std::string& line) const {
    const Lines all = log.lines();
    return std::find(all.begin(), all.end(), line) != all.end();
  }

  // What the end of a run without timers says first, as long as no table has grown.
  static std::string stopped_line(const std::string& dead, int watched) {
    return "EvtMgr.dispatcherStopped: Enter with with dead=" + dead +
           " - tmrq=0, pollfds=" + std::to_string(watched) + " (cap=128), iofiles=128 (cap=128)";
  }

  LogCapture log;
  Loop loop;
};

class EvtMgrClockTest : public EvtMgrTest {
 protected:
  EvtMgrClockTest() { loop.use_own_clock(START); }
};

TEST_F(EvtMgrTest, WholeRunInLines) {
  loop.on_dispatcher([&] { loop.mgr->stopDispatcher(); });
  loop.run();
  EXPECT_EQ(lines_from("EvtMgr.dispatcher"),
            (Lines{"EvtMgr.dispatcher - tmrq=0, pollfds=0, deadflag=0", "EvtMgr.stop",
                   "AsyncRegistrar: Cancelled - hangup=Yes, err=No", stopped_line("Yes", 0),
                   "AsyncRegistrar.dispatcherStopped: Enter with unreg_reqs=0",
                   "EvtMgr: After dispatcher shutdown, tmrq=0, pollfds=0"}));
}

TEST_F(EvtMgrTest, StartOfARunTellsWhatIsRegistered) {
  CountingTimer timer("t");
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  elsewhere([&] {
    timer.startTimer(60, 0, 0, 0);
    loop.mgr->startAIO(&connection.file, &reader);
    loop.mgr->stopDispatcher();
  });
  loop.run();
  EXPECT_TRUE(has_line("EvtMgr.dispatcher - tmrq=1, pollfds=1, deadflag=1"));
}

TEST_F(EvtMgrClockTest, RemainingRegistrationsAreReported) {
  CountingTimer later("later");
  CountingTimer sooner("sooner");
  Connection first("first");
  Connection second("second");
  RecordingAIO reader(RecordingAIO::Input, "reader");
  RecordingAIO writer(RecordingAIO::Output, "writer");
  RecordingHandler handler;
  first.fill();
  second.fill();
  loop.on_dispatcher([&] {
    elsewhere([&] {
      later.startTimer(3, 141592, 0, 0);
      sooner.startTimer(2, 718281, 1, 0);
      loop.mgr->startAIO(&second.file, &writer);
      loop.mgr->startAIO(&first.file, &writer);
      loop.mgr->startAIO(&first.file, &reader);
      loop.mgr->startSignal(&handler, SIGUSR2);
      loop.mgr->startSignal(&handler, SIGHUP);
      loop.mgr->stopDispatcher();
    });
  });
  loop.run();
  const std::string fd1 = std::to_string(first.file.fd);
  const std::string fd2 = std::to_string(second.file.fd);
  EXPECT_EQ(lines_from("EvtMgr: After"),
            (Lines{"EvtMgr: After dispatcher shutdown, tmrq=2, pollfds=2",
                   "- EvtMgr: timer=sooner remains - 2718 millisecs",
                   "- EvtMgr: timer=later remains - 3141 millisecs",
                   "- EvtMgr: Receiver=reader remains - fd " + fd1 + "=first",
                   "- EvtMgr: Writer=writer remains - fd " + fd1 + "=first",
                   "- EvtMgr: Writer=writer remains - fd " + fd2 + "=second",
                   "EvtMgr: 2 Signal Handlers - 1, 12"}));
  // Neither cancelled nor freed.
  EXPECT_TRUE(sooner.getExpiry(nullptr, nullptr));
  EXPECT_TRUE(reader.cancelled.empty());
  EXPECT_TRUE(handler.stopped.empty());
}

TEST(EvtMgrReportTest, OverdueAndInactiveTimersAreReported) {
  setenv("VORN_EM_THROWTASKS", "y", 1);
  const LogCapture log;
  Loop loop;
  loop.use_own_clock({1003, 250000});
  CountingTimer inactive("inactive");
  CountingTimer overdue("overdue");
  loop.on_dispatcher([&] {
    elsewhere([&] {
      loop.mgr->syncstartTimer(&inactive);
      overdue.startTimerAbs(1001, 0, 0, 0);
    });
    throw std::string("ends the loop over timers that are due");
  });
  loop.run();
  EXPECT_TRUE(log.contains("- EvtMgr: timer=inactive remains - 0 millisecs (inactive)"));
  EXPECT_TRUE(log.contains("- EvtMgr: timer=overdue remains - -2250 millisecs"));
  EXPECT_EQ(overdue.expired, 0);
  elsewhere([&] { loop.mgr->stopTimer(&inactive); });
}

TEST_F(EvtMgrTest, OneSignalHandlerIsReported) {
  RecordingHandler handler;
  elsewhere([&] { loop.mgr->startSignal(&handler, SIGUSR1); });
  loop.run_calls();
  EXPECT_TRUE(has_line("EvtMgr: 1 Signal Handlers - 10"));
}

TEST_F(EvtMgrTest, RunningDispatcherIsNotStartedAgain) {
  Failure failure;
  loop.on_dispatcher([&] { failure = failure_of([&] { loop.mgr->startDispatcher(); }); });
  loop.run_calls();
  EXPECT_EQ(failure, (Failure{3, "Dispatcher already running in thread " +
                                     std::to_string(static_cast<unsigned>(pthread_self()))}));
}

TEST_F(EvtMgrTest, SecondRunReturnsAtOnce) {
  CountingTimer timer("t");
  elsewhere([&] { timer.startTimer(60, 0, 0, 0); });
  loop.run_calls();
  const std::size_t polls = loop.timeouts.size();
  loop.run();
  EXPECT_EQ(loop.timeouts.size(), polls);
  EXPECT_TRUE(has_line("EvtMgr.dispatcher - tmrq=1, pollfds=0, deadflag=1"));
  EXPECT_EQ(timer.expired, 0);
}

TEST_F(EvtMgrTest, StoppedBeforeTheFirstRunByItsOwnThread) {
  CountingTimer timer("t");
  timer.startTimer(60, 0, 0, 0);
  loop.mgr->stopDispatcher();
  loop.mgr->stopDispatcher();
  loop.run();
  EXPECT_TRUE(log.contains("EvtMgr.dispatcherStopped: Enter with with dead=Yes"));
  EXPECT_EQ(timer.expired, 0);
}

TEST_F(EvtMgrTest, StoppedBeforeTheFirstRunByAnotherThread) {
  CountingTimer timer("t");
  timer.startTimer(0, 0, 0, 0);
  elsewhere([&] {
    loop.mgr->stopDispatcher();
    loop.mgr->stopDispatcher();
  });
  loop.run();
  EXPECT_EQ(timer.expired, 0);
  EXPECT_TRUE(loop.timeouts.empty());
}

TEST_F(EvtMgrTest, MayBeDestroyedWithoutARun) {
  CountingTimer timer("t");
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  timer.startTimer(60, 0, 0, 0);
  loop.mgr->startAIO(&connection.file, &reader);
  loop.mgr->stopDispatcher();
  VrnEvtMgr::destroy();
  EXPECT_EQ(timer.expired, 0);
}

TEST_F(EvtMgrTest, StopOnAnotherThreadEndsTheWait) {
  using Clock = std::chrono::steady_clock;
  Clock::time_point asked;
  std::thread stopper;
  loop.on_dispatcher([&] {
    stopper = std::thread([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));  // the loop goes to sleep
      asked = Clock::now();
      loop.mgr->stopDispatcher();
      loop.mgr->stopDispatcher();
    });
  });
  loop.run();
  const auto ended = Clock::now();
  stopper.join();
  EXPECT_LT(ended - asked, std::chrono::seconds(2));  // a lost wake: never
}

TEST_F(EvtMgrTest, CallbacksHoldNoLock) {
  CountingTimer timer("t");
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  RecordingHandler handler;
  CountingTimer other("other");
  int calls = 0;
  const auto use_everything = [&] {
    ++calls;
    elsewhere([&] {
      VrnEvtMgr::instance(0);
      other.startTimer(60, 0, 0, 0);
      other.stopTimer();
      Connection more;
      RecordingAIO writer(RecordingAIO::Output, "writer");
      loop.mgr->startAIO(&more.file, &writer);
      loop.mgr->stopAIO(&more.file, &writer);
      loop.mgr->startSignal(&handler, SIGUSR2);
      loop.mgr->stopSignal(nullptr, SIGUSR2, false);
    });
  };
  timer.on_expired = use_everything;
  timer.on_stopped = use_everything;
  reader.on_ready = [&](VrnFile* file) {
    char byte;
    ASSERT_EQ(read(file->fd, &byte, 1), 1);
    use_everything();
  };
  reader.on_cancelled = use_everything;
  handler.on_received = use_everything;
  handler.on_stopped = use_everything;
  connection.send("x");
  loop.on_dispatcher([&] {
    timer.startTimer(0, 0, 60, 0);
    loop.mgr->startAIO(&connection.file, &reader);
    loop.mgr->startSignal(&handler, SIGUSR1);
  });
  loop.when([&] { return timer.expired == 1 && reader.ready == 1; }, [] { raise(SIGUSR1); });
  loop.when([&] { return !handler.received.empty(); },
            [&] {
              timer.stopTimer();
              loop.mgr->stopAIO(&connection.file, &reader);
              loop.mgr->stopSignal(&handler, SIGUSR1, false);
            });
  loop.run_until([&] { return calls == 6; });
}

TEST_F(EvtMgrTest, NoFurtherDescriptorIsPolled) {
  RecordingHandler handler;
  elsewhere([&] { loop.mgr->startSignal(&handler, SIGUSR1); });
  CountingTimer timer("t");
  loop.on_dispatcher([&] { elsewhere([&] { timer.startTimer(60, 0, 0, 0); }); });
  loop.on_dispatcher([] {});
  loop.run_calls();
  ASSERT_EQ(loop.entries.size(), 1U);
  EXPECT_EQ(loop.entries[0].fd, loop.pipe_read_end);
}

// ---- waiting ----

TEST_F(EvtMgrClockTest, WaitsWithoutLimitWhenThereIsNoTimer) {
  std::optional<int> timeout;
  loop.before_poll = [&] {
    if (!timeout) timeout = loop.timeouts.back();
  };
  loop.run_calls();
  EXPECT_EQ(timeout, -1);
}

// The rest of a millisecond is not waited for: a timer may fire up to a precision unit early.
TEST_F(EvtMgrClockTest, PartOfAMillisecondIsNotWaitedFor) {
  CountingTimer timer("t");
  timeval fired_at{};
  timer.on_expired = [&] { fired_at = loop.now; };
  elsewhere([&] { timer.startTimer(0, 1500, 0, 0); });
  loop.when([&] { return timer.expired == 1; }, [] {});
  loop.run_calls();
  ASSERT_FALSE(loop.timeouts.empty());
  EXPECT_EQ(loop.timeouts[0], 1);
  EXPECT_EQ(fired_at.tv_sec, 1000);
  EXPECT_EQ(fired_at.tv_usec, 1000);
}

TEST_F(EvtMgrClockTest, DueTimersFireAgainstOneTimeOfDay) {
  CountingTimer second("second");
  CountingTimer first("first", [&] { loop.pass(5000000); });
  elsewhere([&] {
    first.startTimer(0, 0, 0, 0);
    second.startTimer(1, 0, 0, 0);
  });
  std::size_t turn = 0;
  second.on_expired = [&] { turn = loop.timeouts.size(); };
  loop.run_until([&] { return second.expired == 1; });
  EXPECT_EQ(turn, 1U);  // one second away by the time of day of the first turn
}

TEST_F(EvtMgrTest, InterruptedWaitGoesOn) {
  CountingTimer timer("t");
  timer.startTimer(0, 0, 0, 0);
  sys::fail_next("poll", EINTR, 3);
  loop.run_until([&] { return timer.expired == 1; });
  EXPECT_EQ(sys::calls("poll"), 3 + static_cast<int>(loop.timeouts.size()));
  EXPECT_FALSE(log.contains("Error in dispatcher"));
}

TEST_F(EvtMgrTest, FailedWaitEndsTheLoop) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  elsewhere([&] { loop.mgr->startAIO(&connection.file, &reader); });
  sys::fail_next("poll", EBADF);
  loop.run();
  const std::string error = "VrnException: Error=2 (errno=9) - poll() on 2 files failed";
  EXPECT_EQ(lines_from("EvtMgr: Error"),
            (Lines{"EvtMgr: Error in dispatcher [" + error + "]", stopped_line("No", 2),
                   "AsyncRegistrar: Cancelled - hangup=No, err=Yes",
                   "AsyncRegistrar.dispatcherStopped: Enter with unreg_reqs=0",
                   "EvtMgr: After dispatcher shutdown, tmrq=0, pollfds=1",
                   "- EvtMgr: Receiver=reader remains - fd " + std::to_string(connection.file.fd) +
                       "=file"}));
}

// ---- nothing left to wait for ----

// Ends the watch of the registrar's pipe behind the registrar's back: the loop's own description of
// what is registered tells whose it is.
void unwatch_pipe(const Loop& loop) {
  pollfd entry{loop.pipe_read_end, 0, POLLOUT};
  VrnEvtMgrNative::iofile_t record;
  record.serial = 1;
  loop.mgr->handleIO(&entry, &record);
  ASSERT_NE(record.aios[0], nullptr);
  loop.mgr->syncstopAIO(record.file, record.aios[0], false, false, false);
}

TEST_F(EvtMgrTest, LoopWithNothingLeftEnds) {
  loop.on_dispatcher([&] { unwatch_pipe(loop); });
  loop.run();
  EXPECT_EQ(lines_from("EvtMgr has"),
            (Lines{"EvtMgr has run out of events - aborting", stopped_line("No", 0),
                   "AsyncRegistrar.dispatcherStopped: Enter with unreg_reqs=0",
                   "EvtMgr: After dispatcher shutdown, tmrq=0, pollfds=0"}));
}

TEST_F(EvtMgrTest, LoopWithOnlyATimerLeftSleepsUntilItFires) {
  CountingTimer timer("t");
  std::vector<std::size_t> counts;
  loop.on_dispatcher([&] {
    elsewhere([&] { timer.startTimer(0, 30000, 0, 0); });
    unwatch_pipe(loop);
    loop.before_poll = [&] { counts.push_back(loop.entries.size()); };
  });
  loop.run();
  EXPECT_EQ(timer.expired, 1);
  ASSERT_FALSE(counts.empty());
  EXPECT_EQ(counts[0], 0U);
  EXPECT_TRUE(has_line("EvtMgr has run out of events - aborting"));
}

// The registrar cannot watch its pipe when its descriptor is another file's.
TEST_F(EvtMgrTest, RegistrarThatCannotStartEndsTheLoop) {
  VrnFile alias;
  alias.assign(loop.pipe_read_end, "alias", false);
  RecordingAIO thief(RecordingAIO::Output, "thief");
  elsewhere([&] { loop.mgr->startAIO(&alias, &thief); });
  loop.run();
  EXPECT_TRUE(log.contains("EvtMgr: Error in dispatcher [VrnException: Error=3 "));
  EXPECT_TRUE(log.contains(" - EvtMgr conflict: AIO on fd ARhelper="));
  EXPECT_TRUE(log.contains("EvtMgr: After dispatcher shutdown, tmrq=0, pollfds=1"));
}

// Nor can it end a watch of the pipe that is another watcher's.
TEST_F(EvtMgrTest, PipeThatAnotherWatcherHoldsEndsTheLoop) {
  VrnFile alias;
  alias.assign(loop.pipe_read_end, "alias", false);
  RecordingAIO thief(RecordingAIO::Input, "thief");
  elsewhere([&] { loop.mgr->startAIO(&alias, &thief); });
  loop.run();
  EXPECT_TRUE(log.contains(" - EvtMgr conflict: AIO on fd ARhelper="));
  EXPECT_TRUE(log.contains(" - EvtMgr: iomon=ARhelper doesn't own fd-0 ARhelper=" +
                           std::to_string(loop.pipe_read_end) + " - owner=thief]"));
  EXPECT_TRUE(log.contains("- EvtMgr: Receiver=thief remains - fd "));
}

// ---- forked processes ----

TEST_F(InstanceTest, ProcessForkedWithoutAManagerMayMakeOne) {
  ASSERT_NE(VrnEvtMgr::instance(0), nullptr);
  VrnEvtMgr::destroy();
  const auto make_one = [] { std::exit(VrnEvtMgr::instance(0) ? 0 : 1); };
  EXPECT_EXIT(make_one(), testing::ExitedWithCode(0), "");
}

// ---- timers that throw ----

TEST_F(EvtMgrTest, TimerThatThrowsIsLoggedAndTheOthersFire) {
  CountingTimer bad("bad", [] { throw std::string("bad timer"); });
  CountingTimer good("good");
  loop.on_dispatcher([&] {
    bad.startTimerAbs(1, 0, 0, 1000);
    good.startTimerAbs(2, 0, 0, 0);
  });
  loop.run_until([&] { return good.expired == 1 && bad.expired >= 2; });
  EXPECT_TRUE(has_line("EvtMgr: Timer threw [string=bad timer]"));
  EXPECT_FALSE(log.contains("Error in dispatcher"));
}

TEST(EvtMgrThrowTasksTest, TimerThatThrowsEndsTheLoop) {
  setenv("VORN_EM_THROWTASKS", "y", 1);
  const LogCapture log;
  Loop loop;
  CountingTimer bad("bad", [] { throw std::runtime_error("bad timer"); });
  CountingTimer good("good");
  loop.on_dispatcher([&] {
    bad.startTimerAbs(1, 0, 0, 0);
    good.startTimerAbs(2, 0, 0, 0);
  });
  loop.run();
  EXPECT_TRUE(log.contains("EvtMgr: Error in dispatcher [St13runtime_error=bad timer]"));
  EXPECT_FALSE(log.contains("Timer threw"));
  EXPECT_TRUE(log.contains("EvtMgr.dispatcherStopped: Enter with with dead=No"));
  EXPECT_EQ(good.expired, 0);
}

}  // namespace
}  // namespace vornfc
