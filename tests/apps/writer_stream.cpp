// Streams many bytes through one asynchronous writer into a narrow socket, and judges what arrives:
//
//   writer_stream [BYTES]      256M without it; K, M and G are powers of 1024
//
// Messages of random lengths are written by a timer, a signal handler, another descriptor's watcher
// and another thread, as chance picks them. A reader on a thread of its own takes the bytes. Ends
// with status 1 and a message when bytes are missing or wrong, when the writer reports an error or
// makes no progress, or when the loop spins: turns in a row that only the writer's descriptor was
// ready for, and in which nobody wrote a byte or was called.
#include "vornfc/vornfc.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace vornfc;

namespace {

constexpr int MaxMessage = 65536;
constexpr int QueueLimit = 262144;
constexpr int SocketBuffer = 4096;
constexpr int PatienceInSeconds = 30;

std::atomic<int> writer_fd{-1};
std::atomic<std::uint64_t> moved{0};      // bytes that write() took there
std::atomic<std::uint64_t> callbacks{0};  // of anyone but the writer

// What the loop does, seen from its poll(). The dispatcher thread's own.
struct Turns {
  void poll_begins() {
    const bool idle = only_writer && moved == moved_before && callbacks == callbacks_before;
    idle_in_a_row = idle ? idle_in_a_row + 1 : 0;
    if (idle) ++idle_ones;
    if (idle_in_a_row > 1) ++spinning;
  }
  void poll_ends(const pollfd* entries, nfds_t count, int ready) {
    ++all;
    moved_before = moved;
    callbacks_before = callbacks;
    only_writer = ready > 0 && std::all_of(entries, entries + count, [](const pollfd& entry) {
                    return entry.revents == 0 || entry.fd == writer_fd;
                  });
  }

  std::uint64_t all = 0;
  std::uint64_t idle_ones = 0;
  std::uint64_t spinning = 0;
  std::uint64_t idle_in_a_row = 0;
  bool only_writer = false;
  std::uint64_t moved_before = 0;
  std::uint64_t callbacks_before = 0;
};

Turns turns;

[[noreturn]] void die(const std::string& what) {
  std::fprintf(stderr, "writer_stream: %s\n", what.c_str());
  std::_Exit(1);  // threads are running
}

}  // namespace

extern "C" int poll(pollfd* entries, nfds_t count, int timeout) {
  turns.poll_begins();
  const auto ready = static_cast<int>(syscall(SYS_poll, entries, count, timeout));
  turns.poll_ends(entries, count, ready);
  return ready;
}

extern "C" ssize_t write(int fd, const void* data, size_t length) {
  const ssize_t written = syscall(SYS_write, fd, data, length);
  if (fd == writer_fd && written > 0) moved += static_cast<std::uint64_t>(written);
  return written;
}

namespace {

// Of a stream of bytes, however it is cut into pieces.
class Digest {
 public:
  void update(const char* data, size_t length) {
    total += length;
    while (length > 0 && held > 0) take(data++, length--);
    for (; length >= sizeof word; data += sizeof word, length -= sizeof word) {
      std::memcpy(&word, data, sizeof word);
      mix();
    }
    while (length > 0) take(data++, length--);
  }
  std::uint64_t bytes() const { return total; }
  bool operator==(const Digest& other) const {
    return total == other.total && value == other.value && held == other.held &&
           std::memcmp(rest, other.rest, held) == 0;
  }

 private:
  void take(const char* byte, size_t) {
    rest[held++] = *byte;
    if (held < sizeof word) return;
    std::memcpy(&word, rest, sizeof word);
    held = 0;
    mix();
  }
  void mix() {
    value = (value ^ word) * 0x9e3779b97f4a7c15u;
    value ^= value >> 29;
  }

  std::uint64_t value = 0xcbf29ce484222325u;
  std::uint64_t total = 0;
  std::uint64_t word = 0;
  char rest[sizeof(std::uint64_t)] = {};
  size_t held = 0;
};

using Call = std::function<void()>;

struct Timer : VrnTimer {
  Timer(const char* name, Call call) : VrnTimer(name), expired(std::move(call)) {}
  void timerExpired() override {
    ++callbacks;
    expired();
  }
  void timerStopped() override { ++callbacks; }
  Call expired;
};

struct Handler : VrnSignalHandler {
  explicit Handler(Call call) : received(std::move(call)) {}
  void signalReceived(int) override {
    ++callbacks;
    received();
  }
  void signalStopped(int) override { ++callbacks; }
  const char* sigtag() const override { return "sender"; }
  Call received;
};

struct Watcher : VrnAIO {
  explicit Watcher(Call call) : VrnAIO(true, "sender"), readable(std::move(call)) {}
  void aioReady(VrnFile* file) override {
    ++callbacks;
    char byte;
    if (read(file->fd, &byte, 1) == 1) readable();
  }
  void aioCancelled(VrnFile*, bool, bool) override { ++callbacks; }
  Call readable;
};

class Stream {
 public:
  explicit Stream(std::uint64_t count);
  void run();

 private:
  enum Sender { ByTimer, BySignal, ByWatcher, ByThread, Senders };

  void send(Sender who);
  void call_next();
  void call(Sender who);
  void work();  // on the sending thread
  void receive();
  void finish();
  void check_progress();

  const std::uint64_t total;
  VrnEvtMgr* const mgr = VrnEvtMgr::instance(0);
  std::vector<char> noise;
  std::minstd_rand random{std::random_device()()};

  VrnAsyncWriter* writer = nullptr;  // destroys itself
  int peer = -1;
  VrnFile doorbell;  // rings for the watcher
  int bell_button = -1;

  // Who writes, and the rest of what follows, is guarded by `mutex`.
  std::mutex mutex;
  Digest sent;
  std::uint64_t sends_of[Senders] = {};
  int limit = QueueLimit;
  bool thread_called = false;
  bool over = false;
  std::condition_variable thread_wanted;

  Digest arrived;  // the reader's
  std::uint64_t last_moved = 0;
  int seconds_without_progress = 0;

  Timer timer{"sender", [this] { send(ByTimer); }};
  Timer pause{"pause", [this] { call_next(); }};
  Timer watchdog{"watchdog", [this] { check_progress(); }};
  Handler handler{[this] { send(BySignal); }};
  Watcher watcher{[this] { send(ByWatcher); }};
};

Stream::Stream(std::uint64_t count) : total(count), noise(1 << 20) {
  VrnAppShell::evtmgr = mgr;
  for (char& byte : noise) byte = static_cast<char>(random() >> 8);
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == -1) die("socketpair failed");
  for (const int end : ends) {
    for (const int option : {SO_SNDBUF, SO_RCVBUF}) {
      setsockopt(end, SOL_SOCKET, option, &SocketBuffer, sizeof SocketBuffer);
    }
  }
  auto file = std::make_unique<VrnFile>();
  file->assign(ends[0], "stream", true);
  writer_fd = ends[0];
  peer = ends[1];
  writer = new VrnAsyncWriter(file.release(), true);

  if (pipe(ends) == -1) die("pipe failed");
  doorbell.assign(ends[0], "doorbell", true);
  bell_button = ends[1];
}

// The one place where bytes are given to the writer, so that their order is defined.
void Stream::send(Sender who) {
  {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto length = static_cast<size_t>(
        std::min<std::uint64_t>(1 + random() % MaxMessage, total - sent.bytes()));
    const char* const data = noise.data() + random() % (noise.size() - MaxMessage);
    sent.update(data, length);
    try {
      const int error = writer->awrite(data, static_cast<int>(length));
      if (error != 0) die("awrite returned " + std::to_string(error));
    } catch (...) {
      die("awrite threw " + VrnException::handler());
    }
    ++sends_of[who];
    // Now and then the queue has to be empty first.
    limit = random() % 16 == 0 ? 0 : QueueLimit;
  }
  call_next();
}

// Whoever has written calls the next, after a pause if the queue is long.
void Stream::call_next() {
  Sender who;
  {
    const std::lock_guard<std::mutex> lock(mutex);
    const bool all_sent = sent.bytes() == total;
    if (writer->queuedBytes() > (all_sent ? 0 : limit)) {
      pause.startTimer(0, 1500, 0, 0);
      return;
    }
    if (all_sent) {
      // The writer is ended on the dispatcher thread, where the loop is stopped.
      timer.expired = [this] { finish(); };
      who = ByTimer;
    } else {
      who = static_cast<Sender>(random() % Senders);
    }
  }
  call(who);
}

void Stream::call(Sender who) {
  // The loop carries out its requests in their order: with the first timer all is registered.
  switch (who) {
    case ByTimer: timer.startTimer(0, 0, 0, 0); break;
    case BySignal: kill(getpid(), SIGUSR1); break;
    case ByWatcher:
      if (write(bell_button, "x", 1) != 1) die("the doorbell is broken");
      break;
    default: {
      const std::lock_guard<std::mutex> lock(mutex);
      thread_called = true;
      thread_wanted.notify_one();
    }
  }
}

void Stream::work() {
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(mutex);
      thread_wanted.wait(lock, [this] { return thread_called || over; });
      if (over) return;
      thread_called = false;
    }
    send(ByThread);
  }
}

void Stream::receive() {
  char buffer[65536];
  for (;;) {
    const ssize_t count = read(peer, buffer, sizeof buffer);
    if (count > 0) {
      arrived.update(buffer, static_cast<size_t>(count));
    } else if (count == 0) {
      return;
    } else if (errno != EINTR) {
      die("read failed");
    }
  }
}

void Stream::finish() {
  {
    const std::lock_guard<std::mutex> lock(mutex);
    over = true;
    thread_wanted.notify_one();
  }
  if (writer->error() != 0) die("the writer's error is " + std::to_string(writer->error()));
  writer_fd = -1;
  writer->destroy();  // and the file with it: the reader is at the end
  mgr->stopDispatcher();
}

void Stream::check_progress() {
  const std::uint64_t now = moved;
  seconds_without_progress = now == last_moved ? seconds_without_progress + 1 : 0;
  last_moved = now;
  if (seconds_without_progress < PatienceInSeconds) return;
  die("no progress after " + std::to_string(now) + " of " + std::to_string(total) + " bytes, " +
      std::to_string(writer->queuedBytes()) + " queued");
}

void Stream::run() {
  const auto start = std::chrono::steady_clock::now();
  mgr->startSignal(&handler, SIGUSR1);
  mgr->startAIO(&doorbell, &watcher);
  watchdog.startTimer(1, 0, 1, 0);
  std::thread reader([this] { receive(); });
  std::thread sender([this] { work(); });
  call(ByTimer);
  mgr->startDispatcher();
  sender.join();
  reader.join();
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;

  const auto number = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
  std::printf("%llu bytes in %.1f s, %.1f MB/s, %llu turns (%llu without work, %llu in a row)\n",
              number(arrived.bytes()), taken.count(),
              static_cast<double>(arrived.bytes()) / 1e6 / taken.count(), number(turns.all),
              number(turns.idle_ones), number(turns.spinning));
  std::printf("messages: timer %llu, signal %llu, watcher %llu, thread %llu\n",
              number(sends_of[ByTimer]), number(sends_of[BySignal]), number(sends_of[ByWatcher]),
              number(sends_of[ByThread]));
  std::fflush(stdout);
  if (arrived.bytes() != total) die("bytes are missing or too many");
  if (!(arrived == sent)) die("what arrived differs from what was sent");
  if (turns.spinning > 0) die("the loop spins");
  watchdog.stopTimer();
  mgr->stopAIO(&doorbell, &watcher);
  mgr->stopSignal(&handler, SIGUSR1, true);
  close(peer);
  close(bell_button);
}

std::uint64_t bytes_of(const char* text) {
  char* end = nullptr;
  errno = 0;
  const std::uint64_t value = std::strtoull(text, &end, 10);
  const std::string unit = end;
  const int shift = unit == "K" ? 10 : unit == "M" ? 20 : unit == "G" ? 30 : 0;
  const bool valid = errno == 0 && end != text && (shift > 0 || unit.empty());
  if (!valid || value == 0) die(std::string("not a number of bytes: ") + text);
  return value << shift;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  {
    Stream stream(bytes_of(argc > 1 ? argv[1] : "256M"));
    stream.run();
  }
  VrnEvtMgr::destroy();
  return 0;
}
