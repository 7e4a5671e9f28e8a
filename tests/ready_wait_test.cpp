// The wait for many descriptors: with the kernel's queue, everything is as with poll() alone.
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/loop.h"
#include "vornfc/appshell.h"
#include "vornfc/evtmgr_native.h"
#include "vornfc/file.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <deque>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace vornfc {
namespace {

void allow_descriptors(rlim_t count) {
  rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  ASSERT_GE(limit.rlim_max, count);
  limit.rlim_cur = count;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

// ---- a model: random operations give the same callbacks whatever the wait is made of ----

// What happens to 2,000 sockets in one run: the sequence of callbacks, as a text. Operations are
// made between two turns, by a stand-in for poll(), so that they fall between the same callbacks
// each time.
class Model {
 public:
  Model(unsigned seed, int sockets) : random(seed), ends(static_cast<size_t>(sockets)) {}

  std::string run(int turns) {
    signal(SIGPIPE, SIG_IGN);
    VrnEvtMgr* const mgr = VrnEvtMgr::instance(0);
    VrnAppShell::evtmgr = mgr;
    for (End& end : ends) open(&end);
    int turn = 0;
    CountingTimer each_turn("each turn");
    each_turn.on_expired = [&] {
      story += "\n";
      operate();
      if (++turn == turns) return mgr->stopDispatcher();
      each_turn.startTimer(0, 0, 0, 0);
    };
    each_turn.startTimer(0, 0, 0, 0);
    mgr->startDispatcher();
    ends.clear();
    VrnEvtMgr::destroy();
    return story;
  }

 private:
  struct End;
  struct Watcher : VrnAIO {
    Watcher(Model* a_model, End* an_end, bool direction)
        : VrnAIO(direction, "w"), model(a_model), end(an_end) {}
    void aioReady(VrnFile* file) override {
      model->tell(input ? "r" : "w", end);
      char buffer[16];
      if (input && read(file->fd, buffer, sizeof buffer) == -1 && model->random() % 2 == 0) {
        throw std::string("reading failed");
      }
      if (!input) VrnAppShell::evtmgr->stopAIO(file, this);
      if (model->random() % 64 == 0) throw std::string("by chance");
    }
    void aioCancelled(VrnFile*, bool hangup, bool err) override {
      model->tell(hangup ? (err ? "E" : "H") : "c", end);
    }
    Model* const model;
    End* const end;
  };
  struct End {
    std::unique_ptr<VrnFile> file;
    std::unique_ptr<Watcher> reader, writer;
    int peer = -1;
    ~End() {
      if (peer != -1) close(peer);
    }
  };

  void tell(const char* what, const End* end) {
    story += what + std::to_string(end - &ends.front()) + " ";
  }

  void open(End* end) {
    end->reader.reset();
    end->writer.reset();
    end->file.reset();
    if (end->peer != -1) close(end->peer);
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    end->file = std::make_unique<VrnFile>();
    end->file->assign(pair[0], "f", true);
    end->peer = pair[1];
    fcntl(end->peer, F_SETFL, O_NONBLOCK);
    end->reader = std::make_unique<Watcher>(this, end, true);
    end->writer = std::make_unique<Watcher>(this, end, false);
    VrnAppShell::evtmgr->startAIO(end->file.get(), end->reader.get());
  }

  // On the dispatcher thread, so starts and stops are carried out in the next turn.
  void operate() {
    for (int i = 0; i < 5; ++i) {
      End& end = ends[random() % ends.size()];
      VrnEvtMgr* const mgr = VrnAppShell::evtmgr;
      switch (random() % 12) {
        case 0: mgr->stopAIO(end.file.get(), end.reader.get()); break;
        case 1: mgr->startAIO(end.file.get(), end.reader.get()); break;
        case 2: mgr->startAIO(end.file.get(), end.writer.get()); break;
        case 3: open(&end); break;  // the number is used again
        case 4:
          if (end.peer != -1) close(end.peer);
          end.peer = -1;
          break;
        default:
          if (end.peer != -1) (void)!write(end.peer, "x", 1);
      }
    }
  }

  std::minstd_rand random;
  std::vector<End> ends;
  std::string story;
};

std::string story_with(const char* setting, const char* value, unsigned seed) {
  unsetenv("VORN_EM_POLLONLY");
  unsetenv("VORN_EM_POLLMAX");
  setenv(setting, value, 1);
  return Model(seed, 2000).run(2000);
}

TEST(ReadyWaitModelTest, CallbacksAreTheSameWithAndWithoutTheQueue) {
  allow_descriptors(5000);
  for (unsigned seed = 1; seed <= 3; ++seed) {
    const std::string plain = story_with("VORN_EM_POLLONLY", "y", seed);
    EXPECT_GT(plain.size(), 20000U);
    EXPECT_EQ(plain, story_with("VORN_EM_POLLMAX", "32", seed)) << "seed " << seed;
    EXPECT_EQ(plain, story_with("VORN_EM_POLLMAX", "0", seed)) << "seed " << seed;
  }
}

// ---- many watched, few of them active ----

struct ReadyWaitTest : testing::Test {
  static constexpr int Many = 200;
  static constexpr int Turns = 100;  // enough for what is idle to be handed over

  ReadyWaitTest() {
    allow_descriptors(4096);
    connections.resize(Many);
    for (auto& connection : connections) {
      connection = std::make_unique<Connection>();
      loop.on_dispatcher([this, &connection] { receiver.aioStart(&connection->file); });
    }
    for (int i = 0; i < Turns; ++i) loop.on_dispatcher([] {});
  }

  // What a test does comes after these turns.
  Loop loop;
  RecordingReceiver receiver{"receiver"};
  std::vector<std::unique_ptr<Connection>> connections;
};

TEST_F(ReadyWaitTest, WhatHasBeenIdleIsHeard) {
  loop.on_dispatcher([&] {
    for (const auto& connection : connections) connection->send("x");
  });
  loop.run_until([&] { return receiver.received.size() == Many; });
}

TEST_F(ReadyWaitTest, ANumberThatIsClosedUnawaresIsToldWithinSeconds) {
  VrnFile* const file = &connections[7]->file;
  loop.on_dispatcher([&] { close(file->fd); });
  loop.run_until([&] { return !receiver.removed.empty(); });
  EXPECT_EQ(receiver.removed, (std::vector<Cancelled>{{file, true, true}}));
}

TEST_F(ReadyWaitTest, SoIsOneWhoseFileLivesOn) {
  VrnFile* const file = &connections[7]->file;
  int other = -1;
  loop.on_dispatcher([&] {
    other = dup(file->fd);
    close(file->fd);
  });
  loop.when([&] { return !receiver.removed.empty(); },
            [&] {
              connections[7]->send("nobody hears this");
              connections[8]->send("x");
            });
  loop.run_until([&] { return receiver.received == "x"; });
  EXPECT_EQ(receiver.removed, (std::vector<Cancelled>{{file, true, true}}));
  close(other);
}

TEST_F(ReadyWaitTest, ANumberThatIsUsedAgainIsTheNewFile) {
  for (size_t i = 0; i < 50; ++i) {
    loop.on_dispatcher([this, i] { receiver.aioStop(&connections[i]->file); });
    loop.when([this, i] { return receiver.removed.size() == i + 1; },
              [this, i] {
                const int number = connections[i]->file.fd;
                connections[i].reset();
                connections[i] = std::make_unique<Connection>();
                EXPECT_EQ(connections[i]->file.fd, number);
                receiver.aioStart(&connections[i]->file);
              });
  }
  loop.on_dispatcher([this] {
    for (size_t i = 0; i < 50; ++i) connections[i]->send("x");
  });
  loop.run_until([&] { return receiver.received.size() == 50; });
}

TEST_F(ReadyWaitTest, ARegularFileIsAlwaysReady) {
  char name[] = "/tmp/vornfc_ready.XXXXXX";
  VrnFile regular;
  regular.assign(mkstemp(name), "regular", true);
  unlink(name);
  int ready = 0;
  receiver.on_ready = [&](VrnFile* file) { ready += file == &regular ? 1 : 0; };
  loop.on_dispatcher([&] { receiver.aioStart(&regular); });
  loop.when([&] { return ready > Turns; }, [&] { receiver.aioStop(&regular); });
  loop.run_until([&] { return !receiver.removed.empty(); });
}

TEST_F(ReadyWaitTest, AWatcherThatIsAddedToAnIdleFileIsCalled) {
  RecordingAIO writer(RecordingAIO::Output, "writer");
  VrnFile* const file = &connections[7]->file;
  writer.on_ready = [&](VrnFile* ready) {
    EXPECT_EQ(ready, file);
    loop.mgr->stopAIO(ready, &writer);
  };
  loop.on_dispatcher([&] { loop.mgr->startAIO(file, &writer); });
  loop.when([&] { return writer.cancelled.size() == 1; }, [&] { connections[7]->send("x"); });
  loop.run_until([&] { return receiver.received == "x"; });
  EXPECT_EQ(writer.ready, 1);
}

// Fewer than need the queue, and more than it is given up for.
TEST_F(ReadyWaitTest, WhenMostAreStoppedTheOthersAreHeard) {
  constexpr size_t Left = 48;
  loop.on_dispatcher([&] {
    for (size_t i = Left; i < Many; ++i) receiver.aioStop(&connections[i]->file);
  });
  for (int i = 0; i < Turns; ++i) loop.on_dispatcher([] {});
  loop.on_dispatcher([&] {
    for (size_t i = 0; i < Left; ++i) connections[i]->send("x");
  });
  loop.run_until([&] { return receiver.received.size() == Left; });
  EXPECT_EQ(receiver.removed.size(), Many - Left);
}

bool queue_is_open() {
  bool found = false;
  DIR* const descriptors = opendir("/proc/self/fd");
  while (const dirent* const entry = readdir(descriptors)) {
    char target[64] = "";
    if (readlinkat(dirfd(descriptors), entry->d_name, target, sizeof target - 1) == -1) continue;
    found = found || std::string(target) == "anon_inode:[eventpoll]";
  }
  closedir(descriptors);
  return found;
}

// With a half of those that poll() may have.
TEST_F(ReadyWaitTest, WhenFewAreLeftTheQueueIsGivenUp) {
  constexpr size_t Half = 32 - 1;  // besides the registrar's pipe
  loop.on_dispatcher([&] {
    for (size_t i = Half + 1; i < Many; ++i) receiver.aioStop(&connections[i]->file);
  });
  for (int i = 0; i < 3; ++i) loop.on_dispatcher([] {});
  loop.on_dispatcher([&] {
    EXPECT_TRUE(queue_is_open());
    receiver.aioStop(&connections[Half]->file);
  });
  for (int i = 0; i < 3; ++i) loop.on_dispatcher([] {});
  loop.on_dispatcher([] { EXPECT_FALSE(queue_is_open()); });
  loop.run_calls();
}

TEST_F(ReadyWaitTest, AFailedWaitEndsTheLoop) {
  const LogCapture log;
  loop.on_dispatcher([] { sys::fail_next("poll", EBADF); });
  loop.run();
  EXPECT_TRUE(
      log.contains("Error=2 (errno=9) - poll() on " + std::to_string(Many + 1) + " files failed"));
}

// The wait is cut into parts of a second, for a look at all of them.
TEST_F(ReadyWaitTest, ATimerIsDueAtItsTimeWhileAllAreIdle) {
  loop.use_own_clock({1000, 0});
  CountingTimer timer("t");
  timeval due{};
  loop.on_dispatcher([&] {
    timer.startTimer(2, 500000, 0, 0);
    timer.getExpiryAbs(&due);
  });
  timer.on_expired = [&] {
    EXPECT_EQ(loop.now.tv_sec, due.tv_sec);
    EXPECT_EQ(loop.now.tv_usec, due.tv_usec);
  };
  loop.run_until([&] { return timer.expired == 1; });
}

// Each part of a wait takes longer than it is to: the time that is lost does not add up.
TEST(ReadyWaitTimeTest, PartsThatTakeLongerDoNotMakeATimerLate) {
  using std::chrono::steady_clock;
  setenv("VORN_EM_POLLMAX", "0", 1);
  VrnEvtMgr* const mgr = VrnEvtMgr::instance(0);
  VrnAppShell::evtmgr = mgr;
  const sys::Poll late = [](pollfd* entries, nfds_t count, int timeout) {
    const int result = sys::system_poll(entries, count, timeout);
    if (result == 0) std::this_thread::sleep_for(std::chrono::milliseconds(timeout / 2));
    return result;
  };
  steady_clock::time_point start;
  int turns = 0;
  Connection idle;
  RecordingReceiver receiver("receiver");
  receiver.aioStart(&idle.file);
  CountingTimer timer("t");
  timer.on_expired = [&] {
    if (++turns < 20) return timer.startTimer(0, 0, 0, 0);  // until all is handed over
    if (turns > 20) return mgr->stopDispatcher();
    start = steady_clock::now();
    timer.startTimer(5, 0, 0, 0);
  };
  timer.startTimer(0, 0, 0, 0);
  sys::set_poll(&late);
  mgr->startDispatcher();
  sys::set_poll(nullptr);
  const std::chrono::duration<double> taken = steady_clock::now() - start;
  EXPECT_EQ(turns, 21);
  EXPECT_LT(taken.count(), 6.9);  // as a sum of its parts it would be 7.5 at least
  VrnEvtMgr::destroy();
  VrnAppShell::evtmgr = nullptr;
}

// However late in a part of the wait an event comes, the next part is only what is left of it.
TEST(ReadyWaitTimeTest, EventsDoNotPutOffTheLookAtAll) {
  using std::chrono::steady_clock;
  setenv("VORN_EM_POLLMAX", "0", 1);
  VrnEvtMgr* const mgr = VrnEvtMgr::instance(0);
  VrnAppShell::evtmgr = mgr;
  Connection idle, active;
  RecordingReceiver receiver("receiver");
  receiver.aioStart(&idle.file);
  receiver.aioStart(&active.file);
  constexpr nfds_t All = 3;  // with the registrar's
  std::vector<steady_clock::time_point> looks;
  const sys::Poll late_event = [&](pollfd* entries, nfds_t count, int timeout) {
    if (count < All && timeout > 900) {
      std::this_thread::sleep_for(std::chrono::milliseconds(900));
      active.send("x");
    }
    if (count == All && timeout == 0) looks.push_back(steady_clock::now());
    if (looks.size() == 4) mgr->stopDispatcher();
    return sys::system_poll(entries, count, timeout);
  };
  CountingTimer timer("t");
  timer.on_expired = [&] {  // until all is handed over
    if (timer.expired < 20) return timer.startTimer(0, 0, 0, 0);
    looks.clear();
    sys::set_poll(&late_event);
  };
  timer.startTimer(0, 0, 0, 0);
  mgr->startDispatcher();
  sys::set_poll(nullptr);
  EXPECT_FALSE(receiver.received.empty());
  ASSERT_EQ(looks.size(), 4u);
  for (size_t i = 1; i < looks.size(); ++i) {
    const std::chrono::duration<double> between = looks[i] - looks[i - 1];
    EXPECT_LT(between.count(), 1.6);  // behind a part that begins anew it would be 1.8 at least
  }
  VrnEvtMgr::destroy();
  VrnAppShell::evtmgr = nullptr;
}

// ---- a queue that refuses ----

TEST_F(ReadyWaitTest, WhatTheQueueHasNoRoomForIsHeard) {
  sys::fail_next("epoll_ctl", ENOSPC, 3 * Many);  // for every descriptor, more than once
  loop.on_dispatcher([&] {
    EXPECT_GT(sys::calls("epoll_ctl"), Many);  // it was tried again
    for (const auto& connection : connections) connection->send("x");
  });
  loop.run_until([&] { return receiver.received.size() == Many; });
}

TEST_F(ReadyWaitTest, WhatTheQueueDoesNotTakeIsNotTriedAgain) {
  sys::fail_next("epoll_ctl", EPERM, 10000);
  loop.on_dispatcher([&] {
    EXPECT_GE(sys::calls("epoll_ctl"), Many);
    EXPECT_LE(sys::calls("epoll_ctl"), Many + 1);  // and the registrar's pipe
    for (const auto& connection : connections) connection->send("x");
  });
  loop.run_until([&] { return receiver.received.size() == Many; });
}

TEST_F(ReadyWaitTest, WithoutAQueueAllAreHeard) {
  sys::fail_next("epoll_create1", EMFILE, 1000000);
  loop.on_dispatcher([&] {
    EXPECT_GT(sys::calls("epoll_create1"), 0);
    EXPECT_EQ(sys::calls("epoll_ctl"), 0);
    for (const auto& connection : connections) connection->send("x");
  });
  loop.run_until([&] { return receiver.received.size() == Many; });
}

// ---- settings ----

int queues_made_with(const char* poll_only, const char* most_polled, int turns) {
  setenv("VORN_EM_POLLONLY", poll_only, 1);
  setenv("VORN_EM_POLLMAX", most_polled, 1);
  Loop loop;
  Connection idle;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  elsewhere([&] { loop.mgr->startAIO(&idle.file, &reader); });
  for (int i = 0; i < turns; ++i) loop.on_dispatcher([] {});
  loop.run_calls();
  return sys::calls("epoll_create1");
}

TEST(ReadyWaitSettingTest, PollOnlyIsNothingButY) {
  EXPECT_EQ(queues_made_with("y", "0", 10), 0);
  EXPECT_EQ(queues_made_with("Y", "0", 10), 0);
  EXPECT_GT(queues_made_with("n", "0", 10), 0);
}

// Idle for one turn is enough then, so that the queue is what a short test tests.
TEST(ReadyWaitSettingTest, WithoutAThresholdTheQueueIsUsedAtOnce) {
  EXPECT_EQ(queues_made_with("n", "1", 3), 0);
  EXPECT_GT(queues_made_with("n", "0", 3), 0);
}

TEST(ReadyWaitMemoryTest, AnIdleDescriptorTakesLessThan200Bytes) {
  constexpr int Watched = 10000;
  rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  if (limit.rlim_max < Watched + 100) GTEST_SKIP() << "not so many descriptors are allowed";
  allow_descriptors(Watched + 100);
  VrnEvtMgr* const mgr = VrnEvtMgr::instance(0);
  VrnAppShell::evtmgr = mgr;
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  std::deque<VrnFile> files(Watched);
  for (VrnFile& file : files) {
    file.assign(dup(ends[0]), "f", true);
    file.setBlockingMode(false);
  }
  RecordingAIO reader(RecordingAIO::Input, "reader");
  int turns = 0;
  size_t before = 0, after = 0;
  CountingTimer timer("each turn");
  timer.on_expired = [&] {
    if (turns == 0) {
      before = mallinfo2().uordblks;
      std::thread([&] {
        for (VrnFile& file : files) mgr->startAIO(&file, &reader);
      }).join();
    }
    if (++turns < 100) return timer.startTimer(0, 0, 0, 0);
    after = mallinfo2().uordblks;
    mgr->stopDispatcher();
  };
  timer.startTimer(0, 0, 0, 0);
  mgr->startDispatcher();
  if (before == 0) GTEST_SKIP() << "the sanitizer has its own heap";
  std::printf("%zu bytes each\n", (after - before) / Watched);
  EXPECT_LT((after - before) / Watched, 200U);
  files.clear();
  close(ends[0]);
  close(ends[1]);
  VrnEvtMgr::destroy();
}

}  // namespace
}  // namespace vornfc
