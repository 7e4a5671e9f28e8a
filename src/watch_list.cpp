#include "watch_list.h"

#include "evtmgr_impl.h"
#include "file_impl.h"
#include "vornfc/appshell.h"

#include <algorithm>
#include <mutex>

namespace vornfc {

using Lock = std::lock_guard<std::mutex>;

int WatchList::size() const {
  const Lock lock(registry);
  return static_cast<int>(files.size());
}

std::optional<WatchList::Request> WatchList::get(VrnFile* file) const {
  const Lock lock(registry);
  const auto it = files.find(file);
  if (it == files.end()) return std::nullopt;
  return it->second;
}

bool WatchList::set(VrnFile* file, const Request& request) {
  const Lock lock(registry);
  const auto it = files.find(file);
  if (it == files.end()) return false;
  it->second = request;
  return true;
}

bool WatchList::insert(VrnFile* file, const Request& request) {
  const Lock lock(registry);
  if (!files.emplace(file, request).second) return false;
  if (ImplFile* const listed = ImplFile::of(file)) listed->listed_by.push_back(owner);
  return true;
}

void WatchList::erase(VrnFile* file) {
  const Lock lock(registry);
  if (files.erase(file) != 0) unlist(file);
}

std::optional<WatchList::Request> WatchList::ended(VrnFile* file) {
  const Lock lock(registry);
  const auto it = files.find(file);
  if (it == files.end()) return std::nullopt;
  const Request request = it->second;
  if (request.restarts > 0) {
    --it->second.restarts;
  } else {
    files.erase(it);
    unlist(file);
  }
  return request;
}

void WatchList::clear() {
  const Lock lock(registry);
  for (const auto& entry : files) unlist(entry.first);
  files.clear();
}

void WatchList::unlist(VrnFile* file) const {
  ImplFile* const listed = ImplFile::of(file);
  if (!listed) return;
  auto& by = listed->listed_by;
  by.erase(std::remove(by.begin(), by.end(), owner), by.end());
}

void WatchList::start(VrnEvtMgr* evtmgr, VrnFile* file, const Request& request) {
  // Listed first: once it is watched, the dispatcher may already be dropping it.
  const bool is_new = insert(file, request);
  const std::optional<Request> before = get(file);
  if (!is_new && before && before->ending != None) {
    Request again = *before;
    again.ending = None;
    ++again.restarts;
    set(file, again);
  }
  try {
    if (!evtmgr->startAIO(file, owner) && is_new) set_unwatched(file);
  } catch (...) {
    if (is_new) {
      erase(file);
    } else if (before) {
      set(file, *before);
    }
    throw;
  }
}

void WatchList::set_unwatched(VrnFile* file) {
  const Lock lock(registry);
  if (const auto it = files.find(file); it != files.end()) it->second.watched = false;
}

// The file is held during the stop: on the dispatcher thread a hang-up may be ending it.
bool WatchList::stop(VrnFile* file, Ending reason) {
  const std::optional<Request> before = get(file);
  if (!before || !hold(file, reason)) return true;
  bool stopped = true;
  try {
    // With its event manager gone there is nothing left to stop.
    VrnEvtMgr* const evtmgr = VrnAppShell::evtmgr;
    if (evtmgr && before->watched) stopped = evtmgr->stopAIO(file, owner);
  } catch (...) {
    set(file, *before);
    release(file, false);
    throw;
  }
  release(file, stopped);
  return stopped;
}

int WatchList::stop_all() {
  for (VrnFile* file = next(nullptr); file; file = next(file)) stop(file, Asked);
  return size();
}

// The first file behind `file` by address; null: none.
VrnFile* WatchList::next(VrnFile* file) const {
  const Lock lock(registry);
  const auto it = files.upper_bound(file);
  return it == files.end() ? nullptr : it->first;
}

bool WatchList::hold(VrnFile* file, Ending reason) {
  const Lock lock(registry);
  const auto it = files.find(file);
  if (it == files.end()) return false;
  if (it->second.ending == None) it->second.ending = reason;
  if (ImplFile* const held = ImplFile::of(file)) ++held->stopping;
  return true;
}

void WatchList::release(VrnFile* file, bool stopped) {
  const Lock lock(registry);
  if (ImplFile* const held = ImplFile::of(file)) --held->stopping;
  if (stopped && files.erase(file) != 0) unlist(file);
  notify_waiting();
}

}  // namespace vornfc
