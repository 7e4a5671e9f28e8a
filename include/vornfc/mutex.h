#pragma once
/// The library's lock and its scoped guard.

#include "vornfc/export.h"

#include <pthread.h>

#include <string>

namespace vornfc {

/// A pthread mutex with a name for messages and a count of the levels held. The count is changed
/// only by a thread that holds the lock, and means something only to that thread.
class VORNFC_EXPORT VrnMutex {
 public:
  /// `label` is the name in messages; null: empty. Only a recursive mutex may be locked again by
  /// its holder. Throws VrnException 2 when the system refuses.
  explicit VrnMutex(const char* label, bool isRecursive = false);
  VrnMutex() : VrnMutex(nullptr) {}  ///< Not explicit: a member may be left to `{}`.
  VrnMutex(const VrnMutex&) = delete;
  VrnMutex& operator=(const VrnMutex&) = delete;

  /// Unlocks every level still held. A failure is logged at level 1.
  ~VrnMutex();

  /// Waits for the lock and returns the new depth, 1 for the first level. Throws VrnException 2.
  int lock();

  /// Returns the new depth, or -1, with the depth unchanged, when the lock is taken: elsewhere, or,
  /// unless it is recursive, by the caller. Throws VrnException 2 on any other failure.
  int trylock();

  /// Gives one level back and returns the new depth. On a failure logs at level 1 and returns -1;
  /// the depth stays decremented.
  int unlock() noexcept;

  /// Gives back every level of a recursive mutex; the caller need not know whether it holds any.
  /// Returns the number of levels that it held, or -1 when an unlock failed. Throws VrnException 3
  /// when the mutex is not recursive, and what lock() throws.
  int unlockAll();

 private:
  std::string name;
  bool recursive;
  int depth = 0;  // levels held; touched only with the mutex held
  pthread_mutex_t mutex;
};

/// Holds a mutex to the end of a scope. The mutex outlives the guard.
class VORNFC_EXPORT VrnMutexGuard {
 public:
  /// Locks `guarded`; a guard on null does nothing. With `all`, every level that the thread holds
  /// is given back at the end, not only the guard's own. Throws what VrnMutex::lock() throws.
  explicit VrnMutexGuard(VrnMutex* guarded, bool all = false);
  VrnMutexGuard(const VrnMutexGuard&) = delete;
  VrnMutexGuard& operator=(const VrnMutexGuard&) = delete;
  ~VrnMutexGuard();  ///< As clear().

  /// Unlocks now and forgets the mutex; a second call does nothing. The argument has no effect. A
  /// failed unlock is logged by the mutex.
  void clear(bool = false) noexcept;

 private:
  VrnMutex* mutex;
  bool releaseAll;
};

}  // namespace vornfc
