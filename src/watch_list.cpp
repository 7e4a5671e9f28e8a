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

bool WatchList::request(VrnFile* file, int bytes, char* buffer) {
  const Lock lock(registry);
  const auto it = files.find(file);
  if (it == files.end()) return false;
  it->second.requested = bytes;
  it->second.pending = 0;
  it->second.buffer = buffer;
  return true;
}

void WatchList::advance(VrnFile* file, int pending) {
  const Lock lock(registry);
  if (const auto it = files.find(file); it != files.end()) it->second.pending = pending;
}

bool WatchList::watch_ended(VrnFile* file) {
  last_file = file;
  last_request = remove(file);
  return files.count(file) != 0;
}

std::optional<WatchList::Request> WatchList::ended(VrnFile* file) {
  const Lock lock(registry);
  if (last_file != file) return remove(file);
  last_file = nullptr;
  return last_request;
}

std::optional<WatchList::Request> WatchList::remove(VrnFile* file) {
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
  const Entry entry = insert(file, request);
  try {
    if (!evtmgr->startAIO(file, owner) && entry == New) set_unwatched(file);
  } catch (...) {
    take_back(file, entry);
    throw;
  }
}

WatchList::Entry WatchList::insert(VrnFile* file, const Request& request) {
  const Lock lock(registry);
  const auto [it, is_new] = files.emplace(file, request);
  if (is_new) {
    try {
      if (ImplFile* const listed = ImplFile::of(file)) listed->listed_by.push_back(owner);
    } catch (...) {
      files.erase(it);
      throw;
    }
    return New;
  }
  if (it->second.ending == None) return Present;
  it->second.ending = None;
  ++it->second.restarts;
  return Restarted;
}

// The start has failed. The end that a restart was to outlive may have come meanwhile.
void WatchList::take_back(VrnFile* file, Entry entry) {
  const Lock lock(registry);
  const auto it = files.find(file);
  if (it == files.end() || entry == Present) return;
  if (entry == Restarted && it->second.restarts > 0) {
    --it->second.restarts;
    it->second.ending = Asked;
  } else {
    files.erase(it);
    unlist(file);
  }
}

void WatchList::not_ending(VrnFile* file, Ending before) {
  const Lock lock(registry);
  if (const auto it = files.find(file); it != files.end()) it->second.ending = before;
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
    not_ending(file, before->ending);
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
