#pragma once
/// Timers, fired by the event manager on the dispatcher thread.

#include "vornfc/export.h"

#include <sys/time.h>

#include <memory>
#include <string>

namespace vornfc {

struct ImplTimer;

/// Derive, implement the two callbacks, start. May be started, stopped and re-armed from any thread
/// and from its own callbacks. The event manager is `VrnAppShell::evtmgr`.
///
/// Lifetime: the owner stops the timer before destroying it; on the dispatcher thread that means
/// waiting for timerStopped(). A timer destroyed while active ends the process with exit(1), unless
/// no dispatcher runs, or is about to, that could have stopped it. Locks: an operation takes the
/// timer's own lock unless `locked` says that the caller holds it. Times are not normalised: a
/// microseconds part of a million or more is kept and counted. Every operation that takes a lock
/// throws VrnException 2 when it cannot be taken.
class VORNFC_EXPORT VrnTimer {
 public:
  explicit VrnTimer(const std::string& name);  ///< `name` is for log lines; empty: the address
  virtual ~VrnTimer();

  /// A timer named like `other` with "-copy" behind it, which is then assigned from it: it is
  /// started if `other` is set.
  VrnTimer(const VrnTimer& other);

  /// Starts this timer with the expiry and interval of `other` when that is set, stops it
  /// otherwise. Takes the lock of `other`, then its own; does nothing when both are the same timer.
  /// Throws what startTimer() throws.
  VrnTimer& operator=(const VrnTimer& other);

  /// Sets the expiry to the present plus `sec` seconds and `usec` microseconds; it then repeats
  /// every `isec` seconds and `iusec` microseconds, counted from the turn that fired it, or not at
  /// all when both are 0. A timer that is set already is set anew. It may fire up to a millisecond
  /// (see VORN_EM_TIMERPREC) early; with an interval of a millisecond or less it fires in every
  /// turn, and keeps a processor busy. Throws VrnException 3 when there is no event manager.
  void startTimer(int sec, int usec, int isec, int iusec, bool locked = false);

  /// As startTimer(), with the expiry as time of day.
  void startTimerAbs(int sec, int usec, int isec, int iusec, bool locked = false);

  /// Takes the timer out of the queue. True: idle on return, no callback follows. False: the stop
  /// is under way on the dispatcher thread and timerStopped() follows.
  /// Called on another thread while the timer's callback runs, it waits for the end of the
  /// callback, for 100 ms at most (the callback may be waiting for the caller), and not at all if
  /// `locked`.
  bool stopTimer(bool locked = false);

  /// Stores in `*out` (if given) the time of day of the next expiry. False, and `*out` untouched,
  /// when none is set.
  bool getExpiryAbs(timeval* out, bool locked = false) const;

  /// Stores in `*out` (if given) the seconds and microseconds from `*now` (null: the present) to
  /// the next expiry, negative when overdue. False, and `*out` untouched, when none is set. A
  /// distance beyond 2147.483647 seconds, the range of utime_diff(), counts as that.
  bool getExpiry(timeval* out, const timeval* now, bool locked = false) const;

  const char* tmrtag() const;  ///< The name in log lines; valid as long as the timer.

  /// Microseconds from the other's expiry to this one's, negative when this one is first, as
  /// utime_diff() counts them. Takes no lock; means something only while both are set.
  int compare(const VrnTimer& other) const;

  /// Microseconds from `*now` to the expiry, negative when overdue, as utime_diff() counts them.
  /// Takes no lock; means something only while the timer is set. Throws VrnException 3 when `now`
  /// is null.
  int compare(const timeval* now) const;

  int lock() const;    ///< Takes the timer's lock, which is not recursive; returns the depth, 1.
  int unlock() const;  ///< Returns the depth left, 0, or -1 when the system refused.

  /// For the event manager: the timer is due at `*now`. Sets it anew if it repeats, then calls
  /// timerExpired(), whose exceptions it lets through. Does nothing unless it is queued. Throws
  /// VrnException 3 when `now` is null.
  void triggerTimer(const timeval* now);

  /// For the event manager: a stop has gone through the dispatcher. Calls timerStopped(), or starts
  /// the timer when a restart was asked for meanwhile. Throws VrnException 3 when no stop is under
  /// way, and what these two throw.
  void timerCancelled();

  /// The timer has expired; dispatcher thread, no lock held; may stop or start it again. An
  /// exception is logged (or ends the loop, see VORN_EM_THROWTASKS).
  virtual void timerExpired() = 0;

  /// A stop is complete and the timer idle; dispatcher thread, no lock held. An exception is
  /// logged.
  virtual void timerStopped() = 0;

 private:
  friend class VrnEvtMgrNative;
  void trigger(const timeval& now, unsigned start);

  std::unique_ptr<ImplTimer> impl;
};

/// Orders pointers by what they point to.
template <class T = VrnTimer>
struct VrnPtrLess {
  /// Whether `*a` comes before `*b`; neither may be null.
  bool operator()(const T* a, const T* b) const { return a->compare(*b) < 0; }
};

}  // namespace vornfc
