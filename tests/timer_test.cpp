#include "vornfc/timer.h"

#include "support/log_capture.h"
#include "support/loop.h"
#include "support/manager.h"
#include "support/polling.h"
#include "vornfc/appshell.h"
#include "vornfc/exception.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <ostream>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

static bool operator==(const timeval& a, const timeval& b) {
  return a.tv_sec == b.tv_sec && a.tv_usec == b.tv_usec;
}

static void PrintTo(const timeval& time, std::ostream* out) {
  *out << time.tv_sec << " s " << time.tv_usec << " us";
}

namespace vornfc {
namespace {

using Names = std::vector<std::string>;
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

timeval expiry_of(const VrnTimer& timer) {
  timeval expiry{-1, -1};
  EXPECT_TRUE(timer.getExpiryAbs(&expiry));
  return expiry;
}

bool is_set(const VrnTimer& timer) {
  return timer.getExpiryAbs(nullptr);
}

class TimerTest : public testing::Test {
 protected:
  LogCapture log;
  Loop loop;
};

// Time passes only while the loop waits, and begins at START.
class TimerClockTest : public TimerTest {
 protected:
  TimerClockTest() { loop.use_own_clock(START); }
};

using TimerDeathTest = TimerTest;

// ---- names ----

TEST_F(TimerTest, TagIsTheNameOrTheAddress) {
  const CountingTimer named("tick");
  const CountingTimer nameless("");
  char address[32];
  std::snprintf(address, sizeof address, "0x%x",
                static_cast<unsigned>(
                    reinterpret_cast<std::uintptr_t>(static_cast<const VrnTimer*>(&nameless))));
  EXPECT_STREQ(named.tmrtag(), "tick");
  EXPECT_STREQ(nameless.tmrtag(), address);
}

TEST_F(TimerTest, CopyIsNamedAfterItsOriginal) {
  const CountingTimer named("tick");
  const CountingTimer nameless("");
  EXPECT_STREQ(CountingTimer(named).tmrtag(), "tick-copy");
  EXPECT_EQ(CountingTimer(nameless).tmrtag(), std::string(nameless.tmrtag()) + "-copy");
}

// ---- firing ----

TEST_F(TimerTest, StartWithNoDistanceFiresAtTheNextTurn) {
  CountingTimer timer("t");
  std::size_t started_in = 0;
  std::size_t fired_in = 0;
  timer.on_expired = [&] { fired_in = loop.timeouts.size(); };
  loop.on_dispatcher([&] {
    timer.startTimer(0, 0, 0, 0);
    started_in = loop.timeouts.size();
    EXPECT_EQ(timer.expired, 0);
  });
  loop.run_until([&] { return timer.expired == 1; });
  EXPECT_EQ(fired_in, started_in + 1);
  EXPECT_FALSE(is_set(timer));
  EXPECT_EQ(timer.stopped, 0);
}

TEST_F(TimerTest, EqualExpiriesFireInTheOrderOfTheStarts) {
  Names fired;
  CountingTimer a("a", [&] { fired.push_back("a"); });
  CountingTimer b("b", [&] { fired.push_back("b"); });
  CountingTimer c("c", [&] { fired.push_back("c"); });
  loop.on_dispatcher([&] {
    b.startTimerAbs(5, 0, 0, 0);
    c.startTimerAbs(4, 1000000, 0, 0);
    a.startTimerAbs(5, 0, 0, 0);
  });
  loop.run_until([&] { return a.expired == 1; });
  EXPECT_EQ(fired, (Names{"b", "c", "a"}));
}

TEST_F(TimerTest, EarlierExpiryFiresFirst) {
  Names fired;
  CountingTimer early("early", [&] { fired.push_back("early"); });
  CountingTimer late("late", [&] { fired.push_back("late"); });
  loop.on_dispatcher([&] {
    late.startTimerAbs(6, 0, 0, 0);
    early.startTimerAbs(5, 999999, 0, 0);
  });
  loop.run_until([&] { return late.expired == 1; });
  EXPECT_EQ(fired, (Names{"early", "late"}));
}

TEST_F(TimerTest, StartedBeforeTheLoopRuns) {
  CountingTimer timer("t");
  timer.startTimer(0, 0, 0, 0);
  loop.run_until([&] { return timer.expired == 1; });
}

TEST_F(TimerTest, StartedOnAnotherThreadBeforeTheLoopRuns) {
  CountingTimer timer("t");
  elsewhere([&] { timer.startTimer(0, 0, 0, 0); });
  loop.run_until([&] { return timer.expired == 1; });
}

TEST_F(TimerTest, FiresAtRealTime) {
  using Clock = std::chrono::steady_clock;
  CountingTimer timer("t");
  Clock::time_point start;
  loop.on_dispatcher([&] {
    start = Clock::now();
    timer.startTimer(0, 60000, 0, 0);
  });
  loop.run_until([&] { return timer.expired == 1; });
  EXPECT_GT(Clock::now() - start, std::chrono::milliseconds(50));
}

// The loop sleeps without limit, or in a wait of an hour, when the start comes.
TEST_F(TimerTest, StartOnAnotherThreadWakesTheLoop) {
  using Clock = std::chrono::steady_clock;
  CountingTimer hour("hour");
  auto best = Clock::duration::max();
  loop.on_dispatcher([&] { hour.startTimer(3600, 0, 0, 0); });
  std::vector<std::unique_ptr<CountingTimer>> timers(20);
  for (auto& timer : timers) timer = std::make_unique<CountingTimer>("t");
  std::atomic<int> fired{0};
  Clock::time_point fired_at;
  for (auto& timer : timers) {
    timer->on_expired = [&] {
      fired_at = Clock::now();
      ++fired;
    };
  }
  std::thread starter;
  loop.on_dispatcher([&] {
    starter = std::thread([&] {
      for (int i = 0; i < 20; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));  // the loop goes to sleep
        const auto start = Clock::now();
        timers[static_cast<std::size_t>(i)]->startTimer(0, 0, 0, 0);
        while (fired <= i) std::this_thread::yield();
        best = std::min(best, fired_at - start);
      }
    });
  });
  loop.run_until([&] { return fired == 20; });
  starter.join();
  EXPECT_LT(best, std::chrono::milliseconds(10));
}

// ---- times ----

TEST_F(TimerClockTest, ExpiryIsThePresentPlusTheDistance) {
  CountingTimer timer("t");
  loop.use_own_clock({1000, 900000});
  timer.startTimer(7, 300000, 0, 0);
  EXPECT_EQ(expiry_of(timer), (timeval{1007, 1200000}));  // not normalised
  loop.run_calls();
}

TEST_F(TimerClockTest, MicrosecondsAboveAMillionAreKeptAndCounted) {
  CountingTimer timer("t");
  timeval fired_at{};
  timer.on_expired = [&] { fired_at = loop.now; };
  timer.startTimer(0, 1500000, 0, 0);
  EXPECT_EQ(expiry_of(timer), (timeval{1000, 1500000}));
  loop.run_until([&] { return timer.expired == 1; });
  EXPECT_EQ(fired_at, (timeval{1001, 500000}));
}

TEST_F(TimerClockTest, NegativeTimesKeepTheirSigns) {
  CountingTimer timer("t");
  timer.startTimerAbs(-5, -7, 0, 0);
  EXPECT_EQ(expiry_of(timer), (timeval{-5, -7}));
  loop.run_until([&] { return timer.expired == 1; });
}

TEST_F(TimerClockTest, NegativeDistanceIsDueAtOnce) {
  CountingTimer timer("t");
  timer.startTimer(-1, -500000, 0, 0);
  timeval left{};
  EXPECT_TRUE(timer.getExpiry(&left, nullptr));
  EXPECT_EQ(left, (timeval{-1, -500000}));
  loop.run_until([&] { return timer.expired == 1; });
  EXPECT_EQ(loop.now, START);
}

TEST_F(TimerClockTest, ExpiryIsTheDistanceFromTheGivenOrThePresentTime) {
  CountingTimer timer("t");
  timer.startTimer(2, 500000, 0, 0);
  timeval left{};
  EXPECT_TRUE(timer.getExpiry(&left, nullptr));
  EXPECT_EQ(left, (timeval{2, 500000}));
  const timeval later{1004, 750000};
  EXPECT_TRUE(timer.getExpiry(&left, &later));
  EXPECT_EQ(left, (timeval{-2, -250000}));
  EXPECT_TRUE(timer.getExpiry(nullptr, nullptr));
  loop.run_calls();
}

TEST_F(TimerClockTest, ExpiryOfAnIdleTimerLeavesTheOutputAlone) {
  const CountingTimer timer("t");
  timeval out{11, 12};
  EXPECT_FALSE(timer.getExpiryAbs(&out));
  EXPECT_FALSE(timer.getExpiry(&out, nullptr));
  EXPECT_EQ(out, (timeval{11, 12}));
}

TEST_F(TimerClockTest, DistanceBeyondAnIntSaturates) {
  CountingTimer timer("t");
  timer.startTimer(3 * 3600, 0, 0, 0);
  timeval left{};
  EXPECT_TRUE(timer.getExpiry(&left, nullptr));
  EXPECT_EQ(left, (timeval{INT_MAX / 1000000, INT_MAX % 1000000}));
  EXPECT_EQ(timer.compare(&START), INT_MAX);
  const timeval far{100000, 0};
  EXPECT_EQ(timer.compare(&far), INT_MIN);
  loop.run_calls();
}

TEST_F(TimerClockTest, CompareGivesMicroseconds) {
  CountingTimer a("a");
  CountingTimer b("b");
  a.startTimerAbs(1001, 0, 0, 0);
  b.startTimerAbs(1002, 500000, 0, 0);
  EXPECT_EQ(a.compare(b), -1500000);
  EXPECT_EQ(b.compare(a), 1500000);
  EXPECT_EQ(a.compare(&START), 1000000);
  EXPECT_TRUE(VrnPtrLess<VrnTimer>()(&a, &b));
  EXPECT_FALSE(VrnPtrLess<VrnTimer>()(&b, &a));
  EXPECT_FALSE(VrnPtrLess<VrnTimer>()(&a, &a));
  loop.run_calls();
}

TEST_F(TimerClockTest, TimersOfHoursFireOnceOnTimeAndInOrder) {
  if (!sys::gives_poll_the_table()) GTEST_SKIP() << "looks at what poll() is given";
  std::vector<std::pair<std::string, long>> fired;
  const auto note = [&](const char* name) {
    return [&fired, name, this] { fired.emplace_back(name, loop.now.tv_sec - START.tv_sec); };
  };
  CountingTimer three("three", note("three"));
  CountingTimer one("one", note("one"));
  CountingTimer two("two", note("two"));
  loop.on_dispatcher([&] {
    three.startTimer(3 * 3600, 0, 0, 0);
    one.startTimer(3600, 0, 0, 0);
    two.startTimer(2 * 3600, 0, 0, 0);
  });
  loop.run_until([&] { return three.expired == 1; });
  EXPECT_EQ(fired, (decltype(fired){{"one", 3600}, {"two", 7200}, {"three", 10800}}));
  // One wait covers up to half an hour; a few turns serve the test itself.
  EXPECT_LE(loop.timeouts.size(), 16U);
}

// ---- repeating ----

TEST_F(TimerClockTest, RepeatsFromTheTurnThatFiredIt) {
  CountingTimer timer("t");
  std::vector<timeval> due;
  std::vector<timeval> next;
  timer.on_expired = [&] {
    due.push_back(loop.now);
    next.push_back(expiry_of(timer));  // armed again before the call
    loop.pass(30000);                  // the callback takes its time
  };
  timer.startTimer(0, 100000, 0, 250000);
  loop.run_until([&] { return timer.expired == 3; });
  EXPECT_EQ(due, (std::vector<timeval>{{1000, 100000}, {1000, 350000}, {1000, 600000}}));
  EXPECT_EQ(next, (std::vector<timeval>{{1000, 350000}, {1000, 600000}, {1000, 850000}}));
}

TEST_F(TimerClockTest, LatenessAccumulates) {
  CountingTimer timer("t");
  std::vector<timeval> due;
  timer.on_expired = [&] {
    due.push_back(loop.now);
    if (timer.expired == 1) loop.pass(700000);  // over the next expiry
  };
  timer.startTimer(1, 0, 0, 500000);
  loop.run_until([&] { return timer.expired == 3; });
  EXPECT_EQ(due, (std::vector<timeval>{{1001, 0}, {1001, 700000}, {1002, 200000}}));
}

TEST_F(TimerClockTest, IntervalIsAddedWithoutNormalising) {
  CountingTimer timer("t");
  timeval next{};
  timer.on_expired = [&] { next = expiry_of(timer); };
  loop.use_own_clock({1000, 900000});
  timer.startTimer(0, 0, 1, 1700000);
  loop.run_until([&] { return timer.expired == 1; });
  EXPECT_EQ(next, (timeval{1001, 2600000}));
}

TEST_F(TimerTest, RepeatingTimerIsStoppedInItsCallback) {
  CountingTimer timer("t");
  bool idle_at_once = true;
  timer.on_expired = [&] { idle_at_once = timer.stopTimer(); };
  loop.on_dispatcher([&] { timer.startTimer(0, 0, 0, 1000); });
  loop.run_until([&] { return timer.stopped == 1; });
  EXPECT_FALSE(idle_at_once);
  EXPECT_EQ(timer.expired, 1);
  EXPECT_FALSE(is_set(timer));
}

TEST_F(TimerTest, OneShotTimerIsStartedAgainInItsCallback) {
  CountingTimer timer("t");
  timer.on_expired = [&] {
    EXPECT_FALSE(is_set(timer));
    if (timer.expired < 5) timer.startTimer(0, 0, 0, 0);
  };
  loop.on_dispatcher([&] { timer.startTimer(0, 0, 0, 0); });
  loop.run_until([&] { return timer.expired == 5; });
  EXPECT_EQ(timer.stopped, 0);
}

// ---- stopping and restarting ----

TEST_F(TimerTest, StopOfAnIdleTimerIsDoneAtOnce) {
  CountingTimer timer("t");
  loop.on_dispatcher([&] { EXPECT_TRUE(timer.stopTimer()); });
  loop.run_calls();
  EXPECT_TRUE(timer.stopTimer());
  EXPECT_EQ(timer.stopped, 0);
}

TEST_F(TimerTest, StopOnTheDispatcherThreadIsConfirmed) {
  CountingTimer timer("t");
  loop.on_dispatcher([&] { timer.startTimer(60, 0, 0, 0); });
  loop.on_dispatcher([&] {
    EXPECT_FALSE(timer.stopTimer());
    EXPECT_FALSE(is_set(timer));
    EXPECT_FALSE(timer.stopTimer());  // still under way
    EXPECT_EQ(timer.stopped, 0);
  });
  loop.run_until([&] { return timer.stopped > 0; });
  EXPECT_EQ(timer.stopped, 1);
  EXPECT_EQ(timer.expired, 0);
  EXPECT_TRUE(timer.stopTimer());
}

TEST_F(TimerTest, StopInTheTurnOfTheStartIsConfirmed) {
  CountingTimer timer("t");
  loop.on_dispatcher([&] {
    timer.startTimer(0, 0, 0, 0);
    EXPECT_FALSE(timer.stopTimer());
  });
  loop.run_until([&] { return timer.stopped == 1; });
  EXPECT_EQ(timer.expired, 0);
}

TEST_F(TimerTest, StopOnAnotherThreadIsDoneAtOnce) {
  CountingTimer timer("t");
  loop.on_dispatcher([&] { timer.startTimer(60, 0, 0, 0); });
  loop.on_dispatcher([&] { elsewhere([&] { EXPECT_TRUE(timer.stopTimer()); }); });
  loop.run_calls();
  EXPECT_EQ(timer.stopped, 0);
  EXPECT_EQ(timer.expired, 0);
  EXPECT_FALSE(is_set(timer));
}

// Another thread's stop overtakes the start that is still on its way.
TEST_F(TimerTest, StopOnAnotherThreadAlsoEndsAStartOnItsWay) {
  CountingTimer timer("t");
  CountingTimer distant("distant");
  loop.on_dispatcher([&] {
    timer.startTimer(0, 0, 0, 0);
    distant.startTimer(60, 0, 0, 0);
    elsewhere([&] {
      EXPECT_TRUE(timer.stopTimer());
      EXPECT_TRUE(distant.stopTimer());
    });
  });
  loop.on_dispatcher([] {});
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_EQ(timer.expired, 0);
  EXPECT_FALSE(log.contains("distant remains"));
}

TEST_F(TimerTest, DueTimerThatAnotherOneStopsDoesNotFire) {
  CountingTimer second("second");
  CountingTimer first("first", [&] { EXPECT_FALSE(second.stopTimer()); });
  loop.on_dispatcher([&] {
    first.startTimerAbs(1, 0, 0, 0);
    second.startTimerAbs(2, 0, 0, 0);
  });
  loop.run_until([&] { return second.stopped == 1; });
  EXPECT_EQ(first.expired, 1);
  EXPECT_EQ(second.expired, 0);
}

// A restart while the stop is under way: the newer expiry wins and the stop is not reported.
TEST_F(TimerTest, RestartedWhileStoppingFiresOnce) {
  CountingTimer timer("t");
  loop.on_dispatcher([&] {
    timer.startTimer(60, 0, 0, 0);
    timer.stopTimer();
    timer.startTimer(0, 0, 0, 0);
  });
  loop.run_until([&] { return timer.expired > 0; });
  EXPECT_EQ(timer.expired, 1);
  EXPECT_EQ(timer.stopped, 0);
}

TEST_F(TimerClockTest, RestartTellsAndTakesTheNewestTimes) {
  CountingTimer timer("t");
  timeval next{};
  timer.on_expired = [&] { next = expiry_of(timer); };
  loop.on_dispatcher([&] {
    timer.startTimerAbs(1060, 0, 0, 0);
    timer.stopTimer();
    timer.startTimerAbs(1005, 0, 9, 0);
    EXPECT_EQ(expiry_of(timer), (timeval{1005, 0}));
    timer.startTimerAbs(1003, 0, 7, 0);
    EXPECT_EQ(expiry_of(timer), (timeval{1003, 0}));
    timeval left{};
    EXPECT_TRUE(timer.getExpiry(&left, nullptr));
    EXPECT_EQ(left, (timeval{3, 0}));
  });
  loop.run_until([&] { return timer.expired == 1; });
  EXPECT_EQ(loop.now, (timeval{1003, 0}));
  EXPECT_EQ(next, (timeval{1010, 0}));
  EXPECT_EQ(timer.stopped, 0);
}

TEST_F(TimerTest, StopForgetsTheRestart) {
  CountingTimer timer("t");
  loop.on_dispatcher([&] {
    timer.startTimer(60, 0, 0, 0);
    EXPECT_FALSE(timer.stopTimer());
    timer.startTimer(0, 0, 0, 0);
    EXPECT_FALSE(timer.stopTimer());
    EXPECT_FALSE(is_set(timer));
  });
  loop.run_until([&] { return timer.stopped > 0; });
  EXPECT_EQ(timer.stopped, 1);
  EXPECT_EQ(timer.expired, 0);
}

TEST_F(TimerClockTest, StartOfAQueuedTimerReplacesItsTimes) {
  CountingTimer timer("t");
  loop.on_dispatcher([&] { timer.startTimer(60, 0, 0, 0); });
  loop.on_dispatcher([&] {
    timer.startTimer(2, 0, 0, 0);
    EXPECT_EQ(expiry_of(timer), (timeval{1002, 0}));
  });
  loop.run_until([&] { return timer.expired == 1; });
  EXPECT_EQ(loop.now, (timeval{1002, 0}));
  EXPECT_EQ(timer.stopped, 0);
}

TEST_F(TimerClockTest, StartOfAQueuedTimerOnAnotherThreadReplacesItsTimes) {
  CountingTimer timer("t");
  loop.on_dispatcher([&] { timer.startTimer(60, 0, 0, 0); });
  loop.on_dispatcher([&] { elsewhere([&] { timer.startTimer(2, 0, 0, 0); }); });
  loop.run_until([&] { return timer.expired == 1; });
  EXPECT_EQ(loop.now, (timeval{1002, 0}));
  EXPECT_EQ(timer.stopped, 0);
}

TEST_F(TimerTest, StartedAgainWhenTheStopIsReported) {
  CountingTimer timer("t");
  timer.on_stopped = [&] {
    EXPECT_FALSE(is_set(timer));
    timer.startTimer(0, 0, 0, 0);
  };
  loop.on_dispatcher([&] {
    timer.startTimer(60, 0, 0, 0);
    timer.stopTimer();
  });
  loop.run_until([&] { return timer.expired == 1; });
  EXPECT_EQ(timer.stopped, 1);
}

TEST_F(TimerTest, MayBeDestroyedWhenItsStopIsReported) {
  auto timer = std::make_unique<CountingTimer>("t");
  timer->on_stopped = [&] { timer.reset(); };
  loop.on_dispatcher([&] {
    timer->startTimer(60, 0, 0, 0);
    timer->stopTimer();
  });
  loop.run_until([&] { return !timer; });
}

TEST_F(TimerTest, MayBeDestroyedWhenItExpires) {
  auto timer = std::make_unique<CountingTimer>("t");
  timer->on_expired = [&] { timer.reset(); };
  loop.on_dispatcher([&] { timer->startTimer(0, 0, 0, 0); });
  loop.run_until([&] { return !timer; });
}

// Whichever timers are stopped, the others fire in the order of their times.
TEST_F(TimerTest, StopsLeaveTheOthersInOrder) {
  constexpr unsigned Count = 40;
  std::mt19937 random(1);
  std::vector<int> fired;
  std::vector<std::unique_ptr<CountingTimer>> timers;
  for (int round = 0; round < 300; ++round) {
    loop.on_dispatcher([&] {
      elsewhere([&] {
        timers.clear();
        for (unsigned i = 0; i < Count; ++i) {
          const auto due = static_cast<int>(random() % 1000);
          timers.emplace_back(new CountingTimer("t", [&fired, due] { fired.push_back(due); }));
          timers.back()->startTimerAbs(1, due, 0, 0);
        }
        for (unsigned i = 0; i < Count / 2; ++i) timers[random() % Count]->stopTimer();
      });
    });
    loop.on_dispatcher([&] {
      EXPECT_GE(fired.size(), Count / 2);
      EXPECT_TRUE(std::is_sorted(fired.begin(), fired.end()));
      fired.clear();
    });
  }
  loop.run_calls();
}

// A walk over the queue would make each of these stops cost a hundred times as much.
TEST_F(TimerTest, CostOfAStopHardlyGrowsWithTheQueue) {
  using Clock = std::chrono::steady_clock;
  const auto cost_among = [](int count) {
    std::vector<std::unique_ptr<CountingTimer>> timers;
    for (int i = 0; i < count; ++i) {
      timers.emplace_back(new CountingTimer("t"));
      timers.back()->startTimerAbs(2000000000 + i * 7919 % count, 0, 0, 0);
    }
    auto best = Clock::duration::max();
    const std::size_t step = timers.size() / 500;
    for (std::size_t round = 0; round < 5; ++round) {
      const auto start = Clock::now();
      for (std::size_t i = round * 100; i < round * 100 + 100; ++i) timers[i * step]->stopTimer();
      best = std::min(best, Clock::now() - start);
    }
    return best;
  };
  elsewhere([&] {
    const auto few = cost_among(500);
    const auto many = cost_among(100000);
    EXPECT_LT(many, 40 * few);
  });
}

// ---- locks ----

TEST_F(TimerTest, LockIsTheTimersOwn) {
  const CountingTimer timer("t");
  EXPECT_EQ(timer.lock(), 1);
  EXPECT_EQ(timer.unlock(), 0);
}

TEST_F(TimerTest, HolderOfTheLockPassesIt) {
  CountingTimer timer("t");
  loop.on_dispatcher([&] {
    timer.lock();
    timer.startTimer(60, 0, 0, 0, true);
    EXPECT_TRUE(timer.getExpiry(nullptr, nullptr, true));
    timer.startTimerAbs(60, 0, 0, 0, true);
    EXPECT_TRUE(timer.getExpiryAbs(nullptr, true));
    EXPECT_FALSE(timer.stopTimer(true));
    timer.unlock();
  });
  loop.run_until([&] { return timer.stopped == 1; });
}

TEST_F(TimerTest, OperationsTakeTheLockOtherwise) {
  CountingTimer timer("t");
  const auto waits_for_the_lock = [&](const Call& operation) {
    std::atomic<bool> begun{false};
    std::atomic<bool> done{false};
    timer.lock();
    std::thread user([&] {
      begun = true;
      operation();
      done = true;
    });
    while (!begun) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));  // room for a wrong success
    const bool waited = !done;
    timer.unlock();
    user.join();
    return waited && done;
  };
  EXPECT_TRUE(waits_for_the_lock([&] { timer.startTimer(60, 0, 0, 0); }));
  EXPECT_TRUE(waits_for_the_lock([&] { timer.startTimerAbs(60, 0, 0, 0); }));
  EXPECT_TRUE(waits_for_the_lock([&] { timer.getExpiry(nullptr, nullptr); }));
  EXPECT_TRUE(waits_for_the_lock([&] { timer.getExpiryAbs(nullptr); }));
  EXPECT_TRUE(waits_for_the_lock([&] { timer.stopTimer(); }));
}

TEST_F(TimerTest, CallbacksRunWithoutTheLock) {
  CountingTimer timer("t");
  const auto lock_is_free = [&] {
    EXPECT_EQ(timer.lock(), 1);
    EXPECT_EQ(timer.unlock(), 0);
  };
  timer.on_stopped = lock_is_free;
  timer.on_expired = [&] {
    lock_is_free();
    timer.stopTimer();
  };
  loop.on_dispatcher([&] { timer.startTimer(0, 0, 60, 0); });
  loop.run_until([&] { return timer.stopped == 1; });
  EXPECT_EQ(timer.expired, 1);
}

// ---- copies ----

TEST_F(TimerClockTest, CopyOfAnIdleTimerIsIdle) {
  const CountingTimer timer("t");
  EXPECT_FALSE(is_set(CountingTimer(timer)));
}

TEST_F(TimerClockTest, CopyOfAQueuedTimerFiresLikeIt) {
  CountingTimer timer("t");
  timer.startTimer(2, 0, 3, 0);
  CountingTimer copy(timer);
  EXPECT_EQ(expiry_of(copy), (timeval{1002, 0}));
  timeval next{};
  copy.on_expired = [&] { next = expiry_of(copy); };
  loop.run_until([&] { return copy.expired == 1; });
  EXPECT_EQ(timer.expired, 1);
  EXPECT_EQ(next, (timeval{1005, 0}));
}

TEST_F(TimerClockTest, AssignedFromARestartTakesThePendingTimes) {
  CountingTimer source("source");
  CountingTimer target("target");
  loop.on_dispatcher([&] {
    source.startTimerAbs(1060, 0, 0, 0);
    source.stopTimer();
    source.startTimerAbs(1004, 0, 5, 0);
    static_cast<VrnTimer&>(target) = source;
    EXPECT_EQ(expiry_of(target), (timeval{1004, 0}));
  });
  timeval next{};
  target.on_expired = [&] { next = expiry_of(target); };
  loop.run_until([&] { return target.expired == 1; });
  EXPECT_EQ(next, (timeval{1009, 0}));
  EXPECT_STREQ(target.tmrtag(), "target");
}

TEST_F(TimerClockTest, AssignedFromAnIdleOrStoppingTimerStops) {
  CountingTimer idle("idle");
  CountingTimer stopping("stopping");
  CountingTimer first("first");
  CountingTimer second("second");
  loop.on_dispatcher([&] {
    stopping.startTimer(60, 0, 0, 0);
    stopping.stopTimer();
    first.startTimer(60, 0, 0, 0);
    second.startTimer(60, 0, 0, 0);
    static_cast<VrnTimer&>(first) = idle;
    static_cast<VrnTimer&>(second) = stopping;
    EXPECT_FALSE(is_set(first));
    EXPECT_FALSE(is_set(second));
  });
  loop.run_until([&] { return first.stopped == 1 && second.stopped == 1; });
}

TEST_F(TimerClockTest, AssignedToItselfStaysAsItIs) {
  CountingTimer timer("t");
  VrnTimer& same = timer;
  timer.startTimer(2, 0, 0, 0);
  static_cast<VrnTimer&>(timer) = same;
  EXPECT_EQ(expiry_of(timer), (timeval{1002, 0}));
  loop.run_until([&] { return timer.expired == 1; });
}

// ---- the event manager's side ----

TEST_F(TimerTest, TriggerOfATimerThatIsNotQueuedDoesNothing) {
  CountingTimer timer("t");
  timer.triggerTimer(&START);
  EXPECT_EQ(timer.expired, 0);
  loop.on_dispatcher([&] {
    timer.startTimer(60, 0, 0, 0);
    timer.stopTimer();
    timer.triggerTimer(&START);
    timer.startTimer(60, 0, 0, 0);
    timer.triggerTimer(&START);
    EXPECT_EQ(timer.expired, 0);
    EXPECT_FALSE(timer.stopTimer());
  });
  loop.run_until([&] { return timer.stopped == 1; });
}

TEST_F(TimerTest, CancellationOfATimerThatDoesNotStopIsRefused) {
  CountingTimer timer("t");
  EXPECT_EQ(failure_of([&] { timer.timerCancelled(); }),
            (Failure{3, "VrnTimer: Invalid state=1 in Unregistered callback"}));
  elsewhere([&] { timer.startTimer(60, 0, 0, 0); });
  EXPECT_EQ(failure_of([&] { timer.timerCancelled(); }),
            (Failure{3, "VrnTimer: Invalid state=2 in Unregistered callback"}));
  EXPECT_EQ(timer.stopped, 0);
  elsewhere([&] { timer.stopTimer(); });
}

TEST_F(TimerTest, RefusedCancellationIsLogged) {
  CountingTimer timer("t");
  errno = 0;
  loop.mgr->syncstopTimer(&timer, true);
  EXPECT_TRUE(
      log.contains("EvtMgr: timerCancelled threw [VrnException: Error=3 (errno=0) - VrnTimer: "
                   "Invalid state=1 in Unregistered callback]"));
}

TEST_F(TimerTest, ExceptionFromTimerStoppedIsLogged) {
  CountingTimer timer("t");
  timer.on_stopped = [] { throw std::string("bad stop"); };
  loop.on_dispatcher([&] {
    timer.startTimer(60, 0, 0, 0);
    timer.stopTimer();
  });
  loop.run_until([&] { return timer.stopped == 1; });
  EXPECT_TRUE(log.contains("EvtMgr: timerCancelled threw [string=bad stop]"));
}

TEST_F(TimerTest, DirectStopOfATimerThatIsNotQueuedDoesNothing) {
  CountingTimer timer("t");
  loop.mgr->syncstopTimer(&timer, false);
  elsewhere([&] { EXPECT_TRUE(loop.mgr->stopTimer(&timer)); });
  EXPECT_EQ(timer.stopped, 0);
}

TEST_F(TimerTest, StoppedManagerRefusesATimerWhichStaysSet) {
  CountingTimer timer("t");
  loop.mgr->syncstopDispatcher();
  EXPECT_FALSE(loop.mgr->syncstartTimer(&timer));
  elsewhere([&] { timer.startTimer(0, 0, 0, 0); });
  EXPECT_TRUE(is_set(timer));
  loop.run();
  EXPECT_EQ(timer.expired, 0);
  EXPECT_FALSE(log.contains("remains"));
  EXPECT_TRUE(timer.stopTimer());
}

TEST_F(TimerTest, StopsAtOnceWhenTheLoopHasEnded) {
  CountingTimer timer("t");
  loop.on_dispatcher([&] { timer.startTimer(60, 0, 0, 0); });
  loop.run_calls();
  EXPECT_TRUE(timer.stopTimer());
  EXPECT_EQ(timer.stopped, 0);
  timer.startTimer(60, 0, 0, 0);  // refused, and stoppable all the same
}

TEST_F(TimerTest, MayOutliveTheEventManager) {
  CountingTimer timer("t");
  elsewhere([&] { timer.startTimer(60, 0, 0, 0); });
  VrnEvtMgr::destroy();
  VrnAppShell::evtmgr = nullptr;
  EXPECT_TRUE(timer.stopTimer());
}

// ---- misuse ----

TEST_F(TimerTest, StartWithoutAnEventManagerIsRefused) {
  CountingTimer timer("lonely");
  VrnAppShell::evtmgr = nullptr;
  const Failure failure{3, "VrnTimer: No Event Manager for lonely"};
  EXPECT_EQ(failure_of([&] { timer.startTimer(1, 0, 0, 0); }), failure);
  EXPECT_EQ(failure_of([&] { timer.startTimerAbs(1, 0, 0, 0); }), failure);
  EXPECT_FALSE(is_set(timer));
  EXPECT_EQ(timer.lock(), 1);  // given back by the failure
  timer.unlock();
  VrnAppShell::evtmgr = loop.mgr;
}

TEST_F(TimerTest, NullIsRefusedByName) {
  CountingTimer timer("t");
  EXPECT_EQ(failure_of([&] { loop.mgr->startTimer(nullptr); }),
            (Failure{3, "EvtMgr: Null timer to start"}));
  EXPECT_EQ(failure_of([&] { loop.mgr->stopTimer(nullptr); }),
            (Failure{3, "EvtMgr: Null timer to stop"}));
  EXPECT_EQ(failure_of([&] { loop.mgr->syncstartTimer(nullptr); }),
            (Failure{3, "EvtMgr: Null timer to start"}));
  EXPECT_EQ(failure_of([&] { loop.mgr->syncstopTimer(nullptr, true); }),
            (Failure{3, "EvtMgr: Null timer to stop"}));
  EXPECT_EQ(failure_of([&] { timer.compare(static_cast<const timeval*>(nullptr)); }),
            (Failure{3, "VrnTimer: Null time to compare with t"}));
  EXPECT_EQ(failure_of([&] { timer.triggerTimer(nullptr); }),
            (Failure{3, "VrnTimer: Null time to trigger t"}));
}

TEST_F(TimerDeathTest, DestroyedWhileItsStopIsUnderWay) {
  const auto destroy_while_stopping = [&] {
    loop.on_dispatcher([] {
      CountingTimer timer("t");
      timer.startTimer(60, 0, 0, 0);
      timer.stopTimer();
    });
    loop.run_calls();
    std::exit(0);
  };
  EXPECT_EXIT(destroy_while_stopping(), testing::ExitedWithCode(1),
              "VrnTimer destroyed while active - ABORT APP !");
}

TEST_F(TimerDeathTest, DestroyedWhileQueuedOnTheDispatcherThread) {
  const auto destroy_while_queued = [&] {
    auto timer = std::make_unique<CountingTimer>("t");
    loop.on_dispatcher([&] { timer->startTimer(60, 0, 0, 0); });
    loop.on_dispatcher([&] { timer.reset(); });
    loop.run_calls();
    std::exit(0);
  };
  EXPECT_EXIT(destroy_while_queued(), testing::ExitedWithCode(1),
              "VrnTimer destroyed while active - ABORT APP !");
}

TEST(TimerStopDeathTest, StopThatThrowsInTheDestructorEndsTheProcess) {
  const LogCapture log;
  StandInManager manager;
  const auto start_and_destroy = [&] {
    CountingTimer timer("t");
    timer.startTimer(60, 0, 0, 0);
    manager.on_stop_timer = []() -> bool { throw VrnException(3, "refused"); };
  };
  EXPECT_EXIT(start_and_destroy(), testing::ExitedWithCode(1),
              "VrnTimer: Failed to stop t \\[VrnException: Error=3 .* - refused\\]\n"
              ".*VrnTimer destroyed while active - ABORT APP !\n");
}

TEST_F(TimerTest, DestroyedWhileQueuedOnAnotherThreadLeavesTheQueue) {
  auto timer = std::make_unique<CountingTimer>("t");
  loop.on_dispatcher([&] { timer->startTimer(60, 0, 0, 0); });
  loop.on_dispatcher([&] { elsewhere([&] { timer.reset(); }); });
  loop.run_calls();
  EXPECT_FALSE(log.contains("remains"));
}

}  // namespace
}  // namespace vornfc
