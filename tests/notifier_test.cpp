#include "vornfc/notifier.h"

#include "support/log_capture.h"
#include "vornfc/exception.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

bool error_checking = false;  // a second lock of a mutex made meanwhile fails

}  // namespace

// The library makes its mutexes by this definition.
extern "C" int pthread_mutex_init(pthread_mutex_t* mutex,
                                  const pthread_mutexattr_t* attr) noexcept {
  static const auto init = reinterpret_cast<int (*)(pthread_mutex_t*, const pthread_mutexattr_t*)>(
      dlsym(RTLD_NEXT, "pthread_mutex_init"));
  if (!error_checking) return init(mutex, attr);
  pthread_mutexattr_t checked;
  pthread_mutexattr_init(&checked);
  pthread_mutexattr_settype(&checked, PTHREAD_MUTEX_ERRORCHECK);
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

// Writes every call into `calls`, as "notified a"; a hook may add to that or throw.
struct Observer : VrnObserver {
  Observer(const char* label, Lines* log) : name(label), calls(log) {}

  void observerNotified(VrnNotifier* from) override {
    record("notified ", from);
    if (on_notified) on_notified();
  }
  void observerDetached(VrnNotifier* from) override {
    record("detached ", from);
    if (on_detached) on_detached();
  }
  std::string observerName() const override {
    if (nameless) throw std::runtime_error("no name");
    return name;
  }
  void record(const char* what, VrnNotifier* from) {
    calls->push_back(what + name);
    subject = from;
  }

  std::string name;
  Lines* calls;
  VrnNotifier* subject = nullptr;
  bool nameless = false;
  std::function<void()> on_notified, on_detached;
};

// Writes the calls of its own hooks, as "adding a".
struct Notifier : VrnNotifier {
  Notifier(const char* label, Lines* log) : VrnNotifier(label), calls(log) {}

  void notifierAttached(VrnObserver* obs) override {
    calls->push_back("adding " + obs->observerName());
    if (on_attached) on_attached();
  }
  void notifierDetached(VrnObserver* obs) override {
    calls->push_back("removed " + obs->observerName());
    if (on_detached) on_detached();
  }

  Lines* calls;
  std::function<void()> on_attached, on_detached;
};

// A thread that takes the notifier's lock, to find out whether somebody holds it.
class Prober {
 public:
  explicit Prober(VrnNotifier* which) : notifier(which) {}
  ~Prober() { thread.join(); }

  // Starts the thread. That it is kept waiting has no event to wait for: a while must do.
  bool is_kept_waiting() { return !gets_the_lock_within(std::chrono::milliseconds(100)); }
  bool gets_the_lock() { return gets_the_lock_within(std::chrono::seconds(20)); }

 private:
  bool gets_the_lock_within(std::chrono::milliseconds patience) {
    thread = std::thread([this] {
      notifier->detach(nullptr);  // does nothing else
      done = true;
    });
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!done && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    return done;
  }

  VrnNotifier* notifier;
  std::thread thread;
  std::atomic<bool> done{false};
};

void fail() {
  throw VrnException(7, "%s", "failure");
}

const char failure_text[] = "VrnException: Error=7 (errno=0) - failure";

// An array gives the observers ascending addresses.
class NotifierTest : public testing::Test {
 protected:
  void attach_all() {
    for (int i = 2; i >= 0; --i) notifier->attach(&observers[i]);
  }
  // The calls made by `action`.
  Lines calls_of(const std::function<void()>& action) {
    calls.clear();
    errno = 0;
    action();
    return calls;
  }
  Lines calls_of_notify() {
    return calls_of([&] { notifier->notifyObservers(); });
  }

  Lines calls;
  Observer observers[3] = {{"a", &calls}, {"b", &calls}, {"c", &calls}};
  Observer& a = observers[0];
  Observer& b = observers[1];
  Observer& c = observers[2];
  std::unique_ptr<VrnNotifier> notifier = std::make_unique<VrnNotifier>("cfg");
  LogCapture log;
};

TEST_F(NotifierTest, HasItsName) {
  EXPECT_EQ(notifier->notifierName(), "cfg");
}

TEST_F(NotifierTest, NotifiesInOrderOfAddresses) {
  attach_all();
  EXPECT_EQ(calls_of_notify(), (Lines{"notified a", "notified b", "notified c"}));
  EXPECT_EQ(a.subject, notifier.get());
}

TEST_F(NotifierTest, WithoutObserversNotifiesNobody) {
  EXPECT_EQ(calls_of_notify(), Lines{});
}

TEST_F(NotifierTest, AttachesAnObserverOnce) {
  notifier->attach(&a).attach(&a);
  EXPECT_EQ(calls_of_notify(), Lines{"notified a"});
  notifier->detach(&a);
  EXPECT_EQ(calls_of_notify(), Lines{});
}

TEST_F(NotifierTest, NullObserverIsRefused) {
  try {
    notifier->attach(nullptr);
    FAIL();
  } catch (const VrnException& e) {
    EXPECT_EQ(e.err(), 3);
    EXPECT_STREQ(e.what(), "VrnNotifier: Null observer for cfg");
  }
  notifier->detach(nullptr);
  EXPECT_EQ(calls_of_notify(), Lines{});
}

TEST_F(NotifierTest, DetachedObserverIsNotCalled) {
  attach_all();
  EXPECT_EQ(calls_of([&] { notifier->detach(&b); }), Lines{});
  EXPECT_EQ(calls_of_notify(), (Lines{"notified a", "notified c"}));
}

TEST_F(NotifierTest, ChangesDuringAPassCountForTheNext) {
  notifier->attach(&a).attach(&b);
  a.on_notified = [&] {
    notifier->detach(&b);
    notifier->attach(&c);
  };
  EXPECT_EQ(calls_of_notify(), (Lines{"notified a", "notified b"}));
  EXPECT_EQ(calls_of_notify(), (Lines{"notified a", "notified c"}));
}

// --- hooks ---------------------------------------------------------------------------------------

TEST_F(NotifierTest, AttachHookIsCalledForEveryAttach) {
  Notifier hooked("cfg", &calls);
  EXPECT_EQ(calls_of([&] { hooked.attach(&a).attach(&a); }), (Lines{"adding a", "adding a"}));
}

TEST_F(NotifierTest, AttachHookIsCalledBeforeAddingWithoutTheLock) {
  Notifier hooked("cfg", &calls);
  hooked.on_attached = [&] { hooked.notifyObservers(); };
  EXPECT_EQ(calls_of([&] { hooked.attach(&a); }), Lines{"adding a"});
  EXPECT_EQ(calls_of([&] { hooked.notifyObservers(); }), Lines{"notified a"});
}

TEST_F(NotifierTest, FailedAttachHookKeepsTheObserverOut) {
  Notifier hooked("cfg", &calls);
  hooked.on_attached = fail;
  EXPECT_THROW(hooked.attach(&a), VrnException);
  EXPECT_EQ(calls_of([&] { hooked.notifyObservers(); }), Lines{});
  EXPECT_EQ(log.raw(), "");
}

TEST_F(NotifierTest, DetachHookIsCalledForAnAttachedObserverOnly) {
  Notifier hooked("cfg", &calls);
  hooked.attach(&a);
  EXPECT_EQ(calls_of([&] { hooked.detach(&b); }), Lines{});
  EXPECT_EQ(calls_of([&] { hooked.detach(&a); }), Lines{"removed a"});
  EXPECT_EQ(calls_of([&] { hooked.detach(&a); }), Lines{});
}

TEST_F(NotifierTest, FailedDetachHookIsLogged) {
  Notifier hooked("cfg", &calls);
  hooked.attach(&a);
  hooked.on_detached = fail;
  calls_of([&] { hooked.detach(&a); });
  EXPECT_EQ(log.lines(),
            Lines{std::string("VrnNotifier: Problem handling detach by a [") + failure_text + "]"});
  EXPECT_EQ(calls_of([&] { hooked.notifyObservers(); }), Lines{});
}

TEST_F(NotifierTest, DetachHookIsCalledWithTheLockHeld) {
  Notifier hooked("cfg", &calls);
  Prober during(&hooked), after(&hooked);
  hooked.attach(&a);
  hooked.on_detached = [&] { EXPECT_TRUE(during.is_kept_waiting()); };
  hooked.detach(&a);
  EXPECT_TRUE(after.gets_the_lock());
}

// --- failing observers ---------------------------------------------------------------------------

TEST_F(NotifierTest, FailingObserverIsLoggedAndRemoved) {
  attach_all();
  b.on_notified = fail;
  EXPECT_EQ(calls_of_notify(), (Lines{"notified a", "notified b", "notified c"}));
  EXPECT_EQ(log.lines(),
            Lines{std::string("VrnNotifier: Failed to notify b [") + failure_text + "]"});
  EXPECT_EQ(calls_of_notify(), (Lines{"notified a", "notified c"}));
}

TEST_F(NotifierTest, EveryFailingObserverOfAPassIsRemoved) {
  attach_all();
  a.on_notified = c.on_notified = fail;
  calls_of_notify();
  EXPECT_EQ(log.lines().size(), 2u);
  EXPECT_EQ(calls_of_notify(), Lines{"notified b"});
}

TEST_F(NotifierTest, FailingObserverIsRemovedWithoutAHook) {
  Notifier hooked("cfg", &calls);
  hooked.attach(&a);
  a.on_notified = fail;
  EXPECT_EQ(calls_of([&] { hooked.notifyObservers(); }), Lines{"notified a"});
}

TEST_F(NotifierTest, FailingObserverWithoutANameIsNamedByItsAddress) {
  notifier->attach(&a);
  a.on_notified = fail;
  a.nameless = true;
  calls_of_notify();
  char expected[80];
  std::snprintf(expected, sizeof expected, "VrnNotifier: Failed to notify 0x%x [",
                static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(&a)));
  EXPECT_TRUE(log.contains(expected));
}

TEST_F(NotifierTest, PassHoldsTheLockFromTheFirstFailureToItsEnd) {
  attach_all();
  Prober before(notifier.get()), during(notifier.get()), after(notifier.get());
  a.on_notified = [&] {
    EXPECT_TRUE(before.gets_the_lock());
    fail();
  };
  c.on_notified = [&] { EXPECT_TRUE(during.is_kept_waiting()); };
  calls_of_notify();
  EXPECT_TRUE(after.gets_the_lock());
}

// --- detaching all -------------------------------------------------------------------------------

TEST_F(NotifierTest, DestructionDetachesEveryObserver) {
  attach_all();
  VrnNotifier* destroyed = notifier.get();
  EXPECT_EQ(calls_of([&] { notifier.reset(); }), (Lines{"detached a", "detached b", "detached c"}));
  EXPECT_EQ(c.subject, destroyed);
}

TEST_F(NotifierTest, DestructionCallsNoDetachHook) {
  auto hooked = std::make_unique<Notifier>("cfg", &calls);
  hooked->attach(&a);
  EXPECT_EQ(calls_of([&] { hooked.reset(); }), Lines{"detached a"});
}

TEST_F(NotifierTest, FailureToDetachIsLoggedAndTheOthersHearOfIt) {
  attach_all();
  a.on_detached = fail;
  EXPECT_EQ(calls_of([&] { notifier.reset(); }), (Lines{"detached a", "detached b", "detached c"}));
  EXPECT_EQ(log.lines(),
            Lines{std::string("VrnNotifier: Problem detaching a [") + failure_text + "]"});
}

// An observer that destroys the notifier while its lock is held.
TEST_F(NotifierTest, DestructorThatCannotTakeTheLockSaysSo) {
  error_checking = true;
  notifier = std::make_unique<VrnNotifier>("cfg");
  notifier->attach(&a);
  a.on_detached = [&] {
    notifier.reset();
    std::exit(0);
  };
  EXPECT_EXIT(*notifier = VrnNotifier("other"), testing::ExitedWithCode(0),
              "VrnNotifier: Problem destroying cfg \\[VrnException: Error=2 "
              "\\(errno=[0-9]+\\) - mutex.lock: lock failed on  \\(35\\)\\]");
  a.on_detached = nullptr;
}

TEST_F(NotifierTest, ObserverIsDetachedWithTheLockHeld) {
  const VrnNotifier other("other");
  Prober during(notifier.get()), after(notifier.get());
  notifier->attach(&a);
  a.on_detached = [&] { EXPECT_TRUE(during.is_kept_waiting()); };
  *notifier = other;
  EXPECT_TRUE(after.gets_the_lock());
}

TEST_F(NotifierTest, AssignmentDetachesTheTargetsObserversOnly) {
  VrnNotifier other("other");
  notifier->attach(&a).attach(&b);
  other.attach(&c);
  VrnNotifier* result = nullptr;
  EXPECT_EQ(calls_of([&] { result = &(*notifier = other); }), (Lines{"detached a", "detached b"}));
  EXPECT_EQ(result, notifier.get());
  EXPECT_EQ(notifier->notifierName(), "cfg");
  EXPECT_EQ(calls_of_notify(), Lines{});
  EXPECT_EQ(calls_of([&] { other.notifyObservers(); }), Lines{"notified c"});
}

TEST_F(NotifierTest, AssignmentToItselfDetachesToo) {
  notifier->attach(&a);
  const VrnNotifier& same = *notifier;
  EXPECT_EQ(calls_of([&] { *notifier = same; }), Lines{"detached a"});
  EXPECT_EQ(calls_of_notify(), Lines{});
}

TEST_F(NotifierTest, CopyIsIndependent) {
  notifier->attach(&a);
  VrnNotifier copy(*notifier);
  EXPECT_EQ(copy.notifierName(), "cfg-Copy");
  EXPECT_EQ(calls_of([&] { copy.notifyObservers(); }), Lines{});
  copy.attach(&b);
  EXPECT_EQ(calls_of([&] { copy.notifyObservers(); }), Lines{"notified b"});
  EXPECT_EQ(b.subject, &copy);
  EXPECT_EQ(calls_of_notify(), Lines{"notified a"});
}

TEST_F(NotifierTest, ThreadsMayAttachNotifyAndDetach) {
  std::atomic<int> notified{0};
  struct Counter : VrnObserver {
    explicit Counter(std::atomic<int>* total) : count(total) {}
    void observerNotified(VrnNotifier*) override { ++*count; }
    void observerDetached(VrnNotifier*) override {}
    std::string observerName() const override { return "counter"; }
    std::atomic<int>* count;
  };
  Counter steady(&notified), passing(&notified);
  notifier->attach(&steady);
  std::thread other([&] {
    for (int i = 0; i < 1000; ++i) {
      notifier->attach(&passing);
      notifier->detach(&passing);
    }
  });
  for (int i = 0; i < 1000; ++i) notifier->notifyObservers();
  other.join();
  notifier->detach(&steady);
  EXPECT_GE(notified, 1000);
}

}  // namespace
}  // namespace vornfc
