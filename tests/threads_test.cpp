// The event manager under the hands of several threads. The loop runs on the test's own thread with
// the system's poll(), so whoever wants something of it while it sleeps has to wake it.

#include "support/loop.h"
#include "support/polling.h"
#include "support/sanitizers.h"
#include "support/wait_for.h"
#include "vornfc/appshell.h"
#include "vornfc/async_rcvr.h"
#include "vornfc/async_rdr.h"
#include "vornfc/evtmgr_native.h"
#include "vornfc/file.h"
#include "vornfc/timer.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <deque>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace vornfc {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int threads = 8;
#ifdef VORNFC_TEST_TSAN
constexpr int rounds = 300;  // of each thread
#else
constexpr int rounds = 3000;
#endif

void in_threads(int count, const std::function<void(int)>& call) {
  std::vector<std::thread> all;
  all.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) all.emplace_back(call, i);
  for (std::thread& thread : all) thread.join();
}

class ThreadsTest : public testing::Test {
 public:
  ThreadsTest() : mgr(VrnEvtMgr::instance(0)) {
    VrnAppShell::evtmgr = mgr;
    sys::set_poll(&stand_in);
  }
  ~ThreadsTest() override {
    sys::set_poll(nullptr);
    VrnEvtMgr::destroy();
  }

 protected:
  // Runs the loop on this thread and `calls` on another; the loop is stopped when these return.
  void run_while(const Call& calls) {
    std::thread other([&] {
      EXPECT_TRUE(wait_for([&] { return polls > 0; }));
      calls();
      mgr->stopDispatcher();
    });
    mgr->startDispatcher();
    other.join();
  }

  // Returns when the loop is waiting in poll().
  void let_it_sleep() {
    EXPECT_TRUE(wait_for([&] { return asleep.load(); }));
    std::this_thread::sleep_for(milliseconds(3));  // from the flag to the system call
  }

  // Returns after some more turns of a loop that has something to do.
  void let_it_turn() {
    const int so_far = polls;
    EXPECT_TRUE(wait_for([&] { return polls > so_far + 3; }));
  }

  // The shortest of several times from `call`, made while the loop sleeps, to `answered`.
  milliseconds best_time(const Call& call, const Condition& answered,
                         const Call& prepare = nullptr) {
    auto best = milliseconds(60000);
    for (int i = 0; i < 10; ++i) {
      if (prepare) prepare();
      let_it_sleep();
      const auto start = steady_clock::now();
      call();
      EXPECT_TRUE(wait_for(answered));
      best = std::min(best, std::chrono::duration_cast<milliseconds>(steady_clock::now() - start));
    }
    return best;
  }

  // The descriptors that are open now and were not before there was a manager.
  std::vector<int> opened_by_manager() const {
    std::vector<int> opened;
    const std::vector<int> now = open_descriptors();
    std::set_difference(now.begin(), now.end(), open_before.begin(), open_before.end(),
                        std::back_inserter(opened));
    return opened;
  }

  const std::vector<int> open_before = open_descriptors();
  VrnEvtMgr* const mgr;
  std::atomic<int> polls{0};
  std::atomic<bool> asleep{false};
  std::function<void(pollfd*, nfds_t)> before_poll;

 private:
  // A wake that is lost costs seconds, and no more, so that the test can tell.
  static constexpr int longest_wait = 2000;

  sys::Poll stand_in = [this](pollfd* entries, nfds_t count, int timeout) {
    ++polls;
    if (before_poll) before_poll(entries, count);
    const int wait = timeout < 0 ? longest_wait : std::min(timeout, longest_wait);
    asleep = wait >= 1000;
    const int ready = sys::system_poll(entries, count, wait);
    const int error = errno;
    asleep = false;
    errno = error;
    return ready;
  };
};

constexpr milliseconds prompt{10};

// ---- a sleeping loop is woken ----

TEST_F(ThreadsTest, TimerStartedElsewhereFiresPromptly) {
  std::atomic<int> expired{0};
  CountingTimer timer("t", [&] { ++expired; });
  run_while([&] {
    int before = 0;
    EXPECT_LT(best_time([&] { timer.startTimer(0, 0, 0, 0); }, [&] { return expired > before; },
                        [&] { before = expired; }),
              prompt);
  });
}

TEST_F(ThreadsTest, EarlierTimerStartedElsewhereShortensTheWait) {
  std::atomic<int> expired{0};
  CountingTimer later("later");
  CountingTimer timer("t", [&] { ++expired; });
  run_while([&] {
    later.startTimer(60, 0, 0, 0);
    int before = 0;
    EXPECT_LT(best_time([&] { timer.startTimer(0, 1000, 0, 0); }, [&] { return expired > before; },
                        [&] { before = expired; }),
              prompt);
    EXPECT_TRUE(later.stopTimer());
  });
  EXPECT_EQ(later.expired, 0);
}

TEST_F(ThreadsTest, WatchStartedElsewhereIsCalledPromptly) {
  Connection connection;
  std::atomic<int> ready{0};
  RecordingAIO reader(RecordingAIO::Input, "reader", [&](VrnFile* file) {
    char byte;
    EXPECT_EQ(read(file->fd, &byte, 1), 1);
    ++ready;
  });
  run_while([&] {
    int before = 0;
    EXPECT_LT(best_time([&] { EXPECT_TRUE(mgr->startAIO(&connection.file, &reader)); },
                        [&] { return ready > before; },
                        [&] {
                          EXPECT_TRUE(mgr->stopAIO(&connection.file, &reader));
                          before = ready;
                          connection.send("x");
                        }),
              prompt);
    EXPECT_TRUE(mgr->stopAIO(&connection.file, &reader));
  });
}

TEST_F(ThreadsTest, OutputWatchAddedElsewhereToAWatchedFileIsCalledPromptly) {
  Connection connection;
  std::atomic<int> ready{0};
  RecordingAIO reader(RecordingAIO::Input, "reader");
  RecordingAIO writer(RecordingAIO::Output, "writer", [&](VrnFile* file) {
    ++ready;
    mgr->stopAIO(file, &writer);
  });
  std::atomic<int> cancelled{0};
  writer.on_cancelled = [&] { ++cancelled; };
  run_while([&] {
    EXPECT_TRUE(mgr->startAIO(&connection.file, &reader));
    int before = 0;
    EXPECT_LT(best_time([&] { EXPECT_TRUE(mgr->startAIO(&connection.file, &writer)); },
                        [&] { return ready > before; },
                        [&] {
                          EXPECT_TRUE(wait_for([&] { return cancelled == ready; }));
                          before = ready;
                        }),
              prompt);
    EXPECT_TRUE(wait_for([&] { return cancelled == ready; }));
    EXPECT_TRUE(mgr->stopAIO(&connection.file, &reader));
  });
}

TEST_F(ThreadsTest, FileStartedElsewhereReachesItsReceiverPromptly) {
  Connection connection;
  std::atomic<int> ready{0};
  RecordingReceiver receiver("receiver");
  receiver.on_ready = [&](VrnFile* file) {
    char byte;
    EXPECT_EQ(read(file->fd, &byte, 1), 1);
    ++ready;
  };
  run_while([&] {
    int before = 0;
    EXPECT_LT(
        best_time([&] { receiver.aioStart(&connection.file); }, [&] { return ready > before; },
                  [&] {
                    EXPECT_TRUE(receiver.aioStop(&connection.file));
                    before = ready;
                    connection.send("x");
                  }),
        prompt);
    EXPECT_EQ(receiver.aioTerminate(), 0);
  });
}

TEST_F(ThreadsTest, LoopStoppedElsewhereEndsPromptly) {
  steady_clock::time_point start;
  std::thread stopper([&] {
    let_it_sleep();
    start = steady_clock::now();
    mgr->stopDispatcher();
  });
  mgr->startDispatcher();
  const auto end = steady_clock::now();
  stopper.join();
  EXPECT_LT(end - start, milliseconds(500));  // one try: a manager's loop is stopped once
}

TEST_F(ThreadsTest, WatchStoppedElsewhereIsNotCalledAnyMore) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  run_while([&] {
    EXPECT_TRUE(mgr->startAIO(&connection.file, &reader));
    for (int i = 0; i < 50; ++i) {
      let_it_sleep();
      EXPECT_TRUE(mgr->stopAIO(&connection.file, &reader));
      connection.send("x");  // poll() may still be waiting for this
      // It is served by the loop, which has therefore seen whatever poll() returned.
      std::promise<void> turn;
      CountingTimer timer("turn", [&] { turn.set_value(); });
      timer.startTimer(0, 0, 0, 0);
      turn.get_future().wait();
      EXPECT_TRUE(timer.stopTimer());
      char byte;
      EXPECT_EQ(read(connection.file.fd, &byte, 1), 1);
      EXPECT_TRUE(mgr->startAIO(&connection.file, &reader));
    }
    EXPECT_TRUE(mgr->stopAIO(&connection.file, &reader));
  });
  EXPECT_EQ(reader.ready, 0);
  EXPECT_TRUE(reader.cancelled.empty());
}

TEST_F(ThreadsTest, WatchStoppedElsewhereLeavesNoBusyLoop) {
  Connection connection;
  CountingTimer keeps_running("t");
  RecordingAIO writer(RecordingAIO::Output, "writer", [](VrnFile*) {});
  run_while([&] {
    EXPECT_TRUE(mgr->startAIO(&connection.file, &writer));  // always ready: turn after turn
    EXPECT_TRUE(wait_for([&] { return polls > 100; }));
    EXPECT_TRUE(mgr->stopAIO(&connection.file, &writer));
    let_it_sleep();
    const int so_far = polls;
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_LE(polls, so_far + 10);  // a busy loop makes thousands
  });
}

TEST_F(ThreadsTest, TimerStoppedElsewhereDoesNotFire) {
  CountingTimer timer("t");
  run_while([&] {
    for (int i = 0; i < 50; ++i) {
      timer.startTimer(0, 20000, 0, 0);
      EXPECT_TRUE(timer.stopTimer());
    }
    std::this_thread::sleep_for(milliseconds(50));
  });
  EXPECT_EQ(timer.expired, 0);
  EXPECT_EQ(timer.stopped, 0);
}

// Only the next timer of all concerns a waiting loop.
TEST_F(ThreadsTest, LaterTimersDoNotWakeTheLoop) {
  CountingTimer first("first");
  std::vector<std::unique_ptr<CountingTimer>> later;
  run_while([&] {
    first.startTimer(30, 0, 0, 0);
    let_it_sleep();
    const int so_far = polls;
    for (int i = 0; i < 100; ++i) {
      later.push_back(std::make_unique<CountingTimer>("later"));
      later.back()->startTimer(60, 0, 0, 0);
      std::this_thread::sleep_for(microseconds(100));
    }
    EXPECT_LE(polls, so_far + 5);
    for (const auto& timer : later) EXPECT_TRUE(timer->stopTimer());
    EXPECT_TRUE(first.stopTimer());
  });
}

// ---- signals ----

class SignalThreadsTest : public ThreadsTest {
 protected:
  SignalThreadsTest() {
    handler.on_received = [this] {
      delivered_at = steady_clock::now();
      ++delivered;
    };
    // From another thread, so that it is done at once.
    elsewhere([this] { EXPECT_EQ(mgr->startSignal(&handler, SIGUSR1), nullptr); });
  }

  void expect_delivery(int count) {
    EXPECT_TRUE(wait_for([&] { return delivered >= count; }));
  }

  RecordingHandler handler;
  std::atomic<int> delivered{0};
  std::atomic<steady_clock::time_point> delivered_at{};
};

constexpr milliseconds signal_limit{5};

TEST_F(SignalThreadsTest, SignalRightBeforePollIsDeliveredPromptly) {
  std::atomic<int> raised{0};
  std::atomic<bool> raise_now{false};
  auto best = std::chrono::nanoseconds(std::chrono::seconds(60));
  std::atomic<steady_clock::time_point> raised_at{};
  before_poll = [&](pollfd*, nfds_t) {
    if (!raise_now.exchange(false)) return;
    raised_at = steady_clock::now();
    raise(SIGUSR1);
    ++raised;
  };
  CountingTimer next_turn("t");
  run_while([&] {
    for (int i = 1; i <= 10; ++i) {
      let_it_sleep();
      raise_now = true;
      next_turn.startTimer(0, 0, 0, 0);  // ends this wait; the signal falls before the next one
      expect_delivery(i);
      best = std::min(best, std::chrono::nanoseconds(delivered_at.load() - raised_at.load()));
    }
    EXPECT_TRUE(next_turn.stopTimer());
  });
  EXPECT_EQ(raised, 10);
  EXPECT_LT(best, signal_limit);
}

TEST_F(SignalThreadsTest, SignalOfTheSleepingDispatcherIsDeliveredPromptly) {
  const pthread_t dispatcher = pthread_self();
  run_while([&] {
    int before = 0;
    EXPECT_LT(best_time([&] { pthread_kill(dispatcher, SIGUSR1); },
                        [&] { return delivered > before; }, [&] { before = delivered; }),
              signal_limit);
  });
}

TEST_F(SignalThreadsTest, SignalThatAnotherThreadGetsIsDeliveredPromptly) {
  run_while([&] {
    int before = 0;
    EXPECT_LT(best_time([&] { pthread_kill(pthread_self(), SIGUSR1); },
                        [&] { return delivered > before; }, [&] { before = delivered; }),
              signal_limit);
  });
}

// Any thread that does not block the signal gets it.
TEST_F(ThreadsTest, SignalIsDeliveredThoughTheDispatcherBlocksIt) {
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  std::atomic<int> delivered{0};
  RecordingHandler handler;
  handler.on_received = [&] { ++delivered; };
  std::promise<void> registered;
  std::thread other([&] {  // its mask is the one from before
    registered.get_future().wait();
    mgr->startSignal(&handler, SIGUSR1);
    int before = 0;
    EXPECT_LT(best_time([&] { kill(getpid(), SIGUSR1); }, [&] { return delivered > before; },
                        [&] { before = delivered; }),
              signal_limit);
    mgr->stopDispatcher();
  });
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  registered.set_value();
  mgr->startDispatcher();
  other.join();
  EXPECT_EQ(delivered, 10);
}

// More of them than the registrar's pipe has room for.
TEST_F(SignalThreadsTest, HandlerKeepsErrnoAlsoWhenThePipeIsFull) {
  for (int i = 0; i < 5000; ++i) {
    errno = 12345;
    raise(SIGUSR1);
    ASSERT_EQ(errno, 12345);
  }
  run_while([&] { expect_delivery(1); });
  EXPECT_EQ(handler.received.size(), 1U);
}

TEST_F(SignalThreadsTest, SignalsFromManyThreadsAreAllSeen) {
  std::atomic<int> other_delivered{0};
  RecordingHandler other("other");
  other.on_received = [&] { ++other_delivered; };
  run_while([&] {
    in_threads(threads, [&](int number) {
      for (int i = 0; i < rounds; ++i) {
        if (number == 0) {
          mgr->startSignal(&other, SIGUSR2);
          raise(SIGUSR2);
          mgr->stopSignal(&other, SIGUSR2, true);
        } else {
          raise(SIGUSR1);
        }
      }
    });
    expect_delivery(1);
    const int so_far = delivered;
    raise(SIGUSR1);
    expect_delivery(so_far + 1);
  });
}

// ---- a stop and the callback that runs meanwhile ----

TEST_F(ThreadsTest, StopOfATimerWaitsForItsCallback) {
  std::promise<void> entered;
  std::atomic<bool> left{false};
  CountingTimer timer("t", [&] {
    entered.set_value();
    std::this_thread::sleep_for(milliseconds(30));
    left = true;
  });
  run_while([&] {
    timer.startTimer(0, 0, 0, 0);
    entered.get_future().wait();
    EXPECT_TRUE(timer.stopTimer());
    EXPECT_TRUE(left);
  });
}

TEST_F(ThreadsTest, StopOfAWatchWaitsForItsCallback) {
  Connection connection;
  std::promise<void> entered;
  std::atomic<bool> left{false};
  RecordingAIO reader(RecordingAIO::Input, "reader", [&](VrnFile*) {
    entered.set_value();
    std::this_thread::sleep_for(milliseconds(30));
    left = true;
  });
  connection.send("x");
  run_while([&] {
    mgr->startAIO(&connection.file, &reader);
    entered.get_future().wait();
    EXPECT_TRUE(mgr->stopAIO(&connection.file, &reader));
    EXPECT_TRUE(left);
  });
  EXPECT_EQ(reader.ready, 1);
}

// A callback that another thread sees the middle of.
struct Slow {
  void run() {
    entered.set_value();
    std::this_thread::sleep_for(milliseconds(30));
    left = true;
  }
  std::promise<void> entered;
  std::atomic<bool> left{false};
};

class SlowReceiver : public VrnAsyncReceiver {
 public:
  SlowReceiver() : VrnAsyncReceiver("receiver") {}
  void aioReady(VrnFile* file) override {
    char byte;
    EXPECT_EQ(read(file->fd, &byte, 1), 1);
    call.run();
  }
  void aioRemoved(VrnFile*, bool, bool) override {}
  Slow call;
};

TEST_F(ThreadsTest, StopOfAReceiverWaitsForItsCallback) {
  Connection connection, other;
  SlowReceiver receiver, other_receiver;
  connection.send("x");
  other.send("x");
  run_while([&] {
    receiver.aioStart(&connection.file);
    receiver.call.entered.get_future().wait();
    EXPECT_TRUE(receiver.aioStop(&connection.file));
    EXPECT_TRUE(receiver.call.left);
    other_receiver.aioStart(&other.file);
    other_receiver.call.entered.get_future().wait();
    EXPECT_EQ(other_receiver.aioTerminate(), 0);
    EXPECT_TRUE(other_receiver.call.left);
  });
}

class SlowReader : public VrnAsyncReader {
 public:
  SlowReader() : VrnAsyncReader("reader") {}
  void aioReceived(VrnFile*, int, char*) override { call.run(); }
  void aioReadable(VrnFile*) override {}
  void aioRemoved(VrnFile*, bool, bool) override {}
  char buffer[8];
  Slow call;
};

TEST_F(ThreadsTest, StopOfAReaderWaitsForItsCallback) {
  Connection connection, other;
  SlowReader reader, other_reader;
  connection.send("x");
  other.send("x");
  run_while([&] {
    reader.aioRequest(&connection.file, 1, reader.buffer);
    reader.call.entered.get_future().wait();
    EXPECT_TRUE(reader.aioStop(&connection.file));
    EXPECT_TRUE(reader.call.left);
    other_reader.aioRequest(&other.file, 1, other_reader.buffer);
    other_reader.call.entered.get_future().wait();
    EXPECT_EQ(other_reader.aioTerminate(), 0);
    EXPECT_TRUE(other_reader.call.left);
  });
}

// The stop gives the callback a moment and then returns without it.
class DeadlockTest : public ThreadsTest {
 protected:
  // `start` makes the callback happen, which has to call wait_for_stop().
  void expect_no_deadlock(const Call& start, const Call& stop) {
    run_while([&] {
      start();
      entered.get_future().wait();
      const auto begin = steady_clock::now();
      stop();
      const auto taken = steady_clock::now() - begin;
      EXPECT_LT(taken, milliseconds(1000));
      stopped.set_value();
    });
    EXPECT_TRUE(stop_returned);
  }

  void wait_for_stop() {
    entered.set_value();
    stop_returned = returned.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
  }

  std::promise<void> entered, stopped;
  std::future<void> returned = stopped.get_future();
  bool stop_returned = false;
};

TEST_F(DeadlockTest, CallbackOfATimerMayWaitForTheThreadThatStopsIt) {
  CountingTimer timer("t", [&] { wait_for_stop(); });
  expect_no_deadlock([&] { timer.startTimer(0, 0, 0, 0); },
                     [&] { EXPECT_TRUE(timer.stopTimer()); });
}

TEST_F(DeadlockTest, CallbackOfAWatcherMayWaitForTheThreadThatStopsIt) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader", [&](VrnFile*) { wait_for_stop(); });
  connection.send("x");
  expect_no_deadlock([&] { mgr->startAIO(&connection.file, &reader); },
                     [&] { EXPECT_TRUE(mgr->stopAIO(&connection.file, &reader)); });
}

TEST_F(DeadlockTest, CallbackOfAReceiverMayWaitForTheThreadThatStopsIt) {
  Connection connection;
  RecordingReceiver receiver("receiver");
  receiver.on_ready = [&](VrnFile*) { wait_for_stop(); };
  connection.send("x");
  expect_no_deadlock([&] { receiver.aioStart(&connection.file); },
                     [&] { EXPECT_TRUE(receiver.aioStop(&connection.file)); });
}

TEST_F(DeadlockTest, CallerThatHoldsTheLockDoesNotWaitAtAll) {
  CountingTimer timer("t", [&] { wait_for_stop(); });
  milliseconds taken{};
  expect_no_deadlock([&] { timer.startTimer(0, 0, 0, 0); },
                     [&] {
                       timer.lock();
                       const auto begin = steady_clock::now();
                       EXPECT_TRUE(timer.stopTimer(true));
                       taken =
                           std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
                       timer.unlock();
                     });
  EXPECT_LT(taken, milliseconds(90));  // less than the moment that a stop gives
}

// A callback may use the manager while another thread waits for its end.
TEST_F(ThreadsTest, NoLockOfTheManagerIsHeldInACallback) {
  std::promise<void> entered;
  CountingTimer other("other");
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  std::atomic<bool> done{false};
  CountingTimer timer("t", [&] {
    entered.set_value();
    EXPECT_TRUE(wait_for([&] { return done.load(); }));  // another thread works unhindered
  });
  run_while([&] {
    timer.startTimer(0, 0, 0, 0);
    entered.get_future().wait();
    other.startTimer(60, 0, 0, 0);
    EXPECT_TRUE(other.stopTimer());
    EXPECT_TRUE(mgr->startAIO(&connection.file, &reader));
    EXPECT_TRUE(mgr->stopAIO(&connection.file, &reader));
    EXPECT_EQ(VrnEvtMgr::instance(0), mgr);
    done = true;
  });
}

// A loop that sleeps over a descriptor whose watch is ended by force takes notice.
TEST_F(ThreadsTest, ForcedEndOfAWatchWakesTheLoop) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  const auto native = dynamic_cast<VrnEvtMgrNative*>(mgr);
  ASSERT_NE(native, nullptr);
  run_while([&] {
    EXPECT_TRUE(mgr->startAIO(&connection.file, &reader));
    let_it_sleep();
    const int before = polls;
    native->syncstopAIO(&connection.file, &reader, false, false, false);
    EXPECT_TRUE(wait_for([&] { return polls > before; }));
  });
}

// The callback that such an end makes runs on the calling thread, and may outlast the loop's own.
TEST_F(ThreadsTest, CallbacksOfTwoThreadsMayOverlap) {
  std::atomic<bool> in_cancelled{false};
  std::promise<void> entered, left;
  CountingTimer timer("t", [&] {
    entered.set_value();
    EXPECT_TRUE(wait_for([&] { return in_cancelled.load(); }));
  });
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  reader.on_cancelled = [&] {
    in_cancelled = true;
    left.get_future().wait();
  };
  const auto native = dynamic_cast<VrnEvtMgrNative*>(mgr);
  ASSERT_NE(native, nullptr);
  run_while([&] {
    EXPECT_TRUE(mgr->startAIO(&connection.file, &reader));
    timer.startTimer(0, 0, 0, 0);
    entered.get_future().wait();
    std::thread other([&] { native->syncstopAIO(&connection.file, &reader, true, false, false); });
    EXPECT_TRUE(wait_for([&] { return in_cancelled.load(); }));
    let_it_sleep();  // the timer's callback is over
    left.set_value();
    other.join();
    const CountingTimer ends_now("u");  // its end looks at the callbacks that run
  });
  EXPECT_EQ(timer.expired, 1);
}

// Nor does the end of a watcher wait for the callback that it is made in.
TEST_F(ThreadsTest, WatcherMayEndInTheCallbackOfItsForcedEnd) {
  Connection connection;
  auto reader = std::make_unique<RecordingAIO>(RecordingAIO::Input, "reader");
  reader->on_cancelled = [&] { reader.reset(); };
  const auto native = dynamic_cast<VrnEvtMgrNative*>(mgr);
  ASSERT_NE(native, nullptr);
  run_while([&] {
    EXPECT_TRUE(mgr->startAIO(&connection.file, reader.get()));
    native->syncstopAIO(&connection.file, reader.get(), true, false, false);
  });
  EXPECT_EQ(reader, nullptr);
}

// A file that ends on another thread is in no list afterwards, although a callback that was running
// then asked for it again.
TEST_F(ThreadsTest, FileThatEndsDuringItsReadersCallbackIsNotListedAgain) {
  class Reader : public VrnAsyncReader {
   public:
    Reader() : VrnAsyncReader("reader") {}
    void aioReceived(VrnFile* file, int, char*) override {
      in_callback = true;
      EXPECT_TRUE(wait_for([&] { return stopped.load(); }));
      std::this_thread::sleep_for(milliseconds(50));  // so that the file's end has begun
      aioRequest(file, 1, buffer);
    }
    void aioReadable(VrnFile*) override {}
    void aioRemoved(VrnFile*, bool, bool) override {}

    std::atomic<bool> in_callback{false}, stopped{false};
    char buffer[8];
  };
  auto connection = std::make_unique<Connection>();
  Reader reader;
  run_while([&] {
    reader.aioRequest(&connection->file, 1, reader.buffer);
    connection->send("x");
    EXPECT_TRUE(wait_for([&] { return reader.in_callback.load(); }));
    EXPECT_TRUE(reader.aioStop(&connection->file));
    reader.stopped = true;
    connection.reset();
    EXPECT_EQ(reader.aioFiles(), 0);
  });
}

// ---- many threads ----

// What poll() waits for: the registrar's pipe, and what was asked for.
TEST_F(ThreadsTest, PollWaitsForTheRegistrarsPipeAndTheWatchedFilesOnly) {
  if (!sys::gives_poll_the_table()) GTEST_SKIP() << "looks at what poll() is given";
  const std::vector<int> library = opened_by_manager();
  ASSERT_EQ(library.size(), 2U);  // the two ends of that pipe
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  RecordingHandler handler;
  CountingTimer timer("t");
  std::vector<std::vector<int>> seen;
  before_poll = [&](pollfd* entries, nfds_t count) {
    std::vector<int> fds;
    for (nfds_t i = 0; i < count; ++i) fds.push_back(entries[i].fd);
    if (seen.empty() || seen.back() != fds) seen.push_back(fds);
  };
  run_while([&] {
    let_it_sleep();
    mgr->startSignal(&handler, SIGUSR1);
    timer.startTimer(0, 1000, 0, 1000);
    raise(SIGUSR1);
    let_it_turn();
    EXPECT_TRUE(mgr->startAIO(&connection.file, &reader));
    let_it_turn();
    EXPECT_TRUE(mgr->stopAIO(&connection.file, &reader));
    EXPECT_TRUE(timer.stopTimer());
    mgr->stopSignal(nullptr, SIGUSR1, true);
    let_it_sleep();
  });
  const int read_end = seen.at(0).at(0);
  EXPECT_TRUE(std::count(library.begin(), library.end(), read_end));
  EXPECT_EQ(seen, (std::vector<std::vector<int>>{
                      {read_end}, {read_end, connection.file.fd}, {read_end}}));
}

// ---- many threads ----

// Every thread makes, uses and destroys objects of its own, against the one loop.
class Pounding : public ThreadsTest {
 protected:
  using Round = void (Pounding::*)(std::mt19937*);

  Pounding() {
    before_poll = [this](pollfd* entries, nfds_t count) {
      int own = 0;
      for (nfds_t i = 0; i < count; ++i) {
        own += static_cast<int>(std::count(library.begin(), library.end(), entries[i].fd));
      }
      if (own != 1) ++wrong_polls;
    };
  }

  void pound(const std::vector<Round>& kinds) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    run_while([&] {
      in_threads(threads, [&](int number) {
        std::mt19937 random(seed + static_cast<unsigned>(number));
        for (int i = 0; i < rounds; ++i) {
          (this->*kinds[random() % kinds.size()])(&random);
        }
      });
      if (!sys::gives_poll_the_table()) return;
      EXPECT_EQ(opened_by_manager(), library);  // and nothing else
    });
    if (!sys::gives_poll_the_table()) return;
    EXPECT_EQ(wrong_polls, 0);
  }

  static void pause(std::mt19937* random) {
    const unsigned long choice = (*random)();
    if (choice % 2 == 0) std::this_thread::sleep_for(microseconds(choice / 2 % 200));
  }
  static bool one_in(unsigned long n, std::mt19937* random) { return (*random)() % n == 0; }

  // Stopped and destroyed whether it has fired or not.
  void use_timer(std::mt19937* random) {
    CountingTimer timer("t");
    timer.startTimer(0, static_cast<int>((*random)() % 300), 0, one_in(2, random) ? 100 : 0);
    pause(random);
    if (one_in(4, random)) timer.startTimer(0, 50, 0, 0);
    EXPECT_TRUE(timer.stopTimer());
  }

  void use_watchers(std::mt19937* random) {
    Connection connection;
    RecordingAIO reader(RecordingAIO::Input, "reader");
    RecordingAIO writer(RecordingAIO::Output, "writer", [](VrnFile*) {});
    EXPECT_TRUE(mgr->startAIO(&connection.file, &reader));
    if (one_in(2, random)) mgr->startAIO(&connection.file, &writer);
    connection.send("x");
    pause(random);
    if (one_in(4, random)) connection.hang_up();
    EXPECT_TRUE(mgr->stopAIO(&connection.file, &writer));
    EXPECT_TRUE(mgr->stopAIO(&connection.file, &reader));
  }

  void use_receiver(std::mt19937* random) {
    Connection first, second;
    RecordingReceiver receiver("receiver");
    receiver.aioStart(&first.file);
    receiver.aioStart(&second.file);
    first.send("x");
    if (one_in(2, random)) second.send("y");
    pause(random);
    if (one_in(2, random)) receiver.aioStop(&first.file);
    EXPECT_EQ(receiver.aioTerminate(), 0);
    EXPECT_EQ(receiver.aioFiles(), 0);
  }

  static constexpr Round timers = &Pounding::use_timer;
  static constexpr Round watchers = &Pounding::use_watchers;
  static constexpr Round receivers = &Pounding::use_receiver;

  const unsigned seed = std::random_device()();
  const std::vector<int> library = opened_by_manager();
  std::atomic<int> wrong_polls{0};
};

TEST_F(Pounding, TimersComeAndGo) {
  pound({timers});
}

TEST_F(Pounding, WatchersComeAndGo) {
  pound({watchers});
}

TEST_F(Pounding, ReceiversComeAndGo) {
  pound({receivers});
}

TEST_F(Pounding, AllKindsOfObjectsComeAndGo) {
  pound({timers, watchers, receivers});
}

// A loop that was the process's only thread when it began: others come in the middle of a turn.
TEST_F(Pounding, ThreadsThatACallbackStarts) {
  std::vector<std::thread> others;
  std::atomic<int> at_work{threads};
  CountingTimer starter("starter", [&] {
    for (int number = 0; number < threads; ++number) {
      others.emplace_back([&, number] {
        std::mt19937 random(seed + static_cast<unsigned>(number));
        for (int i = 0; i < rounds; ++i) use_timer(&random);
        if (--at_work == 0) mgr->stopDispatcher();
      });
    }
  });
  starter.startTimerAbs(1, 0, 0, 0);
  int expired = 0;
  std::deque<CountingTimer> rest_of_turn;
  for (int i = 1; i <= 2000; ++i) {
    rest_of_turn.emplace_back("rest", [&] {
      ++expired;
      std::this_thread::sleep_for(microseconds(10));
    });
    rest_of_turn.back().startTimerAbs(1, i, 0, 0);
  }
  mgr->startDispatcher();
  for (std::thread& other : others) other.join();
  EXPECT_EQ(at_work, 0);
  EXPECT_EQ(expired, 2000);
}

// One timer that everybody starts and stops, its own callback included.
TEST_F(ThreadsTest, OneTimerInManyHands) {
  CountingTimer timer("t");
  std::atomic<int> expired{0};
  timer.on_expired = [&] {
    if (++expired % 2 == 0) timer.startTimer(0, 0, 0, 0);
    if (expired % 3 == 0) timer.stopTimer();
  };
  run_while([&] {
    in_threads(threads, [&](int number) {
      for (int i = 0; i < rounds; ++i) {
        if ((i + number) % 3 == 0) {
          timer.stopTimer();
        } else {
          timer.startTimer(0, i % 50, 0, 0);
        }
        timeval left;
        timer.getExpiry(&left, nullptr);
      }
    });
    const int so_far = expired;
    timer.startTimer(0, 0, 0, 0);  // it is still in order
    EXPECT_TRUE(wait_for([&] { return expired > so_far; }));
    timer.on_expired = nullptr;
    EXPECT_TRUE(wait_for([&] { return timer.stopTimer(); }));
  });
}

// One receiver and its files, likewise.
TEST_F(ThreadsTest, OneReceiverInManyHands) {
  std::vector<std::unique_ptr<Connection>> connections;
  connections.reserve(threads);
  for (int i = 0; i < threads; ++i) connections.push_back(std::make_unique<Connection>());
  RecordingReceiver receiver("receiver");
  run_while([&] {
    in_threads(threads, [&](int number) {
      Connection& own = *connections[static_cast<size_t>(number)];
      for (int i = 0; i < rounds; ++i) {
        receiver.aioStart(&own.file);
        own.send("x");
        EXPECT_TRUE(receiver.aioFile(&own.file));
        EXPECT_GE(receiver.aioFiles(), 1);
        EXPECT_TRUE(receiver.aioStop(&own.file));
        EXPECT_FALSE(receiver.aioFile(&own.file));
        char byte;
        while (read(own.file.fd, &byte, 1) == 1) {
        }
      }
    });
    EXPECT_EQ(receiver.aioTerminate(), 0);
  });
}

// The dispatcher's own requests and those of other threads meet in the same objects.
TEST_F(ThreadsTest, RequestsOfCallbacksMeetThoseOfOtherThreads) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  CountingTimer timer("t");
  CountingTimer driver("driver", [&] {
    timer.startTimer(0, 0, 0, 0);
    timer.stopTimer();
    mgr->startAIO(&connection.file, &reader);
    mgr->stopAIO(&connection.file, &reader);
  });
  run_while([&] {
    driver.startTimer(0, 0, 0, 1);
    for (int i = 0; i < 10 * rounds; ++i) {
      mgr->stopAIO(&connection.file, &reader);
      timer.stopTimer();
      timer.startTimer(0, 10, 0, 0);
    }
    EXPECT_TRUE(driver.stopTimer());
    EXPECT_TRUE(wait_for([&] { return timer.stopTimer(); }));
    EXPECT_TRUE(mgr->stopAIO(&connection.file, &reader));
  });
}

TEST_F(ThreadsTest, EveryThreadMayStopTheLoop) {
  CountingTimer busy("busy");
  std::atomic<bool> running{false};
  busy.on_expired = [&] { running = true; };
  busy.startTimer(0, 0, 0, 1);
  std::thread stoppers([&] {
    EXPECT_TRUE(wait_for([&] { return running.load(); }));
    in_threads(threads, [&](int) {
      for (int i = 0; i < 100; ++i) mgr->stopDispatcher();
    });
  });
  mgr->startDispatcher();
  stoppers.join();
  EXPECT_TRUE(running);
  EXPECT_TRUE(busy.stopTimer());
}

TEST_F(ThreadsTest, LoopThatEndsUnderWorkingThreadsEndsCleanly) {
  std::atomic<int> working{0};
  std::thread workers([&] {
    in_threads(threads, [&](int number) {
      for (int i = 0; i < rounds; ++i) {
        CountingTimer timer("t");
        timer.startTimer(0, 100, 0, 0);
        if (number == 0 && i == rounds / 2) mgr->stopDispatcher();
        EXPECT_TRUE(timer.stopTimer());
        ++working;
      }
    });
  });
  mgr->startDispatcher();
  workers.join();
  EXPECT_EQ(working, threads * rounds);
}

// ---- fork ----

// Whether the child ends, which is killed otherwise.
bool ends(pid_t child) {
  const bool ended = wait_for([&] { return waitpid(child, nullptr, WNOHANG) == child; });
  if (!ended) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
  return ended;
}

// The callback's thread is not in the child, so the child does not wait for it.
TEST(ForkTest, AnObjectEndsInAChildThatWasForkedDuringItsCallback) {
  Loop loop;
  auto timer = std::make_unique<CountingTimer>("t");
  std::promise<void> called, forked;
  timer->on_expired = [&] {
    called.set_value();
    forked.get_future().wait();
  };
  loop.on_dispatcher([&] { timer->startTimer(0, 0, 0, 0); });
  bool ended = false;
  std::thread other([&] {
    called.get_future().wait();
    const pid_t child = fork();
    if (child == 0) {
      timer.reset();
      _exit(0);
    }
    ended = ends(child);
    forked.set_value();
  });
  loop.run_until([&] { return timer->expired == 1; });
  other.join();
  EXPECT_TRUE(ended);
}

#ifndef VORNFC_TEST_TSAN  // which keeps a signal back until a call that waits

std::atomic<int> forks_in_handler{0};

// Whatever the loop is at, its lock included: it is the loop's own thread that forks.
TEST(ForkTest, AHandlerOnTheLoopsThreadMayFork) {
  VrnEvtMgr* const mgr = VrnEvtMgr::instance(0);
  VrnAppShell::evtmgr = mgr;
  struct sigaction action = {};
  action.sa_handler = [](int) {
    const int error = errno;
    const pid_t child = fork();
    if (child == 0) _exit(0);
    if (child > 0 && waitpid(child, nullptr, 0) == child) ++forks_in_handler;
    errno = error;
  };
  sigaction(SIGUSR2, &action, nullptr);
  constexpr int Forks = 200;
  std::atomic<bool> running{false}, sent{false};
  const pthread_t loop = pthread_self();
  std::thread sender([&] {
    EXPECT_TRUE(wait_for([&] { return running.load(); }));
    for (int i = 0; i < Forks; ++i) {
      pthread_kill(loop, SIGUSR2);
      EXPECT_TRUE(wait_for([&] { return forks_in_handler > i; }));
      std::this_thread::sleep_for(std::chrono::microseconds(i * 7919 % 300));
    }
    sent = true;
  });
  // Always ready, so that the loop hardly ever waits.
  std::vector<std::unique_ptr<Connection>> connections(20);
  RecordingAIO writer(RecordingAIO::Output, "writer");
  writer.on_ready = [&](VrnFile*) {
    running = true;
    if (sent.exchange(false)) mgr->stopDispatcher();
  };
  for (auto& connection : connections) {
    connection = std::make_unique<Connection>();
    mgr->startAIO(&connection->file, &writer);
  }
  mgr->startDispatcher();
  sender.join();
  EXPECT_EQ(forks_in_handler, Forks);
  VrnEvtMgr::destroy();
  VrnAppShell::evtmgr = nullptr;
}

#endif

}  // namespace
}  // namespace vornfc
