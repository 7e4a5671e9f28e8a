#include "vornfc/file.h"

#include "file_impl.h"
#include "timeout_alarm.h"
#include "vornfc/exception.h"
#include "vornfc/utils.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

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
  int run(TimeoutAlarm* timer, bool each_call) {
    int last_errno = errno;  // a time-out is no error: it leaves the one that was there
    while (done < len) {
      if (timer && timer->expired()) {
        timer->drop_saved_alarm();
        errno = last_errno;
        return done;
      }
      if (timer && each_call) timer->arm();
      errno = 0;
      const ssize_t result = step();
      last_errno = errno == EINTR ? 0 : errno;
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
  TimeoutAlarm timer(seconds);
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
