#include "vornfc/timer.h"

#include "evtmgr_access.h"
#include "timer_impl.h"
#include "vornfc/evtmgr_native.h"
#include "vornfc/exception.h"
#include "vornfc/utils.h"
#include "vornsupport/support.h"

#include <cstdlib>

namespace vornfc {

namespace {

timeval sum(const timeval& a, const timeval& b) {
  return {a.tv_sec + b.tv_sec, a.tv_usec + b.tv_usec};
}

}  // namespace

ImplTimer::ImplTimer(VrnTimer* timer, const char* name) : owner(timer) {
  char buf[32];
  tag = objtag(name, timer, buf);
}

void ImplTimer::start(timeval when, timeval every) {
  if (state == Queued) stop();
  if (state != Idle) {
    pending_expiry = when;
    pending_interval = every;
    become(Restart);
    return;
  }
  VrnEvtMgr* const evtmgr = event_manager_for("VrnTimer", tag.c_str());
  expiry = when;
  interval = every;
  count_start();
  evtmgr->startTimer(owner);
  become(Queued);
}

bool ImplTimer::stop() {
  switch (state) {
    case Idle: return true;
    case Queued: {
      // With its event manager gone there is nothing left to stop.
      VrnEvtMgr* const evtmgr = VrnAppShell::evtmgr;
      become(!evtmgr || evtmgr->stopTimer(owner) ? Idle : Stopping);
      break;
    }
    case Stopping: break;
    case Restart: become(Stopping); break;  // forget the restart
  }
  return state == Idle;
}

VrnTimer::VrnTimer(const std::string& name) : impl(new ImplTimer(this, name.c_str())) {}

VrnTimer::VrnTimer(const VrnTimer& other)
    : impl(new ImplTimer(this, (other.impl->tag + "-copy").c_str())) {
  *this = other;
}

VrnTimer& VrnTimer::operator=(const VrnTimer& other) {
  if (this == &other) return *this;
  VrnMutexGuard others_guard(&other.impl->mutex);
  VrnMutexGuard guard(&impl->mutex);
  switch (other.impl->state) {
    case ImplTimer::Queued: impl->start(other.impl->expiry, other.impl->interval); break;
    case ImplTimer::Restart:
      impl->start(other.impl->pending_expiry, other.impl->pending_interval);
      break;
    default: impl->stop(); break;
  }
  return *this;
}

VrnTimer::~VrnTimer() {
  bool idle = false;
  try {
    idle = stopTimer(false) || VrnEvtMgrNative::withdraw(this);
  } catch (...) {
    vrnlog(1, "VrnTimer: Failed to stop %s [%s]", tmrtag(), VrnException::handler().c_str());
  }
  if (!idle) {
    vrnlog(1, "VrnTimer destroyed while active - ABORT APP !");
    exit(1);
  }
  VrnEvtMgrNative::forget(this);
}

void VrnTimer::startTimer(int sec, int usec, int isec, int iusec, bool locked) {
  timeval now;
  gettimeofday(&now, nullptr);
  VrnMutexGuard guard(locked ? nullptr : &impl->mutex);
  impl->start(sum(now, {sec, usec}), {isec, iusec});
}

void VrnTimer::startTimerAbs(int sec, int usec, int isec, int iusec, bool locked) {
  VrnMutexGuard guard(locked ? nullptr : &impl->mutex);
  impl->start({sec, usec}, {isec, iusec});
}

bool VrnTimer::stopTimer(bool locked) {
  if (locked) return impl->stop();
  bool idle;
  {
    VrnMutexGuard guard(&impl->mutex);
    idle = impl->stop();
  }
  if (idle) VrnEvtMgrNative::let_callback_finish(this);
  return idle;
}

bool VrnTimer::getExpiryAbs(timeval* out, bool locked) const {
  VrnMutexGuard guard(locked ? nullptr : &impl->mutex);
  if (impl->state != ImplTimer::Queued && impl->state != ImplTimer::Restart) return false;
  if (out) *out = impl->state == ImplTimer::Queued ? impl->expiry : impl->pending_expiry;
  return true;
}

bool VrnTimer::getExpiry(timeval* out, const timeval* now, bool locked) const {
  timeval expiry;
  if (!getExpiryAbs(&expiry, locked)) return false;
  timeval present;
  if (!now) {
    gettimeofday(&present, nullptr);
    now = &present;
  }
  const int left = utime_diff(now, &expiry);
  if (out) *out = {left / 1000000, left % 1000000};
  return true;
}

const char* VrnTimer::tmrtag() const {
  return impl->tag.c_str();
}

int VrnTimer::compare(const VrnTimer& other) const {
  return utime_diff(&other.impl->expiry, &impl->expiry);
}

int VrnTimer::compare(const timeval* now) const {
  if (!now) throw VrnException(3, "VrnTimer: Null time to compare with %s", tmrtag());
  return utime_diff(now, &impl->expiry);
}

int VrnTimer::lock() const {
  return impl->mutex.lock();
}

int VrnTimer::unlock() const {
  return impl->mutex.unlock();
}

void VrnTimer::triggerTimer(const timeval* now) {
  if (!now) throw VrnException(3, "VrnTimer: Null time to trigger %s", tmrtag());
  trigger(*now, impl->starts);
}

// `start`: the number of the start that is due. Another thread may have stopped the timer since, or
// set it anew.
void VrnTimer::trigger(const timeval& now, unsigned start) {
  {
    VrnMutexGuard guard(&impl->mutex);
    if (impl->state != ImplTimer::Queued || impl->starts != start) return;
    impl->become(ImplTimer::Idle);
    if (timerisset(&impl->interval)) impl->start(sum(now, impl->interval), impl->interval);
  }
  timerExpired();
}

void VrnTimer::timerCancelled() {
  {
    VrnMutexGuard guard(&impl->mutex);
    switch (impl->state) {
      case ImplTimer::Stopping: impl->become(ImplTimer::Idle); break;
      case ImplTimer::Restart:
        impl->become(ImplTimer::Idle);
        impl->start(impl->pending_expiry, impl->pending_interval);
        return;
      default:
        throw VrnException(3, "VrnTimer: Invalid state=%d in Unregistered callback",
                           static_cast<int>(impl->state));
    }
  }
  timerStopped();
}

}  // namespace vornfc
