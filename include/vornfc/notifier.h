#pragma once
/// A named subject that calls back the observers attached to it.

#include "vornfc/export.h"

#include <memory>
#include <string>

namespace vornfc {

class VrnNotifier;
struct ImplNotifier;

/// Derive and attach to a notifier.
///
/// Lifetime: a notifier keeps a plain pointer and owns no observer; an observer detaches itself, or
/// outlives the notifier.
class VORNFC_EXPORT VrnObserver {
 public:
  VrnObserver() = default;
  VrnObserver(const VrnObserver&) = delete;
  VrnObserver& operator=(const VrnObserver&) = delete;
  virtual ~VrnObserver();

  /// Called by notifyObservers() on its thread, without the notifier's lock unless an earlier
  /// observer of the same pass has failed. An exception is logged and ends the attachment.
  virtual void observerNotified(VrnNotifier* subject) = 0;

  /// The notifier is being destroyed or assigned to, and forgets this observer. Called with its
  /// lock held: must not call attach() or detach() on it. An exception is logged.
  virtual void observerDetached(VrnNotifier* subject) = 0;

  /// The name in messages about an exception of this observer; may be called with the notifier's
  /// lock held. If it throws, the message has the observer's address instead.
  virtual std::string observerName() const = 0;
};

/// The subject. Attach, detach, notify and assign from any thread.
///
/// Locks: one of its own, which is not recursive. Every operation that takes it throws VrnException
/// 2 when it cannot be taken; the destructor logs that at level 1.
class VORNFC_EXPORT VrnNotifier {
 public:
  explicit VrnNotifier(const std::string& name);  ///< No observers. `name` may be empty.

  /// An independent notifier named `other`'s name and "-Copy", without observers.
  VrnNotifier(const VrnNotifier& other);

  /// Detaches all observers of this notifier, also when assigned to itself; they hear
  /// observerDetached(). Name and observers of `other` are not taken over.
  VrnNotifier& operator=(const VrnNotifier& other);

  virtual ~VrnNotifier();  ///< The observers still attached hear observerDetached().

  std::string notifierName() const;  ///< As given to the constructor; a copy.

  /// Adds `obs`, once however often it is attached. Throws VrnException 3 when `obs` is null, and
  /// whatever notifierAttached() throws; `obs` is then not added.
  VrnNotifier& attach(VrnObserver* obs);

  /// Removes `obs`; one that is not attached is ignored.
  void detach(VrnObserver* obs);

  /// Calls the observers attached at this moment, in ascending order of their addresses. Attaching
  /// and detaching during the pass do not change who is called in it.
  ///
  /// An observer that throws is logged at level 1 and removed without further calls, and the pass
  /// goes on. From that moment to its end the pass holds the notifier's lock: a later observer that
  /// calls attach(), detach() or notifyObservers() on this notifier would wait for ever.
  void notifyObservers();

  /// Called by attach() before `obs` is added, also if it is attached already; without the lock.
  virtual void notifierAttached(VrnObserver* obs);

  /// Called by detach() after `obs` was removed, with the lock held: must not call attach() or
  /// detach(). An exception is logged at level 1.
  virtual void notifierDetached(VrnObserver* obs);

 private:
  std::unique_ptr<ImplNotifier> impl;
};

}  // namespace vornfc
