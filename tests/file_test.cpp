#include "vornfc/file.h"

#include "support/log_capture.h"
#include "support/sanitizers.h"
#include "vornfc/exception.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

// The system calls of the library, as this program defines them: counted, and open to a test that
// wants to act at the very moment of a call.
namespace {

struct Calls {
  std::atomic<int> getfl{0}, setfl{0}, reads{0}, writes{0}, usleeps{0}, alarms{0};
  std::atomic<int> setfl_error{0};         // not 0: F_SETFL fails with it
  std::atomic<unsigned> alarm_args[64]{};  // the arguments of the first alarm() calls, in order
  std::atomic<useconds_t> last_usleep{0};
  std::atomic<int> alarm_usec{0};  // not 0: an alarm() of whole seconds takes so long
  std::atomic<int> live{0};        // objects that live in the frames of the calls below
};

Calls calls;

// Called around read() and write() when set. `before` may take the call over by returning true and
// setting the result.
std::function<bool(ssize_t*)>* before_call = nullptr;
std::function<void()>* after_call = nullptr;

// Stands for any object in a frame that an alarm must not jump over.
struct Live {
  Live() { ++calls.live; }
  ~Live() { --calls.live; }
};

template <typename R, typename... P>
R real(const char* name, R (*)(P...), P... args) {
  void* hidden = dlsym(RTLD_NEXT, name);
  return reinterpret_cast<R (*)(P...)>(hidden)(args...);
}

}  // namespace

extern "C" {

int fcntl(int fd, int command, ...) {
  va_list ap;
  va_start(ap, command);
  void* const arg = va_arg(ap, void*);
  va_end(ap);
  if (command == F_GETFL) ++calls.getfl;
  if (command == F_SETFL) {
    ++calls.setfl;
    if (calls.setfl_error != 0) {
      errno = calls.setfl_error;
      return -1;
    }
  }
  static void* const hidden = dlsym(RTLD_NEXT, "fcntl");
  return reinterpret_cast<int (*)(int, int, ...)>(hidden)(fd, command, arg);
}

ssize_t read(int fd, void* buf, size_t count) {
  const Live live;
  ++calls.reads;
  ssize_t result = 0;
  if (before_call && (*before_call)(&result)) return result;
  result = real("read", &read, fd, buf, count);
  const int error = errno;
  if (after_call) (*after_call)();
  errno = error;
  return result;
}

ssize_t write(int fd, const void* buf, size_t count) {
  const Live live;
  ++calls.writes;
  ssize_t result = 0;
  if (before_call && (*before_call)(&result)) return result;
  result = real("write", &write, fd, buf, count);
  const int error = errno;
  if (after_call) (*after_call)();
  errno = error;
  return result;
}

int usleep(useconds_t usec) {
  const Live live;
  ++calls.usleeps;
  calls.last_usleep = usec;
  return real("usleep", &usleep, usec);
}

unsigned alarm(unsigned seconds) noexcept {
  const int call = calls.alarms++;
  if (call < 64) calls.alarm_args[call] = seconds;
  if (seconds == 0 || calls.alarm_usec == 0) return real("alarm", &alarm, seconds);
  itimerval timer{}, old{};
  timer.it_value.tv_usec = calls.alarm_usec;
  setitimer(ITIMER_REAL, &timer, &old);
  return static_cast<unsigned>(old.it_value.tv_sec) + (old.it_value.tv_usec != 0 ? 1U : 0U);
}

}  // extern "C"

namespace vornfc {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Lines = std::vector<std::string>;
using Failure = std::pair<int, std::string>;

template <typename Call>
Failure failure_of(Call call) {
  try {
    call();
  } catch (const VrnException& e) {
    return {e.err(), e.what()};
  }
  return {0, "no VrnException"};
}

bool is_open(int fd) {
  struct stat info {};
  return fstat(fd, &info) == 0;
}

bool nonblocking(int fd) {
  const int counted = calls.getfl;
  const int flags = fcntl(fd, F_GETFL, 0);
  calls.getfl = counted;
  return (flags & O_NONBLOCK) != 0;
}

// Two connected descriptors: what is written to `in` is read from `out`.
struct Channel {
  enum Kind { Pipe, Socket };

  explicit Channel(Kind kind = Pipe) {
    int ends[2];
    const int made = kind == Pipe ? pipe(ends) : socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
    EXPECT_EQ(made, 0);
    out = ends[0];
    in = ends[1];
  }
  ~Channel() {
    close_in();
    close_out();
  }
  void close_in() { close_end(&in); }
  void close_out() { close_end(&out); }
  static void close_end(int* fd) {
    if (*fd != -1) close(*fd);
    *fd = -1;
  }
  void put(const std::string& text) const {
    EXPECT_EQ(real("write", &::write, in, static_cast<const void*>(text.data()), text.size()),
              static_cast<ssize_t>(text.size()));
  }
  void make_nonblocking(int fd) const { EXPECT_EQ(::fcntl(fd, F_SETFL, O_NONBLOCK), 0); }

  // Fills it until nothing more goes in. Returns the number of bytes.
  int fill() const {
    const std::string chunk(4096, 'x');
    make_nonblocking(in);
    int total = 0;
    ssize_t count;
    while ((count = real("write", &::write, in, static_cast<const void*>(chunk.data()),
                         chunk.size())) > 0) {
      total += static_cast<int>(count);
    }
    EXPECT_EQ(::fcntl(in, F_SETFL, 0), 0);
    return total;
  }

  int in, out;
};

double seconds_since(steady_clock::time_point start) {
  return std::chrono::duration<double>(steady_clock::now() - start).count();
}

// A thread that is joined at the end of its scope.
struct Joined : std::thread {
  using std::thread::thread;
  ~Joined() { join(); }
};

// What the library calls while a test runs, counted from zero.
class FileTest : public testing::Test {
 public:
  ~FileTest() override {
    before_call = nullptr;
    after_call = nullptr;
  }

 protected:
  // `hook` runs before (after) each read() and write() of the library.
  void before(std::function<bool(ssize_t*)> hook) {
    before_hook = std::move(hook);
    before_call = &before_hook;
  }
  void after(std::function<void()> hook) {
    after_hook = std::move(hook);
    after_call = &after_hook;
  }

  Channel pipe;
  char buf[65536]{};
  bool eof = false;

 private:
  std::function<bool(ssize_t*)> before_hook;
  std::function<void()> after_hook;
};

// ---- the descriptor and its name ----

static_assert(std::has_virtual_destructor_v<VrnFile>);
static_assert(!std::is_copy_constructible_v<VrnFile> && !std::is_copy_assignable_v<VrnFile>);

TEST_F(FileTest, IsUnassignedAtFirst) {
  const VrnFile file;
  EXPECT_EQ(file.fd, -1);
  EXPECT_STREQ(file.name(), "_UNASSIGNED_");
  EXPECT_FALSE(file.blockingMode());
}

TEST_F(FileTest, AssignBindsDescriptorAndName) {
  VrnFile file;
  file.assign(pipe.in, "in", false);
  EXPECT_EQ(file.fd, pipe.in);
  EXPECT_STREQ(file.name(), "in");
}

TEST_F(FileTest, NameIsACopy) {
  std::string name = "in";
  VrnFile file;
  file.assign(pipe.in, name, false);
  name = "changed";
  EXPECT_STREQ(file.name(), "in");
}

TEST_F(FileTest, EmptyNameIsReplaced) {
  VrnFile file;
  file.assign(pipe.in, "", false);
  EXPECT_STREQ(file.name(), "?fd?");
}

TEST_F(FileTest, DescriptorZeroIsAsGoodAsAny) {
  VrnFile file;
  file.assign(0, "stdin", false);
  EXPECT_EQ(file.fd, 0);
  EXPECT_STREQ(file.name(), "stdin");
}

TEST_F(FileTest, NegativeDescriptorIsRefused) {
  VrnFile file;
  EXPECT_EQ(failure_of([&] { file.assign(-1, "new", true); }),
            Failure(3, "VrnFile: Assigning new=-1 to _UNASSIGNED_=-1"));
  EXPECT_EQ(file.fd, -1);
  file.assign(pipe.in, "in", false);  // nothing was bound before
  EXPECT_STREQ(file.name(), "in");
}

TEST_F(FileTest, IsAssignedOnlyOnce) {
  auto file = std::make_unique<VrnFile>();
  file->assign(pipe.out, "first", false);
  EXPECT_EQ(failure_of([&] { file->assign(pipe.in, "second", true); }),
            Failure(3, "VrnFile: Assigning second=" + std::to_string(pipe.in) +
                           " to first=" + std::to_string(pipe.out)));
  EXPECT_EQ(file->fd, pipe.out);
  EXPECT_STREQ(file->name(), "first");
  file.reset();
  EXPECT_TRUE(is_open(pipe.in));  // the caller's still
}

TEST_F(FileTest, EmptyNameAppearsAsGivenInTheRefusal) {
  VrnFile file;
  EXPECT_EQ(failure_of([&] { file.assign(-5, "", true); }),
            Failure(3, "VrnFile: Assigning =-5 to _UNASSIGNED_=-1"));
}

TEST_F(FileTest, OwnerClosesTheDescriptor) {
  const int fd = dup(pipe.in);
  {
    VrnFile file;
    file.assign(fd, "in", true);
    EXPECT_TRUE(is_open(fd));
  }
  EXPECT_FALSE(is_open(fd));
}

TEST_F(FileTest, OwnerClosesTheDescriptorWhenDeletedThroughABase) {
  struct Derived : VrnFile {};
  const int fd = dup(pipe.in);
  std::unique_ptr<VrnFile> file = std::make_unique<Derived>();
  file->assign(fd, "in", true);
  file.reset();
  EXPECT_FALSE(is_open(fd));
}

TEST_F(FileTest, OtherThanOwnerLeavesTheDescriptorOpen) {
  {
    VrnFile file;
    file.assign(pipe.in, "in", false);
  }
  EXPECT_TRUE(is_open(pipe.in));
}

// ---- blocking mode ----

TEST_F(FileTest, BlockingModeIsSetOnTheDescriptor) {
  VrnFile file;
  file.assign(pipe.in, "in", false);
  file.setBlockingMode(false);
  EXPECT_TRUE(nonblocking(pipe.in));
  EXPECT_FALSE(file.blockingMode());
  file.setBlockingMode(true);
  EXPECT_FALSE(nonblocking(pipe.in));
  EXPECT_TRUE(file.blockingMode());
}

TEST_F(FileTest, OtherFlagsAreKept) {
  ::fcntl(pipe.in, F_SETFL, O_APPEND);
  VrnFile file;
  file.assign(pipe.in, "in", false);
  file.setBlockingMode(false);
  EXPECT_EQ(::fcntl(pipe.in, F_GETFL, 0) & (O_APPEND | O_NONBLOCK), O_APPEND | O_NONBLOCK);
  file.setBlockingMode(true);
  EXPECT_EQ(::fcntl(pipe.in, F_GETFL, 0) & (O_APPEND | O_NONBLOCK), O_APPEND);
}

TEST_F(FileTest, ModeThatIsSetAlreadyCostsOneLookAndThenNone) {
  VrnFile file;
  file.assign(pipe.in, "in", false);
  EXPECT_EQ(calls.getfl, 0);
  file.setBlockingMode(true);
  EXPECT_EQ(calls.getfl, 1);
  EXPECT_EQ(calls.setfl, 0);
  file.setBlockingMode(true);
  EXPECT_EQ(calls.getfl, 1);
  EXPECT_EQ(calls.setfl, 0);
}

TEST_F(FileTest, FlagsAreReadOnceAndThenRemembered) {
  VrnFile file;
  file.assign(pipe.in, "in", false);
  for (int i = 0; i < 3; ++i) {
    file.setBlockingMode(false);
    file.setBlockingMode(false);
    EXPECT_EQ(calls.setfl, 2 * i + 1);
    file.setBlockingMode(true);
    file.setBlockingMode(true);
    EXPECT_EQ(calls.setfl, 2 * i + 2);
  }
  EXPECT_EQ(calls.getfl, 1);
}

TEST_F(FileTest, ModeIsReportedNonBlockingUntilItIsSet) {
  VrnFile file;
  file.assign(pipe.in, "in", false);
  EXPECT_FALSE(nonblocking(pipe.in));
  EXPECT_FALSE(file.blockingMode());
  EXPECT_EQ(calls.getfl, 0);
}

TEST_F(FileTest, ModeChangedBehindTheObjectIsNotNoticed) {
  VrnFile file;
  file.assign(pipe.in, "in", false);
  file.setBlockingMode(true);
  ::fcntl(pipe.in, F_SETFL, O_NONBLOCK);
  EXPECT_TRUE(file.blockingMode());
  file.setBlockingMode(true);
  EXPECT_TRUE(nonblocking(pipe.in));
}

TEST_F(FileTest, FlagsThatCannotBeReadAreAFailureEachTime) {
  const int fd = dup(pipe.in);
  VrnFile file;
  file.assign(fd, "in", false);
  close(fd);
  const Failure expected(2, "VrnFile: Failed to get flags for fd=" + std::to_string(fd) + " (9)");
  EXPECT_EQ(failure_of([&] { file.setBlockingMode(true); }), expected);
  EXPECT_EQ(failure_of([&] { file.setBlockingMode(false); }), expected);
  EXPECT_EQ(calls.getfl, 2);
  EXPECT_FALSE(file.blockingMode());
  try {
    file.setBlockingMode(false);
  } catch (const VrnException& e) {
    EXPECT_EQ(e.syserr(), EBADF);
  }
}

TEST_F(FileTest, FlagsThatCannotBeSetLeaveTheRememberedOnes) {
  VrnFile file;
  file.assign(pipe.in, "in", false);
  file.setBlockingMode(true);
  const int flags = ::fcntl(pipe.in, F_GETFL, 0);
  char hex[32];
  snprintf(hex, sizeof hex, "0x%x", static_cast<unsigned>(flags | O_NONBLOCK));
  calls.setfl_error = EPERM;
  EXPECT_EQ(failure_of([&] { file.setBlockingMode(false); }),
            Failure(2, std::string("VrnFile: Failed to set flags to ") + hex +
                           " for fd=" + std::to_string(pipe.in) + " (1)"));
  EXPECT_TRUE(file.blockingMode());
  calls.setfl_error = 0;
  const int looks = calls.getfl;
  file.setBlockingMode(false);  // tried again, with the flags known already
  EXPECT_EQ(calls.getfl, looks);
  EXPECT_TRUE(nonblocking(pipe.in));
}

TEST_F(FileTest, UnassignedFileHasNoModeToSet) {
  VrnFile file;
  const Failure failure = failure_of([&] { file.setBlockingMode(true); });
  EXPECT_EQ(failure.first, 3);
  EXPECT_NE(failure.second.find("_UNASSIGNED_"), std::string::npos);
  EXPECT_EQ(calls.getfl, 0);
}

// ---- transfers without a time-out ----

TEST_F(FileTest, ReadsTheExactCountInHoweverManyPieces) {
  const Joined writer([&] {
    for (const char* piece : {"a", "bcd", "ef", "ghij"}) {
      pipe.put(piece);
      std::this_thread::sleep_for(milliseconds(5));
    }
  });
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 9, false, 0, &eof), 9);
  EXPECT_STREQ(buf, "abcdefghi");  // the tenth byte stays in the pipe
  EXPECT_FALSE(eof);
}

TEST_F(FileTest, WritesTheExactCountThroughAFullPipe) {
  std::string sent(1 << 20, '\0');
  for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 7 >> 3);
  std::string received(sent.size(), '\0');
  int got = 0;
  {
    const Joined reader([&] {
      got = VrnFile::bread(pipe.out, received.data(), static_cast<int>(received.size()), false, 0,
                           nullptr);
    });
    EXPECT_EQ(VrnFile::bwrite(pipe.in, sent.data(), static_cast<int>(sent.size()), 0), 1 << 20);
  }
  EXPECT_EQ(got, 1 << 20);
  EXPECT_TRUE(sent == received);
}

TEST_F(FileTest, NoBytesAreTransferredWithoutASystemCall) {
  EXPECT_EQ(VrnFile::bwrite(pipe.in, "x", 0, 0), 0);
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 0, false, 0, &eof), 0);
  EXPECT_EQ(VrnFile::bwrite(-1, nullptr, 0, 0), 0);
  EXPECT_EQ(calls.writes + calls.reads + calls.alarms, 0);
}

TEST_F(FileTest, TransferWithoutTimeoutLeavesTheAlarmAlone) {
  pipe.put("abc");
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 3, false, 0, &eof), 3);
  EXPECT_EQ(VrnFile::bwrite(pipe.in, buf, 3, 0), 3);
  EXPECT_EQ(calls.alarms, 0);
}

TEST_F(FileTest, EmptyNonBlockingPipeGivesNothingWithoutWaiting) {
  pipe.make_nonblocking(pipe.out);
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, true, 0, &eof), 0);
  EXPECT_FALSE(eof);
  EXPECT_EQ(calls.reads, 1);
  EXPECT_EQ(calls.usleeps, 0);
}

TEST_F(FileTest, OnceAByteHasArrivedAnEmptyPipeIsWaitedFor) {
  pipe.make_nonblocking(pipe.out);
  pipe.put("ab");
  const Joined writer([&] {
    while (calls.usleeps < 3) std::this_thread::yield();
    pipe.put("cd");
  });
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, true, 0, &eof), 4);
  EXPECT_STREQ(buf, "abcd");
  EXPECT_GE(calls.usleeps, 3);
  EXPECT_EQ(calls.last_usleep, 10000U);
}

TEST_F(FileTest, EmptyNonBlockingPipeIsTriedEveryTenMilliseconds) {
  pipe.make_nonblocking(pipe.out);
  const auto start = steady_clock::now();
  const Joined writer([&] {
    while (calls.usleeps < 5) std::this_thread::yield();
    pipe.put("abcd");
  });
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, false, 0, &eof), 4);
  EXPECT_GE(seconds_since(start), 0.04);
  EXPECT_EQ(calls.last_usleep, 10000U);
  EXPECT_LE(calls.reads, calls.usleeps + 1);
}

TEST_F(FileTest, PollingEndsAtTheEndOfTheFile) {
  pipe.make_nonblocking(pipe.out);
  const Joined writer([&] {
    while (calls.usleeps < 2) std::this_thread::yield();
    pipe.close_in();
  });
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, false, 0, &eof), 0);
  EXPECT_TRUE(eof);
}

TEST_F(FileTest, PollingEndsAtAnError) {
  pipe.make_nonblocking(pipe.out);
  before([&](ssize_t* result) {
    if (calls.usleeps < 2) return false;
    errno = EIO;
    *result = -1;
    return true;
  });
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, false, 0, &eof), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(calls.usleeps, 2);
}

TEST_F(FileTest, FullNonBlockingPipeIsTriedEveryTenMilliseconds) {
  pipe.fill();
  pipe.make_nonblocking(pipe.in);
  const Joined reader([&] {
    while (calls.usleeps < 2) std::this_thread::yield();
    EXPECT_GT(real("read", &::read, pipe.out, static_cast<void*>(buf), sizeof buf), 0);
  });
  EXPECT_EQ(VrnFile::bwrite(pipe.in, "abcd", 4, 0), 4);
  EXPECT_GE(calls.usleeps, 2);
  EXPECT_EQ(calls.last_usleep, 10000U);
}

TEST_F(FileTest, EndOfFileIsFlaggedAndTheShortCountReturned) {
  LogCapture log;
  pipe.put("abc");
  pipe.close_in();
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 8, false, 0, &eof), 3);
  EXPECT_TRUE(eof);
  EXPECT_STREQ(buf, "abc");
  EXPECT_EQ(log.raw(), "");
}

TEST_F(FileTest, EndOfFileIsAnErrorForACallerWithoutAFlag) {
  LogCapture log;
  pipe.put("abc");
  pipe.close_in();
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 8, false, 0, nullptr), -1);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(log.lines(), Lines{"Read failed on fd=" + std::to_string(pipe.out) +
                               ", retval=0 after 3/8 (errno=0)"});
}

TEST_F(FileTest, ReadErrorIsLoggedAndLeftInErrno) {
  LogCapture log;
  const int fd = dup(pipe.out);
  close(fd);
  EXPECT_EQ(VrnFile::bread(fd, buf, 4, false, 0, &eof), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_FALSE(eof);
  EXPECT_EQ(log.lines(),
            Lines{"Read failed on fd=" + std::to_string(fd) + ", retval=-1 after 0/4 (errno=9)"});
}

TEST_F(FileTest, WriteErrorIsLoggedAndLeftInErrno) {
  LogCapture log;
  signal(SIGPIPE, SIG_IGN);
  pipe.close_out();
  EXPECT_EQ(VrnFile::bwrite(pipe.in, "abcd", 4, 0), -1);
  EXPECT_EQ(errno, EPIPE);
  EXPECT_EQ(log.lines(), Lines{"Write failed on fd=" + std::to_string(pipe.in) +
                               ", retval=-1 after 0/4 (errno=32)"});
}

TEST_F(FileTest, ErrorLineTellsHowFarTheTransferCame) {
  LogCapture log;
  pipe.put("ab");
  before([&](ssize_t* result) {
    if (calls.reads < 2) return false;
    errno = EIO;
    *result = -1;
    return true;
  });
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 6, false, 0, &eof), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(log.lines(), Lines{"Read failed on fd=" + std::to_string(pipe.out) +
                               ", retval=-1 after 2/6 (errno=5)"});
}

TEST_F(FileTest, WriteOfNothingIsAnError) {
  LogCapture log;
  before([](ssize_t* result) {
    *result = 0;
    return true;
  });
  EXPECT_EQ(VrnFile::bwrite(pipe.in, "abcd", 4, 0), -1);
  EXPECT_EQ(log.lines(), Lines{"Write failed on fd=" + std::to_string(pipe.in) +
                               ", retval=0 after 0/4 (errno=0)"});
}

// Level 4 is not shown unless it was asked for.
TEST_F(FileTest, ErrorLineIsADetail) {
  unsetenv("VORNTRC_APPTAG");
  testing::internal::CaptureStderr();
  pipe.close_in();
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 8, false, 0, nullptr), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(FileTest, InterruptedCallIsRepeatedAtOnce) {
  pipe.put("abcd");
  before([&](ssize_t* result) {
    if (calls.reads > 3) return false;
    errno = EINTR;
    *result = -1;
    return true;
  });
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, true, 0, &eof), 4);
  EXPECT_EQ(calls.reads, 4);
  EXPECT_EQ(calls.usleeps, 0);
}

TEST_F(FileTest, ErrnoIsClearBeforeEachCall) {
  pipe.put("abcd");
  Lines seen;
  before([&](ssize_t* result) {
    seen.push_back(std::to_string(errno));
    if (seen.size() > 2) return false;
    errno = EINTR;
    *result = -1;
    return true;
  });
  errno = ENOENT;
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, false, 0, &eof), 4);
  EXPECT_EQ(seen, (Lines{"0", "0", "0"}));
}

TEST_F(FileTest, NegativeCountIsRefused) {
  const std::string fd = "fd=" + std::to_string(pipe.out);
  const Failure read = failure_of([&] { VrnFile::bread(pipe.out, buf, -1, false, 0, &eof); });
  EXPECT_EQ(read.first, 3);
  EXPECT_NE(read.second.find(fd), std::string::npos) << read.second;
  EXPECT_EQ(failure_of([&] { VrnFile::bwrite(pipe.in, buf, -1, 1); }).first, 3);
  EXPECT_EQ(calls.alarms, 0);
}

TEST_F(FileTest, NullBufferIsRefused) {
  const std::string fd = "fd=" + std::to_string(pipe.in);
  const Failure write = failure_of([&] { VrnFile::bwrite(pipe.in, nullptr, 1, 0); });
  EXPECT_EQ(write.first, 3);
  EXPECT_NE(write.second.find(fd), std::string::npos) << write.second;
  EXPECT_EQ(failure_of([&] { VrnFile::bread(pipe.out, nullptr, 1, false, 1, &eof); }).first, 3);
  EXPECT_EQ(calls.reads + calls.writes + calls.alarms, 0);
}

// ---- transfers with a time-out ----

// The arguments of the alarm() calls so far.
std::vector<unsigned> alarm_calls() {
  return {calls.alarm_args, calls.alarm_args + calls.alarms};
}

using Alarms = std::vector<unsigned>;

TEST_F(FileTest, SilentDescriptorTimesOut) {
  LogCapture log;
  const auto start = steady_clock::now();
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, false, 1, &eof), 0);
  EXPECT_GE(seconds_since(start), 0.95);
  EXPECT_LT(seconds_since(start), 3);
  EXPECT_FALSE(eof);
  EXPECT_EQ(log.raw(), "");
}

TEST_F(FileTest, TimeoutIsNoErrorInErrno) {
  errno = EDOM;
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, false, 1, &eof), 0);
  EXPECT_EQ(errno, 0);
  pipe.make_nonblocking(pipe.out);
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, false, 1, &eof), 0);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(FileTest, TimeoutOfAWaitEndsASilentDescriptorToo) {
  const auto start = steady_clock::now();
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, false, -1, &eof), 0);
  EXPECT_GE(seconds_since(start), 0.95);
  EXPECT_LT(seconds_since(start), 3);
}

TEST_F(FileTest, TimeoutLeavesTheShortCount) {
  LogCapture log;
  pipe.put("abc");
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 8, false, 1, nullptr), 3);
  EXPECT_STREQ(buf, "abc");
  EXPECT_EQ(log.raw(), "");
}

TEST_F(FileTest, TimeoutEndsAWriteToAFullPipe) {
  const int room = pipe.fill();
  Channel empty;
  LogCapture log;
  EXPECT_EQ(VrnFile::bwrite(pipe.in, buf, 100, 1), 0);
  const std::vector<char> much(static_cast<size_t>(room) + 1000);
  EXPECT_EQ(VrnFile::bwrite(empty.in, much.data(), room + 1000, -1), room);
  EXPECT_EQ(log.raw(), "");
}

TEST_F(FileTest, TimeoutEndsThePollingOfANonBlockingDescriptor) {
  pipe.make_nonblocking(pipe.out);
  pipe.put("ab");
  const auto start = steady_clock::now();
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, true, 1, &eof), 2);
  EXPECT_GE(seconds_since(start), 0.95);
  EXPECT_LT(seconds_since(start), 3);
}

TEST_F(FileTest, EmptyNonBlockingPipeIsNotWaitedForWithATimeoutEither) {
  pipe.make_nonblocking(pipe.out);
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, true, 60, &eof), 0);
  EXPECT_EQ(calls.reads, 1);
  EXPECT_EQ(alarm_calls(), (Alarms{0, 60, 0, 0}));
}

// Sends a byte every 200 ms, for 1.6 seconds.
class DrippingPipe : public FileTest {
 protected:
  const Joined writer{[this] {
    for (const char c : std::string("abcdefgh")) {
      std::this_thread::sleep_for(milliseconds(200));
      pipe.put(std::string(1, c));
    }
  }};
};

TEST_F(DrippingPipe, OutlastsATimeoutOfEachWait) {
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 8, false, -1, &eof), 8);
  EXPECT_STREQ(buf, "abcdefgh");
}

TEST_F(DrippingPipe, IsCutShortByATimeoutOfTheWhole) {
  const int got = VrnFile::bread(pipe.out, buf, 8, false, 1, &eof);
  EXPECT_GE(got, 1);
  EXPECT_LT(got, 8);
  EXPECT_EQ(std::string(buf), std::string("abcdefgh").substr(0, static_cast<size_t>(got)));
}

TEST_F(FileTest, OneAlarmServesTheWholeTransfer) {
  pipe.put("abcd");
  Alarms during;
  before([&](ssize_t*) {
    during = alarm_calls();
    return false;
  });
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, false, 7, &eof), 4);
  EXPECT_EQ(during, (Alarms{0, 7}));
  EXPECT_EQ(alarm_calls(), (Alarms{0, 7, 0, 0}));
}

TEST_F(FileTest, NegativeTimeoutSetsTheAlarmBeforeEachCall) {
  pipe.put("abcd");
  before([&](ssize_t* result) {
    if (calls.reads > 2) return false;
    errno = EINTR;
    *result = -1;
    return true;
  });
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, false, -7, &eof), 4);
  EXPECT_EQ(alarm_calls(), (Alarms{0, 7, 7, 7, 7, 0, 0}));
}

TEST_F(FileTest, NoBytesWithATimeoutOnlySetAndTakeBackTheAlarm) {
  EXPECT_EQ(VrnFile::bwrite(pipe.in, "x", 0, 5), 0);
  EXPECT_EQ(calls.writes, 0);
  EXPECT_EQ(alarm_calls(), (Alarms{0, 5, 0, 0}));
}

TEST_F(FileTest, PendingAlarmIsSetAgainAfterTheTransfer) {
  pipe.put("abcd");
  alarm(100);
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, false, 5, &eof), 4);
  const unsigned left = alarm(0);
  EXPECT_GE(left, 95U);
  EXPECT_LE(left, 100U);
}

TEST_F(FileTest, PendingAlarmIsSetAgainAfterAnErrorAndAnEndOfFile) {
  alarm(100);
  pipe.close_in();
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, false, 5, &eof), 0);
  EXPECT_TRUE(eof);
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, false, 5, nullptr), -1);
  EXPECT_EQ(VrnFile::bread(-1, buf, 4, false, -5, &eof), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_GE(alarm(0), 95U);
}

TEST_F(FileTest, PendingAlarmIsLostWhenTheTransferTimesOut) {
  alarm(100);
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, false, 1, &eof), 0);
  EXPECT_EQ(alarm(0), 0U);
}

// A handler that tells whether the alarm is the caller's own again.
volatile sig_atomic_t callers_alarms = 0;
void on_alarm(int) {
  callers_alarms = callers_alarms + 1;
}

class AlarmActionTest : public FileTest {
 protected:
  AlarmActionTest() {
    struct sigaction action {};
    action.sa_handler = on_alarm;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, SIGUSR2);
    sigaction(SIGALRM, &action, nullptr);
  }

  static void expect_action_restored() {
    struct sigaction action {};
    sigaction(SIGALRM, nullptr, &action);
    EXPECT_EQ(action.sa_handler, &on_alarm);
    EXPECT_NE(action.sa_flags & SA_RESTART, 0);
    EXPECT_EQ(sigismember(&action.sa_mask, SIGUSR2), 1);
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGALRM), 0);
    EXPECT_EQ(callers_alarms, 0);
    raise(SIGALRM);
    EXPECT_EQ(callers_alarms, 1);
  }
};

TEST_F(AlarmActionTest, IsRestoredAfterTheTransfer) {
  pipe.put("abcd");
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, false, 5, &eof), 4);
  expect_action_restored();
}

TEST_F(AlarmActionTest, IsRestoredAfterATimeout) {
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, false, 1, &eof), 0);
  expect_action_restored();
}

TEST_F(AlarmActionTest, IsRestoredAfterAnError) {
  EXPECT_EQ(VrnFile::bread(-1, buf, 4, false, 5, &eof), -1);
  expect_action_restored();
}

TEST_F(AlarmActionTest, PendingAlarmThatIsSetAgainReachesTheCaller) {
  pipe.put("abcd");
  alarm(1);
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, false, 5, &eof), 4);
  const auto start = steady_clock::now();
  while (callers_alarms == 0 && seconds_since(start) < 5) std::this_thread::yield();
  EXPECT_EQ(callers_alarms, 1);
}

TEST_F(FileTest, FailedTimedTransferIsLoggedOnceAndKeepsErrno) {
  LogCapture log;
  EXPECT_EQ(VrnFile::bwrite(-1, "abcd", 4, 5), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(log.lines(), Lines{"Write failed on fd=-1, retval=-1 after 0/4 (errno=9)"});
}

// ---- wherever the alarm falls ----

// The alarm falls when the system has handed over the bytes and the library has not counted them.
TEST_F(FileTest, AlarmRightAfterTheCallLosesNoByte) {
  pipe.put("abcdef");
  after([] { raise(SIGALRM); });
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, false, 60, &eof), 4);
  EXPECT_EQ(VrnFile::bread(pipe.out, buf + 4, 4, false, 60, &eof), 2);
  EXPECT_STREQ(buf, "abcdef");
  EXPECT_EQ(calls.live, 0);
}

TEST_F(FileTest, AlarmRightAfterTheWriteLosesNoByte) {
  const int room = pipe.fill();
  EXPECT_EQ(real("read", &::read, pipe.out, static_cast<void*>(buf), size_t{4096}), 4096);
  pipe.make_nonblocking(pipe.in);  // otherwise the call itself waits for the room that is missing
  after([] { raise(SIGALRM); });
  EXPECT_EQ(VrnFile::bwrite(pipe.in, buf, room, -60), 4096);
  EXPECT_EQ(calls.live, 0);
}

// The alarm falls after the last look at it and before the call that it should end.
TEST_F(FileTest, AlarmRightBeforeTheCallStillEndsIt) {
  calls.alarm_usec = 1000;
  before([](ssize_t*) {
    const auto start = steady_clock::now();
    while (seconds_since(start) < 0.002) {
    }
    return false;
  });
  const auto start = steady_clock::now();
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, false, 1, &eof), 0);
  EXPECT_LT(seconds_since(start), 5);
  EXPECT_EQ(calls.live, 0);
}

TEST_F(FileTest, AlarmInThePauseBetweenTwoTriesEndsTheTransfer) {
  calls.alarm_usec = 5000;
  pipe.make_nonblocking(pipe.out);
  pipe.put("ab");
  EXPECT_EQ(VrnFile::bread(pipe.out, buf, 4, true, 1, &eof), 2);
  EXPECT_LE(calls.usleeps, 2);
  EXPECT_EQ(calls.live, 0);
}

// The alarm is the process's: the thread that gets it is not always the one that it is meant for.
TEST_F(FileTest, AlarmEndsTheTransferOfAnotherThread) {
  calls.alarm_usec = 20000;
  int got = -2;
  const auto start = steady_clock::now();
  std::thread([&] { got = VrnFile::bread(pipe.out, buf, 4, false, 1, &eof); }).join();
  EXPECT_EQ(got, 0);
  EXPECT_LT(seconds_since(start), 5);
}

enum class Direction { Read, Write };
enum class OnThread { Main, Other };

class BombardedTransfer : public testing::Test {
 protected:
#ifdef VORNFC_TEST_TSAN
  static constexpr int transfers = 1000;
#else
  static constexpr int transfers = 5000;
#endif
  static constexpr int longest = 6000;

  // The byte at a position of the stream. The period is no power of two, so a lost or repeated
  // block of any usual size shows.
  static char byte_at(unsigned long position) {
    return static_cast<char>(position % 251);
  }

  // read() and write() on the peer's side, which an alarm may interrupt as well.
  ssize_t take(char* buf, size_t size) const {
    ssize_t got;
    do {
      got = real("read", &::read, channel->out, static_cast<void*>(buf), size);
    } while (got == -1 && errno == EINTR);
    return got;
  }
  ssize_t give(const char* buf, size_t size) const {
    ssize_t put;
    do {
      put = real("write", &::write, channel->in, static_cast<const void*>(buf), size);
    } while (put == -1 && errno == EINTR);
    return put;
  }

  // Takes what comes, or what is left, and compares it with what was to come.
  void check(const char* bytes, ssize_t count) {
    for (ssize_t i = 0; i < count; ++i, ++received) {
      if (bytes[i] != byte_at(received)) ++wrong;
    }
  }

  // The other end of a transfer takes or gives in pieces, and pauses now and then.
  void peer_takes() {
    std::mt19937 random(seed + 1);
    char piece[4096];
    ssize_t got;
    while ((got = take(piece, 1 + random() % sizeof piece)) > 0) {  // to the end of the stream
      check(piece, got);
      pause(random());
    }
  }
  void peer_gives() {
    std::mt19937 random(seed + 1);
    char piece[4096];
    while (!stop) {
      const size_t size = 1 + random() % sizeof piece;
      for (size_t i = 0; i < size; ++i) piece[i] = byte_at(sent + i);
      const ssize_t put = give(piece, size);
      ASSERT_GT(put, 0) << "errno " << errno;
      sent += static_cast<unsigned long>(put);
      pause(random());
    }
  }
  static void pause(unsigned long random) {
    if (random % 8 == 0) std::this_thread::sleep_for(std::chrono::microseconds(random / 8 % 200));
  }

  void transfers_read() {
    std::mt19937 random(seed);
    std::vector<char> block(longest);
    for (int i = 0; i < transfers; ++i) {
      const int len = 1 + static_cast<int>(random() % longest);
      std::fill(block.begin(), block.begin() + len, never_sent);
      set_alarm(random());
      const int got = VrnFile::bread(channel->out, block.data(), len, false, timeout(i), nullptr);
      count(got, len);
      check(block.data(), got);
      for (int k = got; k < len; ++k) ASSERT_EQ(block[static_cast<size_t>(k)], never_sent);
    }
  }
  void transfers_write() {
    std::mt19937 random(seed);
    std::vector<char> block(longest);
    for (int i = 0; i < transfers; ++i) {
      const int len = 1 + static_cast<int>(random() % longest);
      for (int k = 0; k < len; ++k) {
        block[static_cast<size_t>(k)] = byte_at(sent + static_cast<unsigned long>(k));
      }
      set_alarm(random());
      const int put = VrnFile::bwrite(channel->in, block.data(), len, timeout(i));
      count(put, len);
      sent += static_cast<unsigned long>(put);
    }
  }

  static void set_alarm(unsigned long random) {
    calls.alarm_usec = 1 + static_cast<int>(random % 60);
  }
  static int timeout(int i) {
    return i % 2 == 0 ? 1 : -1;
  }
  void count(int done, int len) {
    ASSERT_GE(done, 0) << "errno " << errno;
    ASSERT_LE(done, len);
    ASSERT_EQ(calls.live, 0);
    ++(done == len ? complete : cut);
  }

  void bombard(Channel::Kind kind, Direction direction, OnThread where) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Channel both_ends(kind);
    channel = &both_ends;
    const auto transfer = [&] {
      direction == Direction::Read ? transfers_read() : transfers_write();
    };
    const Joined busy([this] {  // has the lock of the heap whenever an alarm falls on it
      while (!stop) std::make_unique<std::string>(100, 'x')->append("y");
    });
    std::thread peer([&] { direction == Direction::Read ? peer_gives() : peer_takes(); });
    if (where == OnThread::Main) {
      transfer();
    } else {
      std::thread(transfer).join();
    }
    stop = true;
    calls.alarm_usec = 0;
    if (direction == Direction::Write) {
      both_ends.close_in();
      peer.join();
    } else {
      const Joined rest([this] { peer_takes(); });  // what was sent and is not read
      peer.join();
      both_ends.close_in();
    }
  }

  void TearDown() override {
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(received, sent);
    // Both endings must have happened often, or the test shows nothing.
    EXPECT_GT(complete, transfers / 100);
    EXPECT_GT(cut, transfers / 100);
  }

  static constexpr char never_sent = '\xfe';
  const unsigned seed = std::random_device()();
  Channel* channel = nullptr;
  unsigned long sent = 0, received = 0;  // of the stream, on the side that sends and that receives
  int complete = 0, cut = 0;
  int wrong = 0;
  std::atomic<bool> stop{false};
};

// The previous action of SIGALRM is the default one in all of these, so an alarm that comes after
// its transfer ends the process.
TEST_F(BombardedTransfer, ReadsEveryByteOfAPipe) {
  bombard(Channel::Pipe, Direction::Read, OnThread::Main);
}

TEST_F(BombardedTransfer, ReadsEveryByteOfAPipeOnAnotherThread) {
  bombard(Channel::Pipe, Direction::Read, OnThread::Other);
}

TEST_F(BombardedTransfer, WritesEveryByteToAPipe) {
  bombard(Channel::Pipe, Direction::Write, OnThread::Main);
}

TEST_F(BombardedTransfer, WritesEveryByteToAPipeOnAnotherThread) {
  bombard(Channel::Pipe, Direction::Write, OnThread::Other);
}

TEST_F(BombardedTransfer, ReadsEveryByteOfASocket) {
  bombard(Channel::Socket, Direction::Read, OnThread::Main);
}

TEST_F(BombardedTransfer, ReadsEveryByteOfASocketOnAnotherThread) {
  bombard(Channel::Socket, Direction::Read, OnThread::Other);
}

TEST_F(BombardedTransfer, WritesEveryByteToASocket) {
  bombard(Channel::Socket, Direction::Write, OnThread::Main);
}

TEST_F(BombardedTransfer, WritesEveryByteToASocketOnAnotherThread) {
  bombard(Channel::Socket, Direction::Write, OnThread::Other);
}

}  // namespace
}  // namespace vornfc
