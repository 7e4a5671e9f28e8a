#pragma once
/// The process's one event manager, and what it calls back: watchers of descriptors, signal
/// handlers.

#include "vornfc/export.h"
#include "vornfc/mutex.h"

#include <atomic>
#include <memory>
#include <string>

namespace vornfc {

class VrnAIO;
class VrnFile;
class VrnSignalHandler;
class VrnTimer;
class WatchList;

/// The reactor that runs timers, delivers signals and watches descriptors, as an interface. There
/// is one per process. The thread that constructs it is its owner; that thread runs the dispatcher,
/// and every callback runs on it.
///
/// Threads: starts and stops may be called from any thread. On the owner thread they are queued and
/// carried out at the dispatcher's next turn, in the order of the calls; a stop is then confirmed
/// by a callback. On any other thread they are carried out at once, without a confirming callback,
/// and the dispatcher takes notice even while it waits. Locks: no lock of the manager is held in
/// any callback.
class VORNFC_EXPORT VrnEvtMgr {
 public:
  /// The event manager; created, as a VrnEvtMgrNative, when there is none. `flags` is a sum of
  ///   1  do not create one: null when there is none
  ///   2  there must be none yet
  ///   4  null instead of one that exists
  ///   8  there must be one
  /// Any thread; takes the class's own lock. Throws VrnException 6 "EvtMgr.instance: already
  /// exists" (2) or "EvtMgr.instance: doesn't exist" (8), and what the manager's constructor
  /// throws.
  static VrnEvtMgr* instance(int flags = 0);

  /// Deletes the event manager when there is one; not while its loop runs. What is registered is
  /// forgotten without a callback. Takes the class's own lock. VrnAppShell does this in its
  /// destructor.
  static void destroy();

  /// Runs the loop on the calling thread, which has to be the owner, until it ends: after
  /// stopDispatcher(), when poll() fails, when a callback throws while VORN_EM_THROWTASKS is "y",
  /// or when there is nothing left to wait for. A manager has one run: started again, it returns at
  /// once. Throws VrnException 3 when the loop is running already; whatever ends the loop is
  /// logged, not thrown.
  virtual void startDispatcher() = 0;

  /// Asks the loop to end; any thread, any number of times, also before the loop was started.
  virtual void stopDispatcher() = 0;

  /// Watches `file` for `aio`, in its direction, and puts it in non-blocking mode. Neither is
  /// owned; both should be stopped before they are destroyed. True: done, or queued. False: the
  /// loop has ended.
  ///
  /// Throws VrnException 3 when a pointer is null or `file` is unassigned. On another thread than
  /// the owner also 3 when the descriptor has a watcher of that direction, belongs to another
  /// VrnFile or was closed because its watcher threw, and what VrnFile::setBlockingMode() throws;
  /// on the owner thread, where the request is queued, these are log lines at level 1.
  virtual bool startAIO(VrnFile* file, VrnAIO* aio) = 0;

  /// Ends a watch. True: ended, no callback follows. False: the stop is under way and
  /// `aio->aioCancelled(file, false, false)` follows on the dispatcher thread, if it was watching.
  /// Throws VrnException 3 when a pointer is null or (another thread than the owner) another
  /// watcher holds the place.
  virtual bool stopAIO(VrnFile* file, VrnAIO* aio) = 0;

  /// For VrnTimer: enters `timer`, which is not owned, in the queue. True: done, or queued. False:
  /// the loop has ended. Throws VrnException 3 when `timer` is null.
  virtual bool startTimer(VrnTimer* timer) = 0;

  /// For VrnTimer: takes `timer` out of the queue. True: done. False: the stop is under way and
  /// VrnTimer::timerCancelled() follows on the dispatcher thread. Throws VrnException 3 when
  /// `timer` is null.
  virtual bool stopTimer(VrnTimer* timer) = 0;

  /// Delivers signal `signo` to `handler`, which is not owned. A signal has at most one handler:
  /// one that it has already is kept. Signal 64 is accepted, but never delivered. Returns the
  /// handler it had before, or null; always null on the owner thread. Throws VrnException 3 when
  /// `handler` is null or `signo` is -1 or above 64, and 2 when the system refuses the signal (both
  /// reported as a log line when the request was queued).
  virtual VrnSignalHandler* startSignal(VrnSignalHandler* handler, int signo) = 0;

  /// Ends the delivery of `signo`, or of all signals of `handler` when `signo` is -1, and restores
  /// the default action, or ignores the signal when `ignore`. True: done. False: the stop is under
  /// way and `handler->signalStopped(signo)` follows unless `handler` is null.
  /// Throws VrnException 3 when `handler` is null and `signo` -1; otherwise as startSignal().
  virtual bool stopSignal(VrnSignalHandler* handler, int signo, bool ignore) = 0;

  virtual ~VrnEvtMgr();
  VrnEvtMgr(const VrnEvtMgr&) = delete;
  VrnEvtMgr& operator=(const VrnEvtMgr&) = delete;

 protected:
  /// Becomes the one event manager. Throws VrnException 6 "Duplicate EvtMgr" when there is one.
  VrnEvtMgr();

 private:
  static VrnMutex mtx;  // guards singleton in instance() and destroy()
  static VrnEvtMgr* singleton;
};

/// Watches one direction of descriptors. Derive, implement the two callbacks, and give it to
/// VrnEvtMgr::startAIO(); one object may watch any number of files.
///
/// Lifetime: should be stopped for every file before it is destroyed; one that is destroyed while
/// it watches is forgotten by the event manager, without a callback.
class VORNFC_EXPORT VrnAIO {
 public:
  /// `input`: watch for readable data (POLLIN, POLLPRI); otherwise for room to write (POLLOUT).
  /// `name` is for log lines; empty: the address.
  VrnAIO(bool input, const std::string& name);
  virtual ~VrnAIO();
  VrnAIO(const VrnAIO&) = delete;
  VrnAIO& operator=(const VrnAIO&) = delete;

  /// The descriptor is ready. Dispatcher thread, no lock held. An exception is logged, and ends the
  /// watch: the descriptor is closed, `file` no longer owns it, and no aioCancelled() follows.
  virtual void aioReady(VrnFile* file) = 0;

  /// The watch has ended. `hangup`: because of the descriptor; `err`: of an error on it. Neither:
  /// a stop was asked for. Dispatcher thread, no lock held; may destroy this object and `file`. An
  /// exception is logged.
  virtual void aioCancelled(VrnFile* file, bool hangup, bool err) = 0;

 protected:
  const std::unique_ptr<VrnMutex> mutex;  ///< For the derived class's own use; named with the tag.
  const bool input;                       ///< The direction: true input, false output.
  const std::string tag;                  ///< The name in log lines; never empty.

 private:
  friend class AsyncRegistrar;
  friend struct ImplClientSocket;
  friend class VrnAsyncReader;
  friend class VrnAsyncReceiver;
  friend class VrnAsyncWriter;
  friend class VrnEvtMgrNative;
  int watches = 0;                     // guarded by the manager's registry lock
  std::atomic<bool> requested{false};  // a queued request has named this object
  // One of the library's own watchers: it starts and stops with its lock held, and aioCancelled()
  // tells it when a start that was queued comes to nothing.
  bool built_in = false;
  WatchList* list = nullptr;  // of a built-in watcher that keeps one
};

/// Receives signals as ordinary calls. Derive, implement, and give it to VrnEvtMgr::startSignal().
///
/// Lifetime: should be stopped before it is destroyed; one that is destroyed while it is registered
/// is forgotten by the event manager, and its signals are then dropped.
class VORNFC_EXPORT VrnSignalHandler {
 public:
  virtual ~VrnSignalHandler();
  VrnSignalHandler(const VrnSignalHandler&) = delete;
  VrnSignalHandler& operator=(const VrnSignalHandler&) = delete;

  /// `signo` has arrived, once or several times. Dispatcher thread, no lock held. An exception is
  /// logged.
  virtual void signalReceived(int signo) = 0;

  /// A stop made on the dispatcher thread has completed; `signo` is as given there, -1 for all.
  /// Dispatcher thread, no lock held. An exception is logged.
  virtual void signalStopped(int signo) = 0;

  /// The name in log lines. Not null; valid as long as the handler. Dispatcher thread, no lock
  /// held.
  virtual const char* sigtag() const = 0;

 protected:
  VrnSignalHandler() = default;
};

}  // namespace vornfc
