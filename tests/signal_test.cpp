#include "support/faults.h"
#include "support/log_capture.h"
#include "support/loop.h"
#include "vornfc/evtmgr.h"
#include "vornfc/exception.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace vornfc {
namespace {

using Signals = std::vector<int>;
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

struct sigaction action_of(int signo) {
  struct sigaction action {};
  sigaction(signo, nullptr, &action);
  return action;
}

bool is_default(int signo) {
  return action_of(signo).sa_handler == SIG_DFL;
}

bool is_ignored(int signo) {
  return action_of(signo).sa_handler == SIG_IGN;
}

bool is_handled(int signo) {
  return !is_default(signo) && !is_ignored(signo);
}

class SignalTest : public testing::Test {
 protected:
  // As another thread does, so that it takes effect at once.
  VrnSignalHandler* start(VrnSignalHandler* signal_handler, int signo) {
    VrnSignalHandler* previous = nullptr;
    elsewhere([&] { previous = loop.mgr->startSignal(signal_handler, signo); });
    return previous;
  }

  bool stop(VrnSignalHandler* signal_handler, int signo, bool ignore) {
    bool done = false;
    elsewhere([&] { done = loop.mgr->stopSignal(signal_handler, signo, ignore); });
    return done;
  }

  bool watched_at_the_end(const std::string& numbers) const {
    return log.contains(" Signal Handlers - " + numbers);
  }

  LogCapture log;
  Loop loop;
  RecordingHandler handler;
};

// ---- delivery ----

TEST_F(SignalTest, SignalIsDeliveredOnTheDispatcherThread) {
  const pthread_t dispatcher = pthread_self();
  bool on_dispatcher = false;
  handler.on_received = [&] { on_dispatcher = pthread_equal(pthread_self(), dispatcher) != 0; };
  start(&handler, SIGHUP);
  loop.on_dispatcher([] { std::thread([] { raise(SIGHUP); }).join(); });
  loop.run_until([&] { return !handler.received.empty(); });
  EXPECT_EQ(handler.received, Signals{SIGHUP});
  EXPECT_TRUE(on_dispatcher);
  EXPECT_TRUE(log.contains("EvtMgr: Received signal=1 - delivering to handler"));
}

TEST_F(SignalTest, SeveralArrivalsAreOneDelivery) {
  start(&handler, SIGHUP);
  loop.on_dispatcher([] {
    raise(SIGHUP);
    raise(SIGHUP);
  });
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_EQ(handler.received, Signals{SIGHUP});
}

TEST_F(SignalTest, EveryTurnDeliversAgain) {
  start(&handler, SIGHUP);
  loop.on_dispatcher([] { raise(SIGHUP); });
  loop.when([&] { return handler.received.size() == 1; }, [] { raise(SIGHUP); });
  loop.run_until([&] { return handler.received.size() == 2; });
}

TEST_F(SignalTest, SignalsAreDeliveredInAscendingOrder) {
  start(&handler, SIGUSR2);
  start(&handler, SIGHUP);
  start(&handler, SIGUSR1);
  loop.on_dispatcher([] {
    raise(SIGUSR2);
    raise(SIGUSR1);
    raise(SIGHUP);
  });
  loop.run_until([&] { return handler.received.size() == 3; });
  EXPECT_EQ(handler.received, (Signals{SIGHUP, SIGUSR1, SIGUSR2}));
}

TEST_F(SignalTest, SignalsAreDeliveredBeforeTimers) {
  std::vector<std::string> order;
  CountingTimer timer("t", [&] { order.push_back("timer"); });
  handler.on_received = [&] { order.push_back("signal"); };
  start(&handler, SIGHUP);
  loop.on_dispatcher([&] {
    elsewhere([&] { timer.startTimer(0, 1000, 0, 0); });
    raise(SIGHUP);
    std::this_thread::sleep_for(std::chrono::milliseconds(3));  // the timer is due as well
  });
  loop.run_until([&] { return order.size() == 2; });
  EXPECT_EQ(order, (std::vector<std::string>{"signal", "timer"}));
}

// A lower number would be missed by the scan that is under way, were the flag cleared behind it.
TEST_F(SignalTest, ArrivalDuringTheScanIsDeliveredAtTheNextTurn) {
  RecordingHandler raiser("raiser");
  raiser.on_received = [] { raise(SIGHUP); };
  start(&handler, SIGHUP);
  start(&raiser, SIGUSR1);
  loop.on_dispatcher([] { raise(SIGUSR1); });
  loop.run_until([&] { return !handler.received.empty(); });
  EXPECT_EQ(raiser.received, Signals{SIGUSR1});
}

TEST_F(SignalTest, ArrivalInATimerIsDeliveredWithoutAWait) {
  start(&handler, SIGHUP);
  CountingTimer timer("t", [] { raise(SIGHUP); });
  std::size_t polls_then = 0;
  std::size_t polls_at_delivery = 0;
  handler.on_received = [&] { polls_at_delivery = loop.timeouts.size(); };
  timer.on_expired = [&] {
    polls_then = loop.timeouts.size();
    raise(SIGHUP);
  };
  loop.on_dispatcher([&] { timer.startTimer(0, 0, 0, 0); });
  loop.run_until([&] { return !handler.received.empty(); });
  EXPECT_EQ(polls_at_delivery, polls_then);
}

// The loop has looked at its flag and is about to sleep without limit when the signal comes. A lost
// one fails by the deadline.
TEST_F(SignalTest, ArrivalJustBeforeTheWaitEndsIt) {
  start(&handler, SIGHUP);
  bool raised = false;
  loop.before_poll = [&] {
    if (!raised) raise(SIGHUP);
    raised = true;
  };
  loop.run_until([&] { return !handler.received.empty(); });
  EXPECT_EQ(handler.received, Signals{SIGHUP});
}

TEST_F(SignalTest, ArrivalOnAnotherThreadEndsTheWait) {
  using Clock = std::chrono::steady_clock;
  auto best = Clock::duration::max();
  std::atomic<int> delivered{0};
  Clock::time_point delivered_at;
  handler.on_received = [&] {
    delivered_at = Clock::now();
    ++delivered;
  };
  start(&handler, SIGUSR1);
  std::thread raiser;
  loop.on_dispatcher([&] {
    raiser = std::thread([&] {
      for (int i = 0; i < 20; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));  // the loop goes to sleep
        const auto start = Clock::now();
        raise(SIGUSR1);
        while (delivered <= i) std::this_thread::yield();
        best = std::min(best, delivered_at - start);
      }
    });
  });
  loop.run_until([&] { return delivered == 20; });
  raiser.join();
  EXPECT_LT(best, std::chrono::milliseconds(5));
}

TEST_F(SignalTest, SignalsThatArrivedBeforeTheLoopRanAreDelivered) {
  start(&handler, SIGHUP);
  raise(SIGHUP);
  loop.run_until([&] { return !handler.received.empty(); });
}

TEST_F(SignalTest, SignalWhoseHandlerIsGoneIsDropped) {
  start(&handler, SIGHUP);
  loop.on_dispatcher([&] {
    raise(SIGHUP);
    elsewhere([&] { loop.mgr->stopSignal(&handler, SIGHUP, true); });
  });
  loop.on_dispatcher([&] { elsewhere([&] { loop.mgr->startSignal(&handler, SIGHUP); }); });
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_EQ(handler.received, Signals{});
}

TEST_F(SignalTest, ErrnoIsPreservedByTheHandler) {
  start(&handler, SIGHUP);
  errno = EXDEV;
  raise(SIGHUP);
  EXPECT_EQ(errno, EXDEV);
}

// Also when the wake that it sends meets a full pipe.
TEST_F(SignalTest, ErrnoIsPreservedWhenThePipeIsFull) {
  start(&handler, SIGHUP);
  const std::string record(32, '\0');
  while (write(loop.pipe_write_end, record.data(), record.size()) > 0) {
  }
  errno = EXDEV;
  raise(SIGHUP);
  EXPECT_EQ(errno, EXDEV);
}

TEST_F(SignalTest, SignalsInterruptSystemCallsAndBlockNoOther) {
  start(&handler, SIGHUP);
  const struct sigaction action = action_of(SIGHUP);
  EXPECT_EQ(action.sa_flags & SA_RESTART, 0);
  EXPECT_EQ(sigismember(&action.sa_mask, SIGUSR1), 0);
}

TEST_F(SignalTest, GreatestSignalIsAcceptedButNeverDelivered) {
  start(&handler, 64);
  start(&handler, 63);
  EXPECT_TRUE(is_handled(64));
  loop.on_dispatcher([] {
    raise(64);
    raise(63);
  });
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_EQ(handler.received, Signals{63});
}

// ---- starting ----

TEST_F(SignalTest, StartTellsThePreviousHandlerWhichStays) {
  RecordingHandler second("second");
  EXPECT_EQ(start(&handler, SIGHUP), nullptr);
  EXPECT_EQ(start(&second, SIGHUP), &handler);
  loop.on_dispatcher([] { raise(SIGHUP); });
  loop.run_until([&] { return !handler.received.empty(); });
  EXPECT_EQ(second.received, Signals{});
}

TEST_F(SignalTest, SecondStartInstallsTheProcessHandlerAgain) {
  RecordingHandler second("second");
  start(&handler, SIGHUP);
  signal(SIGHUP, SIG_IGN);
  start(&second, SIGHUP);
  EXPECT_TRUE(is_handled(SIGHUP));
}

TEST_F(SignalTest, StartOnTheDispatcherThreadTakesEffectLater) {
  loop.on_dispatcher([&] {
    EXPECT_EQ(loop.mgr->startSignal(&handler, SIGHUP), nullptr);
    EXPECT_EQ(loop.mgr->startSignal(&handler, SIGHUP), nullptr);
    EXPECT_TRUE(is_default(SIGHUP));
  });
  loop.on_dispatcher([] { raise(SIGHUP); });
  loop.run_until([&] { return !handler.received.empty(); });
  EXPECT_TRUE(handler.stopped.empty());
}

TEST_F(SignalTest, BadArgumentsOfStart) {
  const Failure failure{3, "Bad startSignal() args"};
  EXPECT_EQ(failure_of([&] { loop.mgr->startSignal(nullptr, SIGHUP); }), failure);
  EXPECT_EQ(failure_of([&] { loop.mgr->startSignal(&handler, -1); }), failure);
  Failure on_another_thread;
  elsewhere([&] { on_another_thread = failure_of([&] { loop.mgr->startSignal(&handler, -1); }); });
  EXPECT_EQ(on_another_thread, failure);
}

TEST_F(SignalTest, NumberAboveTheGreatestIsRefused) {
  Failure above;
  Failure below;
  elsewhere([&] {
    above = failure_of([&] { loop.mgr->startSignal(&handler, 65); });
    below = failure_of([&] { loop.mgr->startSignal(&handler, -2); });
  });
  EXPECT_EQ(above, (Failure{3, "EvtMgr: Signal=65 vs max=64"}));
  EXPECT_EQ(below, (Failure{3, "EvtMgr: Signal=-2 vs max=64"}));
  loop.run_calls();
  EXPECT_TRUE(watched_at_the_end("-2, 65"));  // entered before the check
}

TEST_F(SignalTest, RefusalOfAQueuedStartIsLogged) {
  loop.on_dispatcher([&] { loop.mgr->startSignal(&handler, 65); });
  errno = 0;
  loop.run_until([&] { return log.contains("EvtMgr: Signal=65 vs max=64"); });
  EXPECT_TRUE(log.contains("AsyncRegistrar: submitted request threw [VrnException: Error=3 "));
}

TEST_F(SignalTest, SignalThatTheSystemRefuses) {
  Failure failure;
  elsewhere([&] { failure = failure_of([&] { loop.mgr->startSignal(&handler, SIGKILL); }); });
  EXPECT_EQ(failure, (Failure{2, "EvtMgr: Failed to set signal=9 handler"}));
  loop.run_calls();
  EXPECT_TRUE(watched_at_the_end("9"));
}

TEST_F(SignalTest, FailedSystemCallIsReportedWithItsError) {
  start(&handler, SIGHUP);
  sys::fail_next("sigaction", EPERM);
  int error = 0;
  elsewhere([&] {
    try {
      loop.mgr->stopSignal(&handler, SIGHUP, false);
    } catch (const VrnException& e) {
      EXPECT_EQ(e.err(), 2);
      EXPECT_STREQ(e.what(), "EvtMgr: Failed to set signal=1 handler");
      error = e.syserr();
    }
  });
  EXPECT_EQ(error, EPERM);
  EXPECT_TRUE(is_handled(SIGHUP));
  loop.run_calls();
  EXPECT_FALSE(log.contains("Signal Handlers"));  // the registration has ended all the same
}

// ---- stopping ----

TEST_F(SignalTest, StopOnTheDispatcherThreadIsConfirmed) {
  start(&handler, SIGHUP);
  loop.on_dispatcher([&] {
    EXPECT_FALSE(loop.mgr->stopSignal(&handler, SIGHUP, false));
    EXPECT_TRUE(is_handled(SIGHUP));
  });
  loop.run_until([&] { return !handler.stopped.empty(); });
  EXPECT_EQ(handler.stopped, Signals{SIGHUP});
  EXPECT_TRUE(is_default(SIGHUP));
  EXPECT_FALSE(log.contains("Signal Handlers"));
}

TEST_F(SignalTest, StopOnAnotherThreadIsDoneAtOnce) {
  start(&handler, SIGHUP);
  EXPECT_TRUE(stop(&handler, SIGHUP, false));
  EXPECT_TRUE(is_default(SIGHUP));
  loop.run_calls();
  EXPECT_EQ(handler.stopped, Signals{});
}

TEST_F(SignalTest, StopMayLeaveTheSignalIgnored) {
  start(&handler, SIGHUP);
  EXPECT_TRUE(stop(&handler, SIGHUP, true));
  EXPECT_TRUE(is_ignored(SIGHUP));
  loop.on_dispatcher([&] { loop.mgr->stopSignal(&handler, SIGUSR1, true); });
  loop.run_until([&] { return !handler.stopped.empty(); });
  EXPECT_TRUE(is_ignored(SIGUSR1));
}

TEST_F(SignalTest, StopEndsTheDeliveryWhicheverHandlerHasIt) {
  RecordingHandler second("second");
  start(&handler, SIGHUP);
  loop.on_dispatcher([&] { loop.mgr->stopSignal(&second, SIGHUP, true); });
  loop.run_until([&] { return !second.stopped.empty(); });
  EXPECT_EQ(second.stopped, Signals{SIGHUP});
  EXPECT_EQ(handler.stopped, Signals{});
  EXPECT_FALSE(log.contains("Signal Handlers"));
}

TEST_F(SignalTest, StopOfAllSignalsIsConfirmedOnce) {
  RecordingHandler other("other");
  start(&handler, SIGUSR1);
  start(&handler, SIGHUP);
  start(&other, SIGUSR2);
  loop.on_dispatcher([&] { EXPECT_FALSE(loop.mgr->stopSignal(&handler, -1, false)); });
  loop.run_until([&] { return !handler.stopped.empty(); });
  EXPECT_EQ(handler.stopped, Signals{-1});
  EXPECT_TRUE(is_default(SIGHUP));
  EXPECT_TRUE(is_default(SIGUSR1));
  EXPECT_TRUE(is_handled(SIGUSR2));
  EXPECT_TRUE(log.contains("EvtMgr: 1 Signal Handlers - 12"));
}

TEST_F(SignalTest, StopOfAllSignalsOnAnotherThreadIsNotConfirmed) {
  start(&handler, SIGUSR1);
  start(&handler, SIGHUP);
  EXPECT_TRUE(stop(&handler, -1, true));
  EXPECT_TRUE(is_ignored(SIGHUP));
  EXPECT_TRUE(is_ignored(SIGUSR1));
  loop.run_calls();
  EXPECT_EQ(handler.stopped, Signals{});
}

TEST_F(SignalTest, StopWithoutAHandlerCallsNobody) {
  EXPECT_TRUE(stop(nullptr, SIGPIPE, true));
  EXPECT_TRUE(is_ignored(SIGPIPE));
  start(&handler, SIGHUP);
  loop.on_dispatcher([&] { EXPECT_FALSE(loop.mgr->stopSignal(nullptr, SIGHUP, true)); });
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_TRUE(is_ignored(SIGHUP));
  EXPECT_EQ(handler.stopped, Signals{});
}

TEST_F(SignalTest, StopOfASignalThatIsNotWatchedIsConfirmed) {
  loop.on_dispatcher([&] { loop.mgr->stopSignal(&handler, SIGUSR1, false); });
  loop.run_until([&] { return !handler.stopped.empty(); });
  EXPECT_EQ(handler.stopped, Signals{SIGUSR1});
}

TEST_F(SignalTest, BadArgumentsOfStop) {
  const Failure failure{3, "Bad stopSignal() args"};
  EXPECT_EQ(failure_of([&] { loop.mgr->stopSignal(nullptr, -1, false); }), failure);
  Failure on_another_thread;
  elsewhere(
      [&] { on_another_thread = failure_of([&] { loop.mgr->stopSignal(nullptr, -1, true); }); });
  EXPECT_EQ(on_another_thread, failure);
}

TEST_F(SignalTest, StopAfterTheLoopIsDoneAtOnce) {
  start(&handler, SIGHUP);
  loop.run_calls();
  EXPECT_TRUE(loop.mgr->stopSignal(&handler, SIGHUP, false));
  EXPECT_TRUE(is_default(SIGHUP));
  EXPECT_EQ(handler.stopped, Signals{});
}

TEST_F(SignalTest, StopInTheHandlersOwnCall) {
  handler.on_received = [&] { EXPECT_FALSE(loop.mgr->stopSignal(&handler, SIGHUP, true)); };
  start(&handler, SIGHUP);
  loop.on_dispatcher([] { raise(SIGHUP); });
  loop.run_until([&] { return !handler.stopped.empty(); });
  EXPECT_EQ(handler.received, Signals{SIGHUP});
  EXPECT_EQ(handler.stopped, Signals{SIGHUP});
}

// ---- exceptions and the end of a handler ----

TEST_F(SignalTest, ExceptionFromSignalReceivedIsLogged) {
  handler.on_received = [] { throw std::string("bad receipt"); };
  start(&handler, SIGHUP);
  start(&handler, SIGUSR1);
  loop.on_dispatcher([] {
    raise(SIGHUP);
    raise(SIGUSR1);
  });
  loop.run_until([&] { return handler.received.size() == 2; });
  EXPECT_TRUE(log.contains("EvtMgr: Handler for Signal=1 threw on signal [string=bad receipt]"));
  EXPECT_TRUE(log.contains("EvtMgr: Handler for Signal=10 threw on signal [string=bad receipt]"));
}

TEST_F(SignalTest, ExceptionFromSignalStoppedIsLogged) {
  handler.on_stopped = [] { throw std::string("bad stop"); };
  loop.on_dispatcher([&] { loop.mgr->stopSignal(&handler, SIGUSR1, false); });
  loop.on_dispatcher([&] { loop.mgr->stopSignal(&handler, -1, false); });
  loop.run_until([&] { return handler.stopped.size() == 2; });
  EXPECT_TRUE(log.contains("EvtMgr: Handler for Signal=10 threw on cancel [string=bad stop]"));
  EXPECT_TRUE(log.contains("EvtMgr: Handler for Signal=-1 threw on cancel [string=bad stop]"));
}

// VORN_EM_THROWTASKS concerns timers and descriptors alone.
TEST(SignalThrowTasksTest, ExceptionFromAHandlerNeverEndsTheLoop) {
  setenv("VORN_EM_THROWTASKS", "y", 1);
  const LogCapture log;
  Loop loop;
  RecordingHandler handler;
  handler.on_received = [] { throw std::string("bad receipt"); };
  elsewhere([&] { loop.mgr->startSignal(&handler, SIGHUP); });
  loop.on_dispatcher([] { raise(SIGHUP); });
  loop.when([&] { return !handler.received.empty(); }, [] { raise(SIGHUP); });
  loop.run_until([&] { return handler.received.size() == 2; });
  EXPECT_FALSE(log.contains("Error in dispatcher"));
}

TEST_F(SignalTest, DestroyedHandlerIsForgotten) {
  auto short_lived = std::make_unique<RecordingHandler>("short-lived");
  start(short_lived.get(), SIGHUP);
  loop.on_dispatcher([&] {
    raise(SIGHUP);
    loop.mgr->stopSignal(short_lived.get(), -1, false);
    short_lived.reset();
  });
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_FALSE(log.contains("Signal Handlers"));
  EXPECT_FALSE(log.contains("delivering"));
}

TEST_F(SignalTest, HandlerMayEndInItsOwnCall) {
  auto short_lived = std::make_unique<RecordingHandler>("short-lived");
  short_lived->on_received = [&] { short_lived.reset(); };
  start(short_lived.get(), SIGHUP);
  loop.on_dispatcher([] { raise(SIGHUP); });
  loop.run_until([&] { return !short_lived; });
  EXPECT_FALSE(log.contains("Signal Handlers"));
}

TEST_F(SignalTest, NullHandlerIsRefusedByTheDirectForm) {
  const Failure refused{3, "EvtMgr: Null handler for Signal=1"};
  EXPECT_EQ(failure_of([&] { loop.mgr->sigResponse(true, nullptr, SIGHUP); }), refused);
  EXPECT_EQ(failure_of([&] { loop.mgr->sigRequest(true, false, nullptr, SIGHUP, false); }),
            refused);
}

}  // namespace
}  // namespace vornfc
