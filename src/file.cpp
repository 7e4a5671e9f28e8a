#include "vornfc/file.h"

#include "file_impl.h"
#include "vornfc/exception.h"
#include "vornfc/utils.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>

namespace vornfc {

std::atomic<void (*)(VrnFile*)> ImplFile::end_of_watched_file{nullptr};

VrnFile::VrnFile() = default;

VrnFile::~VrnFile() {
  if (!impl) return;
  if (auto tell = ImplFile::end_of_watched_file.load()) tell(this);
  if (impl->owns) close(fd);
}

void VrnFile::assign(int new_fd, const std::string& new_name, bool owns) {
  VrnAssertFull(new_fd >= 0 && fd == -1, "VrnFile: Assigning %s=%d to %s=%d", new_name.c_str(),
                new_fd, name(), fd);
  impl = std::make_unique<ImplFile>(new_name.empty() ? "?fd?" : new_name, owns);
  fd = new_fd;
}

const char* VrnFile::name() const {
  return impl && fd != -1 ? impl->name.c_str() : "_UNASSIGNED_";
}

void VrnFile::setBlockingMode(bool blocking) {
  VrnAssertFull(impl != nullptr, "VrnFile: Blocking mode of %s", name());
  if (impl->flags == -1) {
    impl->flags = fcntl(fd, F_GETFL, 0);
    if (impl->flags == -1) {
      throw VrnException(2, "VrnFile: Failed to get flags for fd=%d (%d)", fd, errno);
    }
  }
  const int wanted = blocking ? impl->flags & ~O_NONBLOCK : impl->flags | O_NONBLOCK;
  if (wanted == impl->flags) return;
  if (fcntl(fd, F_SETFL, wanted) == -1) {
    throw VrnException(2, "VrnFile: Failed to set flags to 0x%x for fd=%d (%d)",
                       static_cast<unsigned>(wanted), fd, errno);
  }
  impl->flags = wanted;
}

// Flags that were never read have every bit set, O_NONBLOCK included.
bool VrnFile::blockingMode() const {
  return impl && (impl->flags & O_NONBLOCK) == 0;
}

namespace {

// The alarm of the one timed transfer that may run. Its handler only raises a flag, so a byte that
// has been transferred is counted wherever the alarm falls, and no live object is jumped over. The
// alarm repeats until it is taken back: one that falls between the look at the flag and the system
// call interrupts the call the next time.
class TransferAlarm {
 public:
  explicit TransferAlarm(unsigned seconds) : limit(seconds), saved_alarm(alarm(0)) {
    thread = pthread_self();
    fired = false;
    active = true;
    struct sigaction action {};
    action.sa_handler = handle;  // no SA_RESTART: the alarm has to interrupt the transfer
    sigemptyset(&action.sa_mask);
    sigaction(SIGALRM, &action, &saved_action);
    arm();
  }

  ~TransferAlarm() {
    const int saved_errno = errno;
    alarm(0);
    take_back();
    sigaction(SIGALRM, &saved_action, nullptr);
    alarm(saved_alarm);
    errno = saved_errno;
  }

  TransferAlarm(const TransferAlarm&) = delete;
  TransferAlarm& operator=(const TransferAlarm&) = delete;

  void arm() {
    alarm(limit);
    itimerval timer{};
    if (getitimer(ITIMER_REAL, &timer) == 0 && timerisset(&timer.it_value)) {
      timer.it_interval = timeval{0, 10000};
      setitimer(ITIMER_REAL, &timer, nullptr);
    }
  }

  bool expired() const { return fired; }

  void drop_saved_alarm() { saved_alarm = 0; }

 private:
  // The alarm is sent to the process, so it may arrive on a thread that transfers nothing: the
  // system call to be interrupted is the transferring thread's.
  static void handle(int signo) {
    const int saved_errno = errno;
    ++handlers;
    if (active) {
      fired = true;
      if (!pthread_equal(pthread_self(), thread)) pthread_kill(thread, signo);
    }
    --handlers;
    errno = saved_errno;
  }

  // Leaves no SIGALRM of this transfer behind: one that were delivered after the previous action is
  // back could end the process.
  static void take_back() {
    sigset_t alarm_only, previous;
    sigemptyset(&alarm_only);
    sigaddset(&alarm_only, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &alarm_only, &previous);
    active = false;
    while (handlers != 0) sched_yield();
    const timespec at_once{};
    while (sigtimedwait(&alarm_only, nullptr, &at_once) == SIGALRM) {
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  }

  static std::atomic<bool> active;
  static std::atomic<bool> fired;
  static std::atomic<int> handlers;      // handlers that are running, on whatever thread
  static std::atomic<pthread_t> thread;  // the one that transfers

  const unsigned limit;
  unsigned saved_alarm;
  struct sigaction saved_action {};
};

std::atomic<bool> TransferAlarm::active{false};
std::atomic<bool> TransferAlarm::fired{false};
std::atomic<int> TransferAlarm::handlers{0};
std::atomic<pthread_t> TransferAlarm::thread{};
static_assert(std::atomic<pthread_t>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "used by a signal handler");

// One transfer of an exact count. Exactly one of `input` and `output` is given.
struct Transfer {
  int fd;
  char* input;
  const char* output;
  int len;
  bool no_wait;
  bool* eof;
  int done = 0;

  ssize_t step() {
    const auto left = static_cast<size_t>(len - done);
    return input ? ::read(fd, input + done, left) : ::write(fd, output + done, left);
  }

  int fail(ssize_t result) const {
    const int saved_errno = errno;
    vrnlog(4, "%s failed on fd=%d, retval=%d after %d/%d (errno=%d)", input ? "Read" : "Write", fd,
           static_cast<int>(result), done, len, saved_errno);
    errno = saved_errno;
    return -1;
  }

  // `timer` is null without a time-out; `each_call`: the limit is on each wait, not on the whole.
  int run(TransferAlarm* timer, bool each_call) {
    while (done < len) {
      if (timer && timer->expired()) {
        timer->drop_saved_alarm();
        return done;
      }
      if (timer && each_call) timer->arm();
      errno = 0;
      const ssize_t result = step();
      if (result > 0) {
        done += static_cast<int>(result);
      } else if (result == 0) {
        if (!eof) return fail(result);
        *eof = true;
        return done;
      } else if (errno == EAGAIN) {
        if (no_wait && done == 0) return 0;
        usleep(10000);
      } else if (errno != EINTR) {
        return fail(result);
      }
    }
    return done;
  }
};

int transfer(Transfer t, int timeout) {
  VrnAssertFull(t.len >= 0 && (t.len == 0 || t.input || t.output),
                "VrnFile: Bad buffer for fd=%d (len=%d)", t.fd, t.len);
  if (timeout == 0) return t.run(nullptr, false);
  const auto seconds =
      timeout > 0 ? static_cast<unsigned>(timeout) : 0U - static_cast<unsigned>(timeout);
  TransferAlarm timer(seconds);
  return t.run(&timer, timeout < 0);
}

}  // namespace

int VrnFile::bread(int fd, void* buf, int len, bool noWait, int timeout, bool* eof) {
  return transfer({fd, static_cast<char*>(buf), nullptr, len, noWait, eof}, timeout);
}

int VrnFile::bwrite(int fd, const void* buf, int len, int timeout) {
  return transfer({fd, nullptr, static_cast<const char*>(buf), len, false, nullptr}, timeout);
}

}  // namespace vornfc
