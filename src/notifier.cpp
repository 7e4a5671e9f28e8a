#include "vornfc/notifier.h"

#include "vornfc/exception.h"
#include "vornfc/mutex.h"
#include "vornfc/utils.h"

#include <optional>
#include <set>

namespace vornfc {

// The state behind a notifier.
struct ImplNotifier {
  ImplNotifier(VrnNotifier* subject, const std::string& label) : owner(subject), name(label) {}

  void detachAll();

  VrnNotifier* owner;
  const std::string name;
  std::set<VrnObserver*> observers;  // guarded by lock
  VrnMutex lock;
};

namespace {

std::string name_of(const VrnObserver* obs) {
  try {
    return obs->observerName();
  } catch (...) {
    char buf[31];
    return objtag(nullptr, obs, buf);
  }
}

// To be called in a catch block: `problem` is what went wrong there with `obs`.
void log_exception(const char* problem, const VrnObserver* obs) {
  const std::string text = VrnException::handler();
  vrnlog(1, "VrnNotifier: %s %s [%s]", problem, name_of(obs).c_str(), text.c_str());
}

}  // namespace

void ImplNotifier::detachAll() {
  VrnMutexGuard guard(&lock);
  for (VrnObserver* obs : observers) {
    try {
      obs->observerDetached(owner);
    } catch (...) {
      log_exception("Problem detaching", obs);
    }
  }
  observers.clear();
}

VrnObserver::~VrnObserver() = default;

VrnNotifier::VrnNotifier(const std::string& name)
    : impl(std::make_unique<ImplNotifier>(this, name)) {}

VrnNotifier::VrnNotifier(const VrnNotifier& other) : VrnNotifier(other.impl->name + "-Copy") {}

VrnNotifier& VrnNotifier::operator=(const VrnNotifier&) {
  impl->detachAll();
  return *this;
}

VrnNotifier::~VrnNotifier() {
  try {
    impl->detachAll();
  } catch (...) {
    vrnlog(1, "VrnNotifier: Problem destroying %s [%s]", impl->name.c_str(),
           VrnException::handler().c_str());
  }
}

std::string VrnNotifier::notifierName() const {
  return impl->name;
}

VrnNotifier& VrnNotifier::attach(VrnObserver* obs) {
  VrnAssertFull(obs != nullptr, "VrnNotifier: Null observer for %s", impl->name.c_str());
  notifierAttached(obs);
  VrnMutexGuard guard(&impl->lock);
  impl->observers.insert(obs);
  return *this;
}

void VrnNotifier::detach(VrnObserver* obs) {
  VrnMutexGuard guard(&impl->lock);
  if (impl->observers.erase(obs) == 0) return;
  try {
    notifierDetached(obs);
  } catch (...) {
    log_exception("Problem handling detach by", obs);
  }
}

void VrnNotifier::notifyObservers() {
  std::set<VrnObserver*> called;
  {
    VrnMutexGuard guard(&impl->lock);
    called = impl->observers;
  }
  std::optional<VrnMutexGuard> since_failure;  // keeps the lock from the first failure to the end
  for (VrnObserver* obs : called) {
    try {
      obs->observerNotified(this);
    } catch (...) {
      log_exception("Failed to notify", obs);
      if (!since_failure) since_failure.emplace(&impl->lock);
      impl->observers.erase(obs);
    }
  }
}

void VrnNotifier::notifierAttached(VrnObserver*) {}

void VrnNotifier::notifierDetached(VrnObserver*) {}

}  // namespace vornfc
