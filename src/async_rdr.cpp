#include "vornfc/async_rdr.h"

#include "evtmgr_access.h"
#include "vornfc/evtmgr_native.h"
#include "vornfc/exception.h"
#include "vornfc/utils.h"
#include "watch_list.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>

namespace vornfc {

// The watched files and their requests.
struct ImplAsyRdr : WatchList {
  using WatchList::WatchList;
};

VrnAsyncReader::VrnAsyncReader(const std::string& name)
    : VrnAIO(true, name), impl(new ImplAsyRdr(this)) {
  built_in = true;
  list = impl.get();
}

VrnAsyncReader::VrnAsyncReader(const VrnAsyncReader& other)
    : VrnAIO(other.input, other.tag), impl(new ImplAsyRdr(this)) {
  built_in = true;
  list = impl.get();
}

VrnAsyncReader& VrnAsyncReader::operator=(const VrnAsyncReader&) {
  VrnMutexGuard guard(mutex.get());
  impl->clear();
  return *this;
}

VrnAsyncReader::~VrnAsyncReader() {
  int remaining = 1;
  try {
    remaining = aioTerminate(false);
  } catch (...) {
    vrnlog(1, "VrnAsyncRdr: Failed to stop %s [%s]", tag.c_str(), VrnException::handler().c_str());
  }
  if (remaining != 0) {
    vrnlog(1, "VrnAsyncRdr destroyed while active - ABORT APP !");
    exit(1);
  }
  VrnEvtMgrNative::forget(this);  // before the list of files: another thread may be in a callback
}

void VrnAsyncReader::aioRequest(VrnFile* file, int bytes, char* buf, bool locked) {
  VrnMutexGuard guard(locked ? nullptr : mutex.get());
  VrnAssertFull(bytes >= 0 && (buf || bytes == 0), "VrnAsyncRdr: Bad buffer for %s (bytes=%d)",
                tag.c_str(), bytes);
  if (impl->request(file, bytes, buf)) return;
  VrnEvtMgr* const evtmgr = event_manager_for("VrnAsyncRdr", tag.c_str());
  if (!file) throw VrnException(3, "VrnAsyncRdr: Null file for %s", tag.c_str());
  WatchList::Request request;
  request.requested = bytes;
  request.buffer = buf;
  impl->start(evtmgr, file, request);
}

void VrnAsyncReader::aioListen(VrnFile* file, bool) {
  aioRequest(file, 0, nullptr, false);
}

int VrnAsyncReader::requestedBytes(VrnFile* file, bool locked) const {
  VrnMutexGuard guard(locked ? nullptr : mutex.get());
  const auto request = impl->get(file);
  return request ? request->requested : -1;
}

int VrnAsyncReader::pendingBytes(VrnFile* file, bool locked) const {
  VrnMutexGuard guard(locked ? nullptr : mutex.get());
  const auto request = impl->get(file);
  return request ? request->pending : -1;
}

bool VrnAsyncReader::aioFile(VrnFile* file, bool locked) const {
  VrnMutexGuard guard(locked ? nullptr : mutex.get());
  return impl->contains(file);
}

int VrnAsyncReader::aioFiles(bool locked) const {
  VrnMutexGuard guard(locked ? nullptr : mutex.get());
  return impl->size();
}

bool VrnAsyncReader::aioStop(VrnFile* file, bool locked) {
  VrnMutexGuard guard(locked ? nullptr : mutex.get());
  const bool stopped = impl->stop(file, WatchList::Asked);
  guard.clear();
  if (stopped && !locked) VrnEvtMgrNative::let_callback_finish(this);
  return stopped;
}

int VrnAsyncReader::aioTerminate(bool locked) {
  VrnMutexGuard guard(locked ? nullptr : mutex.get());
  const int remaining = impl->stop_all();
  guard.clear();
  if (remaining == 0 && !locked) VrnEvtMgrNative::let_callback_finish(this);
  return remaining;
}

// The lock is held over the read, so nobody replaces the buffer meanwhile.
void VrnAsyncReader::aioReady(VrnFile* file) {
  VrnMutexGuard guard(mutex.get());
  std::optional<WatchList::Request> request = impl->get(file);
  if (!request) return;
  if (request->ending == WatchList::EndOfFile || request->ending == WatchList::Failed) return;
  if (request->requested == 0) return aioReadable(file);

  errno = 0;
  const ssize_t result = read(file->fd, request->buffer + request->pending,
                              static_cast<size_t>(request->requested - request->pending));
  if (result == -1 && (errno == EINTR || errno == EAGAIN)) return;
  if (result <= 0) {
    const bool at_end = result == 0;
    if (!impl->stop(file, at_end ? WatchList::EndOfFile : WatchList::Failed)) return;
    guard.clear();
    return aioRemoved(file, at_end, !at_end);
  }
  request->pending += static_cast<int>(result);
  const bool full = request->pending == request->requested;
  if (full) request->pending = 0;
  impl->advance(file, request->pending);
  guard.clear();
  if (full) aioReceived(file, request->requested, request->buffer);
}

void VrnAsyncReader::aioCancelled(VrnFile* file, bool hangup, bool error) {
  const std::optional<WatchList::Request> request = impl->ended(file);
  if (request) {
    hangup = hangup || request->ending == WatchList::EndOfFile;
    error = error || request->ending == WatchList::Failed;
  }
  aioRemoved(file, hangup, error);
}

}  // namespace vornfc
