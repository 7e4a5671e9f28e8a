#pragma once
/// The event manager, and the registrar of the requests made inside its callbacks.

#include "vornfc/evtmgr.h"
#include "vornfc/export.h"
#include "vornfc/file.h"
#include "vornfc/mutex.h"
#include "vornfc/timer.h"

#include <poll.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace vornfc {

class AsyncRegistrar;
struct ImplAppShell;
class ReadyWait;
class TimerQueue;

/// The event manager that waits in poll(), with a queue of the kernel's behind it where many
/// descriptors are idle. Reached through VrnEvtMgr::instance(); its settings are read from the
/// environment at construction:
///   VORN_EM_THROWTASKS  "y": an exception from a timer or descriptor callback ends the loop
///   VORN_EM_TIMERPREC   microseconds of timer distance per millisecond of waiting, at least 1000
///   VORN_EM_POLLONLY    "y": poll() looks at every descriptor; otherwise those that stay idle
///                       among many wait in a queue of the kernel's
///   VORN_EM_POLLMAX     with up to this many descriptors the queue is not begun (64)
/// (VORN_EM_ARMODE is accepted and changes nothing: requests always go through the registrar.)
///
/// The sync operations are the direct forms behind starts and stops. They may be called from any
/// thread; an application has no need to. They take the registry lock, and call back without it.
class VORNFC_EXPORT VrnEvtMgrNative : public VrnEvtMgr {
 public:
  /// What is registered on one descriptor number.
  struct iofile_t {
    std::array<VrnAIO*, 2> aios{};  ///< [0] the input watcher, [1] the output watcher; null: none
    VrnFile* file = nullptr;        ///< The file that is watched; null: none.
    int pidx = -1;                  ///< Position in pollfds; -1: nothing is registered.
    unsigned serial = 0;            ///< Counts the registrations of this descriptor number.
  };

  /// Throws VrnException 6 "Duplicate EvtMgr", or 2 when the registrar's pipe cannot be made or the
  /// system has no room for another fork handler.
  VrnEvtMgrNative();

  /// Forgets what is registered, without a callback. If the loop has never run, the stops of
  /// writers and client sockets that are under way are completed first.
  ~VrnEvtMgrNative() override;

  void startDispatcher() override;
  void stopDispatcher() override;
  bool startAIO(VrnFile* file, VrnAIO* aio) override;
  bool stopAIO(VrnFile* file, VrnAIO* aio) override;
  bool startTimer(VrnTimer* timer) override;
  bool stopTimer(VrnTimer* timer) override;
  VrnSignalHandler* startSignal(VrnSignalHandler* handler, int signo) override;
  bool stopSignal(VrnSignalHandler* handler, int signo, bool ignore) override;

  /// The loop; called by startDispatcher(). Throws VrnException 2 when poll() fails, and what a
  /// callback of a timer or descriptor throws while VORN_EM_THROWTASKS is "y".
  void dispatcher();

  /// What follows the loop; called by startDispatcher(). Completes the stops that are under way and
  /// logs at level 4 what remains registered, which stays as it is.
  void dispatcherStopped();

  /// Makes the loop end at its next check. Does not end a wait: see stopDispatcher().
  void syncstopDispatcher();

  /// Registers the watch. False, and nothing changed, when the loop has ended. Puts the descriptor
  /// in non-blocking mode at its first watch. Throws what startAIO() throws on another thread.
  bool syncstartAIO(VrnFile* file, VrnAIO* aio);

  /// Ends the watch if there is one, then calls aioCancelled(file, hangup, err) if `notify`. Throws
  /// VrnException 3 when a pointer is null or another watcher holds the place.
  void syncstopAIO(VrnFile* file, VrnAIO* aio, bool notify, bool hangup, bool err);

  /// Enters the timer in the queue. False when the loop has ended. Throws VrnException 3 when
  /// `timer` is null.
  bool syncstartTimer(VrnTimer* timer);

  /// Takes the timer out of the queue if it is there, then calls timerCancelled() if `notify`. An
  /// exception of that is logged. Throws VrnException 3 when `timer` is null.
  void syncstopTimer(VrnTimer* timer, bool notify);

  /// Changes the delivery of `signo` (-1, stop only: of all signals of `handler`), then calls
  /// signalStopped() if `notify`. Returns the handler that `signo` had, or null. Throws
  /// VrnException 3 when `handler` is null in a start or `signo` is out of range, 2 when the system
  /// refuses.
  VrnSignalHandler* sigRequest(bool start, bool notify, VrnSignalHandler* handler, int signo,
                               bool ignore);

  /// Calls signalReceived(), or signalStopped() unless `received`; exceptions are logged. Throws
  /// VrnException 3 when `handler` is null. Takes no lock.
  void sigResponse(bool received, VrnSignalHandler* handler, int signo);

  /// Calls the watchers of one descriptor. Both arguments are the caller's copies, and may be
  /// changed: `*record` is afterwards what is registered, unless that has ended. Nothing happens
  /// for a descriptor that is not watched. Throws VrnException 3 when one is null, and what a
  /// watcher's aioReady() throws.
  void handleIO(pollfd* entry, iofile_t* record);

 private:
  friend class AsyncRegistrar;
  friend struct ImplAppShell;
  friend struct ImplClientSocket;
  friend class VrnAIO;
  friend class VrnAsyncReader;
  friend class VrnAsyncReceiver;
  friend class VrnAsyncWriter;
  friend class VrnClientSocket;
  friend class VrnSignalHandler;
  friend class VrnTimer;

  using Lock = std::unique_lock<std::mutex>;

  // Where a thread makes callbacks, one at a time. While one runs, its objects may only be
  // destroyed by its own thread and the dispatcher's; other threads wait for the end of the
  // callback.
  class __attribute__((visibility("hidden"))) Caller {
   public:
    explicit Caller(Lock* lock);
    ~Caller();
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

    static std::atomic<Caller*> latest;  // changed under the registry lock

    Lock* const lock;
    const pthread_t thread;
    const bool marked;  // as the one that holds the lock, which it is again after each callback
    Caller* outer;      // the one before
    std::array<const void*, 2> objects{};  // of the callback that is running
  };

  // A callback that is running. The registry lock is released from the constructor to the
  // destructor, which takes it again, and also where the loop did without it and the callback has
  // started a second thread.
  class __attribute__((visibility("hidden"))) Callback {
   public:
    explicit Callback(Caller* caller, const void* object, const void* second = nullptr);
    ~Callback();
    Callback(const Callback&) = delete;
    Callback& operator=(const Callback&) = delete;

   private:
    Caller* const caller;
    const bool locked;  // the lock was taken, and is again afterwards
  };

  void deliver_signals(Lock* lock);
  inline int fire_due_timers(Lock* lock);
  inline int wait_for_events(Lock* lock, int timeout);
  void deliver_ready(Lock* lock, int count);
  bool next_ready(pollfd* entry);
  inline void handle_ready(Caller* caller, pollfd* entry, unsigned serial, bool of_loop);
  inline void call_ready(Caller* caller, int fd, size_t slot);
  bool refresh(pollfd* entry, unsigned serial, bool of_loop) const;
  void before_change();
  void end_thrown_watch(int fd, unsigned serial);
  void report_timers();
  void report_watchers();
  void report_signal_handlers();

  struct Sizes {
    int timers, pollfds, pollfds_capacity, iofiles, iofiles_capacity;
  };
  Sizes sizes() const;
  bool on_owner_thread() const { return pthread_equal(pthread_self(), owner) != 0; }
  bool on_loop_thread() const { return pthread_equal(pthread_self(), loop_thread) != 0; }

  // No loop will run (any more): stops are confirmed, and from now on complete at once.
  void abandon();
  void close_registrar();

  // Takes a timer back whose stop waits for a loop, when no loop runs or is to run. False: one
  // does.
  static bool withdraw(VrnTimer* timer);

  // The sync operations for a caller that holds the registry lock; those that call back release
  // `lock` for the callback.
  bool start_watch(VrnFile* file, VrnAIO* aio);
  bool stop_watch(Lock* lock, VrnFile* file, VrnAIO* aio, bool notify, bool hangup, bool err);
  void tell_cancelled(Lock* lock, VrnFile* file, VrnAIO* aio, bool hangup, bool err);
  bool queue_timer(VrnTimer* timer);
  void stop_timer(Lock* lock, VrnTimer* timer, bool notify);
  VrnSignalHandler* change_signal(Lock* lock, bool start, bool notify, VrnSignalHandler* handler,
                                  int signo, bool ignore);

  // These expect the registry lock held.
  bool unregister(VrnFile* file, VrnAIO* aio);  // false: it was not registered
  bool unregister(const VrnAIO* aio);
  bool unregister(const VrnFile* file);
  bool is_watching(const VrnFile* file, const VrnAIO* aio) const;
  void clear_slot(iofile_t* record, size_t slot);
  void remove_entry(iofile_t* record);
  static void drop_listings(VrnFile* file);
  static void check_watch(const VrnFile* file, const VrnAIO* aio);
  void unqueue(VrnTimer* timer);
  static bool in_callback(const void* object);

  static void guard_forks();
  static void forked();  // in a forked process

  void wake();  // ends the wait of the loop, when called on another thread

  // An object ends: whatever is registered or requested for it is dropped, and a callback that runs
  // on another thread is waited for.
  static void forget(VrnTimer* timer);
  static void forget(VrnAIO* aio);
  static void forget(VrnFile* file);
  static void forget(VrnSignalHandler* handler);

  // Voids what is requested for `aio`: a stop that is on its way still must not end the next watch.
  static void forget_requests(const VrnAIO* aio);
  static bool end_callbacks(Lock* lock, const void* object);  // false: there is no manager

  // Waits a moment for the end of a callback to `object` that runs on another thread.
  static void let_callback_finish(const void* object);

  // Guarded by the registry lock, as are the registrations noted in the objects themselves.
  std::vector<pollfd> pollfds;
  std::vector<iofile_t> iofiles;  // indexed by descriptor number
  const std::unique_ptr<TimerQueue> timers;
  std::map<int, VrnSignalHandler*> sighandlers;
  bool pollfds_changed = true;  // since they were given to `ready_wait`
  bool walking = false;         // the walk goes over what `ready_wait` has found
  size_t walked = 0;            // the position that the walk has reached

  std::atomic<bool> dead{false};
  std::atomic<bool> wake_sent{false};

  // The dispatcher thread's own.
  const std::unique_ptr<ReadyWait>
      ready_wait;                 // has a copy of pollfds: other threads may change these
  std::vector<unsigned> serials;  // of the registrations behind the copy
  size_t next_of_ready = 0;       // of those that `ready_wait` has found
  VrnAIO* curaio = nullptr;       // the watcher that handleIO calls; compared, never dereferenced
  bool throwtasks = false;
  int timerprec = 1000;

  const pthread_t owner;                  // its requests go through the registrar
  std::atomic<pthread_t> loop_thread;     // runs the dispatcher, and with it the callbacks
  bool ended = false;                     // the loop has run
  std::atomic<bool> run_expected{false};  // the application shell is about to run the loop
  std::atomic<bool> running{false};       // changed under mutex
  VrnMutex mutex;
  std::unique_ptr<AsyncRegistrar> registrar;
};

/// Carries the requests made on the dispatcher thread to the dispatcher's next turn. A request is
/// written as a fixed-size record into a pipe whose read end the registrar watches itself; those
/// that follow it before it is read wait in memory behind it, so no number of them can fill the
/// pipe. After the pipe is closed, stops are kept until the loop has ended and starts are refused.
class VORNFC_EXPORT AsyncRegistrar : public VrnAIO {
 public:
  /// The types of request; the numbers appear in messages.
  enum RequestType {
    StartAIO = 1,    ///< file, watcher
    StopAIO,         ///< file, watcher
    StartTimer,      ///< timer
    StopTimer,       ///< timer
    StopDispatcher,  ///< closes the write end of the pipe
    StartSignal,     ///< handler, signal number
    StopSignal       ///< handler, signal number, whether to ignore the signal
  };

  /// `name` is for log lines; null or empty: the address. `mgr` is not owned and outlives the
  /// registrar. Throws VrnException 2 "EvtMgr: Failed to create %s pipe", 3 when `mgr` is null.
  AsyncRegistrar(const char* name, VrnEvtMgrNative* mgr);
  ~AsyncRegistrar() override;

  void start();  ///< Watches the pipe; called by the dispatcher at the start of the loop.

  /// Takes a request with `nargs` (0 to 3) arguments of 8 bytes each. Owner thread only. True: it
  /// will be carried out. False: it was refused, because the loop is ending or has ended. Takes the
  /// lock of VrnAIO. Throws VrnException 3 for another number of arguments.
  bool submit(int type, int nargs, ...);

  void aioReady(VrnFile* file) override;  ///< Carries out what is in the pipe and behind it.

  /// The watch of the pipe has ended: closes its write end and ends the loop.
  void aioCancelled(VrnFile* file, bool hangup, bool err) override;

  /// Carries out one record of four 8-byte words: type and arguments. 0, or 1 when the type is
  /// unknown. Takes the registry lock. Throws VrnException 3 when `record` is null, and what the
  /// operation throws.
  int processRequest(void** record);

  void cancel(bool err);  ///< Ends the watch of the pipe, and with it the loop. `err`: it failed.
  void dispatcherStopped();  ///< Carries out the stops that were kept; refuses any more.

  /// Voids the requests made so far that name `object`, or both `object` and `second`. Any thread,
  /// with the registry lock held.
  void voidRequests(const void* object, const void* second = nullptr);

 private:
  friend class VrnEvtMgrNative;
  struct Request {
    std::array<void*, 4> words{};
  };

  bool is_open() const;
  bool accept(const Request& request, int* failure);
  ssize_t read_records(Request* records, size_t size);
  bool carry_out_piped(const Request& record);
  static bool is_voided(const Request& request);
  bool is_void(const Request& request);
  bool carry_out(std::unique_lock<std::mutex>* lock, Request request, const char* what,
                 bool stops_only);
  bool carry_out_batches();
  int process(std::unique_lock<std::mutex>* lock, void** record);
  void refuse(std::unique_lock<std::mutex>* lock, void** record);
  void carry_out_rest(std::unique_lock<std::mutex>* lock, std::vector<Request>* rest);
  void void_each(const void* object, const void* second);
  void confirm_ends();
  void confirm_end(const Request& request);
  bool take_piped(Request* request);
  void take_batch(std::vector<Request>* from);
  void close_write_end();
  void shut_write_end();
  bool write_record(const Request& request) const;

  VrnEvtMgrNative* const mgr;
  std::unique_ptr<VrnFile> rfile;

  // Guarded by the mutex of VrnAIO.
  int wfd = -1;
  bool in_pipe = false;  // a request, this one, is in the pipe, unread
  Request piped;
  bool carrying_out = false;
  bool stopped = false;
  std::vector<Request> backlog;  // requests behind the one in the pipe
  std::vector<Request> queue;    // stops that came after the pipe was closed

  // The dispatcher thread's own.
  std::vector<Request> batch;  // those that are being carried out
  bool at_end = false;         // of the pipe

  // Requests are carried out in the order in which they were taken, so their numbers need not
  // travel with them. An object's requests with a number below the one noted here are void.
  // Guarded by the registry lock; `taken` is the owner thread's to change.
  std::atomic<std::uint64_t> taken{0};
  std::uint64_t carried_out = 0;
  std::map<std::pair<const void*, const void*>, std::uint64_t> voided;
};

}  // namespace vornfc
