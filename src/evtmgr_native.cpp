#include "vornfc/evtmgr_native.h"

#include "evtmgr_impl.h"
#include "file_impl.h"
#include "ready_wait.h"
#include "text.h"
#include "timer_impl.h"
#include "timer_queue.h"
#include "vornfc/appshell.h"
#include "vornfc/exception.h"
#include "vornfc/utils.h"

#include <strings.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <iterator>
#include <string>

namespace vornfc {

std::mutex registry;
VrnEvtMgrNative* native_manager = nullptr;
std::atomic<pthread_t> registry_holder{};
std::condition_variable change;
int waiting = 0;
std::atomic<VrnEvtMgrNative::Caller*> VrnEvtMgrNative::Caller::latest{nullptr};

namespace {

template <class Condition>
void wait(std::unique_lock<std::mutex>* lock, Condition condition) {
  ++waiting;
  change.wait(*lock, condition);
  --waiting;
}

constexpr size_t InitialEntries = 128;
// How long a stop from another thread waits for a running callback: one that itself waits for the
// stopping thread must not hold it for ever.
constexpr auto CallbackGrace = std::chrono::milliseconds(100);

constexpr int MinTimerPrecision = 1000;  // microseconds per millisecond of poll()

bool env_is_yes(const char* name) {
  const char* const value = getenv(name);
  return value && strcasecmp(value, "y") == 0;
}

int timer_precision() {
  const char* const text = getenv("VORN_EM_TIMERPREC");
  const long value = text ? strtol(text, nullptr, 10) : 0;
  return static_cast<int>(std::clamp<long>(value, MinTimerPrecision, INT_MAX));
}

template <class Container>
int count(const Container& container) {
  return static_cast<int>(container.size());
}

}  // namespace

// ---- construction ----

VrnEvtMgrNative::VrnEvtMgrNative()
    : timers(new TimerQueue),
      ready_wait(new ReadyWait),
      throwtasks(env_is_yes("VORN_EM_THROWTASKS")),
      timerprec(timer_precision()),
      owner(pthread_self()),
      loop_thread(owner),
      mutex("EvtMgrNative", false) {
  // VORN_EM_ARMODE can only turn on what is on.
  vrnlog(4, "EvtMgr.ctor - this=0x%x, armode=%s, throwtasks=%s", address32(this), yes_no(true),
         yes_no(throwtasks));
  pollfds.reserve(InitialEntries);
  iofiles.resize(pollfds.capacity());
  registrar = std::make_unique<AsyncRegistrar>("ARhelper", this);
  ImplFile::end_of_watched_file = [](VrnFile* file) { forget(file); };
  guard_forks();
  const Lock lock(registry);
  native_manager = this;
}

VrnEvtMgrNative::~VrnEvtMgrNative() {
  vrnlog(4, "EvtMgr.dtor - this=0x%x", address32(this));
  if (!ended) registrar->confirm_ends();
  {
    const Lock lock(registry);
    native_manager = nullptr;
    while (!timers->empty()) unqueue(timers->first()->owner);
    while (!pollfds.empty()) unregister(iofiles[static_cast<size_t>(pollfds.back().fd)].file);
  }
  registrar.reset();
}

// A process that is forked while another thread holds the registry lock must not have it locked.
// Where the thread itself has it, a signal handler forks in the middle of a turn: the child of
// that is for leaving or for another program only, and finds things as they are.
void VrnEvtMgrNative::guard_forks() {
  static const int once = pthread_atfork(
      [] {
        if (!holds_registry()) registry.lock();
      },
      [] {
        if (!holds_registry()) registry.unlock();
      },
      [] {
        if (!holds_registry()) {
          VrnEvtMgrNative::forked();
          registry_holder.store(pthread_t{}, std::memory_order_relaxed);  // it may be on its way
          registry.unlock();
        }
        forget_wakers();
      });
  if (once != 0) throw VrnException(2, "EvtMgr: pthread_atfork() failed (%d)", once);
}

// ---- the loop ----

void VrnEvtMgrNative::startDispatcher() {
  {
    VrnMutexGuard guard(&mutex);
    VrnAssertFull(!running, "Dispatcher already running in thread %u",
                  static_cast<unsigned>(owner));
    running = true;
  }
  loop_thread = pthread_self();
  try {
    dispatcher();
  } catch (...) {
    vrnlog(1, "EvtMgr: Error in dispatcher [%s]", VrnException::handler().c_str());
  }
  dispatcherStopped();
}

void VrnEvtMgrNative::stopDispatcher() {
  vrnlog(4, "EvtMgr.stop");
  if (on_owner_thread()) {
    registrar->submit(AsyncRegistrar::StopDispatcher, 0);
  } else {
    syncstopDispatcher();
    wake();
  }
}

void VrnEvtMgrNative::syncstopDispatcher() {
  dead = true;
}

// One turn: signals, timers, descriptors. Application code runs in every step and may change any
// registration or stop the loop, so each step looks at the containers afresh. The registry lock is
// handed from step to step, and is free while the loop sleeps and during each callback: to take it
// for every step by itself would cost as much as all that the loop does for an event. While the
// process has one thread the loop does without.
void VrnEvtMgrNative::dispatcher() {
  {
    const Sizes size = sizes();
    vrnlog(4, "EvtMgr.dispatcher - tmrq=%d, pollfds=%d, deadflag=%d", size.timers, size.pollfds,
           dead ? 1 : 0);
  }
  registrar->start();
  if (dead) return;
  const struct Unmark {
    ~Unmark() { registry_holder.store(pthread_t{}, std::memory_order_relaxed); }
  } unmark;
  Lock lock(registry, std::defer_lock);
  take_registry(&lock);
  for (;;) {
    if (sig_ready) deliver_signals(&lock);
    const int timeout = fire_due_timers(&lock);  // ms until the next one; -1: no timer left
    if (dead) return;
    if (timeout == -1 && pollfds.empty()) {
      release_registry(&lock);
      vrnlog(4, "EvtMgr has run out of events - aborting");
      return;
    }
    if (sig_ready) continue;  // arrived during the timers: deliver before sleeping
    const int ready = wait_for_events(&lock, timeout);
    deliver_ready(&lock, ready);
    if (dead) return;
  }
}

// All that are due fire against the same time of day, and up to a precision unit early.
inline int VrnEvtMgrNative::fire_due_timers(Lock* lock) {
  if (timers->empty()) return -1;
  timeval now;
  gettimeofday(&now, nullptr);
  Caller caller(lock);
  while (!timers->empty()) {
    VrnTimer* const timer = timers->first()->owner;
    const int left = timer->compare(&now) / timerprec;
    if (left > 0) return left;
    unqueue(timer);
    const unsigned start = timer->impl->starts;
    const Callback callback(&caller, timer);
    try {
      timer->trigger(now, start);
    } catch (...) {
      if (throwtasks) throw;
      vrnlog(1, "EvtMgr: Timer threw [%s]", VrnException::handler().c_str());
    }
  }
  return -1;
}

// Returns the number of descriptors that have returned events. Other threads may change pollfds
// during the wait, so poll() works on a copy.
inline int VrnEvtMgrNative::wait_for_events(Lock* lock, int timeout) {
  if (pollfds_changed) {
    serials.clear();
    for (const pollfd& entry : pollfds) {
      serials.push_back(iofiles[static_cast<size_t>(entry.fd)].serial);
    }
    ready_wait->assign(pollfds, serials);
    pollfds_changed = false;
  }
  release_registry(lock);
  if (!ready_wait->look()) {
    if (!ready_wait->poll(timeout)) {
      if (errno != EINTR) {
        throw VrnException(2, "poll() on %d files failed", count(*ready_wait));
      }
      take_registry(lock);
      errno = 0;
      return 0;
    }
  }
  take_registry(lock);
  ready_wait->collect();
  walked = next_of_ready = 0;
  auto ready = static_cast<int>(ready_wait->ready_count());
  if (!pollfds_changed) {
    ready_wait->settle();
    walking = true;
    return ready;
  }
  for (pollfd& entry : pollfds) entry.revents = 0;
  for (size_t i = 0; i < ready_wait->ready_count(); ++i) {
    const auto& [returned, position] = ready_wait->ready()[i];
    const iofile_t& record = iofiles[static_cast<size_t>(returned.fd)];
    if (record.pidx == -1 || record.serial != serials[position]) {
      --ready;  // an event of a watch that has ended
      continue;
    }
    pollfd& entry = pollfds[static_cast<size_t>(record.pidx)];
    const auto unasked = static_cast<short>(returned.events & ~entry.events);
    entry.revents = static_cast<short>(returned.revents & ~unasked);
  }
  return ready;
}

void VrnEvtMgrNative::dispatcherStopped() {
  Sizes size = sizes();
  vrnlog(4,
         "EvtMgr.dispatcherStopped: Enter with with dead=%s - tmrq=%d, pollfds=%d (cap=%d), "
         "iofiles=%d (cap=%d)",
         yes_no(dead), size.timers, size.pollfds, size.pollfds_capacity, size.iofiles,
         size.iofiles_capacity);
  {
    VrnMutexGuard guard(&mutex);
    running = false;
  }
  close_registrar();
  size = sizes();
  vrnlog(4, "EvtMgr: After dispatcher shutdown, tmrq=%d, pollfds=%d", size.timers, size.pollfds);
  report_timers();
  report_watchers();
  report_signal_handlers();
}

void VrnEvtMgrNative::abandon() {
  VrnMutexGuard guard(&mutex);
  run_expected = false;
  if (running || ended) return;
  guard.clear();
  dead = true;
  close_registrar();
}

void VrnEvtMgrNative::close_registrar() {
  ended = true;
  try {
    registrar->cancel(true);
  } catch (...) {  // another watcher holds the pipe
    vrnlog(1, "EvtMgr: Error in dispatcher [%s]", VrnException::handler().c_str());
  }
  registrar->dispatcherStopped();
}

// What remains is reported, neither cancelled nor freed.
void VrnEvtMgrNative::report_timers() {
  std::vector<std::string> lines;
  {
    const Lock lock(registry);
    timeval now;
    gettimeofday(&now, nullptr);
    for (const ImplTimer* timer : timers->in_order()) {
      const ImplTimer::State state = timer->state;
      const bool active = state == ImplTimer::Queued || state == ImplTimer::Restart;
      const int left = active ? timer->owner->compare(&now) / 1000 : 0;
      lines.push_back(timer->tag + " remains - " + std::to_string(left) + " millisecs" +
                      (active ? "" : " (inactive)"));
    }
  }
  for (const std::string& line : lines) vrnlog(4, "- EvtMgr: timer=%s", line.c_str());
}

void VrnEvtMgrNative::report_watchers() {
  std::vector<std::string> lines;
  {
    const Lock lock(registry);
    for (const pollfd& entry : pollfds) {
      const iofile_t& record = iofiles[static_cast<size_t>(entry.fd)];
      for (const VrnAIO* aio : record.aios) {
        if (!aio) continue;
        lines.push_back(std::string(aio->input ? "Receiver=" : "Writer=") + aio->tag +
                        " remains - fd " + std::to_string(entry.fd) + "=" + record.file->name());
      }
    }
  }
  for (const std::string& line : lines) vrnlog(4, "- EvtMgr: %s", line.c_str());
}

void VrnEvtMgrNative::report_signal_handlers() {
  std::string numbers;
  int handlers;
  {
    const Lock lock(registry);
    handlers = count(sighandlers);
    for (const auto& [signo, handler] : sighandlers) {
      numbers += (numbers.empty() ? "" : ", ") + std::to_string(signo);
    }
  }
  if (handlers > 0) {
    vrnlog(4, "EvtMgr: %d Signal Handlers - %s", handlers, numbers.c_str());
  }
}

VrnEvtMgrNative::Sizes VrnEvtMgrNative::sizes() const {
  const Lock lock(registry);
  return {count(*timers), count(pollfds), static_cast<int>(pollfds.capacity()), count(iofiles),
          static_cast<int>(iofiles.capacity())};
}

// A wake that was sent and not read yet ends the next wait too.
void VrnEvtMgrNative::wake() {
  if (!on_loop_thread() && !wake_sent.exchange(true)) send_wake();
}

// ---- timers ----

bool VrnEvtMgrNative::startTimer(VrnTimer* timer) {
  if (!timer) throw VrnException(3, "EvtMgr: Null timer to start");
  if (!on_owner_thread()) return syncstartTimer(timer);
  timer->impl->requested.store(true, std::memory_order_relaxed);
  return registrar->submit(AsyncRegistrar::StartTimer, 1, timer);
}

bool VrnEvtMgrNative::stopTimer(VrnTimer* timer) {
  if (!timer) throw VrnException(3, "EvtMgr: Null timer to stop");
  if (on_owner_thread() && registrar->submit(AsyncRegistrar::StopTimer, 1, timer)) return false;
  Lock lock(registry);
  // A start from the dispatcher thread that is still on its way must not come after this.
  if (timer->impl->requested) registrar->voidRequests(timer);
  stop_timer(&lock, timer, false);
  return true;
}

bool VrnEvtMgrNative::syncstartTimer(VrnTimer* timer) {
  bool is_next;
  {
    const Lock lock(registry);
    if (!queue_timer(timer)) return false;
    is_next = timers->first() == timer->impl.get();
  }
  if (is_next) wake();
  return true;
}

void VrnEvtMgrNative::syncstopTimer(VrnTimer* timer, bool notify) {
  Lock lock(registry);
  stop_timer(&lock, timer, notify);
}

bool VrnEvtMgrNative::queue_timer(VrnTimer* timer) {
  if (!timer) throw VrnException(3, "EvtMgr: Null timer to start");
  if (dead) return false;
  unqueue(timer);
  timers->insert(timer->impl.get());
  timer->impl->queued = true;
  return true;
}

void VrnEvtMgrNative::stop_timer(Lock* lock, VrnTimer* timer, bool notify) {
  if (!timer) throw VrnException(3, "EvtMgr: Null timer to stop");
  unqueue(timer);
  if (!notify) return;
  Caller caller(lock);
  const Callback callback(&caller, timer);
  try {
    timer->timerCancelled();
  } catch (...) {
    vrnlog(1, "EvtMgr: timerCancelled threw [%s]", VrnException::handler().c_str());
  }
}

void VrnEvtMgrNative::unqueue(VrnTimer* timer) {
  if (!timer->impl->queued) return;
  timers->erase(timer->impl.get());
  timer->impl->queued = false;
}

// ---- objects that end ----

bool VrnEvtMgrNative::withdraw(VrnTimer* timer) {
  const Lock lock(registry);
  VrnEvtMgrNative* const mgr = native_manager;
  if (!mgr) return !VrnAppShell::evtmgr;  // false: the application has one of another kind
  if (mgr->running || mgr->run_expected) return false;
  mgr->registrar->voidRequests(timer);
  mgr->unqueue(timer);
  return true;
}

void VrnEvtMgrNative::forget(VrnTimer* timer) {
  Lock lock(registry);
  if (!end_callbacks(&lock, timer)) return;
  if (timer->impl->requested) native_manager->registrar->voidRequests(timer);
  native_manager->unqueue(timer);
}

void VrnEvtMgrNative::forget(VrnAIO* aio) {
  Lock lock(registry);
  if (!end_callbacks(&lock, aio)) return;
  if (aio->requested) native_manager->registrar->voidRequests(aio);
  if (native_manager->unregister(aio)) native_manager->wake();
}

void VrnEvtMgrNative::forget(VrnFile* file) {
  Lock lock(registry);
  drop_listings(file);
  if (!end_callbacks(&lock, file)) return;
  wait(&lock, [&] { return file->impl->stopping == 0; });
  if (!native_manager) return;
  drop_listings(file);  // again: a callback that ran until now may have listed it anew
  if (file->impl->requested) native_manager->registrar->voidRequests(file);
  if (native_manager->unregister(file)) native_manager->wake();
}

void VrnEvtMgrNative::forget_requests(const VrnAIO* aio) {
  const Lock lock(registry);
  if (native_manager && aio->requested) native_manager->registrar->voidRequests(aio);
}

void VrnEvtMgrNative::forget(VrnSignalHandler* handler) {
  Lock lock(registry);
  if (!end_callbacks(&lock, handler)) return;
  native_manager->registrar->voidRequests(handler);
  auto& handlers = native_manager->sighandlers;
  for (auto it = handlers.begin(); it != handlers.end();) {
    it = it->second == handler ? handlers.erase(it) : std::next(it);
  }
}

// In the child, with the registry lock held.
void VrnEvtMgrNative::forked() {
  // The other threads are not in the child, nor do their callbacks run there.
  waiting = 0;
  Caller* first = Caller::latest;
  for (Caller** link = &first; *link;) {
    if (pthread_equal((*link)->thread, pthread_self())) {
      link = &(*link)->outer;
    } else {
      *link = (*link)->outer;
    }
  }
  Caller::latest = first;
  if (!native_manager) return;
  native_manager->before_change();
  native_manager->ready_wait->forked();
  native_manager->wake_sent = false;  // the record may be the parent's to read
}

bool VrnEvtMgrNative::in_callback(const void* object) {
  for (const Caller* caller = Caller::latest; caller; caller = caller->outer) {
    if (caller->objects[0] == object || caller->objects[1] == object) return true;
  }
  return false;
}

// The dispatcher thread may end an object inside the object's own callback. Another thread waits:
// a callback of an object that is gone could not be taken back.
bool VrnEvtMgrNative::end_callbacks(Lock* lock, const void* object) {
  if (!native_manager) return false;
  const bool on_loop = native_manager->on_loop_thread();
  for (Caller* caller = Caller::latest; caller; caller = caller->outer) {
    if (!on_loop && !pthread_equal(caller->thread, pthread_self())) continue;
    for (const void*& held : caller->objects) {
      if (held == object) held = nullptr;
    }
  }
  if (!on_loop) {
    wait(lock, [&] { return !native_manager || !in_callback(object); });
  }
  return native_manager != nullptr;
}

void VrnEvtMgrNative::let_callback_finish(const void* object) {
  // The caller has held the registry lock since the object was stopped, so a callback that it is to
  // wait for is seen here.
  if (!Caller::latest.load(std::memory_order_acquire)) return;
  Lock lock(registry);
  if (!native_manager || native_manager->on_loop_thread()) return;
  if (!in_callback(object)) return;
  ++waiting;
  change.wait_for(lock, CallbackGrace, [&] { return !native_manager || !in_callback(object); });
  --waiting;
}

}  // namespace vornfc
