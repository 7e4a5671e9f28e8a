#include "vornfc/stdiobuf.h"

#include "support/log_capture.h"
#include "support/loop.h"
#include "support/planned_call.h"
#include "support/wait_for.h"
#include "vornfc/exception.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio_ext.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

// The arrays of one size, which a test looks at: how many there are, and the moment one is freed.
namespace {

std::size_t tracked_size = 0;
std::vector<void*> tracked;
const Call* on_freed = nullptr;

void freed(void* memory) {
  const auto it = std::find(tracked.begin(), tracked.end(), memory);
  if (it == tracked.end()) return;
  tracked.erase(it);
  if (on_freed) (*on_freed)();
}

}  // namespace

void* operator new[](std::size_t size) {
  void* const memory = std::malloc(size);
  if (!memory) throw std::bad_alloc();
  if (size == tracked_size) tracked.push_back(memory);
  return memory;
}
void operator delete[](void* memory) noexcept {
  freed(memory);
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  freed(memory);
  std::free(memory);
}

extern "C" {

int fstat(int fd, struct stat* status) noexcept {
  return sys::errno_call("fstat", &fstat, fd, status);
}

int fflush(FILE* stream) {
  return sys::errno_call("fflush", &fflush, stream);
}
int setvbuf(FILE* stream, char* buffer, int mode, size_t size) noexcept {
  return sys::errno_call("setvbuf", &setvbuf, stream, buffer, mode, size);
}

}  // extern "C"

namespace vornfc {
namespace {

using Failure = std::pair<int, std::string>;

constexpr const char* variable = "VORNFC_TEST_LINES";

// The exception that `call` throws, as its code and message.
Failure failure_of(const Call& call) {
  try {
    call();
  } catch (const VrnException& e) {
    return {e.err(), e.what()};
  }
  return {0, "no VrnException"};
}

// A stream that leads into a pipe, and the pipe's other end.
class Pipe {
 public:
  Pipe() {
    int ends[2];
    if (pipe(ends) == -1) ADD_FAILURE() << "no pipe";
    read_end = ends[0];
    stream = fdopen(ends[1], "w");
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  ~Pipe() {
    fclose(stream);
    close(read_end);
  }

  int arrived() const {
    int count = -1;
    ioctl(read_end, FIONREAD, &count);
    return count;
  }
  std::string take() const {
    std::string text(static_cast<std::size_t>(arrived()), ' ');
    if (text.empty()) return text;
    if (read(read_end, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      ADD_FAILURE() << "the pipe lost something";
    }
    return text;
  }

  FILE* stream;
  int read_end;
};

// Character by character: of a longer text the C library may send some past a buffer without room.
void put(const std::string& text, FILE* stream) {
  for (const char c : text) putc(c, stream);
}

// The size of the buffer by what happens: writes to `stream`, without a line end, until something
// has arrived.
int buffer_size(FILE* stream, const std::function<int()>& arrived) {
  for (int i = 0; i < 100000; ++i) {
    putc('x', stream);
    if (const int count = arrived()) return count;
  }
  return -1;
}

bool by_line(FILE* stream) {
  return __flbf(stream) != 0;
}

// Whether a line's end, and not its beginning, sends what is written to the pipe.
bool writes_lines(const Pipe& pipe) {
  pipe.take();
  put("one\ntwo", pipe.stream);
  return pipe.take() == "one\n" && by_line(pipe.stream);
}

bool writes_at_once(const Pipe& pipe) {
  pipe.take();
  putc('a', pipe.stream);
  return pipe.take() == "a";
}

class BufferedStdioTest : public testing::Test {
 public:
  BufferedStdioTest() {
    char name[] = "/tmp/vornfc_stdiobuf_test_XXXXXX";
    dir = mkdtemp(name);
    path = dir + "/file";
  }
  ~BufferedStdioTest() override {
    tracked_size = 0;
    on_freed = nullptr;
    std::filesystem::remove_all(dir);
  }

 protected:
  int file_size() const { return static_cast<int>(std::filesystem::file_size(path)); }
  int size_on_file(const VrnBufferedStdio& out) const {
    return buffer_size(out.file(), [this] { return file_size(); });
  }
  std::string content() const {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  void write_file(const std::string& text) const { std::ofstream(path) << text; }

  std::string dir, path;
};

// ---- which buffering ----

TEST_F(BufferedStdioTest, FileIsWrittenWhenTheBufferIsFull) {
  const VrnBufferedStdio out(path.c_str(), "w", 65536, true, nullptr);
  put("a line\n", out.file());
  EXPECT_EQ(file_size(), 0);
  EXPECT_EQ(size_on_file(out), 65536);
}

TEST_F(BufferedStdioTest, PipeIsWrittenLineByLine) {
  const Pipe pipe;
  const VrnBufferedStdio out(pipe.stream, 65536, true, nullptr);
  EXPECT_EQ(out.file(), pipe.stream);
  EXPECT_TRUE(writes_lines(pipe));
}

TEST_F(BufferedStdioTest, LineBufferHas4096BytesAtMost) {
  for (const int size : {1, 10, 4095, 4096, 4097, 65536, INT_MAX}) {
    const Pipe pipe;
    const VrnBufferedStdio out(pipe.stream, size, true, nullptr);
    EXPECT_EQ(buffer_size(pipe.stream, [&] { return pipe.arrived(); }), std::min(size, 4096));
  }
}

TEST_F(BufferedStdioTest, FullBufferHasTheSizeGiven) {
  for (const int size : {1, 10, 4096, 4097, 10000}) {
    const Pipe pipe;
    const VrnBufferedStdio out(pipe.stream, size, false, nullptr);
    EXPECT_EQ(buffer_size(pipe.stream, [&] { return pipe.arrived(); }), size);
  }
}

TEST_F(BufferedStdioTest, PipeIsLikeAFileUnlessLinesAreWanted) {
  const Pipe pipe;
  const VrnBufferedStdio out(pipe.stream, 100, false, nullptr);
  put("a line\n", pipe.stream);
  EXPECT_EQ(pipe.arrived(), 0);
  EXPECT_FALSE(by_line(pipe.stream));
}

TEST_F(BufferedStdioTest, OneWriteCarriesOneLineOrOneBuffer) {
  for (const bool lines : {true, false}) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
    FILE* const stream = fdopen(ends[1], "w");
    {
      const VrnBufferedStdio out(stream, 8, lines, nullptr);
      put("one\ntwo\nthree\n", stream);
    }
    fclose(stream);
    std::vector<std::string> writes;
    char message[100];
    ssize_t count;
    while ((count = recv(ends[0], message, sizeof message, 0)) > 0) {
      writes.emplace_back(message, static_cast<std::size_t>(count));
    }
    close(ends[0]);
    using Writes = std::vector<std::string>;
    EXPECT_EQ(writes,
              lines ? (Writes{"one\n", "two\n", "three\n"}) : (Writes{"one\ntwo\n", "three\n"}));
  }
}

TEST_F(BufferedStdioTest, TerminalIsWrittenLineByLine) {
  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_NE(master, -1);
  ASSERT_EQ(grantpt(master), 0);
  ASSERT_EQ(unlockpt(master), 0);
  FILE* const terminal = fopen(ptsname(master), "w");
  ASSERT_NE(terminal, nullptr);
  termios mode;
  ASSERT_EQ(tcgetattr(fileno(terminal), &mode), 0);
  cfmakeraw(&mode);
  ASSERT_EQ(tcsetattr(fileno(terminal), TCSANOW, &mode), 0);
  fcntl(master, F_SETFL, O_NONBLOCK);
  std::string shown;
  const auto shows = [&](std::size_t count) {
    char chunk[256];
    for (ssize_t got; (got = read(master, chunk, sizeof chunk)) > 0;) {
      shown.append(chunk, static_cast<std::size_t>(got));
    }
    return shown.size() >= count;
  };
  {
    const VrnBufferedStdio out(terminal, 65536, true, nullptr);
    put("one", terminal);
    EXPECT_EQ(__fpending(terminal), 3u);
    putc('\n', terminal);
    EXPECT_TRUE(wait_for([&] { return shows(4); }));
    EXPECT_EQ(shown, "one\n");
    for (int i = 0; i < 4097; ++i) putc('x', terminal);
    EXPECT_EQ(__fpending(terminal), 1u);
    EXPECT_TRUE(wait_for([&] { return shows(4 + 4096); }));
    EXPECT_EQ(shown, "one\n" + std::string(4096, 'x'));
  }
  EXPECT_TRUE(wait_for([&] { return shows(4 + 4097); }));
  fclose(terminal);
  close(master);
}

TEST_F(BufferedStdioTest, DeviceIsNoRegularFile) {
  const VrnBufferedStdio out("/dev/null", "w", 100, true, nullptr);
  EXPECT_TRUE(by_line(out.file()));
}

// Leads standard output elsewhere.
class Redirection {
 public:
  explicit Redirection(int fd) {
    fflush(stdout);
    dup2(fd, STDOUT_FILENO);
  }
  Redirection(const Redirection&) = delete;
  Redirection& operator=(const Redirection&) = delete;
  ~Redirection() {
    fflush(stdout);
    dup2(before, STDOUT_FILENO);
    close(before);
  }

 private:
  const int before = dup(STDOUT_FILENO);
};

TEST_F(BufferedStdioTest, StandardOutputToAPipe) {
  const Pipe pipe;
  int size = 0;
  {
    const Redirection redirection(fileno(pipe.stream));
    const VrnBufferedStdio out(stdout, 65536, true, nullptr);
    size = buffer_size(stdout, [&] { return pipe.arrived(); });
  }
  EXPECT_EQ(size, 4096);
}

TEST_F(BufferedStdioTest, StandardOutputToAFile) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT, 0600);
  int size = 0;
  {
    const Redirection redirection(fd);
    const VrnBufferedStdio out(stdout, 65536, true, nullptr);
    size = size_on_file(out);
  }
  close(fd);
  EXPECT_EQ(size, 65536);
}

TEST_F(BufferedStdioTest, InputIsReadByTheBuffer) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(write(ends[1], "abcdefghijklmnopqrst", 20), 20);
  FILE* const stream = fdopen(ends[0], "r");
  int left = 0;
  {
    VrnBufferedStdio in(stream, 8, true, nullptr);
    EXPECT_EQ(getc(stream), 'a');
    ioctl(ends[0], FIONREAD, &left);
    EXPECT_EQ(left, 12);
    for (int i = 0; i < 7; ++i) getc(stream);
    in.set(0);
    EXPECT_EQ(getc(stream), 'i');
    ioctl(ends[0], FIONREAD, &left);
    EXPECT_EQ(left, 11);
  }
  fclose(stream);
  close(ends[1]);
}

TEST_F(BufferedStdioTest, InputThatCanSeekGoesOnWhereItWas) {
  write_file("abcdef");
  VrnBufferedStdio in(path.c_str(), "r", 4, true, nullptr);
  EXPECT_EQ(getc(in.file()), 'a');
  in.set(3);
  EXPECT_EQ(getc(in.file()), 'b');
  in.set(0);
  EXPECT_EQ(getc(in.file()), 'c');
}

// ---- the environment ----

TEST_F(BufferedStdioTest, VariableForcesLinesInEitherCaseWhateverTheDescriptor) {
  for (const char* const value : {"y", "Y"}) {
    for (const bool lineIfNotFile : {true, false}) {
      setenv(variable, value, 1);
      const VrnBufferedStdio out(path.c_str(), "w", 65536, lineIfNotFile, variable);
      put("one\ntwo", out.file());
      EXPECT_EQ(content(), "one\n") << value;
      EXPECT_EQ(buffer_size(out.file(), [this] { return file_size() - 4; }), 4096);
    }
  }
}

TEST_F(BufferedStdioTest, VariableOfAnyOtherValueForcesNothing) {
  for (const char* const value : {"", "n", "yes", "Yes", "1", " y", "y ", "true"}) {
    setenv(variable, value, 1);
    const VrnBufferedStdio out(path.c_str(), "w", 100, true, variable);
    put("one\n", out.file());
    EXPECT_EQ(file_size(), 0) << value;
    const Pipe pipe;
    const VrnBufferedStdio lines(pipe.stream, 100, true, variable);
    EXPECT_TRUE(by_line(pipe.stream)) << value;
  }
}

TEST_F(BufferedStdioTest, VariableThatIsNotSetForcesNothing) {
  unsetenv(variable);
  const VrnBufferedStdio out(path.c_str(), "w", 100, true, variable);
  EXPECT_FALSE(by_line(out.file()));
}

TEST_F(BufferedStdioTest, EmptyOrNullNameNamesNoVariable) {
  setenv(variable, "y", 1);
  for (const char* const name : {static_cast<const char*>(nullptr), ""}) {
    const VrnBufferedStdio out(path.c_str(), "w", 100, true, name);
    EXPECT_FALSE(by_line(out.file()));
    const Pipe pipe;
    const VrnBufferedStdio adopted(pipe.stream, 100, false, name);
    EXPECT_FALSE(by_line(pipe.stream));
  }
}

TEST_F(BufferedStdioTest, NameMayBeForgottenAndTheVariableMayChange) {
  std::string name = variable;
  unsetenv(variable);
  VrnBufferedStdio out(path.c_str(), "w", 100, true, name.c_str());
  name.assign(name.size(), '?');
  EXPECT_FALSE(by_line(out.file()));
  setenv(variable, "y", 1);
  EXPECT_FALSE(by_line(out.file()));
  out.set(100);
  EXPECT_TRUE(by_line(out.file()));
  setenv(variable, "n", 1);
  out.set(100);
  EXPECT_FALSE(by_line(out.file()));
}

TEST_F(BufferedStdioTest, VariableThatSaysYesLeavesTheDescriptorAlone) {
  setenv(variable, "y", 1);
  const Pipe pipe;
  sys::plan_errors("fstat", EIO, 1);
  const VrnBufferedStdio out(pipe.stream, 100, true, variable);
  EXPECT_TRUE(writes_lines(pipe));
}

// ---- changing the size ----

TEST_F(BufferedStdioTest, ZeroIsUnbuffered) {
  const Pipe pipe;
  const VrnBufferedStdio out(pipe.stream, 0, true, nullptr);
  EXPECT_TRUE(writes_at_once(pipe));
}

TEST_F(BufferedStdioTest, ZeroFreesTheBuffer) {
  const Pipe pipe;
  tracked_size = 777;
  VrnBufferedStdio out(pipe.stream, 777, true, nullptr);
  EXPECT_EQ(tracked.size(), 1u);
  put("abc", pipe.stream);
  std::string written;
  const Call when_freed = [&] {
    written = pipe.take();
    EXPECT_LE(__fbufsize(pipe.stream), 1u);
  };
  on_freed = &when_freed;
  out.set(0);
  EXPECT_TRUE(tracked.empty());
  EXPECT_EQ(written, "abc");
  EXPECT_TRUE(writes_at_once(pipe));
}

TEST_F(BufferedStdioTest, UnbufferedStreamMayBeBufferedAgain) {
  const Pipe pipe;
  VrnBufferedStdio out(pipe.stream, 0, true, nullptr);
  out.set(100);
  EXPECT_TRUE(writes_lines(pipe));
  out.set(0);
  out.set(0);
  EXPECT_TRUE(writes_at_once(pipe));
}

TEST_F(BufferedStdioTest, NewBufferReplacesTheOldOneBeforeThatIsFreed) {
  const Pipe pipe;
  tracked_size = 777;
  VrnBufferedStdio out(pipe.stream, 777, false, nullptr);
  put("abc", pipe.stream);
  const Call when_freed = [&] { EXPECT_EQ(__fbufsize(pipe.stream), 555u); };
  on_freed = &when_freed;
  out.set(555);
  EXPECT_TRUE(tracked.empty());
  EXPECT_EQ(pipe.take(), "abc");
  EXPECT_EQ(buffer_size(pipe.stream, [&] { return pipe.arrived(); }), 555);
}

TEST_F(BufferedStdioTest, NothingIsLostOrReorderedByRepeatedChanges) {
  std::string expected;
  {
    VrnBufferedStdio out(path.c_str(), "w", 10, true, nullptr);
    for (const int size : {5, 0, 4096, -1, 3, 3, 100000, 1, 0}) {
      const std::string text = "some text of size " + std::to_string(size);
      put(text, out.file());
      out.set(size);
      expected += text;
      EXPECT_TRUE(size < 0 || content() == expected) << size;
    }
  }
  EXPECT_EQ(content(), expected);
}

// setvbuf() need not do it.
TEST_F(BufferedStdioTest, EveryChangeFlushesTheStream) {
  const Pipe pipe;
  int before = sys::count_of("fflush");
  const auto flushes = [&] {
    const int so_far = before;
    before = sys::count_of("fflush");
    return before - so_far;
  };
  {
    VrnBufferedStdio out(pipe.stream, 100, true, nullptr);
    EXPECT_EQ(flushes(), 1);
    out.set(50);
    EXPECT_EQ(flushes(), 1);
    out.set(0);
    EXPECT_EQ(flushes(), 1);
    out.set(-1);
    EXPECT_EQ(flushes(), 0);
    out.set(50);
    EXPECT_EQ(flushes(), 1);
  }
  EXPECT_EQ(flushes(), 1);
}

TEST_F(BufferedStdioTest, NegativeSizeLeavesTheStreamAsItIs) {
  const Pipe pipe;
  char own[7];
  setvbuf(pipe.stream, own, _IOLBF, sizeof own);
  put("abc", pipe.stream);
  for (const int size : {-1, INT_MIN}) {
    VrnBufferedStdio out(pipe.stream, size, false, nullptr);
    out.set(-1);
    EXPECT_EQ(__fpending(pipe.stream), 3u);
    EXPECT_EQ(__fbufsize(pipe.stream), sizeof own);
    EXPECT_TRUE(by_line(pipe.stream));
  }
  // And so does the end.
  EXPECT_EQ(pipe.arrived(), 0);
  EXPECT_EQ(__fbufsize(pipe.stream), sizeof own);
  fflush(pipe.stream);
  setvbuf(pipe.stream, nullptr, _IONBF, 0);
}

TEST_F(BufferedStdioTest, NegativeSizeLeavesAFileThatItOpensAsItComes) {
  {
    const VrnBufferedStdio out(path.c_str(), "w", -1, true, nullptr);
    put("abc\n", out.file());
    EXPECT_FALSE(by_line(out.file()));
    EXPECT_EQ(file_size(), 0);
  }
  EXPECT_EQ(content(), "abc\n");
}

TEST_F(BufferedStdioTest, NegativeSizeKeepsTheBufferThatWasSet) {
  const Pipe pipe;
  VrnBufferedStdio out(pipe.stream, 10, true, nullptr);
  out.set(-1);
  EXPECT_EQ(buffer_size(pipe.stream, [&] { return pipe.arrived(); }), 10);
}

// ---- files that it opens ----

TEST_F(BufferedStdioTest, FileIsOpenedInTheMode) {
  write_file("abc");
  {
    const VrnBufferedStdio out(path.c_str(), "a", 100, true, nullptr);
    put("def", out.file());
  }
  EXPECT_EQ(content(), "abcdef");
  const VrnBufferedStdio in(path.c_str(), "r", 100, true, nullptr);
  EXPECT_EQ(getc(in.file()), 'a');
  EXPECT_EQ(putc('x', in.file()), EOF);
}

TEST_F(BufferedStdioTest, FileThatCannotBeOpened) {
  const std::string missing = dir + "/none/file";
  EXPECT_EQ(failure_of([&] { VrnBufferedStdio(missing.c_str(), "w", 10, true, nullptr); }),
            (Failure{2, "Failed to open file=" + missing + " for w (errno=2)"}));
  EXPECT_EQ(failure_of([&] { VrnBufferedStdio(dir.c_str(), "r+", -1, true, nullptr); }),
            (Failure{2, "Failed to open file=" + dir + " for r+ (errno=21)"}));
  EXPECT_EQ(failure_of([&] { VrnBufferedStdio(path.c_str(), "?", 0, true, nullptr); }),
            (Failure{2, "Failed to open file=" + path + " for ? (errno=22)"}));
}

TEST_F(BufferedStdioTest, NullPathOrModeCannotBeOpened) {
  const char* const none = nullptr;
  EXPECT_EQ(failure_of([&] { VrnBufferedStdio(none, "r", 10, true, nullptr); }),
            (Failure{2, "Failed to open file= for r (errno=2)"}));
  EXPECT_EQ(failure_of([&] { VrnBufferedStdio(path.c_str(), nullptr, 10, true, nullptr); }),
            (Failure{2, "Failed to open file=" + path + " for  (errno=22)"}));
}

TEST_F(BufferedStdioTest, FileIsClosedAtTheEndBeforeTheBufferIsFreed) {
  const std::vector<int> before = open_descriptors();
  tracked_size = 777;
  std::vector<int> when_gone;
  std::string written;
  const Call when_freed = [&] {
    when_gone = open_descriptors();
    written = content();
  };
  on_freed = &when_freed;
  {
    const VrnBufferedStdio out(path.c_str(), "w", 777, true, nullptr);
    EXPECT_EQ(open_descriptors().size(), before.size() + 1);
    put("abc", out.file());
  }
  EXPECT_TRUE(tracked.empty());
  EXPECT_EQ(when_gone, before);
  EXPECT_EQ(written, "abc");
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(BufferedStdioTest, FailedConstructorClosesWhatItOpened) {
  const std::vector<int> before = open_descriptors();
  sys::plan_errors("fstat", EOVERFLOW, 1);
  const Failure failure =
      failure_of([&] { VrnBufferedStdio(path.c_str(), "w", 10, true, nullptr); });
  EXPECT_EQ(failure.first, 2);
  EXPECT_EQ(failure.second.substr(0, 18), "Failed to stat fd=");
  EXPECT_NE(failure.second.find(" (errno=75)"), std::string::npos) << failure.second;
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(BufferedStdioTest, CloseThatFailsIsLogged) {
  const LogCapture log;
  {
    const VrnBufferedStdio out("/dev/full", "w", 100, true, nullptr);
    put("abc", out.file());
  }
  EXPECT_EQ(log.lines(),
            std::vector<std::string>{"VrnBufferedStdio: Failed to close file (errno=28)"});
}

// ---- streams that it adopts ----

TEST_F(BufferedStdioTest, AdoptedStreamGoesOnUnbuffered) {
  const Pipe pipe;
  tracked_size = 777;
  std::string written;
  const Call when_freed = [&] {
    written = pipe.take();
    EXPECT_LE(__fbufsize(pipe.stream), 1u);
  };
  on_freed = &when_freed;
  {
    const VrnBufferedStdio out(pipe.stream, 777, true, nullptr);
    put("abc", pipe.stream);
  }
  EXPECT_TRUE(tracked.empty());
  EXPECT_EQ(written, "abc");
  EXPECT_TRUE(writes_at_once(pipe));
}

TEST_F(BufferedStdioTest, AdoptedStreamMayBeAdoptedAgain) {
  const Pipe pipe;
  for (int i = 0; i < 3; ++i) {
    const VrnBufferedStdio out(pipe.stream, 10, true, nullptr);
    EXPECT_TRUE(writes_lines(pipe));
  }
}

TEST_F(BufferedStdioTest, NullStreamIsRefused) {
  for (const int size : {-1, 0, 10}) {
    EXPECT_EQ(
        failure_of([&] { VrnBufferedStdio(static_cast<FILE*>(nullptr), size, true, nullptr); }),
        (Failure{3, "RAII: Null FILE"}));
  }
}

// A stream whose descriptor was closed behind its back, with the number it had.
FILE* closed_stream(int* fd) {
  FILE* const stream = fopen("/dev/null", "w");
  *fd = fileno(stream);
  close(*fd);
  return stream;
}

TEST_F(BufferedStdioTest, DescriptorThatIsClosed) {
  int fd = -1;
  FILE* const stream = closed_stream(&fd);
  const Failure expected{2, "Failed to stat fd=" + std::to_string(fd) + " (errno=9)"};
  EXPECT_EQ(failure_of([&] { VrnBufferedStdio(stream, 10, true, nullptr); }), expected);
  {
    VrnBufferedStdio out(stream, 10, false, nullptr);  // no need to look
    EXPECT_EQ(__fbufsize(stream), 10u);
  }
  {
    VrnBufferedStdio out(stream, 0, true, nullptr);  // nor here
    EXPECT_EQ(failure_of([&] { out.set(20); }), expected);
    EXPECT_LE(__fbufsize(stream), 1u);
  }
  fclose(stream);
}

TEST_F(BufferedStdioTest, FailedLookAtTheDescriptorKeepsTheBuffer) {
  const Pipe pipe;
  tracked_size = 777;
  VrnBufferedStdio out(pipe.stream, 777, true, nullptr);
  put("abc", pipe.stream);
  sys::plan_errors("fstat", EIO, 1);
  EXPECT_EQ(
      failure_of([&] { out.set(555); }),
      (Failure{2, "Failed to stat fd=" + std::to_string(fileno(pipe.stream)) + " (errno=5)"}));
  EXPECT_EQ(tracked.size(), 1u);
  EXPECT_EQ(__fbufsize(pipe.stream), 777u);
  EXPECT_EQ(__fpending(pipe.stream), 3u);
  putc('\n', pipe.stream);
  EXPECT_EQ(pipe.take(), "abc\n");
}

TEST_F(BufferedStdioTest, BufferThatTheStreamDoesNotTake) {
  FILE* const stream = fopen("/dev/null", "w");
  const std::string fd = std::to_string(fileno(stream));
  VrnBufferedStdio out(stream, 777, false, nullptr);
  sys::plan_errors("setvbuf", ENOMEM, 1);
  EXPECT_EQ(failure_of([&] { out.set(555); }),
            (Failure{2, "Failed to set buffer of fd=" + fd + " (errno=12)"}));
  out.set(555);  // the next one is taken
}

TEST_F(BufferedStdioTest, FailedFlushKeepsTheBuffer) {
  for (const int size : {555, 0}) {
    FILE* const stream = fopen("/dev/full", "w");
    const std::string fd = std::to_string(fileno(stream));
    tracked_size = 777;
    {
      VrnBufferedStdio out(stream, 777, false, nullptr);
      put("abc", stream);
      EXPECT_EQ(failure_of([&] { out.set(size); }),
                (Failure{2, "Failed to set buffer of fd=" + fd + " (errno=28)"}));
      EXPECT_EQ(tracked.size(), 1u);
      EXPECT_EQ(__fbufsize(stream), 777u);
      __fpurge(stream);
      out.set(size);
      EXPECT_TRUE(tracked.empty());
    }
    fclose(stream);
  }
}

TEST_F(BufferedStdioTest, FailedFlushFreesTheBufferThatWasToBe) {
  FILE* const stream = fopen("/dev/full", "w");
  {
    VrnBufferedStdio out(stream, 777, false, nullptr);
    put("abc", stream);
    tracked_size = 555;
    EXPECT_EQ(failure_of([&] { out.set(555); }).first, 2);
    EXPECT_TRUE(tracked.empty());
    __fpurge(stream);
  }
  fclose(stream);
}

// The stream still has the buffer, so that is not freed. The stream is left open, and the program
// can therefore still reach it.
TEST_F(BufferedStdioTest, FailedFlushAtTheEndIsLoggedAndLeavesTheBufferToTheStream) {
  const LogCapture log;
  FILE* const stream = fopen("/dev/full", "w");
  const std::string fd = std::to_string(fileno(stream));
  tracked_size = 777;
  {
    const VrnBufferedStdio out(stream, 777, false, nullptr);
    put("abc", stream);
  }
  EXPECT_EQ(tracked.size(), 1u);
  EXPECT_EQ(__fbufsize(stream), 777u);
  EXPECT_EQ(log.lines(), std::vector<std::string>{
                             "VrnBufferedStdio: VrnException: Error=2 (errno=28) - Failed to set "
                             "buffer of fd=" +
                             fd + " (errno=28)"});
}

static_assert(!std::is_copy_constructible_v<VrnBufferedStdio>);
static_assert(!std::is_copy_assignable_v<VrnBufferedStdio>);
static_assert(!std::is_move_constructible_v<VrnBufferedStdio>);
static_assert(!std::is_move_assignable_v<VrnBufferedStdio>);

}  // namespace
}  // namespace vornfc
