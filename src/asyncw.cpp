#include "vornfc/asyncw.h"

#include "evtmgr_access.h"
#include "file_impl.h"
#include "vornfc/evtmgr_native.h"
#include "vornfc/exception.h"
#include "vornfc/file.h"
#include "vornfc/utils.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <deque>

namespace vornfc {

namespace {

constexpr int HungUp = -1;  // sticky errors
constexpr int Dropped = -2;

const char* name_of(const VrnFile* file) {
  if (!file) throw VrnException(3, "AsyncWriter: Null file");
  return file->name();
}

int at_most_int_max(size_t count) {
  return static_cast<int>(std::min<size_t>(count, INT_MAX));
}

}  // namespace

// The state behind a writer, guarded by the lock of its VrnAIO; the helpers expect it held.
//
// The file is watched exactly while the queue holds bytes, except for the turn that a stop takes.
// Bytes that are queued during that turn wait for the end of the old watch, which starts a new one:
// until then the event manager would refuse it.
struct ImplAsyW {
  enum Watch { Unwatched, Watched, Stopping };

  struct Message {
    std::unique_ptr<char[]> data;
    size_t length;
    size_t written = 0;
  };

  ImplAsyW(VrnAsyncWriter* writer, VrnFile* target, bool owns)
      : owner(writer), file(target), ownsFile(owns) {}

  ssize_t write_some(const void* data, size_t length) const;
  int fail();
  void enqueue(const char* data, size_t length);
  void drainq();
  void freeq();
  void watch();
  void end_watch();
  bool stopAIO();
  void note_thrown_watch();

  VrnAsyncWriter* const owner;
  VrnFile* const file;
  const bool ownsFile;
  std::deque<Message> queue;  // oldest first
  size_t queuedBytes = 0;     // not yet written
  int error = 0;
  bool destroyPending = false;
  Watch state = Unwatched;
};

// -1: `errno` tells why, EAGAIN also for a descriptor that took nothing of what there is.
ssize_t ImplAsyW::write_some(const void* data, size_t length) const {
  // The event manager closes the descriptor of a watcher that throws; its number may be another's.
  if (ImplFile::of(file)->closed) {
    errno = EBADF;
    return -1;
  }
  errno = 0;
  const ssize_t written = write(file->fd, data, length);
  if (written != 0 || length == 0) return written;
  errno = EAGAIN;
  return -1;
}

int ImplAsyW::fail() {
  const int number = errno;
  vrnlog(4, "AsyncWriter: failed on %s=%d - errno=%d", file->name(), file->fd, number);
  error = number != 0 ? number : EAGAIN;
  freeq();
  return error;
}

void ImplAsyW::enqueue(const char* data, size_t length) {
  Message message{std::unique_ptr<char[]>(new char[length]), length};
  std::memcpy(message.data.get(), data, length);
  queue.push_back(std::move(message));
  if (state == Unwatched) {
    try {
      watch();
    } catch (...) {
      queue.pop_back();
      throw;
    }
  }
  queuedBytes += length;
}

void ImplAsyW::drainq() {
  while (!queue.empty()) {
    Message& front = queue.front();
    const ssize_t written =
        write_some(front.data.get() + front.written, front.length - front.written);
    if (written == -1 && (errno == EAGAIN || errno == EINTR)) return;
    if (written == -1) {
      fail();
      break;
    }
    front.written += static_cast<size_t>(written);
    queuedBytes -= static_cast<size_t>(written);
    if (front.written == front.length) queue.pop_front();
  }
  if (state == Watched) end_watch();
}

void ImplAsyW::freeq() {
  queue.clear();
  queuedBytes = 0;
}

void ImplAsyW::watch() {
  if (event_manager_for("AsyncWriter", file->name())->startAIO(file, owner)) state = Watched;
}

void ImplAsyW::end_watch() {
  VrnEvtMgr* const evtmgr = VrnAppShell::evtmgr;  // gone: there is nothing left to stop
  state = !evtmgr || evtmgr->stopAIO(file, owner) ? Unwatched : Stopping;
}

// Where an override of aioReady() threw, the event manager has ended the watch without a further
// call and closed the descriptor: the writer has failed.
void ImplAsyW::note_thrown_watch() {
  if (state == Unwatched || !ImplFile::of(file)->closed) return;
  state = Unwatched;
  error = Dropped;
  freeq();
}

// True: the file is not watched. While the queue is empty, a drain's stop may be under way: the
// event manager forgets it with the writer.
bool ImplAsyW::stopAIO() {
  if (queue.empty()) return true;
  note_thrown_watch();
  if (state != Unwatched) end_watch();  // may throw, and then nothing has happened
  freeq();
  return state == Unwatched;
}

VrnAsyncWriter::VrnAsyncWriter(VrnFile* file, bool ownsFile)
    : VrnAIO(false, name_of(file)), impl(new ImplAsyW(this, file, ownsFile)) {
  built_in = true;
  file->setBlockingMode(false);
}

VrnAsyncWriter::~VrnAsyncWriter() {
  bool stopped = false;
  try {
    VrnMutexGuard guard(mutex.get());
    stopped = impl->stopAIO();
  } catch (...) {
    vrnlog(1, "VrnAsyncWrtr: Failed to stop %s [%s]", tag.c_str(), VrnException::handler().c_str());
  }
  if (!stopped) {
    vrnlog(1, "VrnAsyncWrtr destroyed while active - ABORT APP !");
    exit(1);
  }
  VrnEvtMgrNative::forget(this);  // before the state: another thread may be in a drain
  if (impl->ownsFile) delete impl->file;
}

int VrnAsyncWriter::awrite(const void* buf, int len) {
  VrnMutexGuard guard(mutex.get());
  impl->note_thrown_watch();
  if (impl->error != 0) return impl->error;
  if (len < 0 || (!buf && len != 0)) {
    throw VrnException(3, "AsyncWriter: Bad buffer for %s (len=%d)", tag.c_str(), len);
  }
  const auto length = static_cast<size_t>(len);
  size_t written = 0;
  if (impl->queue.empty()) {
    ssize_t result;
    do {
      result = impl->write_some(buf, length);
    } while (result == -1 && errno == EINTR);
    if (result == -1 && errno != EAGAIN) return impl->fail();
    if (result > 0) written = static_cast<size_t>(result);
  }
  if (written < length) impl->enqueue(static_cast<const char*>(buf) + written, length - written);
  return 0;
}

VrnFile* VrnAsyncWriter::aioFile() const {
  return impl->file;
}

int VrnAsyncWriter::queuedBytes(bool locked) const {
  VrnMutexGuard guard(locked ? nullptr : mutex.get());
  impl->note_thrown_watch();
  return at_most_int_max(impl->queuedBytes);
}

int VrnAsyncWriter::queuedMsgs(bool locked) const {
  VrnMutexGuard guard(locked ? nullptr : mutex.get());
  impl->note_thrown_watch();
  return at_most_int_max(impl->queue.size());
}

int VrnAsyncWriter::error(bool) const {
  VrnMutexGuard guard(mutex.get());
  impl->note_thrown_watch();
  return impl->error;
}

void VrnAsyncWriter::destroy() {
  {
    VrnMutexGuard guard(mutex.get());
    if (!impl->stopAIO()) {
      impl->destroyPending = true;
      return;
    }
  }
  VrnEvtMgrNative::forget(this);  // before the destructors of derived classes
  delete this;
}

// An exception ends the watch without a further call: the writer has failed.
void VrnAsyncWriter::aioReady(VrnFile*) {
  VrnMutexGuard guard(mutex.get());
  try {
    impl->drainq();
  } catch (...) {
    impl->state = ImplAsyW::Unwatched;
    impl->error = Dropped;
    impl->freeq();
    throw;
  }
}

void VrnAsyncWriter::aioCancelled(VrnFile*, bool hangup, bool error) {
  VrnMutexGuard guard(mutex.get());
  if (impl->destroyPending) {
    impl->freeq();
    guard.clear();
    delete this;
    return;
  }
  const bool own_stop = impl->state == ImplAsyW::Stopping && !hangup && !error;
  impl->state = ImplAsyW::Unwatched;
  try {
    if (own_stop && !impl->queue.empty()) impl->watch();
    if (own_stop) return;
  } catch (...) {
    vrnlog(1, "VrnAsyncWrtr: Failed to watch %s [%s]", tag.c_str(),
           VrnException::handler().c_str());
    error = true;
  }
  if (hangup) {
    impl->error = HungUp;
  } else if (error) {
    impl->error = Dropped;
  }
  impl->freeq();
}

}  // namespace vornfc
