#include "vornfc/async_rdr.h"

#include "support/allocations.h"
#include "support/log_capture.h"
#include "support/loop.h"
#include "support/planned_call.h"
#include "support/sanitizers.h"
#include "support/wait_for.h"
#include "vornfc/appshell.h"
#include "vornfc/exception.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

// The program's own read(), which the library then uses: the calls on one descriptor are looked at
// and may be made to fail.
namespace {

struct Reads {
  void look_at(int descriptor) {
    fd = descriptor;
    count = 0;
    failures = 0;
  }
  // The next `times` calls end with `outcome` and `failure` in errno.
  void fail(int failure, int times = 1, ssize_t outcome = -1) {
    error = failure;
    result = outcome;
    failures = times;
  }

  std::atomic<int> fd{-1};
  int count = 0;
  std::array<std::size_t, 64> wanted{};  // by each of the first calls, in order
  int errno_before = 0;
  int failures = 0, error = 0;
  ssize_t result = -1;
  Call during;  // made by the next one that does not fail
};

Reads reads;

}  // namespace

extern "C" ssize_t read(int fd, void* buf, size_t count) {
  const int errno_before = errno;
  if (fd == reads.fd) {
    reads.errno_before = errno_before;
    if (reads.count < static_cast<int>(reads.wanted.size())) {
      reads.wanted.at(static_cast<std::size_t>(reads.count)) = count;
    }
    ++reads.count;
    if (reads.failures > 0) {
      --reads.failures;
      errno = reads.error;
      return reads.result;
    }
    if (const auto call = std::exchange(reads.during, nullptr)) call();
  }
  return sys::forward("read", &read, fd, buf, count);
}

namespace vornfc {
namespace {

using Removals = std::vector<Cancelled>;
using Failure = std::pair<int, std::string>;
using Texts = std::vector<std::string>;

#ifdef VORNFC_TEST_TSAN
constexpr int rounds = 500;
#else
constexpr int rounds = 3000;
#endif

// The exception that `call` throws, as its code and message.
Failure failure_of(const Call& call) {
  try {
    call();
  } catch (const VrnException& e) {
    return {e.err(), e.what()};
  }
  return {0, "no VrnException"};
}

// Calls what the test put into its fields, a copy of it: the call may destroy the object.
class RecordingReader : public VrnAsyncReader {
 public:
  explicit RecordingReader(const std::string& name = "reader") : VrnAsyncReader(name) {}

  void aioReceived(VrnFile* file, int bytes, char* buffer) override {
    received.emplace_back(buffer, static_cast<std::size_t>(bytes));
    last_buffer = buffer;
    if (const auto call = on_received) call(file);
  }
  void aioReadable(VrnFile* file) override {
    ++readable;
    if (const auto call = on_readable) call(file);
  }
  void aioRemoved(VrnFile* file, bool hangup, bool error) override {
    removed.push_back({file, hangup, error});
    if (const auto call = on_removed) call();
  }

  bool is_locked() const {
    bool taken = false;
    elsewhere([&] {
      taken = mutex->trylock() == -1;
      if (!taken) mutex->unlock();
    });
    return taken;
  }
  VrnMutex* lock() const { return mutex.get(); }

  Texts received;
  const char* last_buffer = nullptr;
  int readable = 0;
  Removals removed;
  RecordingAIO::Ready on_received, on_readable;
  Call on_removed;
};

// A file and the other end of the pipe or connection that it leads to.
class Channel {
 public:
  enum Kind { Pipe, Tcp };

  explicit Channel(Kind kind) {
    int ends[2] = {-1, -1};
    if (kind == Pipe) {
      EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    } else {
      connect_ends(ends);
    }
    file.assign(ends[0], "channel", true);
    peer = ends[1];
  }
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;
  ~Channel() { hang_up(); }

  void send(const std::string& text) const {
    EXPECT_EQ(write(peer, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void hang_up() {
    if (peer != -1) close(peer);
    peer = -1;
  }
  void reset() {
    const linger at_once{1, 0};
    EXPECT_EQ(setsockopt(peer, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once), 0);
    hang_up();
  }

  VrnFile file;
  int peer = -1;

 private:
  static void connect_ends(int* ends) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const name = reinterpret_cast<sockaddr*>(&address);
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(listener, name, size), 0);
    EXPECT_EQ(listen(listener, 1), 0);
    EXPECT_EQ(getsockname(listener, name, &size), 0);
    ends[1] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(ends[1], name, size), 0);
    ends[0] = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    EXPECT_NE(ends[0], -1);
    close(listener);
  }
};

class AsyncReaderTest : public testing::Test {
 public:
  ~AsyncReaderTest() override { reads.look_at(-1); }

 protected:
  LogCapture log;
  Loop loop;
  Connection connection{"conn"};
  VrnFile* const file = &connection.file;
  char buffer[100] = {};
};

using AsyncReaderDeathTest = AsyncReaderTest;

// ---- requests ----

TEST_F(AsyncReaderTest, TellsOnceThatTheBufferIsFull) {
  RecordingReader reader;
  reads.look_at(file->fd);
  loop.on_dispatcher([&] {
    reader.aioRequest(file, 10, buffer);
    connection.send("abcd");
  });
  loop.when([&] { return reader.pendingBytes(file) == 4; }, [&] { connection.send("efgh"); });
  loop.when([&] { return reader.pendingBytes(file) == 8; },
            [&] {
              EXPECT_TRUE(reader.received.empty());
              EXPECT_EQ(reader.requestedBytes(file), 10);
              connection.send("ij");
            });
  loop.run_until([&] { return !reader.received.empty(); });
  EXPECT_EQ(reader.received, Texts{"abcdefghij"});
  EXPECT_EQ(reader.last_buffer, buffer);
  EXPECT_EQ(reader.pendingBytes(file), 0);
  EXPECT_EQ(reader.requestedBytes(file), 10);
  EXPECT_EQ(reads.count, 3);
  EXPECT_EQ(reads.wanted[0], 10u);
  EXPECT_EQ(reads.wanted[1], 6u);
  EXPECT_EQ(reads.wanted[2], 2u);
}

TEST_F(AsyncReaderTest, RequestStaysInForceForTheSameBuffer) {
  RecordingReader reader;
  reader.on_received = [&](VrnFile* from) {
    EXPECT_EQ(from, file);
    EXPECT_EQ(reader.last_buffer, buffer);
    EXPECT_EQ(reader.pendingBytes(file), 0);
  };
  loop.on_dispatcher([&] {
    reader.aioRequest(file, 3, buffer);
    connection.send("abcdefghi");
  });
  loop.run_until([&] { return reader.received.size() == 3; });
  EXPECT_EQ(reader.received, (Texts{"abc", "def", "ghi"}));
}

TEST_F(AsyncReaderTest, OneReadEachTimeTheFileIsReady) {
  RecordingReader reader;
  reads.look_at(file->fd);
  std::vector<int> at_poll;
  loop.before_poll = [&] { at_poll.push_back(reads.count); };
  loop.on_dispatcher([&] {
    connection.send("0123456789");
    reader.aioRequest(file, 3, buffer);
  });
  loop.run_until([&] { return reader.pendingBytes(file) == 1; });
  EXPECT_EQ(reader.received, (Texts{"012", "345", "678"}));
  EXPECT_EQ(reads.count, 4);
  for (std::size_t i = 1; i < at_poll.size(); ++i) EXPECT_LE(at_poll[i] - at_poll[i - 1], 1);
}

TEST_F(AsyncReaderTest, BusyFileDoesNotHoldUpTheOthers) {
  Connection second;
  char other[1];
  std::size_t before_second = 0;
  RecordingReader reader;
  reader.on_received = [&](VrnFile* from) {
    if (from == &second.file) before_second = reader.received.size() - 1;
  };
  loop.on_dispatcher([&] {
    connection.send(std::string(1000, 'x'));
    second.send("y");
    reader.aioRequest(file, 1, buffer);
    reader.aioRequest(&second.file, 1, other);
  });
  loop.run_until([&] { return before_second > 0; });
  EXPECT_EQ(before_second, 1u);
}

TEST_F(AsyncReaderTest, EachFileHasItsOwnRequest) {
  Connection second("second");
  Connection third("third");
  char long_buffer[4];
  RecordingReader reader;
  elsewhere([&] {
    reader.aioRequest(file, 2, buffer);
    reader.aioRequest(&second.file, 4, long_buffer);
    reader.aioListen(&third.file);
  });
  EXPECT_EQ(reader.aioFiles(), 3);
  for (VrnFile* const each : {file, &second.file, &third.file}) EXPECT_TRUE(reader.aioFile(each));
  EXPECT_EQ(reader.requestedBytes(file), 2);
  EXPECT_EQ(reader.requestedBytes(&second.file), 4);
  EXPECT_EQ(reader.requestedBytes(&third.file), 0);
  second.send("abc");
  loop.when([&] { return reader.pendingBytes(&second.file) == 3; },
            [&] {
              connection.send("xyz");
              second.send("d");
            });
  loop.run_until([&] { return reader.received.size() == 2 && reader.pendingBytes(file) == 1; });
  std::sort(reader.received.begin(), reader.received.end());
  EXPECT_EQ(reader.received, (Texts{"abcd", "xy"}));
  EXPECT_EQ(reader.pendingBytes(&second.file), 0);
  EXPECT_EQ(reader.readable, 0);
}

TEST_F(AsyncReaderTest, UnknownFileHasNoRequest) {
  const RecordingReader reader;
  EXPECT_EQ(reader.requestedBytes(file), -1);
  EXPECT_EQ(reader.pendingBytes(file), -1);
  EXPECT_EQ(reader.requestedBytes(nullptr), -1);
  EXPECT_FALSE(reader.aioFile(file));
  EXPECT_EQ(reader.aioFiles(), 0);
}

TEST_F(AsyncReaderTest, NewRequestAbandonsWhatWasRead) {
  char other[3];
  RecordingReader reader;
  loop.on_dispatcher([&] {
    reader.aioRequest(file, 10, buffer);
    connection.send("abcd");
  });
  loop.when([&] { return reader.pendingBytes(file) == 4; },
            [&] {
              reader.aioRequest(file, 3, other);
              EXPECT_EQ(reader.pendingBytes(file), 0);
              EXPECT_EQ(reader.requestedBytes(file), 3);
              EXPECT_EQ(reader.aioFiles(), 1);
              connection.send("xyz");
            });
  loop.run_until([&] { return !reader.received.empty(); });
  EXPECT_EQ(reader.received, Texts{"xyz"});
  EXPECT_EQ(reader.last_buffer, other);
  EXPECT_EQ(std::string(buffer), "abcd");
  EXPECT_FALSE(log.contains("EvtMgr conflict"));  // it was started once
}

TEST_F(AsyncReaderTest, SameRequestAgainStartsTheBufferAgain) {
  RecordingReader reader;
  elsewhere([&] { reader.aioRequest(file, 5, buffer); });
  connection.send("abc");
  loop.when([&] { return reader.pendingBytes(file) == 3; },
            [&] {
              elsewhere([&] { reader.aioRequest(file, 5, buffer); });
              connection.send("defgh");
            });
  loop.run_until([&] { return !reader.received.empty(); });
  EXPECT_EQ(reader.received, Texts{"defgh"});
}

TEST_F(AsyncReaderTest, RequestMayBeChangedInTheCallback) {
  char body[5];
  RecordingReader reader;
  reader.on_received = [&](VrnFile*) {
    if (reader.last_buffer == buffer) {
      reader.aioRequest(file, buffer[0] - '0', body);
    } else {
      reader.aioRequest(file, 1, buffer);
    }
  };
  elsewhere([&] { reader.aioRequest(file, 1, buffer); });
  connection.send("3abc5abcde1x");
  loop.run_until([&] { return reader.received.size() == 6; });
  EXPECT_EQ(reader.received, (Texts{"3", "abc", "5", "abcde", "1", "x"}));
}

TEST_F(AsyncReaderTest, StoppedInTheCallback) {
  RecordingReader reader;
  reader.on_received = [&](VrnFile*) { EXPECT_FALSE(reader.aioStop(file)); };
  elsewhere([&] { reader.aioRequest(file, 1, buffer); });
  connection.send("abc");
  loop.run_until([&] { return !reader.removed.empty(); });
  EXPECT_EQ(reader.received, Texts{"a"});
  EXPECT_EQ(reader.removed, (Removals{{file, false, false}}));
}

// ---- listening ----

TEST_F(AsyncReaderTest, ListenedFileIsToldToBeReadyAndNotRead) {
  RecordingReader reader;
  reads.look_at(file->fd);
  loop.on_dispatcher([&] {
    reader.aioListen(file);
    EXPECT_EQ(reader.requestedBytes(file), 0);
    EXPECT_EQ(reader.pendingBytes(file), 0);
    connection.send("ab");
  });
  int at_poll = 0;
  loop.before_poll = [&] {
    EXPECT_LE(reader.readable, at_poll + 1);
    at_poll = reader.readable;
  };
  loop.run_until([&] { return reader.readable >= 3; });
  EXPECT_EQ(reads.count, 0);
  EXPECT_TRUE(reader.received.empty());
}

TEST_F(AsyncReaderTest, RequestOfNothingListens) {
  RecordingReader reader;
  elsewhere([&] { reader.aioRequest(file, 0, buffer); });
  connection.send("ab");
  loop.run_until([&] { return reader.readable > 0; });
  EXPECT_EQ(reader.requestedBytes(file), 0);
}

TEST_F(AsyncReaderTest, ListenerRequestsWithTheLockThatItHolds) {
  RecordingReader reader;
  reader.on_readable = [&](VrnFile* from) {
    EXPECT_EQ(reader.requestedBytes(from, true), 0);
    EXPECT_EQ(reader.pendingBytes(from, true), 0);
    EXPECT_TRUE(reader.aioFile(from, true));
    EXPECT_EQ(reader.aioFiles(true), 1);
    reader.aioRequest(from, 5, buffer, true);
  };
  reader.on_received = [&](VrnFile* from) { reader.aioListen(from); };
  elsewhere([&] { reader.aioListen(file); });
  connection.send("hello");
  loop.when([&] { return !reader.received.empty(); }, [&] { connection.send("again"); });
  loop.run_until([&] { return reader.received.size() == 2; });
  EXPECT_EQ(reader.received, (Texts{"hello", "again"}));
  EXPECT_EQ(reader.readable, 2);
}

TEST_F(AsyncReaderTest, ListenerStopsWithTheLockThatItHolds) {
  RecordingReader reader;
  reader.on_readable = [&](VrnFile* from) { EXPECT_FALSE(reader.aioStop(from, true)); };
  loop.on_dispatcher([&] { reader.aioListen(file); });
  connection.send("hello");
  loop.run_until([&] { return !reader.removed.empty(); });
  EXPECT_EQ(reader.readable, 1);
  EXPECT_EQ(reader.removed, (Removals{{file, false, false}}));
}

TEST_F(AsyncReaderTest, ListenerFindsTheEndOfFileItself) {
  RecordingReader reader;
  reader.on_readable = [&](VrnFile* from) {
    char byte;
    if (read(from->fd, &byte, 1) == 0) reader.aioTerminate(true);
  };
  loop.on_dispatcher([&] { reader.aioListen(file); });
  connection.send("a");
  connection.hang_up();
  loop.run_until([&] { return !reader.removed.empty(); });
  EXPECT_EQ(reader.readable, 2);
  EXPECT_EQ(reader.removed, (Removals{{file, false, false}}));
}

// ---- ends of files ----

TEST_F(AsyncReaderTest, EndOfFileIsAHangUp) {
  RecordingReader reader;
  reads.look_at(file->fd);
  reader.on_removed = [&] {
    EXPECT_FALSE(reader.aioFile(file));
    EXPECT_EQ(reader.requestedBytes(file), -1);
    EXPECT_EQ(reader.pendingBytes(file), -1);
  };
  elsewhere([&] { reader.aioRequest(file, 3, buffer); });
  connection.send("abcde");
  connection.hang_up();
  loop.on_dispatcher([] {});
  loop.run_until([&] { return !reader.removed.empty(); });
  EXPECT_EQ(reader.received, Texts{"abc"});
  EXPECT_EQ(reader.removed, (Removals{{file, true, false}}));
  EXPECT_EQ(reader.aioFiles(), 0);
  EXPECT_EQ(reads.count, 3);  // "abc", "de", the end
}

TEST_F(AsyncReaderTest, EveryFailureButTwoIsAnErrorThatIsNotLogged) {
  const std::vector<int> errors{EBADF,  EFAULT,    EINVAL,     EIO,       EISDIR,
                                ENOMEM, ENOBUFS,   ECONNRESET, ETIMEDOUT, ENOTCONN,
                                ENXIO,  EOVERFLOW, EBADMSG,    EPIPE,     0};
  std::vector<std::unique_ptr<Connection>> connections;
  for (std::size_t i = 0; i < errors.size(); ++i) {
    connections.push_back(std::make_unique<Connection>());
  }
  RecordingReader reader;
  Texts lines;
  for (std::size_t i = 0; i < errors.size(); ++i) {
    const Connection* const each = connections[i].get();
    VrnFile* const failing = &connections[i]->file;
    loop.on_dispatcher([&, i, each, failing] {
      lines = log.lines();
      reads.look_at(failing->fd);
      reads.fail(errors[i], 2);
      each->send("x");
      reader.aioRequest(failing, 1, buffer);
    });
    loop.when([&, i] { return reader.removed.size() > i; },
              [&, i, failing] {
                EXPECT_EQ(reader.removed.back(), (Cancelled{failing, false, true})) << errors[i];
                EXPECT_EQ(reads.count, 1) << errors[i];
                EXPECT_EQ(reader.aioFiles(), 0);
                EXPECT_EQ(log.lines(), lines);
              });
  }
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_EQ(reader.removed.size(), errors.size());
  EXPECT_TRUE(reader.received.empty());
}

TEST_F(AsyncReaderTest, InterruptedOrEmptyReadIsTriedAgain) {
  RecordingReader reader;
  reads.look_at(file->fd);
  elsewhere([&] { reader.aioRequest(file, 6, buffer); });
  connection.send("abc");
  Texts lines;
  loop.when([&] { return reader.pendingBytes(file) == 3; },
            [&] {
              lines = log.lines();
              reads.fail(EINTR, 3);
              connection.send("d");
            });
  loop.when([&] { return reader.pendingBytes(file) == 4; },
            [&] {
              reads.fail(EAGAIN, 3);
              connection.send("ef");
            });
  loop.when([&] { return !reader.received.empty(); }, [&] { EXPECT_EQ(log.lines(), lines); });
  loop.run_calls();
  EXPECT_EQ(reader.received, Texts{"abcdef"});
  EXPECT_TRUE(reader.removed.empty());
  EXPECT_EQ(reads.count, 9);
}

TEST_F(AsyncReaderTest, EndOfFileIsOneWhateverErrnoSays) {
  RecordingReader reader;
  reads.look_at(file->fd);
  reads.fail(EAGAIN, 1, 0);
  elsewhere([&] { reader.aioRequest(file, 6, buffer); });
  connection.send("abc");
  loop.run_until([&] { return !reader.removed.empty(); });
  EXPECT_EQ(reader.removed, (Removals{{file, true, false}}));
}

TEST_F(AsyncReaderTest, ReadBeginsWithoutAnError) {
  RecordingReader reader;
  reads.look_at(file->fd);
  connection.send("abc");
  elsewhere([&] {
    reader.aioRequest(file, 6, buffer);
    errno = EIO;
    reader.aioReady(file);
  });
  EXPECT_EQ(reads.count, 1);
  EXPECT_EQ(reads.errno_before, 0);
  EXPECT_EQ(reader.aioTerminate(), 1);
  loop.run_calls();
}

TEST_F(AsyncReaderTest, ReadyFileThatIsUnknownIsLeftAlone) {
  RecordingReader reader;
  reads.look_at(file->fd);
  connection.send("abc");
  reader.aioReady(file);
  EXPECT_EQ(reads.count, 0);
  EXPECT_EQ(reader.readable, 0);
  EXPECT_FALSE(reader.is_locked());
}

// Where a stop is done at once, so is the report.
TEST_F(AsyncReaderTest, EndsAreToldAtOnceWhenTheStopIsDone) {
  Connection second;
  RecordingReader reader;
  reader.on_removed = [&] {
    EXPECT_FALSE(reader.is_locked());
    EXPECT_FALSE(reader.aioFile(reader.removed.back().file));
  };
  elsewhere([&] {
    reader.aioRequest(file, 6, buffer);
    connection.hang_up();
    reader.aioReady(file);
    EXPECT_EQ(reader.removed, (Removals{{file, true, false}}));

    reader.aioRequest(&second.file, 6, buffer);
    reads.look_at(second.file.fd);
    reads.fail(EIO);
    reader.aioReady(&second.file);
    EXPECT_EQ(reader.removed, (Removals{{file, true, false}, {&second.file, false, true}}));
    EXPECT_EQ(reader.aioFiles(), 0);
  });
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_EQ(reader.removed.size(), 2u);
}

TEST_F(AsyncReaderTest, FileThatHasEndedIsNotReadAgainUntilItIsGone) {
  RecordingReader reader;
  reads.look_at(file->fd);
  loop.on_dispatcher([&] { reader.aioRequest(file, 6, buffer); });
  loop.on_dispatcher([&] {
    connection.hang_up();
    reader.aioReady(file);
    reader.aioReady(file);
    EXPECT_EQ(reads.count, 1);
    EXPECT_TRUE(reader.removed.empty());
    EXPECT_TRUE(reader.aioFile(file));
  });
  loop.on_dispatcher([] {});
  loop.run_until([&] { return !reader.removed.empty(); });
  EXPECT_EQ(reader.removed, (Removals{{file, true, false}}));
  EXPECT_EQ(reads.count, 1);
}

// ---- the first cause of an end is the one that is told ----

// Makes `ends` happen in one callback, and returns what is told of it.
class FirstCauseTest : public AsyncReaderTest {
 protected:
  Removals told_of(const Call& ends) {
    loop.on_dispatcher([&] { reader.aioRequest(file, 6, buffer); });
    loop.on_dispatcher([&] {
      reads.look_at(file->fd);
      ends();
      EXPECT_TRUE(reader.removed.empty());
    });
    loop.when([&] { return !reader.removed.empty(); }, [] {});
    loop.on_dispatcher([] {});
    loop.run_calls();
    EXPECT_EQ(reader.aioFiles(), 0);
    return reader.removed;
  }
  void stop() { EXPECT_FALSE(reader.aioStop(file)); }
  void end_of_file() {
    reads.fail(0, 1, 0);
    reader.aioReady(file);
  }
  void read_error() {
    reads.fail(EIO);
    reader.aioReady(file);
  }

  RecordingReader reader;
  const Removals nothing{{file, false, false}};
  const Removals hangup{{file, true, false}};
  const Removals error{{file, false, true}};
};

TEST_F(FirstCauseTest, EndOfFileDuringAStop) {
  EXPECT_EQ(told_of([&] { stop(), end_of_file(); }), nothing);
  EXPECT_EQ(reads.count, 1);
}

TEST_F(FirstCauseTest, ReadErrorDuringAStop) {
  EXPECT_EQ(told_of([&] { stop(), read_error(); }), nothing);
}

TEST_F(FirstCauseTest, EndOfFileDuringATermination) {
  const auto terminate = [&] { EXPECT_EQ(reader.aioTerminate(), 1); };
  EXPECT_EQ(told_of([&] { terminate(), end_of_file(); }), nothing);
}

TEST_F(FirstCauseTest, StopAfterTheEndOfFile) {
  EXPECT_EQ(told_of([&] { end_of_file(), stop(), stop(); }), hangup);
}

TEST_F(FirstCauseTest, StopAfterAReadError) {
  EXPECT_EQ(told_of([&] { read_error(), stop(); }), error);
}

TEST_F(FirstCauseTest, TerminationAfterAReadError) {
  EXPECT_EQ(told_of([&] { read_error(), (void)reader.aioTerminate(); }), error);
}

TEST_F(FirstCauseTest, RequestAfterTheEndOfFile) {
  EXPECT_EQ(told_of([&] { end_of_file(), reader.aioRequest(file, 3, buffer); }), hangup);
  EXPECT_EQ(reads.count, 1);
}

TEST_F(FirstCauseTest, ListeningAfterAReadError) {
  EXPECT_EQ(told_of([&] { read_error(), reader.aioListen(file), reader.aioReady(file); }), error);
  EXPECT_EQ(reader.readable, 0);
}

TEST_F(FirstCauseTest, RequestAndEndOfFileDuringAStop) {
  EXPECT_EQ(told_of([&] { stop(), reader.aioRequest(file, 3, buffer), end_of_file(); }), nothing);
}

TEST_F(FirstCauseTest, DataDuringAStopIsStillReceived) {
  EXPECT_EQ(told_of([&] {
              connection.send("abcdef");
              stop();
              reader.aioReady(file);
              EXPECT_EQ(reader.received, Texts{"abcdef"});
            }),
            nothing);
}

// The loop brings a stop and an end of file together: both files are ready in one turn, and one
// watcher stops the other's file.
class StopInTheTurnTest : public AsyncReaderTest {
 protected:
  // Whether the watcher comes first in the turn.
  Removals told_of(bool stopper_first) {
    Connection trigger;
    RecordingReader reader;
    reads.look_at(file->fd);
    RecordingAIO stopper(RecordingAIO::Input, "stopper", [&](VrnFile* from) {
      char byte;
      EXPECT_EQ(read(from->fd, &byte, 1), 1);
      EXPECT_EQ(reads.count, stopper_first ? 0 : 1);
      EXPECT_FALSE(reader.aioStop(file));
    });
    loop.on_dispatcher([&] {
      if (stopper_first) loop.mgr->startAIO(&trigger.file, &stopper);
      reader.aioRequest(file, 6, buffer);
      if (!stopper_first) loop.mgr->startAIO(&trigger.file, &stopper);
    });
    loop.on_dispatcher([&] {
      trigger.send("x");
      connection.hang_up();
    });
    loop.when([&] { return !reader.removed.empty(); }, [] {});
    loop.on_dispatcher([] {});
    loop.run_calls();
    EXPECT_EQ(stopper.ready, 1);
    EXPECT_EQ(reads.count, 1);
    return reader.removed;
  }
};

TEST_F(StopInTheTurnTest, BeforeTheEndOfFile) {
  EXPECT_EQ(told_of(true), (Removals{{file, false, false}}));
}

TEST_F(StopInTheTurnTest, AfterTheEndOfFile) {
  EXPECT_EQ(told_of(false), (Removals{{file, true, false}}));
}

// A hang-up that the event manager finds before it comes to the stop is what ends the file.
TEST_F(AsyncReaderTest, HangUpBeforeAStopThatWasAskedForIsToldOnce) {
  Connection trigger;
  Channel pipe(Channel::Pipe);
  RecordingReader reader;
  RecordingAIO stopper(RecordingAIO::Input, "stopper", [&](VrnFile* from) {
    char byte;
    EXPECT_EQ(read(from->fd, &byte, 1), 1);
    EXPECT_FALSE(reader.aioStop(&pipe.file));
  });
  loop.on_dispatcher([&] {
    loop.mgr->startAIO(&trigger.file, &stopper);
    reader.aioRequest(&pipe.file, 3, buffer);
  });
  loop.on_dispatcher([&] {
    trigger.send("x");
    pipe.hang_up();
  });
  loop.when([&] { return !reader.removed.empty(); }, [] {});
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_EQ(reader.removed, (Removals{{&pipe.file, true, false}}));
  EXPECT_EQ(stopper.ready, 1);
}

// ---- what files lead to ----

TEST_F(AsyncReaderTest, PipeIsReadBeforeItsHangUpIsTold) {
  Channel pipe(Channel::Pipe);
  RecordingReader reader;
  elsewhere([&] { reader.aioRequest(&pipe.file, 3, buffer); });
  pipe.send("abcdef");
  pipe.hang_up();
  loop.run_until([&] { return !reader.removed.empty(); });
  EXPECT_EQ(reader.received, (Texts{"abc", "def"}));
  EXPECT_EQ(reader.removed, (Removals{{&pipe.file, true, false}}));
  EXPECT_EQ(reader.aioFiles(), 0);
}

TEST_F(AsyncReaderTest, HangUpOfAListenedPipe) {
  Channel pipe(Channel::Pipe);
  RecordingReader reader;
  elsewhere([&] { reader.aioListen(&pipe.file); });
  loop.on_dispatcher([&] { pipe.hang_up(); });
  loop.run_until([&] { return !reader.removed.empty(); });
  EXPECT_EQ(reader.removed, (Removals{{&pipe.file, true, false}}));
  EXPECT_EQ(reader.readable, 0);
  EXPECT_EQ(reader.requestedBytes(&pipe.file), -1);
}

TEST_F(AsyncReaderTest, ClosedDescriptorIsAHangUpWithAnError) {
  VrnFile copy;
  const int fd = dup(file->fd);
  copy.assign(fd, "copy", false);
  RecordingReader reader;
  elsewhere([&] { reader.aioRequest(&copy, 3, buffer); });
  loop.on_dispatcher([&] { close(fd); });
  loop.run_until([&] { return !reader.removed.empty(); });
  EXPECT_EQ(reader.removed, (Removals{{&copy, true, true}}));
  EXPECT_EQ(reader.aioFiles(), 0);
}

TEST_F(AsyncReaderTest, HalfClosedConnectionMayStillBeWrittenTo) {
  Channel tcp(Channel::Tcp);
  RecordingReader reader;
  elsewhere([&] { reader.aioRequest(&tcp.file, 3, buffer); });
  tcp.send("abc");
  EXPECT_EQ(shutdown(tcp.peer, SHUT_WR), 0);
  loop.run_until([&] { return !reader.removed.empty(); });
  EXPECT_EQ(reader.received, Texts{"abc"});
  EXPECT_EQ(reader.removed, (Removals{{&tcp.file, true, false}}));
  char byte = 0;
  EXPECT_EQ(write(tcp.file.fd, "x", 1), 1);
  EXPECT_EQ(recv(tcp.peer, &byte, 1, 0), 1);
  EXPECT_EQ(byte, 'x');
}

TEST_F(AsyncReaderTest, ResetConnectionIsAnError) {
  Channel tcp(Channel::Tcp);
  RecordingReader reader;
  elsewhere([&] { reader.aioRequest(&tcp.file, 3, buffer); });
  tcp.reset();
  loop.run_until([&] { return !reader.removed.empty(); });
  EXPECT_EQ(reader.removed, (Removals{{&tcp.file, false, true}}));
}

TEST_F(AsyncReaderTest, ClosedConnectionIsAHangUp) {
  Channel tcp(Channel::Tcp);
  RecordingReader reader;
  elsewhere([&] { reader.aioRequest(&tcp.file, 3, buffer); });
  tcp.hang_up();
  loop.run_until([&] { return !reader.removed.empty(); });
  EXPECT_EQ(reader.removed, (Removals{{&tcp.file, true, false}}));
}

TEST_F(AsyncReaderTest, RegularFileIsReadToItsEnd) {
  FILE* const storage = std::tmpfile();
  std::fputs("abcdefgh", storage);
  std::rewind(storage);
  VrnFile regular;
  regular.assign(fileno(storage), "regular", false);
  RecordingReader reader;
  elsewhere([&] { reader.aioRequest(&regular, 3, buffer); });
  loop.run_until([&] { return !reader.removed.empty(); });
  EXPECT_EQ(reader.received, (Texts{"abc", "def"}));
  EXPECT_EQ(reader.removed, (Removals{{&regular, true, false}}));
  std::fclose(storage);
}

TEST_F(AsyncReaderTest, DirectoryCannotBeRead) {
  VrnFile directory;
  directory.assign(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC), "directory", true);
  RecordingReader reader;
  elsewhere([&] { reader.aioRequest(&directory, 3, buffer); });
  loop.run_until([&] { return !reader.removed.empty(); });
  EXPECT_EQ(reader.removed, (Removals{{&directory, false, true}}));
}

// ---- stopping ----

TEST_F(AsyncReaderTest, StopOnTheDispatcherThreadIsConfirmed) {
  RecordingReader reader;
  reader.on_removed = [&] {
    EXPECT_FALSE(reader.aioFile(file));
    EXPECT_FALSE(reader.is_locked());
  };
  loop.on_dispatcher([&] { reader.aioRequest(file, 3, buffer); });
  loop.on_dispatcher([&] {
    EXPECT_FALSE(reader.aioStop(file));
    EXPECT_EQ(reader.requestedBytes(file), 3);  // until it is confirmed
    EXPECT_EQ(reader.aioFiles(), 1);
    EXPECT_TRUE(reader.removed.empty());
  });
  loop.run_until([&] { return !reader.removed.empty(); });
  EXPECT_EQ(reader.removed, (Removals{{file, false, false}}));
  EXPECT_EQ(reader.aioFiles(), 0);
}

TEST_F(AsyncReaderTest, StopOnAnotherThreadIsDoneAtOnce) {
  RecordingReader reader;
  elsewhere([&] {
    reader.aioRequest(file, 3, buffer);
    EXPECT_TRUE(reader.aioStop(file));
    EXPECT_EQ(reader.requestedBytes(file), -1);
    EXPECT_EQ(reader.aioFiles(), 0);
  });
  connection.send("abc");
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_TRUE(reader.received.empty());
  EXPECT_TRUE(reader.removed.empty());
}

TEST_F(AsyncReaderTest, StopOfAFileThatIsNotWatched) {
  RecordingReader reader;
  loop.on_dispatcher([&] {
    EXPECT_TRUE(reader.aioStop(file));
    EXPECT_TRUE(reader.aioStop(nullptr));
    EXPECT_EQ(reader.aioTerminate(), 0);
  });
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_TRUE(reader.removed.empty());
}

TEST_F(AsyncReaderTest, StoppedFileMayBeRequestedAgain) {
  RecordingReader reader;
  reader.on_removed = [&] { reader.aioRequest(file, 3, buffer); };
  loop.on_dispatcher([&] {
    reader.aioRequest(file, 10, buffer);
    EXPECT_FALSE(reader.aioStop(file));
  });
  loop.when([&] { return !reader.removed.empty(); }, [&] { connection.send("abc"); });
  loop.run_until([&] { return !reader.received.empty(); });
  EXPECT_EQ(reader.received, Texts{"abc"});
  EXPECT_EQ(reader.removed.size(), 1u);
}

// A file that has ended and is watched again does not carry its end along.
TEST_F(AsyncReaderTest, EndOfFileIsForgottenWithTheWatch) {
  RecordingReader reader;
  reads.look_at(file->fd);
  reads.fail(0, 1, 0);
  connection.send("abc");
  elsewhere([&] { reader.aioRequest(file, 3, buffer); });
  loop.when([&] { return !reader.removed.empty(); }, [&] { reader.aioRequest(file, 3, buffer); });
  loop.when([&] { return !reader.received.empty(); }, [&] { reader.aioStop(file); });
  loop.run_until([&] { return reader.removed.size() == 2; });
  EXPECT_EQ(reader.removed, (Removals{{file, true, false}, {file, false, false}}));
}

TEST_F(AsyncReaderTest, TerminateStopsInTheOrderOfTheAddresses) {
  Connection more[5];
  RecordingReader reader;
  loop.on_dispatcher([&] {
    for (const int i : {3, 0, 4, 2, 1}) reader.aioListen(&more[i].file);
    EXPECT_EQ(reader.aioTerminate(), 5);
    EXPECT_EQ(reader.aioFiles(), 5);
  });
  loop.run_until([&] { return reader.removed.size() == 5; });
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(reader.removed[i], (Cancelled{&more[i].file, false, false})) << i;
  }
}

TEST_F(AsyncReaderTest, TerminateOnAnotherThreadLeavesNothing) {
  Connection second;
  RecordingReader reader;
  elsewhere([&] {
    reader.aioRequest(file, 3, buffer);
    reader.aioListen(&second.file);
    EXPECT_EQ(reader.aioTerminate(), 0);
    EXPECT_EQ(reader.aioFiles(), 0);
  });
  loop.run_calls();
  EXPECT_FALSE(log.contains("remains"));
  EXPECT_TRUE(reader.removed.empty());
}

TEST_F(AsyncReaderTest, TerminateAfterTheLoopIsDoneAtOnce) {
  RecordingReader reader;
  elsewhere([&] { reader.aioRequest(file, 3, buffer); });
  loop.run_calls();
  EXPECT_TRUE(
      log.contains("- EvtMgr: Receiver=reader remains - fd " + std::to_string(file->fd) + "=conn"));
  EXPECT_EQ(reader.aioTerminate(), 0);
  EXPECT_TRUE(reader.removed.empty());
}

// The callback here lasts longer than a stop may wait for it.
class StopElsewhereTest : public AsyncReaderTest,
                          public testing::WithParamInterface<bool (*)(VrnAsyncReader*, VrnFile*)> {
};

TEST_P(StopElsewhereTest, WaitsForARunningCallbackAWhile) {
  RecordingReader reader;
  std::atomic<bool> in_callback{false};
  std::atomic<bool> returned{false};
  reader.on_received = [&](VrnFile*) {
    in_callback = true;
    EXPECT_TRUE(wait_for([&] { return returned.load(); }));
  };
  elsewhere([&] { reader.aioRequest(file, 3, buffer); });
  connection.send("abc");
  std::chrono::steady_clock::duration waited{};
  std::thread stopper([&] {
    EXPECT_TRUE(wait_for([&] { return in_callback.load(); }));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(GetParam()(&reader, file));
    waited = std::chrono::steady_clock::now() - start;
    returned = true;
  });
  loop.run_until([&] { return !reader.received.empty(); });
  stopper.join();
  EXPECT_GE(waited, std::chrono::milliseconds(90));
}

INSTANTIATE_TEST_SUITE_P(
    Of, StopElsewhereTest,
    testing::Values([](VrnAsyncReader* reader, VrnFile* file) { return reader->aioStop(file); },
                    [](VrnAsyncReader* reader, VrnFile*) { return reader->aioTerminate() == 0; }),
    [](const auto& which) { return which.index == 0 ? "AStop" : "ATermination"; });

// ---- starts that are refused ----

TEST_F(AsyncReaderTest, FailedStartLeavesTheFileOut) {
  RecordingReader first("first");
  RecordingReader second("second");
  elsewhere([&] {
    first.aioRequest(file, 3, buffer);
    const Failure failure = failure_of([&] { second.aioRequest(file, 3, buffer); });
    EXPECT_EQ(failure.first, 3);
    EXPECT_EQ(failure.second.find("EvtMgr conflict: AIO on fd conn="), 0u) << failure.second;
    EXPECT_EQ(failure_of([&] { second.aioListen(file); }).first, 3);
  });
  EXPECT_FALSE(second.is_locked());
  EXPECT_FALSE(second.aioFile(file));
  EXPECT_EQ(second.aioFiles(), 0);
  connection.send("abc");
  loop.run_until([&] { return !first.received.empty(); });
  EXPECT_TRUE(second.removed.empty());
}

TEST_F(AsyncReaderTest, RequestThatMakesNoSenseIsRefused) {
  RecordingReader reader;
  elsewhere([&] { reader.aioRequest(file, 3, buffer); });
  EXPECT_EQ(failure_of([&] { reader.aioRequest(file, -1, buffer); }),
            (Failure{3, "VrnAsyncRdr: Bad buffer for reader (bytes=-1)"}));
  EXPECT_EQ(failure_of([&] { reader.aioRequest(file, 5, nullptr); }),
            (Failure{3, "VrnAsyncRdr: Bad buffer for reader (bytes=5)"}));
  EXPECT_EQ(failure_of([&] { reader.aioRequest(nullptr, 5, buffer); }),
            (Failure{3, "VrnAsyncRdr: Null file for reader"}));
  EXPECT_EQ(failure_of([&] { reader.aioListen(nullptr); }),
            (Failure{3, "VrnAsyncRdr: Null file for reader"}));
  EXPECT_EQ(reader.requestedBytes(file), 3);
  EXPECT_EQ(reader.aioFiles(), 1);
  EXPECT_FALSE(reader.is_locked());
  loop.run_calls();
}

TEST_F(AsyncReaderTest, RequestWithoutAnEventManagerIsRefused) {
  RecordingReader reader("lonely");
  VrnAppShell::evtmgr = nullptr;
  EXPECT_EQ(failure_of([&] { reader.aioRequest(file, 3, buffer); }),
            (Failure{3, "VrnAsyncRdr: No Event Manager for lonely"}));
  EXPECT_EQ(reader.aioFiles(), 0);
  VrnAppShell::evtmgr = loop.mgr;
}

// A start is queued on the dispatcher thread, and found out later to be impossible.
class RefusedStartTest : public AsyncReaderTest {
 public:
  RefusedStartTest() {
    elsewhere([&] { loop.mgr->startAIO(file, &holder); });
  }
  ~RefusedStartTest() override { EXPECT_TRUE(holder.cancelled.empty()); }

 protected:
  void expect_conflict() const {
    EXPECT_TRUE(log.contains("AsyncRegistrar: submitted request threw [")) << log.raw();
    EXPECT_TRUE(log.contains(" - EvtMgr conflict: AIO on fd "));
  }

  RecordingAIO holder{RecordingAIO::Input, "holder"};
};

TEST_F(RefusedStartTest, IsToldToTheReader) {
  auto reader = std::make_unique<RecordingReader>();
  loop.on_dispatcher([&] {
    reader->aioRequest(file, 3, buffer);
    EXPECT_TRUE(reader->aioFile(file));
  });
  loop.when([&] { return !reader->removed.empty(); },
            [&] {
              EXPECT_EQ(reader->removed, (Removals{{file, false, true}}));
              EXPECT_EQ(reader->requestedBytes(file), -1);
              EXPECT_EQ(reader->aioFiles(), 0);
              connection.send("hello");
            });
  loop.when([&] { return holder.received == "hello"; }, [&] { reader.reset(); });
  loop.run_calls();
  EXPECT_FALSE(reader);
  expect_conflict();
}

TEST_F(RefusedStartTest, IsToldToTheReceiver) {
  auto receiver = std::make_unique<RecordingReceiver>("receiver");
  loop.on_dispatcher([&] { receiver->aioStart(file); });
  loop.when([&] { return !receiver->removed.empty(); },
            [&] {
              EXPECT_EQ(receiver->removed, (Removals{{file, false, true}}));
              EXPECT_EQ(receiver->aioFiles(), 0);
              receiver.reset();
            });
  loop.run_calls();
  expect_conflict();
}

TEST_F(RefusedStartTest, OfAnotherFileOnTheDescriptorIsTold) {
  VrnFile other;
  other.assign(file->fd, "other", false);
  auto reader = std::make_unique<RecordingReader>();
  auto receiver = std::make_unique<RecordingReceiver>("receiver");
  loop.on_dispatcher([&] {
    reader->aioListen(&other);
    receiver->aioStart(&other);
  });
  loop.when([&] { return !reader->removed.empty() && !receiver->removed.empty(); },
            [&] {
              EXPECT_EQ(reader->removed, (Removals{{&other, false, true}}));
              EXPECT_EQ(receiver->removed, (Removals{{&other, false, true}}));
              reader.reset();
              receiver.reset();
            });
  loop.run_calls();
  expect_conflict();
}

TEST_F(RefusedStartTest, MayEndTheReaderAndItsFile) {
  auto other = std::make_unique<VrnFile>();
  other->assign(file->fd, "other", false);
  auto reader = std::make_unique<RecordingReader>();
  reader->on_removed = [&] {
    other.reset();
    reader.reset();
  };
  loop.on_dispatcher([&] { reader->aioRequest(other.get(), 3, buffer); });
  loop.run_until([&] { return !reader; });
}

TEST_F(RefusedStartTest, IsToldOnceAlsoWhenItWasStoppedAlready) {
  auto reader = std::make_unique<RecordingReader>();
  loop.on_dispatcher([&] {
    reader->aioRequest(file, 3, buffer);
    EXPECT_FALSE(reader->aioStop(file));
  });
  loop.when([&] { return !reader->removed.empty(); }, [] {});
  loop.on_dispatcher([&] {
    EXPECT_EQ(reader->removed, (Removals{{file, false, true}}));
    reader.reset();
  });
  loop.run_calls();
}

TEST_F(RefusedStartTest, IsRetriedInTheCallback) {
  RecordingReader reader;
  reader.on_removed = [&] {
    if (reader.removed.size() > 1) return;
    elsewhere([&] { loop.mgr->stopAIO(file, &holder); });
    reader.aioRequest(file, 3, buffer);
  };
  loop.on_dispatcher([&] { reader.aioRequest(file, 3, buffer); });
  connection.send("abc");
  holder.on_ready = [](VrnFile*) {};
  loop.run_until([&] { return !reader.received.empty(); });
  EXPECT_EQ(reader.received, Texts{"abc"});
  EXPECT_EQ(reader.removed, (Removals{{file, false, true}}));
}

TEST_F(RefusedStartTest, OfALoopThatHasEndedIsTold) {
  auto reader = std::make_unique<RecordingReader>();
  auto receiver = std::make_unique<RecordingReceiver>("receiver");
  Connection second;
  Connection third;
  loop.on_dispatcher([&] {
    elsewhere([&] { loop.mgr->stopDispatcher(); });
    reader->aioRequest(&second.file, 3, buffer);
    receiver->aioStart(&third.file);
  });
  loop.run();
  EXPECT_EQ(reader->removed, (Removals{{&second.file, false, true}}));
  EXPECT_EQ(receiver->removed, (Removals{{&third.file, false, true}}));
  EXPECT_EQ(reader->aioFiles(), 0);
  EXPECT_EQ(receiver->aioFiles(), 0);
}

TEST_F(AsyncReaderTest, ReceiverStartedTwiceKeepsItsWatchAndIsNotTold) {
  RecordingReceiver receiver("receiver");
  loop.on_dispatcher([&] {
    receiver.aioStart(file);
    receiver.aioStart(file);
  });
  loop.when([&] { return log.contains("EvtMgr conflict"); },
            [&] {
              EXPECT_EQ(receiver.aioFiles(), 1);
              connection.send("hello");
            });
  loop.run_until([&] { return receiver.received == "hello"; });
  EXPECT_TRUE(receiver.removed.empty());
}

// The loop has been told to stop and is in its last turn: it takes no more starts.
TEST_F(AsyncReaderTest, FileThatTheEndingLoopDoesNotTakeIsStoppedAtOnce) {
  Connection trigger;
  Connection last;
  auto reader = std::make_unique<RecordingReader>();
  RecordingAIO behind(RecordingAIO::Input, "behind");  // the registrar's place goes to this one
  RecordingAIO starter(RecordingAIO::Input, "starter", [&](VrnFile*) {
    reader->aioRequest(file, 3, buffer);
    EXPECT_TRUE(reader->aioStop(file));
    EXPECT_EQ(reader->aioFiles(), 0);
    reader->aioRequest(file, 3, buffer);
    EXPECT_EQ(reader->aioTerminate(), 0);
    reader.reset();
  });
  loop.on_dispatcher([&] {
    loop.mgr->startAIO(&trigger.file, &starter);
    loop.mgr->startAIO(&last.file, &behind);
  });
  loop.on_dispatcher([&] {
    trigger.send("x");
    loop.mgr->stopDispatcher();
  });
  loop.run();
  EXPECT_FALSE(reader);
}

TEST_F(AsyncReaderTest, ReaderWithoutALoopIsIdleInTheEnd) {
  RecordingReader reader;
  loop.run_calls();
  reader.aioRequest(file, 3, buffer);
  EXPECT_EQ(reader.aioTerminate(), 0);
  EXPECT_EQ(reader.aioFiles(), 0);
}

TEST_F(AsyncReaderTest, FileThatAnotherThreadDestroysDuringItsRead) {
  auto doomed = std::make_unique<Connection>("doomed");
  RecordingReader reader;
  std::thread other;
  reads.fd = doomed->file.fd;
  reads.during = [&] {
    other = std::thread([&] { doomed.reset(); });
    EXPECT_TRUE(wait_for([&] { return reader.aioFiles(true) == 0; }));
  };
  doomed->send("x");
  loop.on_dispatcher([&] { reader.aioRequest(&doomed->file, 3, buffer); });
  loop.when([&] { return other.joinable(); },
            [&] {
              other.join();
              reads.fd = -1;
            });
  loop.run_calls();
  EXPECT_EQ(reader.received, Texts{});
  EXPECT_EQ(reader.removed, Removals{});
  EXPECT_EQ(reader.aioFiles(), 0);
}

// ---- stops that are refused ----

// The watch has ended behind the reader's back, and another watcher has the descriptor.
class RefusedStopTest : public AsyncReaderTest {
 protected:
  void lose_the_watch(RecordingReader* reader) {
    elsewhere([&] {
      reader->aioRequest(file, 3, buffer);
      loop.mgr->stopAIO(file, reader);
      loop.mgr->startAIO(file, &holder);
    });
  }

  RecordingAIO holder{RecordingAIO::Input, "holder"};
  const std::string reason =
      "EvtMgr: iomon=reader doesn't own fd-0 conn=" + std::to_string(file->fd) + " - owner=holder";
};

TEST_F(RefusedStopTest, LeavesTheRequestAsItWas) {
  RecordingReader reader;
  lose_the_watch(&reader);
  elsewhere([&] {
    EXPECT_EQ(failure_of([&] { reader.aioStop(file); }), (Failure{3, reason}));
    EXPECT_EQ(failure_of([&] { reader.aioTerminate(); }), (Failure{3, reason}));
    EXPECT_EQ(reader.requestedBytes(file), 3);  // and the lock is free again
    // A stop that failed is no cause of what comes later.
    loop.mgr->stopAIO(file, &holder);
    loop.mgr->startAIO(file, &reader);
  });
  connection.hang_up();
  loop.run_until([&] { return !reader.removed.empty(); });
  EXPECT_EQ(reader.removed, (Removals{{file, true, false}}));
}

using RefusedStopDeathTest = RefusedStopTest;

TEST_F(RefusedStopDeathTest, OfADestructorIsLoggedAndEndsTheProcess) {
  const auto destroy = [&] {
    loop.on_dispatcher([&] {
      elsewhere([&] {
        RecordingReader reader;
        lose_the_watch(&reader);
      });
    });
    loop.run_calls();
    std::exit(0);
  };
  EXPECT_EXIT(destroy(), testing::ExitedWithCode(1),
              "VrnAsyncRdr: Failed to stop reader \\[.*" + reason +
                  "\\]\n.*VrnAsyncRdr destroyed while active - ABORT APP !\n");
}

// ---- callbacks that throw ----

TEST_F(AsyncReaderTest, FileWhoseDataWasRejectedByAnExceptionIsDropped) {
  auto reader = std::make_unique<RecordingReader>();
  reader->on_received = [](VrnFile*) { throw std::string("bad data"); };
  const int fd = file->fd;
  elsewhere([&] { reader->aioRequest(file, 3, buffer); });
  connection.send("abcdef");
  loop.when([&] { return log.contains("EvtMgr: IO task threw [string=bad data]"); },
            [&] {
              EXPECT_FALSE(reader->aioFile(file));
              EXPECT_EQ(reader->aioFiles(), 0);
              EXPECT_EQ(reader->pendingBytes(file), -1);
              EXPECT_TRUE(reader->removed.empty());
              EXPECT_EQ(reader->received, Texts{"abc"});
              reader.reset();  // on the dispatcher thread, with nothing pending
            });
  loop.run_calls();
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(AsyncReaderTest, ListenerThatThrowsGivesTheLockBack) {
  auto reader = std::make_unique<RecordingReader>();
  reader->on_readable = [](VrnFile*) { throw VrnException(9, "cannot read"); };
  const int fd = file->fd;
  elsewhere([&] { reader->aioListen(file); });
  connection.send("abc");
  loop.when([&] { return log.contains("EvtMgr: IO task threw ["); },
            [&] {
              EXPECT_FALSE(reader->is_locked());
              EXPECT_FALSE(reader->aioFile(file));
              EXPECT_EQ(reader->aioFiles(), 0);
              EXPECT_TRUE(reader->removed.empty());
              reader.reset();
            });
  loop.run_calls();
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_TRUE(log.contains("cannot read"));
}

TEST_F(AsyncReaderTest, OthersAreServedAfterACallbackThatThrew) {
  Connection second;
  char other[3];
  RecordingReader reader;
  reader.on_received = [&](VrnFile* from) {
    if (from == file) throw std::string("bad data");
  };
  elsewhere([&] {
    reader.aioRequest(file, 3, buffer);
    reader.aioRequest(&second.file, 3, other);
  });
  connection.send("abc");
  loop.when([&] { return log.contains("bad data"); }, [&] { second.send("def"); });
  loop.run_until([&] { return reader.received.size() == 2; });
  EXPECT_EQ(reader.received, (Texts{"abc", "def"}));
  EXPECT_EQ(reader.aioFiles(), 1);
}

TEST_F(AsyncReaderTest, ExceptionFromARemovalIsLogged) {
  RecordingReader reader;
  reader.on_removed = [] { throw std::string("bad end"); };
  connection.hang_up();
  elsewhere([&] { reader.aioRequest(file, 3, buffer); });
  loop.run_until([&] { return log.contains("EvtMgr: aioCancelled threw [string=bad end]"); });
  EXPECT_EQ(reader.aioFiles(), 0);
}

// ---- lifetimes ----

TEST_F(AsyncReaderTest, LastRemovalMayEndTheFileAndTheReader) {
  for (const bool file_first : {true, false}) {
    auto short_lived = std::make_shared<std::unique_ptr<Connection>>(new Connection);
    auto reader = std::make_shared<std::unique_ptr<RecordingReader>>(new RecordingReader);
    (*reader)->on_removed = [=] {
      if (file_first) short_lived->reset();
      reader->reset();
      short_lived->reset();
    };
    loop.on_dispatcher([=] {
      (*reader)->aioRequest(&(*short_lived)->file, 3, buffer);
      (*short_lived)->hang_up();
    });
    loop.when([=] { return !*reader; }, [] {});
  }
  loop.run_calls();
}

TEST_F(AsyncReaderTest, RemovalThatIsToldAtOnceMayEndTheFileAndTheReader) {
  elsewhere([&] {
    auto short_lived = std::make_unique<Connection>();
    auto reader = std::make_unique<RecordingReader>();
    reader->on_removed = [&] {
      reader.reset();
      short_lived.reset();
    };
    reader->aioRequest(&short_lived->file, 3, buffer);
    short_lived->hang_up();
    reader->aioReady(&short_lived->file);
    EXPECT_FALSE(reader);
  });
}

TEST_F(AsyncReaderTest, FileDestroyedWhenItsDataIsReceived) {
  auto short_lived = std::make_unique<Connection>();
  RecordingReader reader;
  reader.on_received = [&](VrnFile*) {
    short_lived.reset();
    EXPECT_EQ(reader.aioFiles(), 0);
  };
  elsewhere([&] { reader.aioRequest(&short_lived->file, 3, buffer); });
  short_lived->send("abcdef");
  loop.when([&] { return !short_lived; }, [] {});
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_EQ(reader.received, Texts{"abc"});
  EXPECT_TRUE(reader.removed.empty());
}

TEST_F(AsyncReaderTest, FileAndReaderDestroyedWhenDataIsReceived) {
  auto short_lived = std::make_unique<Connection>();
  auto reader = std::make_unique<RecordingReader>();
  reader->on_received = [&](VrnFile*) {
    short_lived.reset();
    reader.reset();
  };
  elsewhere([&] { reader->aioRequest(&short_lived->file, 3, buffer); });
  short_lived->send("abcdef");
  loop.run_until([&] { return !reader; });
}

TEST_F(AsyncReaderTest, FileDestroyedWhenItCanBeRead) {
  auto short_lived = std::make_unique<Connection>();
  RecordingReader reader;
  reader.on_readable = [&](VrnFile*) {
    short_lived.reset();
    EXPECT_EQ(reader.aioFiles(true), 0);
  };
  elsewhere([&] { reader.aioListen(&short_lived->file); });
  short_lived->send("abc");
  loop.when([&] { return !short_lived; }, [] {});
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_FALSE(reader.is_locked());
  EXPECT_EQ(reader.readable, 1);
}

TEST_F(AsyncReaderTest, FileDestroyedAfterItsEndAndBeforeTheStop) {
  auto short_lived = std::make_unique<Connection>();
  auto reader = std::make_unique<RecordingReader>();
  loop.on_dispatcher([&] { reader->aioRequest(&short_lived->file, 3, buffer); });
  loop.on_dispatcher([&] {
    short_lived->hang_up();
    reader->aioReady(&short_lived->file);
    EXPECT_EQ(reader->aioFiles(), 1);
    short_lived.reset();
    EXPECT_EQ(reader->aioFiles(), 0);
    reader.reset();
  });
  loop.on_dispatcher([] {});
  loop.run_calls();
}

TEST_F(AsyncReaderTest, ActiveReaderEndsOnAnotherThread) {
  auto reader = std::make_unique<RecordingReader>();
  loop.on_dispatcher([&] {
    elsewhere([&] {
      reader->aioRequest(file, 3, buffer);
      reader.reset();
    });
  });
  loop.run_calls();
  EXPECT_FALSE(log.contains("remains"));
}

TEST_F(AsyncReaderTest, MayOutliveTheEventManager) {
  RecordingReader reader;
  elsewhere([&] { reader.aioRequest(file, 3, buffer); });
  VrnEvtMgr::destroy();
  EXPECT_EQ(reader.aioTerminate(), 0);
}

TEST_F(AsyncReaderDeathTest, DestroyedWhileItsStopsAreUnderWay) {
  const auto destroy_while_active = [&] {
    loop.on_dispatcher([&] {
      RecordingReader reader;
      reader.aioRequest(file, 3, buffer);
    });
    loop.run_calls();
    std::exit(0);
  };
  EXPECT_EXIT(destroy_while_active(), testing::ExitedWithCode(1),
              "VrnAsyncRdr destroyed while active - ABORT APP !\n");
}

// ---- copies ----

static_assert(!std::is_final_v<VrnAsyncReader> && std::is_abstract_v<VrnAsyncReader>);

TEST_F(AsyncReaderTest, CopyHasTheNameButNotTheFiles) {
  RecordingReader reader("original");
  elsewhere([&] { reader.aioRequest(file, 3, buffer); });
  RecordingReader copy(reader);
  EXPECT_EQ(copy.aioFiles(), 0);
  EXPECT_EQ(copy.requestedBytes(file), -1);
  EXPECT_EQ(reader.aioFiles(), 1);
  Connection second("second");
  char other[2];
  elsewhere([&] { copy.aioRequest(&second.file, 2, other); });
  second.send("ab");
  loop.run_until([&] { return !copy.received.empty(); });
  EXPECT_EQ(copy.received, Texts{"ab"});
  EXPECT_TRUE(reader.received.empty());
  EXPECT_TRUE(log.contains("- EvtMgr: Receiver=original remains - fd " +
                           std::to_string(second.file.fd) + "=second"));
}

TEST_F(AsyncReaderTest, CopyOfANamelessReaderHasItsTag) {
  RecordingReader reader("");
  RecordingReader copy(reader);
  const auto name_in = [&](RecordingReader& nameless) {
    return failure_of([&] { nameless.aioRequest(nullptr, 0, nullptr); }).second;
  };
  EXPECT_EQ(name_in(reader).find("VrnAsyncRdr: Null file for 0x"), 0u);
  EXPECT_EQ(name_in(copy), name_in(reader));
}

TEST_F(AsyncReaderTest, AssignedReaderForgetsItsFilesWhichStayRegistered) {
  RecordingReader target("target");
  RecordingReader source("source");
  Connection second;
  reads.look_at(file->fd);
  elsewhere([&] {
    target.aioRequest(file, 3, buffer);
    source.aioListen(&second.file);
  });
  VrnAsyncReader& result = static_cast<VrnAsyncReader&>(target) = source;
  EXPECT_EQ(&result, &target);
  EXPECT_FALSE(target.is_locked());
  EXPECT_EQ(target.aioFiles(), 0);
  EXPECT_EQ(target.requestedBytes(file), -1);
  EXPECT_EQ(source.aioFiles(), 1);
  connection.send("abc");
  loop.on_dispatcher([] {});
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_EQ(reads.count, 0);
  EXPECT_TRUE(target.received.empty());
  EXPECT_TRUE(
      log.contains("- EvtMgr: Receiver=target remains - fd " + std::to_string(file->fd) + "=conn"));
}

TEST_F(AsyncReaderTest, HangUpOfAForgottenFileIsTold) {
  Channel pipe(Channel::Pipe);
  RecordingReader target("target");
  const RecordingReader source("source");
  elsewhere([&] { target.aioRequest(&pipe.file, 3, buffer); });
  static_cast<VrnAsyncReader&>(target) = source;
  pipe.hang_up();
  loop.run_until([&] { return !target.removed.empty(); });
  EXPECT_EQ(target.removed, (Removals{{&pipe.file, true, false}}));
}

// ---- locks ----

TEST_F(AsyncReaderTest, LockIsHeldOnlyWhenAFileCanBeRead) {
  RecordingReader reader;
  bool locked_when_readable = false;
  bool locked_when_received = true;
  bool locked_when_removed = true;
  reader.on_readable = [&](VrnFile*) {
    locked_when_readable = reader.is_locked();
    reader.aioRequest(file, 3, buffer, true);
  };
  reader.on_received = [&](VrnFile*) { locked_when_received = reader.is_locked(); };
  reader.on_removed = [&] { locked_when_removed = reader.is_locked(); };
  elsewhere([&] { reader.aioListen(file); });
  connection.send("abc");
  connection.hang_up();
  loop.run_until([&] { return !reader.removed.empty(); });
  EXPECT_TRUE(locked_when_readable);
  EXPECT_FALSE(locked_when_received);
  EXPECT_FALSE(locked_when_removed);
}

TEST_F(AsyncReaderTest, OperationsTakeTheLockUnlessItIsHeld) {
  RecordingReader reader;
  const auto waits_for_the_lock = [&](const Call& operation) {
    std::atomic<bool> begun{false};
    std::atomic<bool> done{false};
    reader.lock()->lock();
    std::thread user([&] {
      begun = true;
      operation();
      done = true;
    });
    while (!begun) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));  // room for a wrong success
    const bool waited = !done;
    reader.lock()->unlock();
    user.join();
    return waited && done;
  };
  EXPECT_TRUE(waits_for_the_lock([&] { reader.aioRequest(file, 3, buffer); }));
  EXPECT_TRUE(waits_for_the_lock([&] { EXPECT_EQ(reader.requestedBytes(file), 3); }));
  EXPECT_TRUE(waits_for_the_lock([&] { EXPECT_EQ(reader.pendingBytes(file), 0); }));
  EXPECT_TRUE(waits_for_the_lock([&] { EXPECT_TRUE(reader.aioFile(file)); }));
  EXPECT_TRUE(waits_for_the_lock([&] { EXPECT_EQ(reader.aioFiles(), 1); }));
  connection.send("ab");
  EXPECT_TRUE(waits_for_the_lock([&] { reader.aioReady(file); }));
  EXPECT_EQ(reader.pendingBytes(file), 2);
  EXPECT_TRUE(waits_for_the_lock([&] { reader.aioListen(file); }));
  EXPECT_TRUE(waits_for_the_lock([&] { reader.aioListen(file, true); }));  // this one always
  EXPECT_TRUE(waits_for_the_lock([&] { EXPECT_TRUE(reader.aioStop(file)); }));
  EXPECT_TRUE(waits_for_the_lock([&] { EXPECT_EQ(reader.aioTerminate(), 0); }));
  const RecordingReader source;
  EXPECT_TRUE(waits_for_the_lock([&] { static_cast<VrnAsyncReader&>(reader) = source; }));
  elsewhere([&] {
    const VrnMutexGuard guard(reader.lock());
    reader.aioRequest(file, 3, buffer, true);
    EXPECT_EQ(reader.requestedBytes(file, true), 3);
    EXPECT_EQ(reader.pendingBytes(file, true), 0);
    EXPECT_TRUE(reader.aioFile(file, true));
    EXPECT_EQ(reader.aioFiles(true), 1);
    EXPECT_TRUE(reader.aioStop(file, true));
    EXPECT_EQ(reader.aioTerminate(true), 0);
  });
}

TEST_F(AsyncReaderTest, CancellationDoesNotWaitForTheLock) {
  RecordingReader reader;
  elsewhere([&] { reader.aioRequest(file, 3, buffer); });
  {
    const VrnMutexGuard guard(reader.lock());
    elsewhere([&] { reader.aioCancelled(file, true, true); });
    EXPECT_EQ(reader.removed, (Removals{{file, true, true}}));
    EXPECT_EQ(reader.aioFiles(true), 0);
  }
}

// ---- threads ----

// Each buffer holds consecutive bytes of the stream, however often it is replaced.
TEST_F(AsyncReaderTest, RequestsElsewhereWhileDataArrives) {
  char small[3];
  char large[50];
  RecordingReader reader;
  elsewhere([&] { reader.aioRequest(file, sizeof small, small); });
  int bad = 0;
  reader.on_received = [&](VrnFile*) {
    const std::string text = std::move(reader.received.back());
    reader.received.pop_back();
    if (text.size() != (reader.last_buffer == small ? sizeof small : sizeof large)) ++bad;
    for (std::size_t i = 1; i < text.size(); ++i) {
      if (text[i] != (text[i - 1] == '9' ? '0' : text[i - 1] + 1)) ++bad;
    }
  };
  std::atomic<int> finished{0};
  std::thread sender([&] {
    for (int i = 0; i < rounds; ++i) {
      std::string text;
      for (int j = 0; j < 7; ++j) text += static_cast<char>('0' + (i * 7 + j) % 10);
      connection.send(text);
    }
    ++finished;
  });
  const auto request = [&](int size, char* into) {
    for (int i = 0; i < rounds; ++i) {
      reader.aioRequest(file, size, into);
      const int wanted = reader.requestedBytes(file);
      EXPECT_TRUE(wanted == sizeof small || wanted == sizeof large) << wanted;
      EXPECT_LT(reader.pendingBytes(file), static_cast<int>(sizeof large));
      EXPECT_EQ(reader.aioFiles(), 1);
    }
    ++finished;
  };
  std::thread first([&] { request(sizeof small, small); });
  std::thread second([&] { request(sizeof large, large); });
  loop.run_until([&] { return finished == 3; });
  sender.join();
  first.join();
  second.join();
  EXPECT_EQ(bad, 0);
  EXPECT_TRUE(reader.removed.empty());
}

TEST_F(AsyncReaderTest, BufferIsNotWrittenToAfterAStopElsewhere) {
  Channel tcp(Channel::Tcp);
  fcntl(tcp.peer, F_SETFL, O_NONBLOCK);
  class Counter : public VrnAsyncReader {
   public:
    Counter() : VrnAsyncReader("counter") {}
    void aioReceived(VrnFile*, int, char*) override { ++received; }
    void aioReadable(VrnFile*) override { ADD_FAILURE() << "nothing is listened to"; }
    void aioRemoved(VrnFile*, bool, bool) override { ADD_FAILURE() << "every stop is at once"; }
    std::atomic<int> received{0};
  };
  Counter reader;
  std::atomic<bool> finished{false};
  std::thread sender([&] {
    while (!finished) {
      (void)!write(tcp.peer, "some data", 9);
      std::this_thread::yield();
    }
  });
  std::thread owner([&] {
    for (int i = 0; i < rounds / 10; ++i) {
      auto own = std::make_unique<std::array<char, 4>>();
      reader.aioRequest(&tcp.file, static_cast<int>(own->size()), own->data());
      const int before = reader.received;
      if (i % 10 == 0) {
        EXPECT_TRUE(wait_for([&] { return reader.received > before; }));
      }
      EXPECT_TRUE(reader.aioStop(&tcp.file));
      own->fill('-');  // nobody else writes here any more
      EXPECT_EQ(own->front(), '-');
    }
    finished = true;
  });
  loop.run_until([&] { return finished.load(); });
  owner.join();
  sender.join();
  EXPECT_EQ(reader.aioFiles(), 0);
}

// ---- cost ----

TEST_F(AsyncReaderTest, ReadAllocatesNothing) {
  REQUIRE_COUNTED_ALLOCATIONS();
  class Counter : public VrnAsyncReader {
   public:
    Counter() : VrnAsyncReader("counter") {}
    void aioReceived(VrnFile*, int, char*) override { ++received; }
    void aioReadable(VrnFile*) override { ++readable; }
    void aioRemoved(VrnFile*, bool, bool) override {}
    int received = 0;
    int readable = 0;
  };
  Counter reader;
  long before = 0;
  long after = 0;
  elsewhere([&] {
    reader.aioRequest(file, 4, buffer);
    connection.send("abcdefgh");
    before = sys::allocations();
    for (int i = 0; i < 3; ++i) reader.aioReady(file);  // two buffers, then there is no data
    after = sys::allocations();
    EXPECT_EQ(after, before);
    EXPECT_EQ(reader.received, 2);

    connection.send("ab");
    before = sys::allocations();
    reader.aioReady(file);  // a part of a buffer
    after = sys::allocations();
    EXPECT_EQ(after, before);
    EXPECT_EQ(reader.pendingBytes(file), 2);

    reader.aioListen(file);
    before = sys::allocations();
    reader.aioReady(file);
    after = sys::allocations();
    EXPECT_EQ(after, before);
    EXPECT_EQ(reader.readable, 1);
    EXPECT_EQ(reader.aioTerminate(), 0);
  });
}

}  // namespace
}  // namespace vornfc
