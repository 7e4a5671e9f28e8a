#include "support/faults.h"
#include "support/log_capture.h"
#include "support/loop.h"
#include "vornfc/evtmgr_native.h"
#include "vornfc/exception.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vornfc {
namespace {

using Cancellations = std::vector<Cancelled>;
using Failure = std::pair<int, std::string>;

constexpr std::size_t RECORD_SIZE = 32;
constexpr int UNKNOWN_TYPE = 9;

// A request as it lies in the pipe.
using Record = std::array<void*, 4>;
static_assert(sizeof(Record) == RECORD_SIZE);

Record record_of(int type, void* first = nullptr, void* second = nullptr) {
  const auto word = static_cast<std::intptr_t>(type);
  // NOLINTNEXTLINE(performance-no-int-to-ptr)
  return {reinterpret_cast<void*>(word), first, second, nullptr};
}

void put(int fd, const Record& record) {
  ASSERT_EQ(write(fd, record.data(), RECORD_SIZE), static_cast<ssize_t>(RECORD_SIZE));
}

// The exception that `call` throws, as its code and message.
Failure failure_of(const Call& call) {
  try {
    call();
  } catch (const VrnException& e) {
    return {e.err(), e.what()};
  }
  return {0, "no VrnException"};
}

class RegistrarTest : public testing::Test {
 protected:
  // The lines that hold `text`, whole.
  std::vector<std::string> lines_with(const std::string& text) const {
    std::vector<std::string> result;
    for (const std::string& line : log.lines()) {
      if (line.find(text) != std::string::npos) result.push_back(line);
    }
    return result;
  }

  bool has_line(const std::string& line) const {
    const std::vector<std::string> lines = log.lines();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }

  // Starts many timers in one callback and expects them to fire in order.
  void start_many_in_one_callback();

  LogCapture log;
  Loop loop;
};

// ---- the pipe ----

TEST_F(RegistrarTest, PipeIsClosedOnExec) {
  ASSERT_NE(loop.pipe_read_end, -1);
  ASSERT_NE(loop.pipe_write_end, -1);
  EXPECT_NE(fcntl(loop.pipe_read_end, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_NE(fcntl(loop.pipe_write_end, F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(RegistrarTest, PipeThatCannotBeMade) {
  // A sanitizer makes a pipe of its own when it meets an object of a class for the first time.
  { const AsyncRegistrar registrar("first", loop.mgr); }
  const std::vector<int> before = open_descriptors();
  sys::fail_next("pipe", EMFILE);
  EXPECT_EQ(failure_of([&] { const AsyncRegistrar registrar("second", loop.mgr); }),
            (Failure{2, "EvtMgr: Failed to create second pipe"}));
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(RegistrarTest, WithoutANameItHasItsAddress) {
  { const AsyncRegistrar registrar("first", loop.mgr); }  // as above
  for (const char* const name : {static_cast<const char*>(nullptr), ""}) {
    sys::fail_next("pipe", EMFILE);
    const Failure failure = failure_of([&] { const AsyncRegistrar registrar(name, loop.mgr); });
    EXPECT_EQ(failure.first, 2);
    EXPECT_EQ(failure.second.find("EvtMgr: Failed to create 0x"), 0U) << failure.second;
  }
}

TEST_F(RegistrarTest, PipeGoesWithTheRegistrar) {
  const std::vector<int> before = open_descriptors();
  { const AsyncRegistrar registrar("second", loop.mgr); }
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_TRUE(has_line("AsyncRegistrar.dtor: Enter with unreg_reqs=0, stopped=No"));
}

TEST_F(RegistrarTest, PipeGoesWithTheManager) {
  const std::vector<int> open_now = open_descriptors();
  VrnEvtMgr::destroy();
  EXPECT_EQ(open_descriptors().size(), open_now.size() - 2);
}

// ---- requests ----

TEST_F(RegistrarTest, RequestsAreCarriedOutInTheOrderOfTheCalls) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  CountingTimer timer("timer");
  RecordingHandler handler;
  std::vector<std::string> order;
  reader.on_cancelled = [&] { order.emplace_back("reader"); };
  timer.on_stopped = [&] { order.emplace_back("timer"); };
  handler.on_stopped = [&] { order.emplace_back("handler"); };
  loop.on_dispatcher([&] {
    timer.startTimer(60, 0, 0, 0);
    loop.mgr->startAIO(&connection.file, &reader);
    loop.mgr->startSignal(&handler, SIGUSR1);
    loop.mgr->stopSignal(&handler, SIGUSR1, false);
    timer.stopTimer();
    loop.mgr->stopAIO(&connection.file, &reader);
    EXPECT_TRUE(order.empty());
  });
  loop.run_until([&] { return order.size() == 3; });
  EXPECT_EQ(order, (std::vector<std::string>{"handler", "timer", "reader"}));
}

TEST_F(RegistrarTest, RequestsMadeBeforeTheLoopRunsAreCarriedOut) {
  CountingTimer timer("timer");
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  connection.send("hello");
  loop.mgr->startAIO(&connection.file, &reader);
  loop.mgr->stopAIO(&connection.file, &reader);
  timer.startTimer(0, 0, 0, 0);
  loop.run_until([&] { return timer.expired == 1; });
  EXPECT_EQ(reader.cancelled, (Cancellations{{&connection.file, false, false}}));
  EXPECT_EQ(reader.ready, 0);
}

TEST_F(RegistrarTest, SubmitTellsThatARequestIsTaken) {
  CountingTimer timer("timer");
  loop.on_dispatcher([&] { EXPECT_TRUE(loop.mgr->startTimer(&timer)); });
  loop.run_calls();
  EXPECT_FALSE(loop.mgr->startTimer(&timer));
}

TEST_F(RegistrarTest, NumberOfArgumentsIsChecked) {
  AsyncRegistrar registrar("second", loop.mgr);
  EXPECT_EQ(failure_of([&] { registrar.submit(AsyncRegistrar::StartTimer, 4); }),
            (Failure{3, "AsyncRegistrar: Bad number of arguments (4)"}));
  EXPECT_EQ(failure_of([&] { registrar.submit(AsyncRegistrar::StartTimer, -1); }),
            (Failure{3, "AsyncRegistrar: Bad number of arguments (-1)"}));
}

// A request that throws is logged, and those behind it are carried out.
TEST_F(RegistrarTest, RequestThatThrowsIsLogged) {
  Connection connection("conn");
  VrnFile alias;
  alias.assign(connection.file.fd, "alias", false);
  RecordingAIO reader(RecordingAIO::Input, "reader");
  RecordingAIO writer(RecordingAIO::Output, "writer");
  CountingTimer timer("timer");
  loop.on_dispatcher([&] {
    loop.mgr->startAIO(&connection.file, &reader);
    loop.mgr->startAIO(&alias, &writer);
    timer.startTimer(0, 0, 0, 0);
  });
  loop.run_until([&] { return timer.expired == 1; });
  const std::vector<std::string> threw = lines_with("submitted request threw");
  ASSERT_EQ(threw.size(), 1U);
  EXPECT_EQ(threw[0].find("AsyncRegistrar: submitted request threw [VrnException: Error=3 "), 0U);
}

TEST_F(RegistrarTest, RecordsAreCarriedOutDirectly) {
  AsyncRegistrar registrar("second", loop.mgr);
  CountingTimer timer("timer");
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  Record start =
      record_of(AsyncRegistrar::StartAIO, &connection.file, static_cast<VrnAIO*>(&reader));
  Record stop = record_of(AsyncRegistrar::StopAIO, &connection.file, static_cast<VrnAIO*>(&reader));
  Record unknown = record_of(UNKNOWN_TYPE);
  EXPECT_EQ(registrar.processRequest(start.data()), 0);
  EXPECT_EQ(registrar.processRequest(stop.data()), 0);
  EXPECT_EQ(reader.cancelled, (Cancellations{{&connection.file, false, false}}));
  EXPECT_EQ(registrar.processRequest(unknown.data()), 1);
  EXPECT_TRUE(has_line("AsyncRegistrar: Invalid request-type (9)"));
}

TEST_F(RegistrarTest, NullRecordIsRefused) {
  AsyncRegistrar registrar("second", loop.mgr);
  EXPECT_EQ(failure_of([&] { registrar.processRequest(nullptr); }),
            (Failure{3, "AsyncRegistrar: Null request to carry out"}));
}

TEST_F(RegistrarTest, RecordInThePipeIsCarriedOut) {
  put(loop.pipe_write_end, record_of(AsyncRegistrar::StopDispatcher));
  loop.run();
  EXPECT_EQ(lines_with("Cancelled"),
            std::vector<std::string>{"AsyncRegistrar: Cancelled - hangup=Yes, err=No"});
}

// ---- ends of the pipe ----

TEST_F(RegistrarTest, UnknownTypeEndsTheLoop) {
  CountingTimer timer("timer");
  timer.startTimer(60, 0, 0, 0);
  loop.on_dispatcher([&] { put(loop.pipe_write_end, record_of(UNKNOWN_TYPE)); });
  loop.run();
  EXPECT_EQ(lines_with("AsyncRegistrar: "),
            (std::vector<std::string>{"AsyncRegistrar: Invalid request-type (9)",
                                      "AsyncRegistrar: Cancelled - hangup=No, err=Yes"}));
  EXPECT_TRUE(log.contains("EvtMgr.dispatcherStopped: Enter with with dead=Yes - tmrq=1, "));
  EXPECT_TRUE(timer.stopTimer());
}

TEST_F(RegistrarTest, RequestsBehindAnUnknownTypeAreNotCarriedOut) {
  CountingTimer timer("timer");
  loop.on_dispatcher([&] {
    put(loop.pipe_write_end, record_of(UNKNOWN_TYPE));
    timer.startTimer(0, 0, 0, 0);
  });
  loop.run();
  EXPECT_EQ(timer.expired, 0);
  EXPECT_FALSE(log.contains("remains"));
}

TEST_F(RegistrarTest, UnknownTypeMayBeSubmitted) {
  AsyncRegistrar registrar("second", loop.mgr);
  loop.on_dispatcher([&] {
    registrar.start();
    EXPECT_TRUE(registrar.submit(UNKNOWN_TYPE, 0));
  });
  loop.run();
  EXPECT_TRUE(has_line("AsyncRegistrar: Invalid request-type (9)"));
}

TEST_F(RegistrarTest, UnknownTypeBehindARequestEndsTheLoopToo) {
  AsyncRegistrar registrar("second", loop.mgr);
  CountingTimer ahead("ahead");
  CountingTimer behind("behind");
  loop.on_dispatcher([&] {
    registrar.start();
    EXPECT_TRUE(registrar.submit(AsyncRegistrar::StartTimer, 1, static_cast<VrnTimer*>(&ahead)));
    EXPECT_TRUE(registrar.submit(UNKNOWN_TYPE, 0));
    EXPECT_TRUE(registrar.submit(AsyncRegistrar::StartTimer, 1, static_cast<VrnTimer*>(&behind)));
  });
  loop.run();
  EXPECT_TRUE(has_line("AsyncRegistrar: Invalid request-type (9)"));
  EXPECT_TRUE(has_line("AsyncRegistrar: Cancelled - hangup=No, err=Yes"));
  EXPECT_TRUE(log.contains("timer=ahead remains"));
  EXPECT_FALSE(log.contains("timer=behind remains"));
}

// Where only errors are logged, the expected end of the pipe is no line at all.
class RegistrarErrorTest : public testing::Test {
 protected:
  LogCapture log;
  const int errors_only = unsetenv("VORNTRC_APPTAG");  // before the first line
  Loop loop;
};

TEST_F(RegistrarErrorTest, ExpectedEndOfThePipeIsNoError) {
  loop.run_calls();
  EXPECT_EQ(log.lines(), std::vector<std::string>{});
}

// Nothing is at the other end any more, though the registrar has not closed its own.
class BrokenPipeTest : public RegistrarErrorTest {
 protected:
  BrokenPipeTest() {
    for (const int fd : open_descriptors()) {
      const bool is_new = !std::binary_search(before.begin(), before.end(), fd);
      if (is_new && (fcntl(fd, F_GETFL) & O_ACCMODE) == O_WRONLY) write_end = fd;
    }
  }

  void break_pipe() const {
    const int other = open("/dev/null", O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(dup2(other, write_end), write_end);
    close(other);
  }

  const std::vector<int> before = open_descriptors();
  AsyncRegistrar registrar{"second", loop.mgr};
  int write_end = -1;
  const std::vector<std::string> expected_lines{"AsyncRegistrar: Cancelled - hangup=Yes, err=No"};
};

TEST_F(BrokenPipeTest, EndsTheLoop) {
  loop.on_dispatcher([this] {
    registrar.start();
    break_pipe();
  });
  loop.run();
  EXPECT_EQ(log.lines(), expected_lines);
}

// As many requests as one read takes: the next one finds the end.
TEST_F(BrokenPipeTest, EndsTheLoopBehindTheRequestsThatItHolds) {
  RecordingHandler handler;
  loop.on_dispatcher([&] {
    registrar.start();
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    const auto signo = reinterpret_cast<void*>(std::intptr_t{SIGUSR1});
    const Record request =
        record_of(AsyncRegistrar::StartSignal, static_cast<VrnSignalHandler*>(&handler), signo);
    for (int i = 0; i < 16; ++i) put(write_end, request);
    break_pipe();
  });
  loop.run();
  EXPECT_EQ(log.lines(), expected_lines);
  EXPECT_EQ(loop.mgr->sigRequest(false, false, &handler, SIGUSR1, false), &handler);
}

TEST_F(RegistrarTest, CancelledByAnErrorAtTheEndOfALoopThatFailed) {
  sys::fail_next("poll", EBADF);
  loop.run();
  EXPECT_TRUE(has_line("AsyncRegistrar: Cancelled - hangup=No, err=Yes"));
}

// ---- the stop ----

TEST_F(RegistrarTest, StopInACallbackEndsTheLoopInALaterTurn) {
  std::size_t asked_in = 0;
  CountingTimer second("second");
  CountingTimer first("first", [&] {
    asked_in = loop.timeouts.size();
    loop.mgr->stopDispatcher();
  });
  loop.on_dispatcher([&] {
    first.startTimerAbs(1, 0, 0, 0);
    second.startTimerAbs(2, 0, 0, 0);
  });
  loop.run();
  EXPECT_EQ(second.expired, 1);  // due in the same turn, behind the stop
  EXPECT_EQ(loop.timeouts.size(), asked_in + 1);
  EXPECT_EQ(lines_with("Cancelled"),
            std::vector<std::string>{"AsyncRegistrar: Cancelled - hangup=Yes, err=No"});
}

// The start was accepted, and meanwhile another thread has ended the loop.
TEST_F(RegistrarTest, StartThatComesToNothingIsToldToAWatcherOfTheLibrarys) {
  Connection connection;
  RecordingReceiver receiver("receiver");
  CountingTimer timer("timer");
  timer.on_stopped = [&] { elsewhere([&] { loop.mgr->stopDispatcher(); }); };
  loop.on_dispatcher([&] { timer.startTimer(60, 0, 0, 0); });
  loop.on_dispatcher([&] {
    timer.stopTimer();
    receiver.aioStart(&connection.file);
  });
  loop.run();
  EXPECT_EQ(receiver.removed, (Cancellations{{&connection.file, false, true}}));
  EXPECT_EQ(receiver.aioFiles(), 0);
}

TEST_F(RegistrarTest, StopMayBeAskedForTwice) {
  loop.on_dispatcher([&] {
    loop.mgr->stopDispatcher();
    loop.mgr->stopDispatcher();
  });
  loop.run();
  loop.mgr->stopDispatcher();
  EXPECT_EQ(lines_with("EvtMgr.stop").size(), 3U);
  EXPECT_EQ(lines_with("Cancelled").size(), 1U);
}

TEST_F(RegistrarTest, RequestsInFrontOfTheStopAreCarriedOut) {
  CountingTimer timer("timer");
  loop.on_dispatcher([&] {
    timer.startTimer(60, 0, 0, 0);
    timer.stopTimer();
    loop.mgr->stopDispatcher();
  });
  loop.run();
  EXPECT_EQ(timer.stopped, 1);
  EXPECT_TRUE(log.contains("AsyncRegistrar.dispatcherStopped: Enter with unreg_reqs=0"));
}

// A forked process that the application does not know of keeps the write end open.
TEST_F(RegistrarTest, StopEndsTheLoopAlsoWhenAChildHoldsThePipe) {
  int life_line[2];
  ASSERT_EQ(pipe(life_line), 0);
  const pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    close(life_line[1]);
    char byte;
    _exit(read(life_line[0], &byte, 1) == 0 ? 0 : 1);
  }
  close(life_line[0]);
  loop.on_dispatcher([&] { loop.mgr->stopDispatcher(); });
  loop.run();
  EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0);  // it still lives
  close(life_line[1]);
  EXPECT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_TRUE(has_line("AsyncRegistrar: Cancelled - hangup=Yes, err=No"));
}

// In the turn that reads request 5, a callback that a request behind it makes.
TEST_F(RegistrarTest, StartAfterTheStopWasReadIsRefused) {
  CountingTimer first("first");
  CountingTimer late("late");
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  RecordingHandler handler;
  first.on_stopped = [&] {
    EXPECT_FALSE(loop.mgr->startTimer(&late));
    EXPECT_FALSE(loop.mgr->startAIO(&connection.file, &reader));
    EXPECT_EQ(loop.mgr->startSignal(&handler, SIGUSR1), nullptr);
    loop.mgr->stopDispatcher();
    late.startTimer(0, 0, 0, 0);
  };
  loop.on_dispatcher([&] {
    first.startTimer(60, 0, 0, 0);
    loop.mgr->stopDispatcher();
    first.stopTimer();
  });
  loop.run();
  EXPECT_EQ(first.stopped, 1);
  EXPECT_EQ(late.expired, 0);
  EXPECT_FALSE(log.contains("remains"));
  EXPECT_FALSE(log.contains("Signal Handlers"));
}

TEST_F(RegistrarTest, StopsAfterTheStopWasReadAreConfirmedBehindTheLoop) {
  CountingTimer first("first");
  CountingTimer timer("timer");
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  RecordingHandler handler;
  bool ended = false;
  const auto loop_has_ended = [&] { return log.contains("dispatcherStopped: Enter"); };
  timer.on_stopped = [&] { ended = loop_has_ended(); };
  first.on_stopped = [&] {
    EXPECT_FALSE(timer.stopTimer());
    EXPECT_FALSE(loop.mgr->stopAIO(&connection.file, &reader));
    EXPECT_FALSE(loop.mgr->stopSignal(&handler, SIGUSR1, true));
  };
  loop.on_dispatcher([&] {
    timer.startTimer(60, 0, 0, 0);
    loop.mgr->startAIO(&connection.file, &reader);
    first.startTimer(60, 0, 0, 0);
    loop.mgr->stopDispatcher();
    first.stopTimer();
  });
  loop.run();
  EXPECT_TRUE(ended);
  EXPECT_EQ(timer.stopped, 1);
  EXPECT_EQ(reader.cancelled, (Cancellations{{&connection.file, false, false}}));
  EXPECT_EQ(handler.stopped, std::vector<int>{SIGUSR1});
  EXPECT_TRUE(has_line("AsyncRegistrar.dispatcherStopped: Enter with unreg_reqs=3"));
  EXPECT_FALSE(log.contains("remains"));
}

TEST_F(RegistrarTest, QueuedRequestThatThrowsIsLogged) {
  CountingTimer first("first");
  Connection connection("conn");
  RecordingAIO reader(RecordingAIO::Input, "reader");
  RecordingAIO stranger(RecordingAIO::Input, "stranger");
  CountingTimer timer("timer");
  first.on_stopped = [&] {
    loop.mgr->stopAIO(&connection.file, &stranger);
    timer.stopTimer();
  };
  loop.on_dispatcher([&] {
    loop.mgr->startAIO(&connection.file, &reader);
    timer.startTimer(60, 0, 0, 0);
    first.startTimer(60, 0, 0, 0);
    loop.mgr->stopDispatcher();
    first.stopTimer();
  });
  loop.run();
  EXPECT_EQ(timer.stopped, 1);
  const std::vector<std::string> threw = lines_with("queued request threw");
  ASSERT_EQ(threw.size(), 1U);
  EXPECT_EQ(threw[0].find("AsyncRegistrar: queued request threw [VrnException: Error=3 "), 0U);
}

TEST_F(RegistrarTest, StopsInAQueuedConfirmationAreRefusedAndSoDoneAtOnce) {
  CountingTimer first("first");
  CountingTimer queued("queued");
  CountingTimer third("third");
  bool at_once = false;
  queued.on_stopped = [&] { at_once = third.stopTimer(); };
  first.on_stopped = [&] { queued.stopTimer(); };
  loop.on_dispatcher([&] {
    queued.startTimer(60, 0, 0, 0);
    third.startTimer(60, 0, 0, 0);
    first.startTimer(60, 0, 0, 0);
    loop.mgr->stopDispatcher();
    first.stopTimer();
  });
  loop.run();
  EXPECT_EQ(queued.stopped, 1);
  EXPECT_TRUE(at_once);
  EXPECT_EQ(third.stopped, 0);
}

// The loop ended over requests that it had not read.
TEST_F(RegistrarTest, UnreadStopIsConfirmedBehindTheLoop) {
  CountingTimer timer("timer");
  loop.on_dispatcher([&] { timer.startTimer(60, 0, 0, 0); });
  loop.on_dispatcher([&] {
    EXPECT_FALSE(timer.stopTimer());
    sys::fail_next("poll", EBADF);
  });
  loop.run();
  EXPECT_EQ(timer.stopped, 1);
}

TEST_F(RegistrarTest, UnreadStartsAreNotCarriedOutBehindTheLoop) {
  CountingTimer first("first");
  CountingTimer second("second");
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  RecordingHandler handler;
  loop.on_dispatcher([&] {
    first.startTimer(60, 0, 0, 0);
    second.startTimer(60, 0, 0, 0);
    EXPECT_TRUE(loop.mgr->startAIO(&connection.file, &reader));
    loop.mgr->startSignal(&handler, SIGUSR1);
    sys::fail_next("poll", EBADF);
  });
  loop.run();
  EXPECT_TRUE(has_line("EvtMgr: After dispatcher shutdown, tmrq=0, pollfds=0"));
  EXPECT_FALSE(log.contains("remains"));
  EXPECT_FALSE(log.contains("Signal Handlers"));
}

TEST_F(RegistrarTest, UnreadStopIsConfirmedWhenAnotherThreadStopsTheLoop) {
  CountingTimer timer("timer");
  loop.on_dispatcher([&] { timer.startTimer(60, 0, 0, 0); });
  loop.on_dispatcher([&] {
    EXPECT_FALSE(timer.stopTimer());
    elsewhere([&] { loop.mgr->stopDispatcher(); });
  });
  loop.run();
  EXPECT_EQ(timer.stopped, 1);
}

TEST_F(RegistrarTest, DestructorFreesWhatIsQueuedWithoutCarryingItOut) {
  Connection connection;
  RecordingAIO reader(RecordingAIO::Input, "reader");
  {
    AsyncRegistrar registrar("second", loop.mgr);
    Record stop = record_of(AsyncRegistrar::StopDispatcher);
    EXPECT_EQ(registrar.processRequest(stop.data()), 0);  // closes its pipe
    EXPECT_TRUE(registrar.submit(AsyncRegistrar::StopAIO, 2, &connection.file,
                                 static_cast<VrnAIO*>(&reader)));
    EXPECT_TRUE(registrar.submit(UNKNOWN_TYPE, 0));
    EXPECT_FALSE(registrar.submit(AsyncRegistrar::StartAIO, 2, &connection.file,
                                  static_cast<VrnAIO*>(&reader)));
    EXPECT_FALSE(registrar.submit(AsyncRegistrar::StopDispatcher, 0));
  }
  EXPECT_TRUE(has_line("AsyncRegistrar.dtor: Enter with unreg_reqs=2, stopped=No"));
  EXPECT_EQ(reader.cancelled, Cancellations{});
}

TEST_F(RegistrarTest, StoppedRegistrarRefusesEverything) {
  CountingTimer timer("timer");
  {
    AsyncRegistrar registrar("second", loop.mgr);
    registrar.dispatcherStopped();
    for (int type = AsyncRegistrar::StartAIO; type <= UNKNOWN_TYPE; ++type) {
      EXPECT_FALSE(registrar.submit(type, 3, nullptr, nullptr, nullptr)) << type;
    }
  }
  EXPECT_TRUE(has_line("AsyncRegistrar.dtor: Enter with unreg_reqs=0, stopped=Yes"));
}

TEST_F(RegistrarTest, ManagersRegistrarIsStoppedByTheEndOfTheLoop) {
  loop.run_calls();
  VrnEvtMgr::destroy();
  EXPECT_TRUE(has_line("AsyncRegistrar.dtor: Enter with unreg_reqs=0, stopped=Yes"));
}

// ---- many requests ----

constexpr int MANY = 100000;

void RegistrarTest::start_many_in_one_callback() {
  std::vector<std::unique_ptr<CountingTimer>> timers;
  timers.reserve(MANY);
  int fired = 0;
  int out_of_order = 0;
  for (int i = 0; i < MANY; ++i) {
    timers.emplace_back(new CountingTimer("t", [&, i] {
      if (fired != i) ++out_of_order;
      ++fired;
    }));
  }
  loop.on_dispatcher([&] {
    for (const auto& timer : timers) timer->startTimerAbs(1, 0, 0, 0);
    EXPECT_EQ(fired, 0);
  });
  loop.run_until([&] { return fired == MANY; });
  EXPECT_EQ(out_of_order, 0);
}

TEST_F(RegistrarTest, ManyStartsInOneCallback) {
  start_many_in_one_callback();
}

TEST_F(RegistrarTest, ManyStartsInOneCallbackWithASmallPipe) {
  ASSERT_EQ(fcntl(loop.pipe_write_end, F_SETPIPE_SZ, 8192), 8192);
  start_many_in_one_callback();
}

TEST_F(RegistrarTest, ManyStartsInOneCallbackWithTheSmallestPipe) {
  ASSERT_EQ(fcntl(loop.pipe_write_end, F_SETPIPE_SZ, 4096), 4096);
  start_many_in_one_callback();
}

TEST_F(RegistrarTest, ManyStartsBeforeTheLoopRuns) {
  ASSERT_EQ(fcntl(loop.pipe_write_end, F_SETPIPE_SZ, 4096), 4096);
  std::vector<std::unique_ptr<CountingTimer>> timers;
  timers.reserve(MANY);
  int fired = 0;
  int out_of_order = 0;
  for (int i = 0; i < MANY; ++i) {
    timers.emplace_back(new CountingTimer("t", [&, i] {
      if (fired != i) ++out_of_order;
      ++fired;
    }));
    timers.back()->startTimerAbs(1, 0, 0, 0);
  }
  loop.run_until([&] { return fired == MANY; });
  EXPECT_EQ(out_of_order, 0);
}

TEST_F(RegistrarTest, ManyRestartsAndStopsOfOneTimer) {
  CountingTimer timer("timer");
  loop.on_dispatcher([&] {
    for (int i = 0; i < MANY; ++i) {
      timer.startTimer(60, 0, 0, 0);
      timer.stopTimer();
    }
    timer.startTimer(0, 0, 0, 0);
  });
  loop.run_until([&] { return timer.expired > 0; });
  EXPECT_EQ(timer.expired, 1);
  EXPECT_EQ(timer.stopped, 0);
}

// A callback that makes a request for every request carried out keeps the registrar at work; the
// stop is asked for by one of them.
TEST_F(RegistrarTest, RequestsMadeByConfirmations) {
  CountingTimer timer("timer");
  timer.on_stopped = [&] {
    if (timer.stopped == 1000) return;
    timer.startTimer(60, 0, 0, 0);
    timer.stopTimer();
  };
  loop.on_dispatcher([&] {
    timer.startTimer(60, 0, 0, 0);
    timer.stopTimer();
  });
  loop.run_until([&] { return timer.stopped == 1000; });
}

// The pipe is full of records that only end the wait.
TEST_F(RegistrarTest, FullPipeTakesRequestsAllTheSame) {
  ASSERT_EQ(fcntl(loop.pipe_write_end, F_SETPIPE_SZ, 4096), 4096);
  CountingTimer first("first");
  CountingTimer second("second");
  RecordingHandler handler;
  elsewhere([&] { loop.mgr->startSignal(&handler, SIGUSR1); });
  loop.on_dispatcher([&] {
    for (int i = 0; i < 1000; ++i) raise(SIGUSR1);
    first.startTimer(0, 0, 0, 0);
    second.startTimer(0, 0, 0, 0);
  });
  loop.run_until([&] { return first.expired == 1 && second.expired == 1; });
  EXPECT_EQ(handler.received, std::vector<int>{SIGUSR1});
}

}  // namespace
}  // namespace vornfc
