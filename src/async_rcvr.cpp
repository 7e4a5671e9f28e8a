#include "vornfc/async_rcvr.h"

#include "evtmgr_access.h"
#include "vornfc/evtmgr_native.h"
#include "vornfc/exception.h"
#include "vornfc/utils.h"
#include "watch_list.h"

#include <cstdlib>

namespace vornfc {

// The watched files.
struct ImplAsyRcv : WatchList {
  using WatchList::WatchList;
};

VrnAsyncReceiver::VrnAsyncReceiver(const std::string& name)
    : VrnAIO(true, name), impl(new ImplAsyRcv(this)) {
  built_in = true;
  list = impl.get();
}

VrnAsyncReceiver::VrnAsyncReceiver(const VrnAsyncReceiver& other)
    : VrnAIO(other.input, other.tag), impl(new ImplAsyRcv(this)) {
  built_in = true;
  list = impl.get();
}

VrnAsyncReceiver& VrnAsyncReceiver::operator=(const VrnAsyncReceiver&) {
  VrnMutexGuard guard(mutex.get());
  impl->clear();
  return *this;
}

VrnAsyncReceiver::~VrnAsyncReceiver() {
  int remaining = 1;
  try {
    remaining = aioTerminate(false);
  } catch (...) {
    vrnlog(1, "VrnAsyncRcvr: Failed to stop %s [%s]", tag.c_str(), VrnException::handler().c_str());
  }
  if (remaining != 0) {
    vrnlog(1, "VrnAsyncRcvr destroyed while active - ABORT APP !");
    exit(1);
  }
  VrnEvtMgrNative::forget(this);  // before the list of files: another thread may be in a callback
}

void VrnAsyncReceiver::aioStart(VrnFile* file, bool locked) {
  VrnMutexGuard guard(locked ? nullptr : mutex.get());
  VrnEvtMgr* const evtmgr = event_manager_for("VrnAsyncRcvr", tag.c_str());
  if (!file) throw VrnException(3, "VrnAsyncRcvr: Null file for %s", tag.c_str());
  impl->start(evtmgr, file, WatchList::Request());
}

bool VrnAsyncReceiver::aioStop(VrnFile* file, bool locked) {
  VrnMutexGuard guard(locked ? nullptr : mutex.get());
  const bool stopped = impl->stop(file, WatchList::Asked);
  guard.clear();
  if (stopped && !locked) VrnEvtMgrNative::let_callback_finish(this);
  return stopped;
}

int VrnAsyncReceiver::aioTerminate(bool locked) {
  VrnMutexGuard guard(locked ? nullptr : mutex.get());
  const int remaining = impl->stop_all();
  guard.clear();
  if (remaining == 0 && !locked) VrnEvtMgrNative::let_callback_finish(this);
  return remaining;
}

bool VrnAsyncReceiver::aioFile(VrnFile* file, bool locked) const {
  VrnMutexGuard guard(locked ? nullptr : mutex.get());
  return impl->contains(file);
}

int VrnAsyncReceiver::aioFiles(bool locked) const {
  VrnMutexGuard guard(locked ? nullptr : mutex.get());
  return impl->size();
}

void VrnAsyncReceiver::aioCancelled(VrnFile* file, bool hangup, bool error) {
  impl->ended(file);
  aioRemoved(file, hangup, error);
}

}  // namespace vornfc
