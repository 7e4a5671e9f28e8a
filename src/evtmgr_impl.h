#pragma once
// What the sources of the native event manager share.

#include "vornfc/evtmgr_native.h"

#include <poll.h>
#include <pthread.h>
#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>
#endif

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>

// Of the library alone, so that its code reaches them without a look into a table.
#pragma GCC visibility push(hidden)

namespace vornfc {

// Guards every registration of the event manager, and which manager there is. It is not the
// manager's own member: timers, watchers and files may end on another thread, or after the manager.
// Order: a timer's lock, then this one, then the registrar's.
extern std::mutex registry;
extern VrnEvtMgrNative* native_manager;  // guarded by registry

// The loop's thread while it holds the registry lock, or does without it in the middle of a turn,
// and a moment before and after; 0: it does not. A signal handler that runs there may call fork(),
// which would wait for the lock for ever.
extern std::atomic<pthread_t> registry_holder;
inline bool holds_registry() {
  return pthread_equal(registry_holder.load(std::memory_order_relaxed), pthread_self()) != 0;
}

// A process that has not started a second thread has nobody who could want the registry lock, so
// its loop does without: a pair of lock and unlock a turn and another for every callback would be a
// tenth of what an event costs. Only a callback can start that thread (the functions that an
// application defines for the library must not), and the loop asks behind each of them.
inline bool alone() {
#if __has_include(<sys/single_threaded.h>)
  return __libc_single_threaded;
#else
  return false;
#endif
}

// How the loop takes and releases the lock. Either may find it done.
inline void take_registry(std::unique_lock<std::mutex>* lock) {
  registry_holder.store(pthread_self(), std::memory_order_relaxed);
  if (!lock->owns_lock() && !alone()) lock->lock();
}
inline void release_registry(std::unique_lock<std::mutex>* lock) {
  if (lock->owns_lock()) lock->unlock();
  registry_holder.store(pthread_t{}, std::memory_order_relaxed);
}

// With the registry lock: what others wait for under it. A callback, or a stop that holds a file,
// has ended.
extern std::condition_variable change;
extern int waiting;

// What a thread waits for under the registry lock, which the caller holds, may have come true.
inline void notify_waiting() {
  if (waiting > 0) change.notify_all();
}

// Ends the wait of the loop by a record in the registrar's pipe. Any thread, signal handlers too.
void send_wake() noexcept;
void open_wake(int write_end);   // from now on send_wake() writes there
void close_wake(int write_end);  // on return nobody is writing there
void forget_wakers();            // in a forked process: they are threads of the other

// A record's slot for a watcher, and the events that the watcher is polled for.
inline size_t slot_of(bool input) {
  return input ? 0 : 1;
}
inline short mask_of(size_t slot) {
  return slot == 0 ? POLLIN | POLLPRI : POLLOUT;
}

// The type of the record that only ends the wait; no request has it.
constexpr int WakeRecord = -0x57414b45;
constexpr int RecordSize = 32;

// Signals that arrived and are not delivered yet.
extern std::atomic<int> sig_ready;

// Here, so that what is done for every event is no call.
inline VrnEvtMgrNative::Caller::Caller(Lock* registry_lock)
    : lock(registry_lock),
      thread(pthread_self()),
      marked(holds_registry()),
      outer(latest.load(std::memory_order_relaxed)) {
  latest.store(this, std::memory_order_relaxed);
}

inline VrnEvtMgrNative::Caller::~Caller() {
  if (!lock->owns_lock() && !alone()) lock->lock();  // an exception may have left it released
  // The first, but for one that another thread has begun meanwhile.
  Caller* first = latest.load(std::memory_order_relaxed);
  Caller** link = &first;
  while (*link != this) link = &(*link)->outer;
  *link = outer;
  latest.store(first, std::memory_order_release);
}

inline VrnEvtMgrNative::Callback::Callback(Caller* by, const void* object, const void* second)
    : caller(by), locked(by->lock->owns_lock()) {
  caller->objects = {object, second};
  if (locked) caller->lock->unlock();
  if (caller->marked) registry_holder.store(pthread_t{}, std::memory_order_relaxed);
}

inline VrnEvtMgrNative::Callback::~Callback() {
  if (caller->marked) registry_holder.store(caller->thread, std::memory_order_relaxed);
  if (locked || !alone()) caller->lock->lock();
  caller->objects = {};
  notify_waiting();
}

}  // namespace vornfc

#pragma GCC visibility pop
