#include "vornfc/async_rcvr.h"

#include "evtmgr_access.h"
#include "evtmgr_impl.h"
#include "file_impl.h"
#include "vornfc/evtmgr_native.h"
#include "vornfc/exception.h"
#include "vornfc/utils.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <set>

namespace vornfc {

// The watched files. They are guarded by the registry lock, not by the receiver's own: the
// dispatcher drops files while an application thread may hold that one.
struct ImplAsyRcv {
  explicit ImplAsyRcv(VrnAsyncReceiver* receiver) : owner(receiver) {}

  bool contains(VrnFile* file) const {
    const std::lock_guard<std::mutex> guard(registry);
    return files.count(file) != 0;
  }

  int size() const {
    const std::lock_guard<std::mutex> guard(registry);
    return static_cast<int>(files.size());
  }

  // False: it was in the list.
  bool insert(VrnFile* file) {
    const std::lock_guard<std::mutex> guard(registry);
    if (!files.insert(file).second) return false;
    if (ImplFile* const listed = ImplFile::of(file)) listed->listed_by.push_back(owner);
    return true;
  }

  void erase(VrnFile* file) {
    const std::lock_guard<std::mutex> guard(registry);
    if (files.erase(file) != 0) unlist(file);
  }

  void clear() {
    const std::lock_guard<std::mutex> guard(registry);
    for (VrnFile* file : files) unlist(file);
    files.clear();
  }

  void unlist(VrnFile* file) const {
    ImplFile* const listed = ImplFile::of(file);
    if (!listed) return;
    auto& by = listed->listed_by;
    by.erase(std::remove(by.begin(), by.end(), owner), by.end());
  }

  // The first file behind `file` by address; null: none.
  VrnFile* next(VrnFile* file) const {
    const std::lock_guard<std::mutex> guard(registry);
    const auto it = files.upper_bound(file);
    return it == files.end() ? nullptr : *it;
  }

  // The file is held during the stop: on the dispatcher thread a hang-up may be ending it.
  bool stop(VrnFile* file) {
    if (!hold(file)) return true;
    bool stopped = true;
    try {
      // With its event manager gone there is nothing left to stop.
      if (VrnEvtMgr* const evtmgr = VrnAppShell::evtmgr) stopped = evtmgr->stopAIO(file, owner);
    } catch (...) {
      release(file, false);
      throw;
    }
    release(file, stopped);
    return stopped;
  }

  bool hold(VrnFile* file) {
    const std::lock_guard<std::mutex> guard(registry);
    if (files.count(file) == 0) return false;
    if (ImplFile* const held = ImplFile::of(file)) ++held->stopping;
    return true;
  }

  void release(VrnFile* file, bool stopped) {
    const std::lock_guard<std::mutex> guard(registry);
    if (ImplFile* const held = ImplFile::of(file)) --held->stopping;
    if (stopped && files.erase(file) != 0) unlist(file);
    notify_waiting();
  }

  VrnAsyncReceiver* const owner;
  std::set<VrnFile*> files;
};

VrnAsyncReceiver::VrnAsyncReceiver(const std::string& name)
    : VrnAIO(true, name), impl(new ImplAsyRcv(this)) {
  drop_file = &drop;
}

VrnAsyncReceiver::VrnAsyncReceiver(const VrnAsyncReceiver& other)
    : VrnAIO(other.input, other.tag), impl(new ImplAsyRcv(this)) {
  drop_file = &drop;
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
}

// Called with the registry lock held.
void VrnAsyncReceiver::drop(VrnAIO* self, VrnFile* file) {
  static_cast<VrnAsyncReceiver*>(self)->impl->files.erase(file);
}

void VrnAsyncReceiver::aioStart(VrnFile* file, bool locked) {
  VrnMutexGuard guard(locked ? nullptr : mutex.get());
  VrnEvtMgr* const evtmgr = event_manager_for("VrnAsyncRcvr", tag.c_str());
  if (!file) throw VrnException(3, "VrnAsyncRcvr: Null file for %s", tag.c_str());
  // Listed first: once it is watched, the dispatcher may already be dropping it.
  const bool is_new = impl->insert(file);
  try {
    evtmgr->startAIO(file, this);
  } catch (...) {
    if (is_new) impl->erase(file);
    throw;
  }
}

bool VrnAsyncReceiver::aioStop(VrnFile* file, bool locked) {
  VrnMutexGuard guard(locked ? nullptr : mutex.get());
  const bool stopped = impl->stop(file);
  guard.clear();
  if (stopped && !locked) VrnEvtMgrNative::let_callback_finish(this);
  return stopped;
}

int VrnAsyncReceiver::aioTerminate(bool locked) {
  VrnMutexGuard guard(locked ? nullptr : mutex.get());
  for (VrnFile* file = impl->next(nullptr); file; file = impl->next(file)) impl->stop(file);
  const int remaining = impl->size();
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
  impl->erase(file);
  aioRemoved(file, hangup, error);
}

}  // namespace vornfc
