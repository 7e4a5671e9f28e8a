#include "vornfc/mutex.h"

#include "vornfc/exception.h"
#include "vornfc/utils.h"

#include <cerrno>

namespace vornfc {

namespace {

void require_success(int result, const char* call) {
  if (result != 0) throw VrnException(2, "mutex: %s() failed (%d)", call, result);
}

}  // namespace

// POSIX attributes hold no resources on this system, so a throw between their calls loses none.
VrnMutex::VrnMutex(const char* label, bool isRecursive)
    : name(label ? label : ""), recursive(isRecursive) {
  if (!recursive) {
    require_success(pthread_mutex_init(&mutex, nullptr), "pthread_mutex_init");
    return;
  }
  pthread_mutexattr_t attr;
  require_success(pthread_mutexattr_init(&attr), "pthread_mutexattr_init");
  require_success(pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE),
                  "pthread_mutexattr_settype");
  require_success(pthread_mutex_init(&mutex, &attr), "pthread_mutex_init");
  require_success(pthread_mutexattr_destroy(&attr), "pthread_mutexattr_destroy");
}

VrnMutex::~VrnMutex() {
  // A depth below 0, left by an unlock too many, gets the one try that reports it.
  while (depth != 0 && unlock() >= 0) {
  }
  const int result = pthread_mutex_destroy(&mutex);
  if (result != 0) vrnlog(1, "mutex: pthread_mutex_destroy() failed (%d)", result);
}

int VrnMutex::lock() {
  const int result = pthread_mutex_lock(&mutex);
  if (result != 0)
    throw VrnException(2, "mutex.lock: lock failed on %s (%d)", name.c_str(), result);
  return ++depth;
}

int VrnMutex::trylock() {
  const int result = pthread_mutex_trylock(&mutex);
  if (result == EBUSY) return -1;
  if (result != 0) {
    throw VrnException(2, "mutex.trylock: lock failed on %s (%d)", name.c_str(), result);
  }
  return ++depth;
}

int VrnMutex::unlock() noexcept {
  // Once unlocked, the depth belongs to the next holder: the result is taken before.
  const int left = --depth;
  const int result = pthread_mutex_unlock(&mutex);
  if (result == 0) return left;
  vrnlog(1, "mutex.unlock: mutex-unlock failed on %s (%d)", name.c_str(), result);
  return -1;
}

int VrnMutex::unlockAll() {
  if (!recursive) throw VrnException(3, "mutex.unlockAll: %s is non-recursive", name.c_str());
  const int reached = lock();
  for (int left = reached; left != 0;) {
    left = unlock();
    if (left < 0) return -1;
  }
  return reached - 1;
}

VrnMutexGuard::VrnMutexGuard(VrnMutex* guarded, bool all) : mutex(guarded), releaseAll(all) {
  if (mutex) mutex->lock();
}

VrnMutexGuard::~VrnMutexGuard() {
  clear();
}

void VrnMutexGuard::clear(bool) noexcept {
  if (!mutex) return;
  int left = mutex->unlock();
  while (releaseAll && left >= 1) left = mutex->unlock();
  mutex = nullptr;
}

}  // namespace vornfc
