#pragma once
// The state behind a VrnTimer, shared with the event manager that queues it.

#include "vornfc/mutex.h"
#include "vornfc/timer.h"

#include <sys/time.h>

#include <atomic>
#include <cstddef>
#include <string>

namespace vornfc {

// Guarded by `mutex`, but for what is the event manager's; the helpers expect it held.
struct ImplTimer {
  //              start                stop                        fires     timerCancelled
  //  Idle        Queued               (idle)                      -         throws
  //  Queued      stop, then start     Idle, or Stopping when the  Idle, or  throws
  //                                   dispatcher has to do it     Queued
  //  Stopping    Restart              -                           -         Idle, timerStopped()
  //  Restart     newer pending times  Stopping                    -         Queued
  enum State { Idle = 1, Queued, Stopping, Restart };  // the numbers appear in messages

  ImplTimer(VrnTimer* timer, const char* name);

  void start(timeval when, timeval every);  // by value: in registers, where they were made
  bool stop();                              // true: idle now

  // The locks order what depends on these; a plain store is all that the others need.
  void become(State s) { state.store(s, std::memory_order_relaxed); }
  void count_start() {
    starts.store(starts.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }

  VrnTimer* const owner;
  std::atomic<State> state{Idle};  // changed under `mutex`; the end of the loop looks without it
  timeval expiry{};                // unchanged while the event manager has the timer queued
  timeval interval{};              // all zero: does not repeat
  timeval pending_expiry{};
  timeval pending_interval{};
  std::string tag;
  std::atomic<unsigned> starts{0};  // tells a timer that is due from the same timer set anew
  mutable VrnMutex mutex;

  // The event manager's, guarded by its registry lock.
  bool queued = false;
  size_t place = 0;  // in its queue, while queued

  std::atomic<bool> requested{false};  // a queued request has named the timer
};

}  // namespace vornfc
