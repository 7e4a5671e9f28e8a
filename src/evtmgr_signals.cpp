#include "evtmgr_impl.h"
#include "vornfc/evtmgr_native.h"
#include "vornfc/exception.h"
#include "vornfc/utils.h"

#include <signal.h>

#include <array>
#include <cerrno>

// The part of the native event manager that delivers signals.
namespace vornfc {

std::atomic<int> sig_ready{0};

namespace {

constexpr int MaxSignal = 64;  // accepted, but outside the slots that are delivered
constexpr int DeliveredSignals = 64;

std::array<std::atomic<int>, MaxSignal + 1> sig_pending{};
static_assert(std::atomic<int>::is_always_lock_free, "written by a signal handler");

// Runs on any thread, at any moment. The wake covers the time between the loop's look at sig_ready
// and its poll(), and a poll() on another thread.
void sig_handler(int signo) {
  const int saved_errno = errno;
  sig_pending[static_cast<size_t>(signo)] = 1;
  sig_ready = 1;
  send_wake();
  errno = saved_errno;
}

}  // namespace

VrnSignalHandler* VrnEvtMgrNative::startSignal(VrnSignalHandler* handler, int signo) {
  VrnAssertFull(signo != -1 && handler != nullptr, "Bad startSignal() args");
  if (!on_owner_thread()) return sigRequest(true, false, handler, signo, false);
  registrar->submit(AsyncRegistrar::StartSignal, 2, handler, static_cast<long>(signo));
  return nullptr;
}

bool VrnEvtMgrNative::stopSignal(VrnSignalHandler* handler, int signo, bool ignore) {
  VrnAssertFull(handler != nullptr || signo != -1, "Bad stopSignal() args");
  if (on_owner_thread() && registrar->submit(AsyncRegistrar::StopSignal, 3, handler,
                                             static_cast<long>(signo), static_cast<long>(ignore))) {
    return false;
  }
  sigRequest(false, false, handler, signo, ignore);
  if (handler) let_callback_finish(handler);
  return true;
}

VrnSignalHandler* VrnEvtMgrNative::sigRequest(bool start, bool notify, VrnSignalHandler* handler,
                                              int signo, bool ignore) {
  Lock lock(registry);
  return change_signal(&lock, start, notify, handler, signo, ignore);
}

VrnSignalHandler* VrnEvtMgrNative::change_signal(Lock* lock, bool start, bool notify,
                                                 VrnSignalHandler* handler, int signo,
                                                 bool ignore) {
  VrnAssertFull(!start || handler, "EvtMgr: Null handler for Signal=%d", signo);
  VrnSignalHandler* previous = nullptr;
  if (signo == -1) {
    for (auto next = sighandlers.begin(); next != sighandlers.end();) {
      const auto [number, holder] = *next++;
      if (holder == handler) change_signal(lock, false, false, handler, number, ignore);
    }
  } else {
    if (const auto it = sighandlers.find(signo); it != sighandlers.end()) previous = it->second;
    struct sigaction action {};  // no SA_RESTART: a signal has to interrupt poll()
    sigemptyset(&action.sa_mask);
    if (start) {
      action.sa_handler = sig_handler;
      sighandlers.insert({signo, handler});
    } else {
      action.sa_handler = ignore ? SIG_IGN : SIG_DFL;
      sighandlers.erase(signo);
    }
    VrnAssertFull(static_cast<unsigned>(signo) <= MaxSignal, "EvtMgr: Signal=%d vs max=%d", signo,
                  MaxSignal);
    errno = 0;
    if (sigaction(signo, &action, nullptr) == -1) {
      throw VrnException(2, "EvtMgr: Failed to set signal=%d handler", signo);
    }
  }
  if (handler && notify) {
    Caller caller(lock);
    const Callback callback(&caller, handler);
    sigResponse(false, handler, signo);
  }
  return previous;
}

void VrnEvtMgrNative::sigResponse(bool received, VrnSignalHandler* handler, int signo) {
  if (!handler) throw VrnException(3, "EvtMgr: Null handler for Signal=%d", signo);
  try {
    if (received) {
      vrnlog(4, "EvtMgr: Received signal=%d - delivering to %s", signo, handler->sigtag());
      handler->signalReceived(signo);
    } else {
      handler->signalStopped(signo);
    }
  } catch (...) {
    const std::string text = VrnException::handler();
    vrnlog(1, "EvtMgr: Handler for Signal=%d threw on %s [%s]", signo,
           received ? "signal" : "cancel", text.c_str());
  }
}

// The flag is cleared before the scan, so a signal that arrives during it is seen at the next turn.
void VrnEvtMgrNative::deliver_signals(Lock* lock) {
  sig_ready = 0;
  Caller caller(lock);
  for (int signo = 0; signo < DeliveredSignals; ++signo) {
    if (!sig_pending[static_cast<size_t>(signo)].exchange(0)) continue;
    const auto it = sighandlers.find(signo);
    if (it == sighandlers.end()) continue;  // its handler was removed meanwhile
    VrnSignalHandler* const handler = it->second;
    const Callback callback(&caller, handler);
    sigResponse(true, handler, signo);
  }
}

}  // namespace vornfc
