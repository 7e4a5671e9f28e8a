#include "evtmgr_impl.h"
#include "file_impl.h"
#include "ready_wait.h"
#include "text.h"
#include "vornfc/evtmgr_native.h"
#include "vornfc/exception.h"
#include "vornfc/utils.h"
#include "watch_list.h"

#include <unistd.h>

// The part of the native event manager that watches descriptors.
namespace vornfc {

void VrnEvtMgrNative::check_watch(const VrnFile* file, const VrnAIO* aio) {
  if (!aio) throw VrnException(3, "EvtMgr: Null AIO for file=%s", file ? file->name() : "<NULL>");
  if (!file) throw VrnException(3, "EvtMgr: Null file for AIO=%s", aio->tag.c_str());
}

bool VrnEvtMgrNative::startAIO(VrnFile* file, VrnAIO* aio) {
  check_watch(file, aio);
  VrnAssertFull(file->fd >= 0 && file->impl, "EvtMgr: File %s has no descriptor for AIO=%s",
                file->name(), aio->tag.c_str());
  if (!on_owner_thread()) return syncstartAIO(file, aio);
  file->impl->requested.store(true, std::memory_order_relaxed);
  aio->requested.store(true, std::memory_order_relaxed);
  return registrar->submit(AsyncRegistrar::StartAIO, 2, file, aio);
}

bool VrnEvtMgrNative::stopAIO(VrnFile* file, VrnAIO* aio) {
  check_watch(file, aio);
  if (!file->impl) return true;  // never assigned, so never watched
  if (on_owner_thread()) {
    file->impl->requested.store(true, std::memory_order_relaxed);
    aio->requested.store(true, std::memory_order_relaxed);
    if (registrar->submit(AsyncRegistrar::StopAIO, 2, file, aio)) return false;
  }
  {
    Lock lock(registry);
    // A start from the dispatcher thread that is still on its way must not come after this.
    if (aio->requested) registrar->voidRequests(file, aio);
    // The end of a writer or a connect is no mistake where its start, now void, was to be refused.
    const bool to_stop = !aio->built_in || aio->list || is_watching(file, aio);
    // A poll() that goes on would keep the descriptor open although its owner closes it.
    if (to_stop && stop_watch(&lock, file, aio, false, false, false)) wake();
  }
  // A built-in watcher holds its lock here, which the callback may want.
  if (!aio->built_in) let_callback_finish(aio);
  return true;
}

bool VrnEvtMgrNative::syncstartAIO(VrnFile* file, VrnAIO* aio) {
  {
    const Lock lock(registry);
    if (!start_watch(file, aio)) return false;
  }
  wake();
  return true;
}

void VrnEvtMgrNative::syncstopAIO(VrnFile* file, VrnAIO* aio, bool notify, bool hangup, bool err) {
  Lock lock(registry);
  if (stop_watch(&lock, file, aio, notify, hangup, err)) wake();
}

bool VrnEvtMgrNative::start_watch(VrnFile* file, VrnAIO* aio) {
  check_watch(file, aio);
  if (dead) return false;
  VrnAssertFull(!file->impl || !file->impl->closed,
                "EvtMgr: File %s=%d is closed, its watcher threw; AIO=%s", file->name(), file->fd,
                aio->tag.c_str());
  VrnAssertFull(file->fd >= 0, "EvtMgr: File %s has no descriptor for AIO=%s", file->name(),
                aio->tag.c_str());
  const auto fd = static_cast<size_t>(file->fd);
  if (fd >= iofiles.size()) iofiles.resize(2 * fd);
  iofile_t& record = iofiles[fd];
  const size_t slot = slot_of(aio->input);
  if (record.pidx != -1) {
    const VrnAIO* const holder = record.aios[slot];
    VrnAssertFull(
        !holder && record.file == file,
        "EvtMgr conflict: AIO on fd %s=%d (0x%x) with rank=%d mon=%s (0x%x), iofile fd is "
        "%s=%d (0x%x) with mon=%s (0x%x), pidx=%d, pollfd=%d",
        file->name(), file->fd, address32(file), static_cast<int>(slot), aio->tag.c_str(),
        address32(aio), record.file->name(), record.file->fd, address32(record.file),
        holder ? holder->tag.c_str() : "N", address32(holder), record.pidx,
        pollfds[static_cast<size_t>(record.pidx)].fd);
  } else {
    file->setBlockingMode(false);  // first: it may throw
    before_change();
    pollfds.push_back({file->fd, 0, 0});
    record.pidx = static_cast<int>(pollfds.size()) - 1;
    record.file = file;
    ++record.serial;
    file->impl->watched_fd = file->fd;
  }
  before_change();
  pollfd& entry = pollfds[static_cast<size_t>(record.pidx)];
  entry.events = static_cast<short>(entry.events | mask_of(slot));
  record.aios[slot] = aio;
  ++aio->watches;
  return true;
}

bool VrnEvtMgrNative::is_watching(const VrnFile* file, const VrnAIO* aio) const {
  if (file->fd < 0 || static_cast<size_t>(file->fd) >= iofiles.size()) return false;
  const iofile_t& record = iofiles[static_cast<size_t>(file->fd)];
  return record.pidx != -1 && record.file == file && record.aios[slot_of(aio->input)] == aio;
}

// True: there was a watch to stop.
bool VrnEvtMgrNative::stop_watch(Lock* lock, VrnFile* file, VrnAIO* aio, bool notify, bool hangup,
                                 bool err) {
  check_watch(file, aio);
  if (!unregister(file, aio)) return false;
  if (notify) tell_cancelled(lock, file, aio, hangup, err);
  return true;
}

void VrnEvtMgrNative::tell_cancelled(Lock* lock, VrnFile* file, VrnAIO* aio, bool hangup,
                                     bool err) {
  // A stop that is on its way still must not end the next watch.
  if (aio->list && !aio->list->watch_ended(file)) registrar->voidRequests(file, aio);
  Caller caller(lock);
  const Callback callback(&caller, aio, file);
  try {
    aio->aioCancelled(file, hangup, err);
  } catch (...) {
    vrnlog(1, "EvtMgr: aioCancelled threw [%s]", VrnException::handler().c_str());
  }
}

bool VrnEvtMgrNative::unregister(VrnFile* file, VrnAIO* aio) {
  const auto fd = static_cast<size_t>(file->fd);  // -1 becomes the largest of all
  if (fd >= iofiles.size() || !file->impl || file->impl->closed) return false;
  iofile_t& record = iofiles[fd];
  const size_t slot = slot_of(aio->input);
  const VrnAIO* const holder = record.aios[slot];
  if (record.pidx == -1 || !holder) return false;
  VrnAssertFull(holder == aio, "EvtMgr: iomon=%s doesn't own fd-%d %s=%d - owner=%s",
                aio->tag.c_str(), static_cast<int>(slot), file->name(), file->fd,
                holder->tag.c_str());
  clear_slot(&record, slot);
  return true;
}

bool VrnEvtMgrNative::unregister(const VrnAIO* aio) {
  if (aio->watches == 0) return false;
  const size_t slot = slot_of(aio->input);
  for (size_t i = pollfds.size(); i-- > 0 && aio->watches > 0;) {
    iofile_t& record = iofiles[static_cast<size_t>(pollfds[i].fd)];
    if (record.aios[slot] == aio) clear_slot(&record, slot);
  }
  return true;
}

bool VrnEvtMgrNative::unregister(const VrnFile* file) {
  if (file->impl->watched_fd == -1) return false;
  iofile_t& record = iofiles[static_cast<size_t>(file->impl->watched_fd)];
  for (size_t slot = 0; slot < record.aios.size(); ++slot) {
    if (record.aios[slot]) clear_slot(&record, slot);
  }
  return true;
}

void VrnEvtMgrNative::clear_slot(iofile_t* record, size_t slot) {
  before_change();
  pollfd& entry = pollfds[static_cast<size_t>(record->pidx)];
  entry.events = static_cast<short>(entry.events & ~mask_of(slot));
  // The current turn must not call the watcher any more.
  entry.revents = static_cast<short>(entry.revents & ~mask_of(slot));
  --record->aios[slot]->watches;
  record->aios[slot] = nullptr;
  if (entry.events == 0) remove_entry(record);
}

// The last entry takes the place of the one that goes.
void VrnEvtMgrNative::remove_entry(iofile_t* record) {
  const int position = record->pidx;
  ready_wait->forget(record->file->impl->watched_fd);
  record->file->impl->watched_fd = -1;
  record->file = nullptr;
  record->pidx = -1;
  const pollfd last = pollfds.back();
  pollfds.pop_back();
  if (static_cast<size_t>(position) == pollfds.size()) return;
  pollfds[static_cast<size_t>(position)] = last;
  iofiles[static_cast<size_t>(last.fd)].pidx = position;
}

// Reads an entry again after a callback. False: the registration has ended. The loop's own entries
// have what is not delivered yet of their returned events; whoever else has an entry handled keeps
// those that are asked for still.
bool VrnEvtMgrNative::refresh(pollfd* entry, unsigned serial, bool of_loop) const {
  if (of_loop && walking && !pollfds_changed) return true;
  const iofile_t& current = iofiles[static_cast<size_t>(entry->fd)];
  if (current.pidx == -1 || current.serial != serial) return false;
  const short returned = entry->revents;
  *entry = pollfds[static_cast<size_t>(current.pidx)];
  const int wanted = entry->events | POLLERR | POLLHUP | POLLNVAL;
  if (!of_loop) entry->revents = static_cast<short>(returned & wanted);
  return true;
}

// Readable data comes before a hang-up that is reported with it; the hang-up is handled at a later
// turn, when there is no data any more.
inline void VrnEvtMgrNative::handle_ready(Caller* caller, pollfd* entry, unsigned serial,
                                          bool of_loop) {
  while (entry->revents & (POLLOUT | POLLIN | POLLPRI)) {
    const bool input = (entry->revents & POLLOUT) == 0;
    call_ready(caller, entry->fd, slot_of(input));
    if (input || !refresh(entry, serial, of_loop)) return;
    entry->revents = static_cast<short>(entry->revents & ~POLLOUT);
  }
  if ((entry->revents & (POLLERR | POLLHUP | POLLNVAL)) == 0) return;
  const bool err = (entry->revents & (POLLERR | POLLNVAL)) != 0;
  for (const size_t slot : {slot_of(true), slot_of(false)}) {
    const iofile_t& current = iofiles[static_cast<size_t>(entry->fd)];
    if (current.pidx == -1 || current.serial != serial) return;
    curaio = current.aios[slot];
    if (curaio) stop_watch(caller->lock, current.file, curaio, true, true, err);
  }
}

inline void VrnEvtMgrNative::call_ready(Caller* caller, int fd, size_t slot) {
  const iofile_t& record = iofiles[static_cast<size_t>(fd)];
  VrnAIO* const aio = record.aios[slot];
  if (!aio) return;
  VrnFile* const file = record.file;
  curaio = aio;
  const Callback callback(caller, aio, file);
  aio->aioReady(file);
}

// The walk goes by position, and reads the entry count again after every callback. An entry that a
// callback moves into a position already passed waits for the next turn.
void VrnEvtMgrNative::deliver_ready(Lock* lock, int ready) {
  Caller caller(lock);
  pollfd entry;
  for (; ready > 0 && next_ready(&entry); ++walked, --ready) {
    const unsigned serial = iofiles[static_cast<size_t>(entry.fd)].serial;
    curaio = nullptr;
    bool threw = false;
    try {
      handle_ready(&caller, &entry, serial, true);
    } catch (...) {
      if (throwtasks || !curaio) throw;
      release_registry(lock);
      vrnlog(1, "EvtMgr: IO task threw [%s]", VrnException::handler().c_str());
      end_thrown_watch(entry.fd, serial);
      threw = true;
    }
    // Not in the handler: the exception ends with it, and may own objects that take the lock to
    // end.
    if (threw) take_registry(lock);
  }
  walking = false;
}

// Most turns change no registration: the walk then goes over what the wait has found, and pollfds
// is not even looked at.
bool VrnEvtMgrNative::next_ready(pollfd* entry) {
  if (pollfds_changed) {
    while (walked < pollfds.size() && pollfds[walked].revents == 0) ++walked;
    if (walked >= pollfds.size()) return false;
    *entry = pollfds[walked];
  } else {
    if (next_of_ready >= ready_wait->ready_count()) return false;
    const ReadyWait::Ready& next = ready_wait->ready()[next_of_ready++];
    walked = next.position;
    *entry = next.entry;
  }
  return true;
}

// The first change after the wait makes pollfds what the rest of the walk goes over.
void VrnEvtMgrNative::before_change() {
  if (walking && !pollfds_changed) {
    for (pollfd& entry : pollfds) entry.revents = 0;
    for (size_t i = 0; i < ready_wait->ready_count(); ++i) {
      const auto& [entry, position] = ready_wait->ready()[i];
      if (position >= walked) pollfds[position].revents = entry.revents;
    }
  }
  pollfds_changed = true;
}

void VrnEvtMgrNative::handleIO(pollfd* entry, iofile_t* record) {
  if (!entry || !record) throw VrnException(3, "EvtMgr: Null entry to handle");
  Lock lock(registry);
  const auto fd = static_cast<size_t>(entry->fd);
  if (fd >= iofiles.size()) return;  // never watched; -1 too
  if (record->file == iofiles[fd].file) record->serial = iofiles[fd].serial;
  if (iofiles[fd].pidx == -1 || record->serial != iofiles[fd].serial) return;
  Caller caller(&lock);
  handle_ready(&caller, entry, record->serial, false);
  const iofile_t& current = iofiles[fd];
  if (current.pidx != -1 && current.serial == record->serial) *record = current;
}

void VrnEvtMgrNative::drop_listings(VrnFile* file) {
  for (VrnAIO* aio : file->impl->listed_by) aio->list->drop(file);
  file->impl->listed_by.clear();
}

// A watcher's callback threw: its descriptor is closed, here and not again by the file, and its
// watch ends without a callback. The descriptor's other watcher is told of an error at once: the
// number may be another file's before the next poll() would report it.
void VrnEvtMgrNative::end_thrown_watch(int fd, unsigned serial) {
  Lock lock(registry);
  iofile_t& record = iofiles[static_cast<size_t>(fd)];
  if (record.pidx == -1 || record.serial != serial) return;  // the callback itself ended it
  const size_t slot = record.aios[0] == curaio ? 0 : 1;
  if (record.aios[slot] != curaio) return;
  VrnAIO* const other = record.aios[1 - slot];
  VrnFile* const file = record.file;
  clear_slot(&record, slot);
  if (other) clear_slot(&record, 1 - slot);
  drop_listings(file);
  close(fd);
  file->impl->owns = false;
  file->impl->closed = true;
  if (other) tell_cancelled(&lock, file, other, true, true);
}

}  // namespace vornfc
