#include "vornfc/asyncw.h"

#include "support/log_capture.h"
#include "support/loop.h"
#include "support/polling.h"
#include "support/sanitizers.h"
#include "support/wait_for.h"
#include "vornfc/appshell.h"
#include "vornfc/exception.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <deque>
#include <functional>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// The write() and the malloc() of the library, as this program defines them.
namespace {

// What write() answers on one descriptor, call by call; behind the last answer, the system's.
using Answer = std::function<ssize_t(int fd, const void* data, size_t length)>;

struct Writes {
  std::atomic<int> fd{-1};      // of the descriptor
  std::deque<Answer> answers;   // the next first
  std::vector<size_t> lengths;  // what was asked for, call by call
};

Writes writes;

ssize_t system_write(int fd, const void* data, size_t length) {
  static void* const hidden = dlsym(RTLD_NEXT, "write");
  return reinterpret_cast<ssize_t (*)(int, const void*, size_t)>(hidden)(fd, data, length);
}

Answer fails(int error) {
  return [=](int, const void*, size_t) {
    errno = error;
    return -1;
  };
}

Answer returns(ssize_t result) {
  return [=](int, const void*, size_t) { return result; };
}

Answer takes(size_t limit) {
  return [=](int fd, const void* data, size_t length) {
    return system_write(fd, data, std::min(limit, length));
  };
}

const Answer takes_all_unseen = [](int, const void*, size_t length) {
  return static_cast<ssize_t>(length);
};

// The allocations of one thread, while `on`.
struct Allocations {
  bool on = false;
  size_t count = 0;
  std::array<size_t, 32> sizes{};

  void note(size_t size) {
    if (!on) return;
    if (count < sizes.size()) sizes[count] = size;
    ++count;
  }
};

thread_local Allocations allocations;

#ifndef VORNFC_TEST_SANITIZED
// Blocks of a gigabyte and more, whose contents do not matter, are the pages of one small file over
// and over: they take address space only.
constexpr size_t GIANT = 1 << 30;

struct GiantBlock {
  void* begin;
  size_t size;
};

std::array<GiantBlock, 4> giants{};

void* new_giant(size_t size) {
  constexpr size_t piece = 16 << 20;
  const int file = memfd_create("giant", MFD_CLOEXEC);
  const auto place = std::find_if(giants.begin(), giants.end(),
                                  [](const GiantBlock& block) { return !block.begin; });
  if (file == -1 || place == giants.end() || ftruncate(file, piece) == -1) return nullptr;
  size = (size + piece - 1) / piece * piece;
  void* const begin =
      mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (begin == MAP_FAILED) return nullptr;
  for (size_t at = 0; at < size; at += piece) {
    void* const wanted = static_cast<char*>(begin) + at;
    if (mmap(wanted, piece, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file, 0) != wanted) {
      return nullptr;
    }
  }
  close(file);
  *place = {begin, size};
  return begin;
}

// False: it is none.
bool free_giant(void* begin) {
  for (GiantBlock& block : giants) {
    if (!begin || block.begin != begin) continue;
    munmap(begin, block.size);
    block = {};
    return true;
  }
  return false;
}
#endif

}  // namespace

extern "C" {

ssize_t write(int fd, const void* data, size_t length) {
  if (fd != writes.fd) return system_write(fd, data, length);
  writes.lengths.push_back(length);
  if (writes.answers.empty()) return system_write(fd, data, length);
  const Answer answer = std::move(writes.answers.front());
  writes.answers.pop_front();
  return answer(fd, data, length);
}

#ifndef VORNFC_TEST_SANITIZED
// NOLINTBEGIN(bugprone-reserved-identifier)
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void __libc_free(void* block);
// NOLINTEND(bugprone-reserved-identifier)

void* malloc(size_t size) noexcept {
  allocations.note(size);
  return size >= GIANT ? new_giant(size) : __libc_malloc(size);
}
void* calloc(size_t count, size_t size) noexcept {
  allocations.note(count * size);
  return __libc_calloc(count, size);
}
void* realloc(void* block, size_t size) noexcept {
  allocations.note(size);
  return __libc_realloc(block, size);
}
void free(void* block) noexcept {
  if (!free_giant(block)) __libc_free(block);
}
#endif

}  // extern "C"

namespace vornfc {
namespace {

using Failure = std::pair<int, std::string>;

constexpr int HungUp = -1;
constexpr int Dropped = -2;

// Those that the manual page of write(2) lists, but for the two that are none to the writer.
constexpr int write_errors[] = {EBADF, EDESTADDRREQ, EDQUOT, EFAULT, EFBIG,  EINVAL,
                                EIO,   ENOSPC,       EPERM,  EPIPE,  ENOBUFS};

template <typename Call>
Failure failure_of(Call call) {
  try {
    call();
  } catch (const VrnException& e) {
    return {e.err(), e.what()};
  }
  return {0, "no VrnException"};
}

class Random {
 public:
  explicit Random(unsigned seed) : engine(seed) {}
  unsigned below(unsigned limit) { return static_cast<unsigned>(engine() % limit); }

 private:
  std::minstd_rand engine;
};

// Bytes that tell one message, and one place in it, from another.
std::string message(size_t length, unsigned seed = 0) {
  std::string text(length, '\0');
  for (size_t i = 0; i < length; ++i) {
    text[i] = static_cast<char>('!' + (size_t{seed} * 31 + i * 7 + i / 90) % 90);
  }
  return text;
}

class TrackedFile : public VrnFile {
 public:
  ~TrackedFile() override {
    if (gone) *gone = true;
  }
  std::atomic<bool>* gone = nullptr;
};

// Two connected sockets: the file for the writer, and the peer that reads what it has sent.
class Channel {
 public:
  explicit Channel(const std::string& name = "chan", int buffer = 0) : file(new TrackedFile) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    if (buffer > 0) setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
    file->assign(ends[0], name, true);
    peer = ends[1];
    fcntl(peer, F_SETFL, O_NONBLOCK);
  }
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;
  ~Channel() { hang_up(); }

  void hang_up() {
    if (peer != -1) close(peer);
    peer = -1;
  }

  // Whatever has arrived so far.
  const std::string& received() {
    char chunk[65536];
    ssize_t count;
    while ((count = read(peer, chunk, sizeof chunk)) > 0) {
      text.append(chunk, static_cast<size_t>(count));
    }
    return text;
  }

  // Fills the descriptor with bytes that are not the writer's; how many.
  size_t fill() const {
    const std::string chunk(4096, 'x');
    size_t sum = 0;
    file->setBlockingMode(false);
    for (ssize_t n; (n = system_write(file->fd, chunk.data(), chunk.size())) > 0;) {
      sum += static_cast<size_t>(n);
    }
    return sum;
  }

  std::unique_ptr<TrackedFile> file;
  int peer;

 private:
  std::string text;
};

// Calls what the test put into its fields after the writer's own part is done.
class Writer : public VrnAsyncWriter {
 public:
  explicit Writer(VrnFile* file, bool owns = false) : VrnAsyncWriter(file, owns) {}
  ~Writer() override {
    if (on_end) on_end();
  }

  void aioReady(VrnFile* file) override {
    ++ready;
    const Call call = after_ready;
    VrnAsyncWriter::aioReady(file);
    if (call) call();
  }
  void aioCancelled(VrnFile* file, bool hangup, bool err) override {
    cancelled.push_back({file, hangup, err});
    const Call call = after_cancelled;
    VrnAsyncWriter::aioCancelled(file, hangup, err);
    if (call) call();
  }
  VrnMutex* lock() const { return mutex.get(); }

  int ready = 0;
  std::vector<Cancelled> cancelled;
  Call after_ready;
  Call after_cancelled;
  Call on_end;
};

// Takes the writer's place at its descriptor. Being ready all the time, it keeps the loop from
// noticing that a test has failed, so it does not go on for ever.
class Rival : public RecordingAIO {
 public:
  explicit Rival(VrnEvtMgrNative* mgr)
      : RecordingAIO(Output, "other", [this, mgr](VrnFile*) {
          if (ready > 20000) mgr->syncstopDispatcher();
        }) {}
};

class AsyncWriterTest : public testing::Test {
 protected:
  void SetUp() override { signal(SIGPIPE, SIG_IGN); }
  void TearDown() override { writes.fd = -1; }

  // The next calls of write() on the channel's descriptor.
  void answer(std::deque<Answer> answers) {
    writes.answers = std::move(answers);
    writes.lengths.clear();
    writes.fd = channel.file->fd;
  }

  static int send(VrnAsyncWriter* writer, const std::string& text) {
    return writer->awrite(text.data(), static_cast<int>(text.size()));
  }

  bool watched() const {
    return std::any_of(loop.entries.begin(), loop.entries.end(),
                       [&](const pollfd& entry) { return entry.fd == channel.file->fd; });
  }

  size_t turns() const { return loop.timeouts.size(); }

  // Lets the loop turn until whatever was asked for is carried out.
  void let_it_turn() {
    for (int i = 0; i < 3; ++i) loop.on_dispatcher([] {});
  }

  // From now on the file must not be found watched over an empty queue by two polls in a row.
  void expect_idle_is_unwatched(const VrnAsyncWriter* writer) {
    loop.before_poll = [this, writer, in_a_row = 0]() mutable {
      in_a_row = watched() && writer->queuedMsgs() == 0 ? in_a_row + 1 : 0;
      EXPECT_LE(in_a_row, 1);
    };
  }

  // How often a line was logged.
  size_t lines(const std::string& line) const {
    const auto all = log.lines();
    return static_cast<size_t>(std::count(all.begin(), all.end(), line));
  }

  // Lines with `text` somewhere in them.
  size_t lines_with(const std::string& text) const {
    const auto lines = log.lines();
    return static_cast<size_t>(std::count_if(
        lines.begin(), lines.end(),
        [&](const std::string& line) { return line.find(text) != std::string::npos; }));
  }

  std::string failure_line(int error) const {
    return "AsyncWriter: failed on chan=" + std::to_string(channel.file->fd) +
           " - errno=" + std::to_string(error);
  }

  LogCapture log;
  Loop loop;
  Channel channel;
};

using AsyncWriterDeathTest = AsyncWriterTest;

// ---- construction ----

TEST_F(AsyncWriterTest, PutsItsFileInNonBlockingMode) {
  const VrnAsyncWriter writer(channel.file.get(), false);
  EXPECT_FALSE(channel.file->blockingMode());
  EXPECT_NE(fcntl(channel.file->fd, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(writer.aioFile(), channel.file.get());
  EXPECT_EQ(writer.queuedBytes(), 0);
  EXPECT_EQ(writer.queuedMsgs(), 0);
  EXPECT_EQ(writer.error(), 0);
}

TEST_F(AsyncWriterTest, IsNamedAfterItsFile) {
  Writer writer(channel.file.get());
  answer({takes(1)});
  elsewhere([&] { send(&writer, "ab"); });
  loop.mgr->syncstopDispatcher();
  loop.run();
  EXPECT_TRUE(log.contains("- EvtMgr: Writer=chan remains - fd " +
                           std::to_string(channel.file->fd) + "=chan"));
}

// Its number is beyond those that the event manager has met.
TEST_F(AsyncWriterTest, EndsWhileItsStartOnAHighDescriptorIsOnItsWay) {
  VrnFile high;
  high.assign(fcntl(channel.file->fd, F_DUPFD_CLOEXEC, 500), "high", true);
  channel.fill();
  auto writer = std::make_unique<VrnAsyncWriter>(&high, false);
  loop.on_dispatcher([&] {
    EXPECT_EQ(send(writer.get(), "x"), 0);
    elsewhere([&] { writer.reset(); });
  });
  loop.run_calls();
  EXPECT_EQ(lines_with("threw"), 0U);
  EXPECT_EQ(lines_with("remains"), 0U);
}

TEST_F(AsyncWriterTest, NullFileIsRefused) {
  EXPECT_EQ(failure_of([] { VrnAsyncWriter(nullptr, true); }),
            (Failure{3, "AsyncWriter: Null file"}));
}

TEST_F(AsyncWriterTest, FileWhoseModeCannotBeReadIsLeftToTheCaller) {
  std::atomic<bool> gone{false};
  auto file = std::make_unique<TrackedFile>();
  file->gone = &gone;
  file->assign(1000, "nowhere", false);
  EXPECT_EQ(failure_of([&] { VrnAsyncWriter(file.get(), true); }),
            (Failure{2, "VrnFile: Failed to get flags for fd=1000 (9)"}));
  EXPECT_FALSE(gone);
}

TEST_F(AsyncWriterTest, FileWhoseModeCannotBeSetIsLeftToTheCaller) {
  std::atomic<bool> gone{false};
  auto file = std::make_unique<TrackedFile>();
  file->gone = &gone;
  file->assign(open("/", O_PATH | O_CLOEXEC), "path", true);  // which has no mode to set
  EXPECT_EQ(failure_of([&] { VrnAsyncWriter(file.get(), true); }).first, 2);
  EXPECT_FALSE(gone);
  EXPECT_NE(fcntl(file->fd, F_GETFD), -1);
}

TEST_F(AsyncWriterTest, UnassignedFileIsRefused) {
  VrnFile file;
  EXPECT_EQ(failure_of([&] { VrnAsyncWriter(&file, false); }).first, 3);
}

TEST_F(AsyncWriterTest, OwnedFileGoesWithTheWriter) {
  std::atomic<bool> gone{false};
  channel.file->gone = &gone;
  const int fd = channel.file->fd;
  { const VrnAsyncWriter writer(channel.file.release(), true); }
  EXPECT_TRUE(gone);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(AsyncWriterTest, FileThatIsNotOwnedStays) {
  std::atomic<bool> gone{false};
  channel.file->gone = &gone;
  { const VrnAsyncWriter writer(channel.file.get(), false); }
  (new VrnAsyncWriter(channel.file.get(), false))->destroy();
  EXPECT_FALSE(gone);
  EXPECT_NE(fcntl(channel.file->fd, F_GETFD), -1);
  channel.file->gone = nullptr;
}

// ---- writing at once ----

TEST_F(AsyncWriterTest, WritesAtOnceAndDoesNotWatch) {
  Writer writer(channel.file.get());
  answer({});
  loop.on_dispatcher([&] {
    EXPECT_EQ(send(&writer, "hello"), 0);
    EXPECT_EQ(send(&writer, " world"), 0);
    EXPECT_EQ(channel.received(), "hello world");
    EXPECT_EQ(writer.queuedBytes(), 0);
    EXPECT_EQ(writer.queuedMsgs(), 0);
  });
  loop.before_poll = [&] { EXPECT_FALSE(watched()); };
  let_it_turn();
  loop.run_calls();
  EXPECT_EQ(writes.lengths, (std::vector<size_t>{5, 6}));
  EXPECT_EQ(writer.ready, 0);
}

TEST_F(AsyncWriterTest, BufferIsWrittenFromWhereItLies) {
  Writer writer(channel.file.get());
  const std::string text = message(1000);
  const void* written = nullptr;
  answer({[&](int, const void* data, size_t length) {
    written = data;
    return static_cast<ssize_t>(length);
  }});
  EXPECT_EQ(send(&writer, text), 0);
  EXPECT_EQ(written, text.data());
}

TEST_F(AsyncWriterTest, WritesAtOnceWithoutAnEventManager) {
  Writer writer(channel.file.get());
  VrnAppShell::evtmgr = nullptr;
  EXPECT_EQ(send(&writer, "hello"), 0);
  EXPECT_EQ(channel.received(), "hello");
  VrnAppShell::evtmgr = loop.mgr;
}

TEST_F(AsyncWriterTest, QueuesWhatTheDescriptorDoesNotTake) {
  Writer writer(channel.file.get());
  const std::string text = message(100);
  answer({takes(60)});
  loop.on_dispatcher([&] {
    EXPECT_EQ(send(&writer, text), 0);
    EXPECT_EQ(writer.queuedBytes(), 40);
    EXPECT_EQ(writer.queuedMsgs(), 1);
    EXPECT_EQ(channel.received(), text.substr(0, 60));
  });
  loop.run_until([&] { return channel.received() == text; });
  EXPECT_EQ(writes.lengths, (std::vector<size_t>{100, 40}));
  EXPECT_EQ(writer.queuedBytes(), 0);
  EXPECT_EQ(writer.queuedMsgs(), 0);
}

TEST_F(AsyncWriterTest, WatchesForRoomToWriteWhileBytesAreQueued) {
  Writer writer(channel.file.get());
  channel.fill();
  loop.on_dispatcher([&] { send(&writer, "late"); });
  loop.when([&] { return watched(); },
            [&] {
              EXPECT_EQ(loop.entries.back().events, POLLOUT);
              EXPECT_EQ(writer.ready, 0);
              channel.received();
            });
  loop.when([&] { return writer.queuedMsgs() == 0; }, [] {});
  let_it_turn();
  loop.run_until([&] { return !watched(); });
  EXPECT_EQ(writer.cancelled, (std::vector<Cancelled>{{channel.file.get(), false, false}}));
  EXPECT_EQ(writer.error(), 0);
}

TEST_F(AsyncWriterTest, SecondMessageWaitsBehindTheFirst) {
  Writer writer(channel.file.get());
  answer({takes(3)});
  loop.on_dispatcher([&] {
    send(&writer, "first ");
    EXPECT_EQ(send(&writer, "second"), 0);  // there is room for it
    EXPECT_EQ(writes.lengths.size(), 1U);
    EXPECT_EQ(channel.received(), "fir");
    EXPECT_EQ(writer.queuedBytes(), 9);
    EXPECT_EQ(writer.queuedMsgs(), 2);
    EXPECT_EQ(writer.queuedBytes(true), 9);
    EXPECT_EQ(writer.queuedMsgs(true), 2);
  });
  loop.run_until([&] { return channel.received() == "first second"; });
}

TEST_F(AsyncWriterTest, EmptyMessageQueuesNothing) {
  Writer writer(channel.file.get());
  answer({returns(0), takes(3)});
  loop.on_dispatcher([&] {
    EXPECT_EQ(writer.awrite("", 0), 0);
    EXPECT_EQ(writer.queuedMsgs(), 0);
    send(&writer, "queued");
    const size_t calls = writes.lengths.size();
    EXPECT_EQ(writer.awrite("", 0), 0);
    EXPECT_EQ(writer.awrite(nullptr, 0), 0);
    EXPECT_EQ(writes.lengths.size(), calls);
    EXPECT_EQ(writer.queuedBytes(), 3);
    EXPECT_EQ(writer.queuedMsgs(), 1);
  });
  loop.run_until([&] { return channel.received() == "queued"; });
}

TEST_F(AsyncWriterTest, EmptyMessageThatWouldBlockQueuesNothing) {
  Writer writer(channel.file.get());
  answer({fails(EAGAIN)});
  EXPECT_EQ(writer.awrite("", 0), 0);
  EXPECT_EQ(writer.queuedMsgs(), 0);
}

TEST_F(AsyncWriterTest, EmptyMessageFailsAsWriteDoes) {
  Writer writer(channel.file.get());
  answer({fails(EBADF)});
  EXPECT_EQ(writer.awrite("", 0), EBADF);
}

TEST_F(AsyncWriterTest, BadBufferIsRefused) {
  Writer writer(channel.file.get());
  answer({});
  EXPECT_EQ(failure_of([&] { writer.awrite("x", -1); }),
            (Failure{3, "AsyncWriter: Bad buffer for chan (len=-1)"}));
  EXPECT_EQ(failure_of([&] { writer.awrite(nullptr, 2); }),
            (Failure{3, "AsyncWriter: Bad buffer for chan (len=2)"}));
  EXPECT_EQ(failure_of([&] { writer.awrite("x", INT_MIN); }).first, 3);
  EXPECT_TRUE(writes.lengths.empty());
  EXPECT_EQ(writer.error(), 0);
  EXPECT_EQ(send(&writer, "fine"), 0);  // and the lock is free
  EXPECT_EQ(channel.received(), "fine");
}

TEST_F(AsyncWriterTest, InterruptedWriteIsRepeated) {
  Writer writer(channel.file.get());
  answer({fails(EINTR), fails(EINTR), fails(EINTR)});
  EXPECT_EQ(send(&writer, "hello"), 0);
  EXPECT_EQ(writes.lengths, (std::vector<size_t>{5, 5, 5, 5}));
  EXPECT_EQ(channel.received(), "hello");
  EXPECT_EQ(writer.queuedMsgs(), 0);
}

TEST_F(AsyncWriterTest, WriteThatBlocksQueuesAll) {
  Writer writer(channel.file.get());
  for (const Answer& nothing : {fails(EAGAIN), returns(0)}) {
    loop.on_dispatcher([&, nothing] {
      answer({fails(EINTR), nothing});
      EXPECT_EQ(send(&writer, "hello"), 0);
      EXPECT_EQ(writer.queuedBytes(), 5);
      EXPECT_EQ(writer.queuedMsgs(), 1);
    });
    loop.when([&] { return writer.queuedMsgs() == 0; }, [] {});
  }
  loop.run_until([&] { return channel.received() == "hellohello"; });
  EXPECT_EQ(lines_with("AsyncWriter"), 0U);
}

TEST_F(AsyncWriterTest, EveryFailureOfAWriteIsSticky) {
  for (const int error : write_errors) {
    Writer writer(channel.file.get());
    answer({fails(error)});
    EXPECT_EQ(send(&writer, "lost"), error);
    EXPECT_EQ(writer.error(), error);
    EXPECT_EQ(writer.queuedMsgs(), 0);
    EXPECT_EQ(send(&writer, "never written"), error);
    EXPECT_EQ(writer.awrite("", 0), error);
    EXPECT_EQ(writes.lengths.size(), 1U);
    EXPECT_EQ(lines(failure_line(error)), 1U);
  }
  EXPECT_EQ(lines_with("AsyncWriter"), std::size(write_errors));
  EXPECT_EQ(channel.received(), "");
  loop.before_poll = [&] { EXPECT_FALSE(watched()); };
  let_it_turn();
  loop.run_calls();
}

TEST_F(AsyncWriterTest, FailureWithoutAReasonIsEagain) {
  Writer writer(channel.file.get());
  answer({returns(-1)});
  errno = EIO;  // an old one
  EXPECT_EQ(send(&writer, "lost"), EAGAIN);
  EXPECT_EQ(writer.error(), EAGAIN);
  EXPECT_EQ(lines(failure_line(0)), 1U);
  EXPECT_EQ(send(&writer, "lost"), EAGAIN);
  EXPECT_EQ(writes.lengths.size(), 1U);
}

// ---- draining ----

TEST_F(AsyncWriterTest, MessagesArriveInTheOrderOfTheirWrites) {
  channel.file.reset();
  Channel narrow("narrow", 4096);
  Writer writer(narrow.file.get());
  Random random(1);
  std::string sent;
  for (unsigned i = 0; i < 50; ++i) {
    loop.on_dispatcher([&, i] {
      for (unsigned k = random.below(5); k > 0; --k) {
        const std::string text = message(random.below(20000), i * 5 + k);
        EXPECT_EQ(send(&writer, text), 0);
        sent += text;
      }
    });
  }
  loop.run_until([&] { return narrow.received().size() >= sent.size(); });
  EXPECT_TRUE(narrow.received() == sent);
  EXPECT_GT(writer.ready, 10);
  EXPECT_EQ(writer.queuedBytes(), 0);
}

TEST_F(AsyncWriterTest, PartlyWrittenMessageIsRetriedAtOnce) {
  Writer writer(channel.file.get());
  const std::string text = message(100);
  answer({fails(EAGAIN), takes(10), takes(20), fails(EAGAIN), takes(30), takes(40)});
  loop.on_dispatcher([&] { send(&writer, text); });
  std::vector<int> left;
  writer.after_ready = [&] { left.push_back(writer.queuedBytes()); };
  loop.run_until([&] { return channel.received() == text; });
  EXPECT_EQ(writes.lengths, (std::vector<size_t>{100, 100, 90, 70, 70, 40}));
  EXPECT_EQ(left, (std::vector<int>{70, 0}));
}

TEST_F(AsyncWriterTest, DrainGoesOnWithTheNextMessage) {
  Writer writer(channel.file.get());
  answer({fails(EAGAIN)});
  loop.on_dispatcher([&] {
    for (const char* text : {"one", "three", "five5"}) send(&writer, text);
  });
  std::vector<int> left;
  writer.after_ready = [&] { left.push_back(writer.queuedMsgs()); };
  loop.run_until([&] { return channel.received() == "onethreefive5"; });
  EXPECT_EQ(left, (std::vector<int>{0}));
}

TEST_F(AsyncWriterTest, CountsMessagesThatWaitInPart) {
  Writer writer(channel.file.get());
  answer({fails(EAGAIN), takes(3), takes(2), fails(EAGAIN)});
  loop.on_dispatcher([&] {
    send(&writer, "one");
    send(&writer, "three");
  });
  std::vector<std::pair<int, int>> left;
  writer.after_ready = [&] { left.emplace_back(writer.queuedMsgs(), writer.queuedBytes()); };
  loop.run_until([&] { return channel.received() == "onethree"; });
  EXPECT_EQ(left, (std::vector<std::pair<int, int>>{{1, 3}, {0, 0}}));
}

// A drain whose write() moves nothing.
class AsyncWriterEmptyDrainTest : public AsyncWriterTest {
 protected:
  void drain_with(const Answer& nothing) {
    Writer writer(channel.file.get());
    answer({fails(EAGAIN), nothing, nothing});
    std::vector<size_t> calls;
    writer.after_ready = [&] { calls.push_back(writes.lengths.size()); };
    loop.on_dispatcher([&] { send(&writer, "hello"); });
    loop.run_until([&] { return channel.received() == "hello"; });
    EXPECT_EQ(calls, (std::vector<size_t>{2, 3, 4}));  // one a turn
    EXPECT_EQ(writer.error(), 0);
    EXPECT_EQ(lines_with("AsyncWriter"), 0U);
  }
};

TEST_F(AsyncWriterEmptyDrainTest, InterruptedWaitsForTheNextReadiness) {
  drain_with(fails(EINTR));
}
TEST_F(AsyncWriterEmptyDrainTest, BlockedWaitsForTheNextReadiness) {
  drain_with(fails(EAGAIN));
}
TEST_F(AsyncWriterEmptyDrainTest, TakesNothingWaitsForTheNextReadiness) {
  drain_with(returns(0));
}

TEST_F(AsyncWriterTest, IsWatchedExactlyWhileBytesAreQueued) {
  if (!sys::gives_poll_the_table()) GTEST_SKIP() << "looks at what poll() is given";
  Writer writer(channel.file.get());
  expect_idle_is_unwatched(&writer);
  std::string sent;
  for (unsigned i = 0; i < 30; ++i) {
    loop.on_dispatcher([&, i] {
      answer(std::deque<Answer>(1 + i % 3, takes(1)));
      const std::string text = message(2 + i % 4, i);
      send(&writer, text);
      sent += text;
    });
    if (i % 2 == 0) loop.when([&] { return !watched(); }, [] {});
  }
  loop.run_until([&] { return channel.received() == sent && !watched(); });
}

TEST_F(AsyncWriterTest, EveryFailureOfADrainDiscardsTheQueue) {
  size_t started = 0;
  size_t ended = 0;
  for (const int error : write_errors) {
    loop.on_dispatcher([&, error] {
      auto* const writer = new Writer(channel.file.get());
      answer({takes(1), takes(2), fails(error)});
      send(writer, "queue");
      send(writer, "more");
      writer->after_ready = [&, writer, error] {
        EXPECT_EQ(writer->error(), error);
        EXPECT_EQ(writer->queuedMsgs(), 0);
        EXPECT_EQ(writer->queuedBytes(), 0);
        EXPECT_EQ(send(writer, "never written"), error);
        EXPECT_EQ(writes.lengths.size(), 3U);
        EXPECT_EQ(lines(failure_line(error)), 1U);
      };
      writer->after_cancelled = [&, writer, error] {
        EXPECT_EQ(writer->error(), error);
        EXPECT_EQ(writer->ready, 1);
        writer->destroy();
        ++ended;
      };
    });
    loop.when([&, target = ++started] { return ended == target && !watched(); }, [] {});
  }
  loop.run_calls();
  EXPECT_EQ(lines_with("AsyncWriter"), std::size(write_errors));
}

TEST_F(AsyncWriterTest, FailedDrainDoesNotSpin) {
  if (!sys::gives_poll_the_table()) GTEST_SKIP() << "looks at what poll() is given";
  Writer writer(channel.file.get());
  expect_idle_is_unwatched(&writer);
  answer({takes(1), fails(EIO)});
  size_t turns_at_failure = 0;
  writer.after_ready = [&] { turns_at_failure = turns(); };
  loop.on_dispatcher([&] { send(&writer, "ab"); });
  loop.when([&] { return writer.error() != 0; }, [] {});
  loop.run_until([&] { return !watched(); });
  EXPECT_EQ(writer.ready, 1);
  EXPECT_LE(turns() - turns_at_failure, 6U);
  EXPECT_EQ(writes.lengths.size(), 2U);
}

TEST_F(AsyncWriterTest, DrainThatFailsWithoutAReasonIsEagain) {
  Writer writer(channel.file.get());
  answer({fails(EAGAIN), returns(-1)});
  loop.on_dispatcher([&] { send(&writer, "lost"); });
  loop.run_until([&] { return writer.error() != 0 && !watched(); });
  EXPECT_EQ(writer.error(), EAGAIN);
  EXPECT_EQ(writer.queuedMsgs(), 0);
  EXPECT_EQ(lines(failure_line(0)), 1U);
}

// ---- between a drain's stop and its confirmation ----

TEST_F(AsyncWriterTest, BytesQueuedWhileTheStopIsUnderWayAreSent) {
  Writer writer(channel.file.get());
  expect_idle_is_unwatched(&writer);
  std::string sent;
  const auto send_part = [&](const std::string& text) {
    answer({takes(1)});
    EXPECT_EQ(send(&writer, text), 0);
    EXPECT_EQ(writer.queuedMsgs(), 1);
    sent += text;
  };
  int rounds = 0;
  writer.after_ready = [&] {
    if (writer.queuedMsgs() > 0 || ++rounds > 20) return;
    if (rounds % 2 == 0) {
      send_part(message(5));
    } else {
      elsewhere([&] { send_part(message(7)); });
    }
  };
  loop.on_dispatcher([&] { send_part("start"); });
  loop.run_until([&] { return rounds > 20 && channel.received() == sent && !watched(); });
  EXPECT_EQ(writer.error(), 0);
  EXPECT_EQ(writer.cancelled.size(), 21U);
}

TEST_F(AsyncWriterTest, DrainsStopStaysUnderWayWhileNothingIsQueued) {
  Writer writer(channel.file.get());
  answer({takes(1)});
  writer.after_ready = [&] { EXPECT_EQ(send(&writer, "at once"), 0); };
  loop.on_dispatcher([&] { send(&writer, "ab"); });
  loop.run_until([&] { return !watched() && !writer.cancelled.empty(); });
  EXPECT_EQ(channel.received(), "abat once");
  EXPECT_EQ(writer.ready, 1);
  EXPECT_EQ(writer.error(), 0);
}

TEST_F(AsyncWriterTest, HangUpWhileTheStopIsUnderWayDiscardsWhatWasQueued) {
  Writer writer(channel.file.get());
  answer({takes(1)});
  writer.after_ready = [&] {
    answer({takes(1)});
    send(&writer, "lost");
    channel.hang_up();
    writer.VrnAsyncWriter::aioCancelled(channel.file.get(), true, false);
    EXPECT_EQ(writer.queuedMsgs(), 0);
  };
  loop.on_dispatcher([&] { send(&writer, "ab"); });
  loop.run_until([&] { return writer.error() != 0 && !watched(); });
  EXPECT_EQ(writer.error(), HungUp);
}

TEST_F(AsyncWriterTest, FailureWhileTheStopIsUnderWayStays) {
  Writer writer(channel.file.get());
  answer({takes(1)});
  writer.after_ready = [&] {
    answer({fails(EIO)});
    EXPECT_EQ(send(&writer, "lost"), EIO);
  };
  loop.on_dispatcher([&] { send(&writer, "ab"); });
  loop.run_until([&] { return !writer.cancelled.empty() && !watched(); });
  EXPECT_EQ(writer.error(), EIO);
  EXPECT_EQ(writer.ready, 1);
}

TEST_F(AsyncWriterTest, NewWatchThatIsRefusedIsAnError) {
  Writer writer(channel.file.get());
  Rival other(loop.mgr);
  answer({takes(1)});
  writer.after_ready = [&] {
    answer({takes(1)});
    send(&writer, "lost");
  };
  // The other watcher takes the place as soon as it is free.
  writer.after_cancelled = [&] {
    if (writer.cancelled.size() == 1) {
      elsewhere([&] { loop.mgr->startAIO(channel.file.get(), &other); });
    }
  };
  loop.on_dispatcher([&] { send(&writer, "ab"); });
  loop.run_until([&] { return writer.error() != 0; });
  EXPECT_EQ(writer.error(), Dropped);
  EXPECT_EQ(writer.queuedMsgs(), 0);
  EXPECT_EQ(channel.received(), "abl");
}

TEST_F(AsyncWriterTest, NewWatchWithoutAnEventManagerIsAnError) {
  Writer writer(channel.file.get());
  answer({takes(1)});
  writer.after_ready = [&] {
    answer({takes(1)});
    send(&writer, "lost");
    VrnAppShell::evtmgr = nullptr;
  };
  writer.after_cancelled = [&] { VrnAppShell::evtmgr = loop.mgr; };
  loop.on_dispatcher([&] { send(&writer, "ab"); });
  loop.run_until([&] { return writer.error() != 0; });
  EXPECT_EQ(writer.error(), Dropped);
  EXPECT_EQ(writer.queuedMsgs(), 0);
  EXPECT_TRUE(log.contains("VrnAsyncWrtr: Failed to watch chan ["));
  EXPECT_TRUE(log.contains("AsyncWriter: No Event Manager for chan"));
}

// ---- cancellations ----

TEST_F(AsyncWriterTest, HangUpOfThePeerIsMinusOne) {
  Writer writer(channel.file.get());
  channel.fill();
  answer({});
  loop.on_dispatcher([&] { send(&writer, "lost"); });
  loop.when([&] { return watched(); }, [&] { channel.hang_up(); });
  loop.when([&] { return writer.error() == HungUp; },
            [&] {
              const size_t calls = writes.lengths.size();
              EXPECT_EQ(writer.queuedMsgs(), 0);
              EXPECT_EQ(writer.queuedBytes(), 0);
              EXPECT_EQ(send(&writer, "no"), HungUp);
              EXPECT_EQ(writer.awrite("", 0), HungUp);
              EXPECT_EQ(writes.lengths.size(), calls);
            });
  let_it_turn();
  loop.run_until([&] { return !watched(); });
  EXPECT_EQ(writer.error(), HungUp);
}

TEST_F(AsyncWriterTest, PipeThatNobodyReadsAnyMoreIsMinusOne) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  VrnFile file;
  file.assign(ends[1], "pipe", true);
  Writer writer(&file);
  loop.on_dispatcher([&] {
    send(&writer, message(1000000));
    EXPECT_EQ(writer.queuedMsgs(), 1);
  });
  loop.on_dispatcher([&] { close(ends[0]); });
  loop.run_until([&] { return writer.error() == HungUp; });
  EXPECT_EQ(writer.queuedMsgs(), 0);
}

TEST_F(AsyncWriterTest, CancellationSetsTheErrorByItsFlags) {
  struct Case {
    bool hangup, err;
    int error;
  };
  for (const Case& c : {Case{true, false, HungUp}, Case{true, true, HungUp},
                        Case{false, true, Dropped}, Case{false, false, 0}}) {
    VrnAsyncWriter writer(channel.file.get(), false);
    answer({takes(1)});
    elsewhere([&] {
      send(&writer, "ab");
      loop.mgr->stopAIO(channel.file.get(), &writer);
    });
    writer.aioCancelled(channel.file.get(), c.hangup, c.err);
    EXPECT_EQ(writer.error(), c.error);
    EXPECT_EQ(writer.queuedMsgs(), 0);
    EXPECT_EQ(writer.queuedBytes(), 0);
    answer({});
    EXPECT_EQ(send(&writer, "cd"), c.error);
    EXPECT_EQ(writes.lengths.size(), c.error == 0 ? 1U : 0U);
  }
}

TEST_F(AsyncWriterTest, StopThatNobodysDrainAskedForEmptiesTheQueue) {
  Writer writer(channel.file.get());
  answer({takes(1)});
  loop.on_dispatcher([&] {
    send(&writer, "ab");
    loop.mgr->stopAIO(channel.file.get(), &writer);
  });
  loop.when([&] { return !writer.cancelled.empty(); },
            [&] {
              EXPECT_EQ(writer.queuedMsgs(), 0);
              EXPECT_EQ(writer.error(), 0);
              answer({takes(1)});
              EXPECT_EQ(send(&writer, "cd"), 0);
            });
  loop.run_until([&] { return channel.received() == "acd"; });
}

TEST_F(AsyncWriterTest, QueuedStartThatIsRefusedIsMinusTwo) {
  Writer writer(channel.file.get());
  Rival other(loop.mgr);
  elsewhere([&] { loop.mgr->startAIO(channel.file.get(), &other); });
  answer({takes(1)});
  loop.on_dispatcher([&] {
    EXPECT_EQ(send(&writer, "ab"), 0);
    EXPECT_EQ(writer.queuedMsgs(), 1);
  });
  loop.when([&] { return writer.error() != 0; },
            [&] {
              EXPECT_EQ(writer.error(), Dropped);
              EXPECT_EQ(writer.queuedMsgs(), 0);
              EXPECT_EQ(send(&writer, "cd"), Dropped);
              other.ready = 0;
            });
  loop.run_until([&] { return other.ready > 0; });  // it has kept its place
  EXPECT_TRUE(log.contains("AsyncRegistrar: submitted request threw ["));
  EXPECT_EQ(channel.received(), "a");
}

TEST_F(AsyncWriterTest, DirectStartThatIsRefusedThrowsAndQueuesNothing) {
  Writer writer(channel.file.get());
  Rival other(loop.mgr);
  answer({takes(1), takes(0)});
  elsewhere([&] {
    loop.mgr->startAIO(channel.file.get(), &other);
    EXPECT_EQ(failure_of([&] { send(&writer, "ab"); }).first, 3);
    EXPECT_EQ(writer.queuedMsgs(), 0);
    EXPECT_EQ(writer.queuedBytes(), 0);
    EXPECT_EQ(writer.error(), 0);
    loop.mgr->stopAIO(channel.file.get(), &other);
    EXPECT_EQ(send(&writer, "cd"), 0);
  });
  loop.run_until([&] { return channel.received() == "acd"; });
}

TEST_F(AsyncWriterTest, NothingIsQueuedWithoutAnEventManager) {
  Writer writer(channel.file.get());
  VrnAppShell::evtmgr = nullptr;
  answer({takes(1)});
  EXPECT_EQ(failure_of([&] { send(&writer, "ab"); }),
            (Failure{3, "AsyncWriter: No Event Manager for chan"}));
  EXPECT_EQ(writer.queuedMsgs(), 0);
  EXPECT_EQ(writer.queuedBytes(), 0);
  VrnAppShell::evtmgr = loop.mgr;
}

TEST_F(AsyncWriterTest, LoopThatEndsOverAQueuedStartDropsTheWriter) {
  Writer writer(channel.file.get());
  answer({takes(1)});
  loop.on_dispatcher([&] {
    loop.mgr->syncstopDispatcher();
    EXPECT_EQ(send(&writer, "ab"), 0);
  });
  loop.run();
  EXPECT_EQ(writer.error(), Dropped);
  EXPECT_EQ(writer.queuedMsgs(), 0);
}

TEST_F(AsyncWriterTest, WriterIsToldWhenAnotherWatcherOfItsFileThrows) {
  Writer writer(channel.file.get());
  RecordingAIO reader(RecordingAIO::Input, "reader", [](VrnFile*) { throw std::string("bad"); });
  channel.fill();
  loop.on_dispatcher([&] { send(&writer, "lost"); });
  loop.on_dispatcher([&] {
    loop.mgr->startAIO(channel.file.get(), &reader);
    EXPECT_EQ(system_write(channel.peer, "x", 1), 1);
  });
  loop.run_until([&] { return writer.error() != 0; });
  EXPECT_EQ(writer.error(), HungUp);
  EXPECT_EQ(writer.queuedMsgs(), 0);
}

// The same, while the writer's own start is still to be carried out: it is told all the same, and
// destroy() finds an end.
TEST_F(AsyncWriterTest, WriterWhoseStartIsQueuedIsToldWhenAnotherWatcherOfItsFileThrows) {
  Writer writer(channel.file.get());
  channel.fill();
  RecordingAIO reader(RecordingAIO::Input, "reader", [&](VrnFile*) {
    send(&writer, "lost");
    throw std::string("bad");
  });
  loop.on_dispatcher([&] {
    loop.mgr->startAIO(channel.file.get(), &reader);
    EXPECT_EQ(system_write(channel.peer, "x", 1), 1);
  });
  loop.when([&] { return log.contains("EvtMgr: IO task threw [string=bad]"); }, [] {});
  let_it_turn();
  loop.run_calls();
  EXPECT_NE(writer.error(), 0);
  EXPECT_EQ(writer.queuedMsgs(), 0);
}

// The drain itself was in order, so nothing but the closed descriptor tells the writer.
TEST_F(AsyncWriterTest, WriterWhoseOverrideThrowsHasFailed) {
  Writer writer(channel.file.get());
  writer.after_ready = [] { throw std::string("bad"); };
  channel.fill();
  loop.on_dispatcher([&] { send(&writer, "lost"); });
  loop.on_dispatcher([&] { channel.received(); });
  loop.when([&] { return log.contains("EvtMgr: IO task threw [string=bad]"); }, [] {});
  loop.run_calls();
  EXPECT_EQ(writer.awrite("x", 1), Dropped);
  EXPECT_EQ(writer.error(), Dropped);
  EXPECT_EQ(writer.queuedBytes(), 0);
  EXPECT_EQ(writer.queuedMsgs(), 0);
}

// The same over bytes that are still queued: the writer can be deleted, no stop is owed.
TEST_F(AsyncWriterTest, WriterWhoseOverrideThrowsOverQueuedBytesHasFailed) {
  Writer writer(channel.file.get());
  writer.after_ready = [] { throw std::string("bad"); };
  channel.fill();
  loop.on_dispatcher([&] { send(&writer, "lost"); });
  loop.on_dispatcher([&] {
    channel.received();
    answer({takes(1), fails(EAGAIN)});
  });
  loop.when([&] { return log.contains("EvtMgr: IO task threw [string=bad]"); }, [] {});
  loop.run_calls();
  EXPECT_EQ(writer.queuedMsgs(), 0);
  EXPECT_EQ(writer.error(), Dropped);
}

// Level 4 is not shown unless it was asked for.
TEST(AsyncWriterLevelTest, FailureIsADetail) {
  unsetenv("VORNTRC_APPTAG");
  Channel channel;
  VrnAsyncWriter writer(channel.file.get(), false);
  writes.answers = {fails(EIO)};
  writes.fd = channel.file->fd;
  testing::internal::CaptureStderr();
  EXPECT_EQ(writer.awrite("x", 1), EIO);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  writes.fd = -1;
}

// ---- what the event manager is asked for ----

// Notes what it is asked for, and answers as the test has it.
class RecordingManager : public VrnEvtMgr {
 public:
  void startDispatcher() override {}
  void stopDispatcher() override {}
  bool startAIO(VrnFile*, VrnAIO*) override { return note("start"); }
  bool stopAIO(VrnFile*, VrnAIO*) override { return note("stop"); }
  bool startTimer(VrnTimer*) override { return false; }
  bool stopTimer(VrnTimer*) override { return false; }
  VrnSignalHandler* startSignal(VrnSignalHandler*, int) override { return nullptr; }
  bool stopSignal(VrnSignalHandler*, int, bool) override { return false; }

  std::string asked;
  bool result = true;
  bool throws = false;

 private:
  bool note(const char* what) {
    asked += std::string(what) + " ";
    if (throws) throw VrnException(3, "refused");
    return result;
  }
};

class AsyncWriterRequestTest : public testing::Test {
 protected:
  AsyncWriterRequestTest() {
    VrnAppShell::evtmgr = &manager;
    writes.fd = file->fd;
  }
  void TearDown() override { writes.fd = -1; }

  int send(const std::string& text) {
    return writer->awrite(text.data(), static_cast<int>(text.size()));
  }
  void drain() { writer->aioReady(file); }
  void confirm() { writer->aioCancelled(file, false, false); }

  LogCapture log;
  RecordingManager manager;
  Channel channel;
  VrnFile* const file = channel.file.get();
  std::unique_ptr<VrnAsyncWriter> writer = std::make_unique<VrnAsyncWriter>(file, false);
};

using AsyncWriterRequestDeathTest = AsyncWriterRequestTest;

TEST_F(AsyncWriterRequestTest, OneStartAndOneStopOfAQueue) {
  writes.answers = {takes(1), takes(1), fails(EAGAIN)};
  send("first");
  send("second");
  drain();
  send("third");
  EXPECT_EQ(manager.asked, "start ");
  drain();
  EXPECT_EQ(manager.asked, "start stop ");
  writes.answers = {takes(1)};
  send("again");
  EXPECT_EQ(manager.asked, "start stop start ");
  drain();
}

TEST_F(AsyncWriterRequestTest, StartWaitsForTheEndOfTheStop) {
  writes.answers = {takes(1)};
  send("first");
  manager.result = false;  // confirmed later
  drain();
  writes.answers = {takes(1)};
  send("second");
  send("third");
  EXPECT_EQ(manager.asked, "start stop ");
  EXPECT_EQ(writer->queuedMsgs(), 2);
  manager.result = true;
  confirm();
  EXPECT_EQ(manager.asked, "start stop start ");
  EXPECT_EQ(writer->queuedMsgs(), 2);
  drain();
  EXPECT_EQ(channel.received(), "firstsecondthird");
  confirm();  // of nothing
  EXPECT_EQ(manager.asked, "start stop start stop ");
}

TEST_F(AsyncWriterRequestTest, DrainDuringTheStopAsksForNoOther) {
  writes.answers = {takes(1)};
  send("first");
  manager.result = false;
  drain();
  writes.answers = {takes(1)};
  send("second");
  drain();
  EXPECT_EQ(channel.received(), "firstsecond");
  confirm();
  EXPECT_EQ(manager.asked, "start stop ");
}

TEST_F(AsyncWriterRequestTest, StartThatIsNotTakenIsAskedForAgain) {
  manager.result = false;  // the loop has ended
  writes.answers = {takes(1)};
  EXPECT_EQ(send("first"), 0);
  EXPECT_EQ(writer->queuedBytes(), 4);
  manager.result = true;
  EXPECT_EQ(send("second"), 0);
  EXPECT_EQ(writer->queuedMsgs(), 2);
  EXPECT_EQ(manager.asked, "start start ");
  drain();
  EXPECT_EQ(channel.received(), "firstsecond");
}

TEST_F(AsyncWriterRequestTest, StartThatThrowsLeavesTheQueueAsItWas) {
  manager.result = false;
  writes.answers = {takes(1)};
  send("first");
  manager.throws = true;
  EXPECT_EQ(failure_of([&] { send("second"); }), (Failure{3, "refused"}));
  EXPECT_EQ(writer->queuedMsgs(), 1);
  EXPECT_EQ(writer->queuedBytes(), 4);
  manager.throws = false;
}

TEST_F(AsyncWriterRequestTest, StopThatThrowsInADrainIsAnError) {
  writes.answers = {takes(1)};
  send("first");
  manager.throws = true;
  EXPECT_EQ(failure_of([&] { drain(); }), (Failure{3, "refused"}));
  EXPECT_EQ(writer->error(), Dropped);
  EXPECT_EQ(send("second"), Dropped);
  writer.reset();  // asks for nothing
  EXPECT_EQ(manager.asked, "start stop ");
}

TEST_F(AsyncWriterRequestTest, WatchThatFailsDuringItsStopIsAnError) {
  writes.answers = {takes(1)};
  send("first");
  manager.result = false;
  drain();
  writes.answers = {takes(1)};
  send("second");
  writer->aioCancelled(file, false, true);
  EXPECT_EQ(writer->error(), Dropped);
  EXPECT_EQ(writer->queuedMsgs(), 0);
  EXPECT_EQ(manager.asked, "start stop ");
}

TEST_F(AsyncWriterRequestTest, NewStartThatThrowsIsAnError) {
  writes.answers = {takes(1)};
  send("first");
  manager.result = false;
  drain();
  writes.answers = {takes(1)};
  send("second");
  manager.throws = true;
  confirm();
  EXPECT_EQ(writer->error(), Dropped);
  EXPECT_EQ(writer->queuedMsgs(), 0);
  EXPECT_TRUE(log.contains("VrnAsyncWrtr: Failed to watch chan ["));
}

TEST_F(AsyncWriterRequestTest, IdleWriterAsksForNothingAtItsEnd) {
  send("first");
  writer.reset();
  EXPECT_EQ(manager.asked, "");
}

TEST_F(AsyncWriterRequestDeathTest, DeletedWhenItsStopThrows) {
  const auto destroy_it = [&] {
    writes.answers = {takes(1)};
    send("first");
    manager.throws = true;
    writer.reset();
  };
  EXPECT_EXIT(destroy_it(), testing::ExitedWithCode(1),
              "VrnAsyncWrtr: Failed to stop chan \\[.*refused.*\\]\n.*"
              "VrnAsyncWrtr destroyed while active - ABORT APP !\n");
}

// ---- locks and counters ----

TEST_F(AsyncWriterTest, OperationsTakeTheLockUnlessItIsHeld) {
  Writer writer(channel.file.get());
  const auto waits_for_the_lock = [&](const Call& operation) {
    std::atomic<bool> begun{false};
    std::atomic<bool> done{false};
    writer.lock()->lock();
    std::thread user([&] {
      begun = true;
      operation();
      done = true;
    });
    while (!begun) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));  // room for a wrong success
    const bool waited = !done;
    writer.lock()->unlock();
    user.join();
    return waited && done;
  };
  EXPECT_TRUE(waits_for_the_lock([&] { send(&writer, "x"); }));
  EXPECT_TRUE(waits_for_the_lock([&] { EXPECT_EQ(writer.queuedBytes(), 0); }));
  EXPECT_TRUE(waits_for_the_lock([&] { EXPECT_EQ(writer.queuedMsgs(false), 0); }));
  EXPECT_TRUE(waits_for_the_lock([&] { EXPECT_EQ(writer.error(), 0); }));
  EXPECT_TRUE(waits_for_the_lock([&] { EXPECT_EQ(writer.error(true), 0); }));
  EXPECT_TRUE(waits_for_the_lock([&] { writer.aioReady(channel.file.get()); }));
  EXPECT_TRUE(waits_for_the_lock([&] { writer.aioCancelled(channel.file.get(), false, false); }));
  auto* const ending = new VrnAsyncWriter(channel.file.get(), false);
  ending->destroy();
  const VrnMutexGuard guard(writer.lock());
  EXPECT_EQ(writer.queuedBytes(true), 0);
  EXPECT_EQ(writer.queuedMsgs(true), 0);
  EXPECT_EQ(writer.aioFile(), channel.file.get());
}

TEST_F(AsyncWriterTest, QueueOfMoreThanIntMaxBytesIsReportedAsIntMax) {
#ifdef VORNFC_TEST_SANITIZED
  GTEST_SKIP() << "the sanitizer has its own malloc()";
#endif
  constexpr int huge = 1200 * 1024 * 1024;
  void* const zeros =
      mmap(nullptr, huge, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(zeros, MAP_FAILED);
  Writer writer(channel.file.get());
  answer({fails(EAGAIN), takes_all_unseen, fails(EAGAIN), takes_all_unseen});
  std::vector<int> left;
  writer.after_ready = [&] { left.push_back(writer.queuedBytes()); };
  EXPECT_EQ(writer.awrite(zeros, huge), 0);
  EXPECT_EQ(writer.queuedBytes(), huge);
  EXPECT_EQ(writer.awrite(zeros, huge), 0);
  EXPECT_EQ(writer.queuedBytes(), INT_MAX);
  EXPECT_EQ(writer.queuedMsgs(), 2);
  munmap(zeros, huge);
  loop.run_until([&] { return writer.queuedMsgs() == 0; });
  EXPECT_EQ(left, (std::vector<int>{huge, 0}));
}

// ---- allocations ----

class AsyncWriterAllocationTest : public AsyncWriterTest {
 protected:
  void SetUp() override {
    AsyncWriterTest::SetUp();
#ifdef VORNFC_TEST_SANITIZED
    GTEST_SKIP() << "the sanitizer has its own malloc()";
#endif
    // A new-expression could be left out by the compiler, these calls not.
    const Allocations before = count([] { ::operator delete(::operator new(1)); });
    ASSERT_EQ(before.count, 1U) << "allocations are not seen";
  }

  static Allocations count(const Call& call) {
    allocations = {};
    allocations.on = true;
    call();
    allocations.on = false;
    return allocations;
  }
};

TEST_F(AsyncWriterAllocationTest, WriteThatIsTakenWholeAllocatesNothing) {
  Writer writer(channel.file.get());
  const std::string text = message(1000);
  for (const bool on_dispatcher : {true, false}) {
    const auto write_it = [&] {
      const Allocations made = count([&] {
        for (int i = 0; i < 50; ++i) writer.awrite(text.data(), 1000);
      });
      EXPECT_EQ(made.count, 0U);
      EXPECT_EQ(channel.received().size() % 50000, 0U);
    };
    if (on_dispatcher) {
      loop.on_dispatcher(write_it);
    } else {
      loop.on_dispatcher([&] { elsewhere(write_it); });
    }
  }
  loop.run_calls();
  EXPECT_EQ(channel.received().size(), 100000U);
}

TEST_F(AsyncWriterAllocationTest, RemainderIsOneAllocationOfItsSize) {
  Writer writer(channel.file.get());
  const std::string text = message(50000);
  std::vector<Allocations> made;
  loop.on_dispatcher([&] {
    answer({takes(12345)});
    made.push_back(count([&] { writer.awrite(text.data(), 50000); }));
    made.push_back(count([&] { writer.awrite(text.data(), 30001); }));
  });
  loop.when([&] { return channel.received().size() == 80001; },
            [&] {
              elsewhere([&] {
                answer({takes(12345)});
                made.push_back(count([&] { writer.awrite(text.data(), 50000); }));
              });
            });
  loop.run_until([&] { return channel.received().size() == 130001; });
  ASSERT_EQ(made.size(), 3U);
  const size_t exact[] = {50000 - 12345, 30001, 50000 - 12345};
  for (size_t i = 0; i < 3; ++i) {
    // What else is allocated is for the queue and the request, not for the data.
    size_t data = 0;
    ASSERT_LT(made[i].count, 6U);
    for (size_t k = 0; k < made[i].count; ++k) {
      if (made[i].sizes[k] < 1024) continue;
      ++data;
      EXPECT_EQ(made[i].sizes[k], exact[i]);
    }
    EXPECT_EQ(data, 1U);
  }
}

TEST_F(AsyncWriterAllocationTest, DrainAllocatesNothingForTheData) {
  Writer writer(channel.file.get());
  answer({fails(EAGAIN), takes(10), takes(20), fails(EAGAIN)});
  loop.on_dispatcher([&] { send(&writer, message(5000)); });
  Allocations made;
  loop.on_dispatcher(
      [&] { made = count([&] { writer.VrnAsyncWriter::aioReady(channel.file.get()); }); });
  loop.run_until([&] { return channel.received().size() == 5000; });
  for (size_t k = 0; k < made.count; ++k) EXPECT_LT(made.sizes[k], 1024U);
}

// ---- who writes ----

TEST_F(AsyncWriterTest, EverybodyWritesInTurn) {
  Channel narrow("narrow", 4096);
  VrnAsyncWriter writer(narrow.file.get(), false);
  Connection trigger("trigger");
  std::string sent;
  unsigned count = 0;
  const auto write_next = [&] {
    const std::string text = message(1 + count * 37 % 3000, count);
    ++count;
    sent += text;
    EXPECT_EQ(send(&writer, text), 0);
  };
  const auto write_from = [&](bool elsewhere_first) {
    if (elsewhere_first) elsewhere(write_next);
    write_next();
    if (!elsewhere_first) elsewhere(write_next);
  };
  CountingTimer timer("t");
  timer.on_expired = [&] { write_from(timer.expired % 2 == 0); };
  RecordingHandler handler;
  handler.on_received = [&] { write_from(handler.received.size() % 2 == 0); };
  RecordingAIO watcher(RecordingAIO::Input, "watcher", [&](VrnFile* file) {
    char byte;
    EXPECT_EQ(read(file->fd, &byte, 1), 1);
    write_from(watcher.ready % 2 == 0);
  });
  loop.mgr->startSignal(&handler, SIGUSR1);
  loop.mgr->startAIO(&trigger.file, &watcher);
  timer.startTimer(0, 0, 0, 1000);
  for (int i = 0; i < 30; ++i) {
    loop.on_dispatcher([&] {
      trigger.send("x");
      raise(SIGUSR1);
    });
    loop.when([&, i] { return watcher.ready > i && timer.expired > i; }, [] {});
  }
  loop.on_dispatcher([&] {
    timer.stopTimer();
    loop.mgr->stopSignal(&handler, SIGUSR1, true);
  });
  loop.run_until([&] { return timer.stopped == 1 && narrow.received().size() >= sent.size(); });
  EXPECT_TRUE(narrow.received() == sent);
  EXPECT_FALSE(handler.received.empty());
  EXPECT_EQ(writer.error(), 0);
}

// A start that is queued and one that is carried out at once meet.
class AsyncWriterMeetingTest : public AsyncWriterTest,
                               public testing::WithParamInterface<const char*> {};

TEST_P(AsyncWriterMeetingTest, WritesOfTwoThreadsInOneTurn) {
  Writer writer(channel.file.get());
  const size_t filled = channel.fill();
  const std::string order = GetParam();
  loop.on_dispatcher([&] {
    for (const char who : order) {
      if (who == 'd') send(&writer, "d");
      if (who == 'e') elsewhere([&] { send(&writer, "e"); });
    }
    EXPECT_EQ(writer.queuedMsgs(), static_cast<int>(order.size()));
  });
  let_it_turn();
  loop.run_until([&] { return channel.received().size() == filled + order.size(); });
  EXPECT_EQ(channel.received().substr(filled), order);
  EXPECT_EQ(writer.error(), 0);
}

INSTANTIATE_TEST_SUITE_P(Orders, AsyncWriterMeetingTest,
                         testing::Values("de", "ed", "ded", "ede", "eedd"));

TEST_F(AsyncWriterTest, MessagesOfManyThreadsStayWholeAndInOrder) {
  constexpr int threads = 4;
  constexpr int each = 300;
  Channel narrow("narrow", 4096);
  VrnAsyncWriter writer(narrow.file.get(), false);
  // A message is its thread, its number, its length, and as many bytes.
  const auto text_of = [](int thread, int number) {
    const auto length = static_cast<size_t>((thread * 131 + number * 17) % 700);
    return std::to_string(thread) + ":" + std::to_string(number) + ":" + std::to_string(length) +
           ":" + message(length, static_cast<unsigned>(number));
  };
  size_t total = 0;
  for (int t = 0; t <= threads; ++t) {
    for (int i = 0; i < each; ++i) total += text_of(t, i).size();
  }
  std::vector<std::thread> writers;
  writers.reserve(threads);
  for (int t = 0; t < threads; ++t) {
    writers.emplace_back([&, t] {
      for (int i = 0; i < each; ++i) EXPECT_EQ(send(&writer, text_of(t, i)), 0);
    });
  }
  for (int i = 0; i < each; ++i) {
    loop.on_dispatcher([&, i] { EXPECT_EQ(send(&writer, text_of(threads, i)), 0); });
  }
  loop.run_until([&] { return narrow.received().size() >= total; });
  for (std::thread& thread : writers) thread.join();
  const std::string& all = narrow.received();
  ASSERT_EQ(all.size(), total);
  int next[threads + 1] = {};
  for (size_t at = 0; at < all.size();) {
    const int thread = all[at] - '0';
    ASSERT_TRUE(thread >= 0 && thread <= threads);
    const std::string expected = text_of(thread, next[thread]++);
    ASSERT_EQ(all.compare(at, expected.size(), expected), 0) << "at " << at;
    at += expected.size();
  }
}

// ---- the end of a writer ----

class AsyncWriterEndTest : public AsyncWriterTest {
 protected:
  void SetUp() override {
    AsyncWriterTest::SetUp();
    fd = channel.file->fd;
    channel.file->gone = &gone;
    writer = new Writer(channel.file.get(), true);
    owned = channel.file.release();
  }

  void TearDown() override {
    EXPECT_TRUE(gone);
    AsyncWriterTest::TearDown();
  }

  // Bytes are queued, and stay so.
  void block() {
    const std::string chunk(4096, 'x');
    while (system_write(fd, chunk.data(), chunk.size()) > 0) {
    }
    EXPECT_EQ(send(writer, "queued"), 0);
    EXPECT_EQ(writer->queuedMsgs(), 1);
  }

  // The next message is written but for its last bytes, which the next drain writes.
  void send_part() {
    writes.answers = {takes(1)};
    writes.fd = fd;
    EXPECT_EQ(send(writer, "queued"), 0);
    EXPECT_EQ(writer->queuedMsgs(), 1);
  }

  void run_to_the_end() {
    loop.when([&] { return gone.load(); }, [] {});
    let_it_turn();
    loop.run_calls();
    EXPECT_EQ(loop.entries.size(), 1U);  // the registrar's pipe
  }

  std::atomic<bool> gone{false};
  int fd = -1;
  Writer* writer = nullptr;
  TrackedFile* owned = nullptr;  // by the writer
};

using AsyncWriterEndDeathTest = AsyncWriterEndTest;

TEST_F(AsyncWriterEndTest, IdleWriterIsDestroyedAtOnce) {
  writer->destroy();
  EXPECT_TRUE(gone);
}

TEST_F(AsyncWriterEndTest, IdleWriterIsDestroyedAtOnceInACallback) {
  loop.on_dispatcher([&] {
    send(writer, "hello");
    writer->destroy();
    EXPECT_TRUE(gone);
    EXPECT_EQ(channel.received(), "hello");
  });
  run_to_the_end();
}

TEST_F(AsyncWriterEndTest, WatchingWriterIsDestroyedWhenTheWatchHasEnded) {
  loop.on_dispatcher([&] { block(); });
  loop.on_dispatcher([&] {
    writer->destroy();
    EXPECT_FALSE(gone);
    EXPECT_EQ(writer->queuedMsgs(), 0);
    EXPECT_EQ(writer->queuedBytes(), 0);
  });
  run_to_the_end();
}

TEST_F(AsyncWriterEndTest, DestroyedWhileItsStartIsInThePipe) {
  loop.on_dispatcher([&] {
    block();
    writer->destroy();
    EXPECT_FALSE(gone);
  });
  run_to_the_end();
}

TEST_F(AsyncWriterEndTest, DestroyedRightAfterADrainWhoseStopIsInThePipe) {
  loop.on_dispatcher([&] {
    send_part();
    writer->after_ready = [&] {
      EXPECT_EQ(writer->queuedMsgs(), 0);
      writer->destroy();
      EXPECT_TRUE(gone);
    };
  });
  run_to_the_end();
  EXPECT_EQ(channel.received(), "queued");
}

TEST_F(AsyncWriterEndTest, DeletedRightAfterADrainWhoseStopIsInThePipe) {
  loop.on_dispatcher([&] {
    send_part();
    writer->after_ready = [&] { delete writer; };
  });
  run_to_the_end();
}

// The next to be called in the same turn has the writer destroyed.
TEST_F(AsyncWriterEndTest, DestroyedElsewhereAfterADrainWhoseStopIsInThePipe) {
  Connection connection;
  bool drained = false;
  RecordingAIO next(RecordingAIO::Input, "next", [&](VrnFile* file) {
    char byte;
    EXPECT_EQ(read(file->fd, &byte, 1), 1);
    EXPECT_TRUE(drained);
    elsewhere([&] { writer->destroy(); });
    EXPECT_TRUE(gone);
  });
  loop.on_dispatcher([&] {
    send_part();
    loop.mgr->startAIO(&connection.file, &next);
    connection.send("x");
    writer->after_ready = [&] { drained = true; };
  });
  loop.when([&] { return gone.load(); }, [&] { loop.mgr->stopAIO(&connection.file, &next); });
  run_to_the_end();
}

// The destructors of a class derived from the writer's come after the override that still runs.
TEST_F(AsyncWriterEndTest, DestroyedElsewhereDuringItsCallback) {
  std::atomic<bool> ended{false};
  std::thread other;
  writer->on_end = [&] { ended = true; };
  loop.on_dispatcher([&] {
    send_part();
    writer->after_ready = [&] {
      other = std::thread([&] { writer->destroy(); });
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      EXPECT_FALSE(ended);
    };
  });
  run_to_the_end();
  other.join();
  EXPECT_TRUE(ended);
}

TEST_F(AsyncWriterEndTest, DestroyedWithBytesQueuedWhileTheStopIsUnderWay) {
  loop.on_dispatcher([&] {
    send_part();
    writer->after_ready = [&] {
      writer->after_ready = nullptr;
      block();
      writer->destroy();
      EXPECT_FALSE(gone);
    };
  });
  run_to_the_end();
}

TEST_F(AsyncWriterEndTest, DestroyedElsewhereWithBytesQueued) {
  loop.on_dispatcher([&] { block(); });
  loop.on_dispatcher([&] {
    elsewhere([&] {
      writer->destroy();
      EXPECT_TRUE(gone);
    });
  });
  run_to_the_end();
}

TEST_F(AsyncWriterEndTest, DestroyedElsewhereWhileItsStartIsInThePipe) {
  loop.on_dispatcher([&] {
    block();
    elsewhere([&] {
      writer->destroy();
      EXPECT_TRUE(gone);
    });
  });
  run_to_the_end();
}

// The descriptor's other output watcher makes the start one that will be refused.
TEST_F(AsyncWriterEndTest, DestroyedElsewhereWhileAStartThatWillBeRefusedIsInThePipe) {
  Rival other(loop.mgr);
  loop.on_dispatcher([&] {
    elsewhere([&] { loop.mgr->startAIO(owned, &other); });
    block();
    elsewhere([&] {
      EXPECT_EQ(failure_of([&] { writer->destroy(); }), (Failure{0, "no VrnException"}));
    });
    EXPECT_TRUE(gone);
  });
  loop.run_calls();
}

TEST_F(AsyncWriterEndTest, DestroyedWhileAStartThatWillBeRefusedIsInThePipe) {
  Rival other(loop.mgr);
  loop.on_dispatcher([&] {
    elsewhere([&] { loop.mgr->startAIO(owned, &other); });
    block();
    writer->destroy();
  });
  run_to_the_end();
}

TEST_F(AsyncWriterEndTest, DestroyedInItsCancellation) {
  loop.on_dispatcher([&] { block(); });
  loop.on_dispatcher([&] {
    writer->after_cancelled = [&] {
      EXPECT_EQ(writer->error(), HungUp);
      writer->destroy();
    };
    channel.hang_up();
  });
  run_to_the_end();
}

TEST_F(AsyncWriterEndTest, HangUpWhileItWaitsForItsStop) {
  loop.on_dispatcher([&] { block(); });
  loop.on_dispatcher([&] {
    writer->destroy();
    channel.hang_up();
  });
  run_to_the_end();
}

TEST_F(AsyncWriterEndTest, DestroyedAfterAFailedDrain) {
  loop.on_dispatcher([&] {
    writes.answers = {takes(1), fails(EIO)};
    writes.fd = fd;
    send(writer, "queued");
    writer->after_ready = [&] {
      EXPECT_EQ(writer->error(), EIO);
      writer->destroy();
      EXPECT_TRUE(gone);
    };
  });
  run_to_the_end();
}

TEST_F(AsyncWriterEndTest, DestroyedInTheCallbacksOfOthers) {
  RecordingReceiver receiver("receiver");
  Connection connection;
  receiver.on_removed = [&] { writer->destroy(); };
  loop.on_dispatcher([&] {
    block();
    receiver.aioStart(&connection.file);
  });
  loop.on_dispatcher([&] { receiver.aioStop(&connection.file); });
  run_to_the_end();
}

TEST_F(AsyncWriterEndTest, DestroyedRightBeforeTheLoopIsStopped) {
  loop.on_dispatcher([&] { block(); });
  loop.on_dispatcher([&] {
    writer->destroy();
    loop.mgr->stopDispatcher();
  });
  loop.run();
}

TEST_F(AsyncWriterEndTest, DestroyedRightAfterTheLoopIsStopped) {
  loop.on_dispatcher([&] { block(); });
  loop.on_dispatcher([&] {
    loop.mgr->stopDispatcher();
    writer->destroy();
  });
  loop.run();
}

TEST_F(AsyncWriterEndTest, DestroyedInTheTurnThatEndsTheLoop) {
  loop.on_dispatcher([&] { block(); });
  loop.on_dispatcher([&] {
    loop.mgr->syncstopDispatcher();
    writer->destroy();
  });
  loop.run();
}

TEST_F(AsyncWriterEndTest, StartedAndDestroyedInTheTurnThatEndsTheLoop) {
  loop.on_dispatcher([&] {
    loop.mgr->syncstopDispatcher();
    block();
    writer->destroy();
  });
  loop.run();
}

TEST_F(AsyncWriterEndTest, DestroyedAfterTheLoop) {
  loop.on_dispatcher([&] { block(); });
  loop.on_dispatcher([] {});
  loop.run_calls();
  EXPECT_EQ(writer->queuedMsgs(), 1);
  writer->destroy();
  EXPECT_TRUE(gone);
}

TEST_F(AsyncWriterEndTest, DeletedAfterTheLoop) {
  loop.on_dispatcher([&] { block(); });
  loop.on_dispatcher([] {});
  loop.run_calls();
  delete writer;
}

TEST_F(AsyncWriterEndTest, DestroyedAfterTheEventManager) {
  elsewhere([&] { block(); });
  VrnEvtMgr::destroy();
  writer->destroy();
}

TEST_F(AsyncWriterEndTest, DeletedElsewhereWithBytesQueued) {
  loop.on_dispatcher([&] { block(); });
  loop.on_dispatcher([&] { elsewhere([&] { delete writer; }); });
  run_to_the_end();
}

TEST_F(AsyncWriterEndTest, DeletedElsewhereWhileItsStartIsInThePipe) {
  loop.on_dispatcher([&] {
    block();
    elsewhere([&] { delete writer; });
  });
  run_to_the_end();
}

TEST_F(AsyncWriterDeathTest, DeletedWhileBytesAreQueued) {
  const auto destroy_while_active = [&] {
    loop.on_dispatcher([&] {
      VrnAsyncWriter writer(channel.file.get(), false);
      answer({takes(1)});
      send(&writer, "ab");
    });
    loop.run_calls();
    std::exit(0);
  };
  EXPECT_EXIT(destroy_while_active(), testing::ExitedWithCode(1),
              "VrnAsyncWrtr destroyed while active - ABORT APP !\n");
}

TEST_F(AsyncWriterDeathTest, DeletedWithBytesQueuedWhileTheStopIsUnderWay) {
  const auto destroy_while_active = [&] {
    auto writer = std::make_unique<Writer>(channel.file.get());
    writer->after_ready = [&] {
      answer({takes(1)});
      send(writer.get(), "cd");
      writer.reset();
      std::exit(0);
    };
    loop.on_dispatcher([&] {
      answer({takes(1)});
      send(writer.get(), "ab");
    });
    loop.run_until([] { return false; });
  };
  EXPECT_EXIT(destroy_while_active(), testing::ExitedWithCode(1),
              "VrnAsyncWrtr destroyed while active - ABORT APP !\n");
}

// ---- the end of a writer, while the dispatcher is at work on it ----

class AsyncWriterRaceTest : public testing::Test {
 protected:
  // Runs rounds on another thread, each with a writer that the dispatcher drains, whose peer takes
  // a random part of what it sends and which is ended by `end` at a random moment.
  void race(const std::function<void(VrnAsyncWriter*)>& end) {
    signal(SIGPIPE, SIG_IGN);
    std::atomic<bool> over{false};
    std::thread rounds([&] {
      Random random(7);
      const std::string text = message(30000);
      const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(4);
      int round = 0;
      for (; round < 1500 && std::chrono::steady_clock::now() < limit; ++round) {
        std::atomic<bool> gone{false};
        Channel channel("chan", 4096);
        channel.file->gone = &gone;
        auto* const writer = new VrnAsyncWriter(channel.file.release(), true);
        for (unsigned i = random.below(3); i < 3; ++i) {
          EXPECT_EQ(writer->awrite(text.data(), static_cast<int>(random.below(30000))), 0);
        }
        for (unsigned i = random.below(20); i > 0; --i) channel.received();
        if (random.below(8) == 0) channel.hang_up();
        end(writer);
        EXPECT_TRUE(gone);
      }
      EXPECT_GT(round, 20);
      over = true;
    });
    loop.run_until([&] { return over.load(); });
    rounds.join();
    EXPECT_LE(loop.entries.size(), 2U);
  }

  Loop loop;
};

TEST_F(AsyncWriterRaceTest, DestroyedElsewhereWhileTheDispatcherDrains) {
  race([](VrnAsyncWriter* writer) { writer->destroy(); });
}

TEST_F(AsyncWriterRaceTest, DeletedElsewhereWhileTheDispatcherDrains) {
  race([](VrnAsyncWriter* writer) { delete writer; });
}

TEST_F(AsyncWriterRaceTest, WritesOfAnotherThreadMeetTheStopsOfTheDrains) {
  Channel channel("chan", 4096);
  VrnAsyncWriter writer(channel.file.get(), false);
  std::string sent;
  std::atomic<bool> over{false};
  std::thread sender([&] {
    Random random(3);
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(4);
    for (unsigned i = 0; i < 3000 && std::chrono::steady_clock::now() < limit; ++i) {
      const std::string text = message(1 + random.below(9000), i);
      EXPECT_EQ(writer.awrite(text.data(), static_cast<int>(text.size())), 0);
      sent += text;
      // Most writes meet an empty queue, or one that is just becoming empty.
      if (random.below(4) != 0) {
        while (writer.queuedBytes() > 0 && random.below(500) != 0) channel.received();
      }
      channel.received();
    }
    EXPECT_TRUE(wait_for([&] { return channel.received().size() >= sent.size(); }));
    over = true;
  });
  loop.run_until([&] { return over.load(); });
  sender.join();
  EXPECT_TRUE(channel.received() == sent);
  EXPECT_EQ(writer.error(), 0);
  EXPECT_EQ(writer.queuedBytes(), 0);
}

}  // namespace
}  // namespace vornfc
