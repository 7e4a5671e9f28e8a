#include "vornfc/mutex.h"

#include "support/faults.h"
#include "support/log_capture.h"
#include "vornfc/exception.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

// What the next mutexes are made of; see pthread_mutex_init() below.
int init_error = 0;           // none is made
bool error_checking = false;  // a second lock and a stranger's unlock fail
bool robust = false;          // a lock that died with its thread fails

}  // namespace

// The library makes its mutexes by this definition, and a test can have one whose operations fail.
// Lock and unlock themselves are left to the system, or the thread sanitizer would not see them.
extern "C" int pthread_mutex_init(pthread_mutex_t* mutex,
                                  const pthread_mutexattr_t* attr) noexcept {
  if (init_error != 0) return init_error;
  pthread_mutexattr_t checked;
  int type = PTHREAD_MUTEX_DEFAULT;
  if (attr) pthread_mutexattr_gettype(attr, &type);
  pthread_mutexattr_init(&checked);
  pthread_mutexattr_settype(&checked, error_checking ? PTHREAD_MUTEX_ERRORCHECK : type);
  if (robust) pthread_mutexattr_setrobust(&checked, PTHREAD_MUTEX_ROBUST);
  static const auto init = reinterpret_cast<int (*)(pthread_mutex_t*, const pthread_mutexattr_t*)>(
      dlsym(RTLD_NEXT, "pthread_mutex_init"));
  return init(mutex, &checked);
}

// The misuse of mutexes is on purpose here: the thread sanitizer must not report it.
extern "C" const char* __tsan_default_options();  // NOLINT(bugprone-reserved-identifier)
extern "C" const char* __tsan_default_options() {
  return "report_mutex_bugs=0:report_destroy_locked=0";
}

namespace vornfc {
namespace {

using Lines = std::vector<std::string>;

// Runs `call` on another thread and returns its result.
template <typename Call>
auto elsewhere(Call call) {
  decltype(call()) result{};
  std::thread([&] { result = call(); }).join();
  return result;
}

// Whether a thread that holds nothing gets the lock.
bool is_free(VrnMutex& mutex) {
  return elsewhere([&] {
    if (mutex.trylock() == -1) return false;
    mutex.unlock();
    return true;
  });
}

// The exception that `call` throws, as its code and message.
template <typename Call>
std::pair<int, std::string> failure_of(Call call) {
  try {
    call();
  } catch (const VrnException& e) {
    return {e.err(), e.what()};
  }
  return {0, "no VrnException"};
}

using Failure = std::pair<int, std::string>;

static_assert(!std::is_copy_constructible_v<VrnMutex> && !std::is_copy_assignable_v<VrnMutex>);
static_assert(!std::is_copy_constructible_v<VrnMutexGuard> &&
              !std::is_copy_assignable_v<VrnMutexGuard>);

TEST(MutexTest, MayBeAMemberOfAnAggregate) {
  struct Counter {
    VrnMutex mutex;
    int count;
  } counter{};
  EXPECT_EQ(counter.mutex.lock(), 1);
  EXPECT_EQ(counter.count, 0);
}

TEST(MutexTest, LockAndUnlockReturnTheDepth) {
  VrnMutex mutex("m");
  EXPECT_EQ(mutex.lock(), 1);
  EXPECT_FALSE(is_free(mutex));
  EXPECT_EQ(mutex.unlock(), 0);
  EXPECT_TRUE(is_free(mutex));
}

TEST(MutexTest, RecursiveMutexCountsItsLevels) {
  VrnMutex mutex("m", true);
  EXPECT_EQ(mutex.lock(), 1);
  EXPECT_EQ(mutex.lock(), 2);
  EXPECT_EQ(mutex.trylock(), 3);
  EXPECT_EQ(mutex.unlock(), 2);
  EXPECT_EQ(mutex.unlock(), 1);
  EXPECT_FALSE(is_free(mutex));
  EXPECT_EQ(mutex.unlock(), 0);
  EXPECT_TRUE(is_free(mutex));
}

TEST(MutexTest, TrylockTakesAFreeMutex) {
  VrnMutex mutex;
  EXPECT_EQ(mutex.trylock(), 1);
  EXPECT_EQ(mutex.unlock(), 0);
}

TEST(MutexTest, TrylockOfAMutexHeldElsewhereLeavesTheDepth) {
  VrnMutex mutex("m", true);
  mutex.lock();
  EXPECT_EQ(elsewhere([&] { return mutex.trylock(); }), -1);
  EXPECT_EQ(mutex.lock(), 2);
  mutex.unlockAll();
}

TEST(MutexTest, TrylockOfTheHolderFailsUnlessRecursive) {
  VrnMutex mutex("m", false);
  mutex.lock();
  EXPECT_EQ(mutex.trylock(), -1);
  EXPECT_EQ(mutex.unlock(), 0);
}

TEST(MutexTest, ExcludesOtherThreads) {
  VrnMutex mutex;
  int count = 0;
  auto add = [&] {
    for (int i = 0; i < 10000; ++i) {
      VrnMutexGuard guard(&mutex);
      ++count;
    }
  };
  std::thread other(add);
  add();
  other.join();
  EXPECT_EQ(count, 20000);
}

TEST(MutexTest, UnlockAllGivesBackEveryLevel) {
  VrnMutex mutex("m", true);
  for (int level = 1; level <= 3; ++level) mutex.lock();
  EXPECT_EQ(mutex.unlockAll(), 3);
  EXPECT_TRUE(is_free(mutex));
}

TEST(MutexTest, UnlockAllOfAFreeMutexReturnsZero) {
  VrnMutex mutex("m", true);
  EXPECT_EQ(mutex.unlockAll(), 0);
  EXPECT_TRUE(is_free(mutex));
}

TEST(MutexTest, UnlockAllOfANonRecursiveMutexThrows) {
  VrnMutex mutex("store");
  EXPECT_EQ(failure_of([&] { mutex.unlockAll(); }),
            Failure(3, "mutex.unlockAll: store is non-recursive"));
  VrnMutex unnamed(nullptr);
  EXPECT_EQ(failure_of([&] { unnamed.unlockAll(); }),
            Failure(3, "mutex.unlockAll:  is non-recursive"));
}

TEST(MutexTest, FailedInitThrows) {
  init_error = EAGAIN;
  const Failure expected(2, "mutex: pthread_mutex_init() failed (11)");
  EXPECT_EQ(failure_of([] { VrnMutex mutex; }), expected);
  EXPECT_EQ(failure_of([] { VrnMutex mutex("m", true); }), expected);
}

TEST(MutexTest, FailedAttributesThrow) {
  auto make = [] { VrnMutex mutex("m", true); };
  sys::fail_next("pthread_mutexattr_init", ENOMEM);
  EXPECT_EQ(failure_of(make), Failure(2, "mutex: pthread_mutexattr_init() failed (12)"));
  sys::fail_next("pthread_mutexattr_settype", EINVAL);
  EXPECT_EQ(failure_of(make), Failure(2, "mutex: pthread_mutexattr_settype() failed (22)"));
  sys::fail_next("pthread_mutexattr_destroy", EPERM);
  EXPECT_EQ(failure_of(make), Failure(2, "mutex: pthread_mutexattr_destroy() failed (1)"));
}

TEST(MutexTest, FailedLockThrowsAndLeavesTheDepth) {
  error_checking = true;
  VrnMutex mutex("store");
  mutex.lock();
  EXPECT_EQ(failure_of([&] { mutex.lock(); }), Failure(2, "mutex.lock: lock failed on store (35)"));
  EXPECT_EQ(mutex.unlock(), 0);
}

TEST(MutexTest, FailedTrylockThrowsAndLeavesTheDepth) {
  robust = true;
  VrnMutex mutex("store");
  EXPECT_EQ(elsewhere([&] { return mutex.lock(); }), 1);
  EXPECT_EQ(failure_of([&] { mutex.trylock(); }),
            Failure(2, "mutex.trylock: lock failed on store (130)"));
  EXPECT_EQ(mutex.unlock(), 0);
}

TEST(MutexTest, FailedUnlockIsLoggedAndStaysCounted) {
  LogCapture log;
  VrnMutex mutex("store", true);
  EXPECT_EQ(mutex.unlock(), -1);  // not the holder
  EXPECT_EQ(log.lines(), Lines{"mutex.unlock: mutex-unlock failed on store (1)"});
  EXPECT_EQ(mutex.lock(), 0);  // from -1
  EXPECT_EQ(mutex.lock(), 1);
  EXPECT_EQ(mutex.unlock(), 0);
  EXPECT_EQ(mutex.unlock(), -1);  // the depth: this unlock succeeds
  EXPECT_EQ(log.lines().size(), 1u);
}

// The depth still counts the two levels of a holder that died; the lock itself has only those of
// the thread that inherits it.
TEST(MutexTest, UnlockAllReportsAFailedUnlock) {
  robust = true;
  LogCapture log;
  VrnMutex mutex("store", true);
  EXPECT_EQ(elsewhere([&] { return mutex.lock() + mutex.lock(); }), 1 + 2);
  EXPECT_EQ(failure_of([&] { mutex.lock(); }),
            Failure(2, "mutex.lock: lock failed on store (130)"));
  EXPECT_EQ(mutex.unlockAll(), -1);
  EXPECT_EQ(log.lines(), Lines{"mutex.unlock: mutex-unlock failed on store (131)"});
}

TEST(MutexTest, DestructorGivesBackEveryLevel) {
  LogCapture log;
  {
    VrnMutex mutex("store", true);
    mutex.lock();
    mutex.lock();
  }
  EXPECT_EQ(log.raw(), "");
}

TEST(MutexTest, DestructorStopsAtAFailedUnlock) {
  LogCapture log;
  {
    VrnMutex mutex("store", true);
    elsewhere([&] { return mutex.lock() + mutex.lock(); });
  }
  EXPECT_EQ(log.lines(), (Lines{"mutex.unlock: mutex-unlock failed on store (1)",
                                "mutex: pthread_mutex_destroy() failed (16)"}));
}

TEST(MutexTest, DestructorReportsAnUnlockTooManyOnce) {
  LogCapture log;
  { VrnMutex("store", true).unlock(); }
  const std::string failure = "mutex.unlock: mutex-unlock failed on store (1)";
  EXPECT_EQ(log.lines(), (Lines{failure, failure}));  // the unlock's own, and the destructor's
}

TEST(MutexTest, FailedDestroyIsLogged) {
  LogCapture log;
  sys::fail_next("pthread_mutex_destroy", EBUSY);
  { VrnMutex mutex("store"); }
  EXPECT_EQ(log.lines(), Lines{"mutex: pthread_mutex_destroy() failed (16)"});
}

TEST(MutexGuardTest, HoldsTheMutexForItsScope) {
  VrnMutex mutex;
  {
    VrnMutexGuard guard(&mutex);
    EXPECT_FALSE(is_free(mutex));
  }
  EXPECT_TRUE(is_free(mutex));
}

TEST(MutexGuardTest, NullIsNotLocked) {
  VrnMutexGuard guard(nullptr);
  EXPECT_NO_THROW(guard.clear());
}

TEST(MutexGuardTest, ClearUnlocksOnce) {
  VrnMutex mutex;
  VrnMutexGuard guard(&mutex);
  guard.clear();
  EXPECT_TRUE(is_free(mutex));
  EXPECT_EQ(mutex.lock(), 1);
  guard.clear();
  EXPECT_FALSE(is_free(mutex));
  mutex.unlock();
}

TEST(MutexGuardTest, ArgumentOfClearHasNoEffect) {
  VrnMutex mutex("m", true);
  mutex.lock();
  VrnMutexGuard guard(&mutex);
  guard.clear(true);
  EXPECT_EQ(mutex.unlock(), 0);

  mutex.lock();
  VrnMutexGuard all(&mutex, true);
  all.clear(false);
  EXPECT_TRUE(is_free(mutex));
}

TEST(MutexGuardTest, GivesBackItsOwnLevelOnly) {
  VrnMutex mutex("m", true);
  mutex.lock();
  { VrnMutexGuard guard(&mutex); }
  EXPECT_FALSE(is_free(mutex));
  EXPECT_EQ(mutex.unlock(), 0);
}

TEST(MutexGuardTest, GivesBackEveryLevelWhenAsked) {
  VrnMutex mutex("m", true);
  mutex.lock();
  mutex.lock();
  { VrnMutexGuard guard(&mutex, true); }
  EXPECT_TRUE(is_free(mutex));
}

TEST(MutexGuardTest, FailedUnlockIsLoggedNotThrown) {
  error_checking = true;
  LogCapture log;
  VrnMutex mutex("store");
  {
    VrnMutexGuard guard(&mutex);
    mutex.unlock();
  }
  EXPECT_EQ(log.lines(), Lines{"mutex.unlock: mutex-unlock failed on store (1)"});
}

TEST(MutexGuardTest, FailedLockThrows) {
  error_checking = true;
  VrnMutex mutex("store");
  VrnMutexGuard guard(&mutex);
  EXPECT_EQ(failure_of([&] { VrnMutexGuard second(&mutex); }).first, 2);
}

}  // namespace
}  // namespace vornfc
