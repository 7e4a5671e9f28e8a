#include "evtmgr_impl.h"
#include "text.h"
#include "vornfc/evtmgr_native.h"
#include "vornfc/exception.h"
#include "vornfc/utils.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <new>
#include <string>
#include <utility>

namespace vornfc {

namespace {

// Those that are refused, not kept, once the loop is ending.
bool is_start(int type) {
  return type == AsyncRegistrar::StartAIO || type == AsyncRegistrar::StartTimer ||
         type == AsyncRegistrar::StopDispatcher || type == AsyncRegistrar::StartSignal;
}

void* type_word(int type) {
  const std::int64_t value = type;
  void* word;
  memcpy(&word, &value, sizeof word);
  return word;
}

int int_word(const void* word) {
  return static_cast<int>(reinterpret_cast<std::intptr_t>(word));
}

void close_on_exec(int fd) {
  fcntl(fd, F_SETFD, fcntl(fd, F_GETFD) | FD_CLOEXEC);
}

// The type of one that is not to be carried out.
constexpr int VoidedRequest = WakeRecord - 1;

constexpr size_t RecordsPerRead = 16;
constexpr int MaxReads = 4;             // in one turn
constexpr size_t RequestsPerHold = 64;  // of the registry lock: other threads want it too

// The write end that send_wake() uses, -1: none; and how many threads are writing to it. A signal
// handler can take no lock, so the closer waits for the count instead.
std::atomic<int> wake_fd{-1};
std::atomic<int> wakers{0};
static_assert(std::atomic<int>::is_always_lock_free, "used by a signal handler");

}  // namespace

void send_wake() noexcept {
  static constexpr std::array<std::int64_t, 4> record{WakeRecord};
  static_assert(sizeof record == RecordSize, "the record's layout");
  ++wakers;
  const int fd = wake_fd;
  // A full pipe is as good as a record of ours: the loop does not sleep over it.
  if (fd != -1) (void)!write(fd, record.data(), RecordSize);
  --wakers;
}

void forget_wakers() {
  wakers = 0;
}

void open_wake(int write_end) {
  int none = -1;
  wake_fd.compare_exchange_strong(none, write_end);
}

void close_wake(int write_end) {
  int expected = write_end;
  if (!wake_fd.compare_exchange_strong(expected, -1)) return;
  while (wakers != 0) sched_yield();
}

AsyncRegistrar::AsyncRegistrar(const char* name, VrnEvtMgrNative* manager)
    : VrnAIO(true, name ? name : ""), mgr(manager), rfile(new VrnFile) {
  VrnAssertFull(manager != nullptr, "AsyncRegistrar: Null event manager for %s", tag.c_str());
  static_assert(sizeof(Request) == RecordSize, "the record's layout");
  int ends[2];
  if (pipe(ends) == -1) throw VrnException(2, "EvtMgr: Failed to create %s pipe", tag.c_str());
  try {
    rfile->assign(ends[0], tag, true);
    rfile->setBlockingMode(false);
  } catch (...) {
    if (rfile->fd == -1) close(ends[0]);
    close(ends[1]);
    throw;
  }
  wfd = ends[1];
  close_on_exec(ends[0]);
  close_on_exec(wfd);
  fcntl(wfd, F_SETFL, O_NONBLOCK);  // the thread that writes is the one that has to read
  open_wake(wfd);
}

AsyncRegistrar::~AsyncRegistrar() {
  vrnlog(4, "AsyncRegistrar.dtor: Enter with unreg_reqs=%d, stopped=%s",
         static_cast<int>(queue.size()), yes_no(stopped));
  close_write_end();
}

bool AsyncRegistrar::is_open() const {
  VrnMutexGuard guard(mutex.get());
  return wfd != -1;
}

void AsyncRegistrar::start() {
  mgr->syncstartAIO(rfile.get(), this);
}

bool AsyncRegistrar::submit(int type, int nargs, ...) {
  VrnAssertFull(nargs >= 0 && nargs <= 3, "AsyncRegistrar: Bad number of arguments (%d)", nargs);
  Request request;
  request.words[0] = type_word(type);
  va_list args;
  va_start(args, nargs);
  for (int i = 1; i <= nargs; ++i) request.words[static_cast<size_t>(i)] = va_arg(args, void*);
  va_end(args);

  bool accepted;
  int failure = 0;  // of the pipe
  {
    VrnMutexGuard guard(mutex.get());
    accepted = accept(request, &failure) || (!is_start(type) && !stopped);
    if (accepted) taken.store(taken.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
  if (failure != 0) {
    vrnlog(1, "AsyncRegistrar: Failed to write a request (errno=%d)", failure);
    mgr->syncstopDispatcher();
  }
  return accepted;
}

// False: the request was refused, unless it is one that is kept until the loop has ended.
bool AsyncRegistrar::accept(const Request& request, int* failure) {
  if (wfd != -1) {
    // One record in the pipe ends the wait of the loop; those behind it cost no system call. A full
    // pipe ends the wait as well.
    if (in_pipe || carrying_out || !backlog.empty()) {
      backlog.push_back(request);
      return true;
    }
    if (write_record(request)) {
      in_pipe = true;
      piped = request;
      return true;
    }
    if (errno == EAGAIN) {
      backlog.push_back(request);
      return true;
    }
    // Without its pipe the loop would miss every request from here on, so it ends.
    *failure = errno;
    shut_write_end();
  }
  if (!is_start(int_word(request.words[0])) && !stopped) queue.push_back(request);
  return false;
}

bool AsyncRegistrar::write_record(const Request& request) const {
  ssize_t written;
  do {
    written = write(wfd, request.words.data(), RecordSize);
  } while (written == -1 && errno == EINTR);
  return written == RecordSize;
}

// Requests in the pipe are older than those in the backlog. Both may grow while they are carried
// out: stops are confirmed by callbacks, which may make requests.
void AsyncRegistrar::aioReady(VrnFile*) {
  // Threads that wake the loop again and again must not keep it from its next turn.
  for (int reads = 0; reads < MaxReads; ++reads) {
    std::array<Request, RecordsPerRead> records;
    const ssize_t size = read_records(records.data(), sizeof records);
    if (size == -1) return cancel(true);
    const size_t count = static_cast<size_t>(size) / RecordSize;
    for (size_t i = 0; i < count; ++i) {
      if (int_word(records[i].words[0]) == WakeRecord) {
        mgr->wake_sent = false;
      } else if (!carry_out_piped(records[i])) {
        return cancel(true);
      }
    }
    if (!carry_out_batches()) return cancel(true);
    // A process forked by the application may hold a copy of the write end, so after request 5 a
    // drained pipe counts as ended.
    if (count < records.size()) {
      if (at_end || !is_open()) cancel(false);
      return;
    }
  }
}

// Returns the bytes read, 0 when there are none; sets `at_end` at the end of the pipe; -1: failed.
ssize_t AsyncRegistrar::read_records(Request* records, size_t size) {
  ssize_t got;
  do {
    errno = 0;
    got = read(rfile->fd, records, size);
  } while (got == -1 && errno == EINTR);
  at_end = got == 0;
  if (got == -1 && errno == EAGAIN) return 0;
  if (got == -1) {
    vrnlog(4, "Read failed on fd=%d, retval=%d after %d/%d (errno=%d)", rfile->fd, -1, 0,
           static_cast<int>(size), errno);
  }
  return got;
}

bool AsyncRegistrar::carry_out_piped(const Request& record) {
  std::unique_lock<std::mutex> lock(registry);
  Request request = record;
  {
    VrnMutexGuard guard(mutex.get());
    if (in_pipe && is_voided(piped)) request = piped;
    in_pipe = false;
    carrying_out = true;
  }
  if (carry_out(&lock, request, "submitted", false)) return true;
  lock.unlock();
  VrnMutexGuard guard(mutex.get());
  carrying_out = false;
  return false;
}

// Carries out the requests in memory, and those that are made meanwhile. They are taken out
// together and carried out under one hold of the registry lock, which their callbacks interrupt: a
// burst of requests costs each of them hardly more than its own work. False: one is of an unknown
// type; those behind it stay.
bool AsyncRegistrar::carry_out_batches() {
  for (;;) {
    {
      VrnMutexGuard guard(mutex.get());
      // One that is in the pipe still, behind many wakes, is older than those in memory.
      carrying_out = !in_pipe && !backlog.empty();
      if (!carrying_out) return true;
      batch.swap(backlog);
    }
    std::unique_lock<std::mutex> lock(registry);
    for (size_t i = 0; i < batch.size(); ++i) {
      if (!carry_out(&lock, batch[i], "submitted", false)) {
        lock.unlock();
        VrnMutexGuard guard(mutex.get());
        backlog.insert(backlog.begin(), batch.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                       batch.end());
        batch.clear();
        carrying_out = false;
        return false;
      }
      if (i % RequestsPerHold != RequestsPerHold - 1) continue;
      lock.unlock();
      lock.lock();
    }
    batch.clear();
  }
}

// False when the request's type is unknown. Called with the registry lock held, which it may
// release for a callback. The look at `voided` and what the request does to the registrations are
// one step: no object can end in between.
bool AsyncRegistrar::carry_out(std::unique_lock<std::mutex>* lock, Request request,
                               const char* what, bool stops_only) {
  if (is_void(request)) return true;
  if (stops_only && is_start(int_word(request.words[0]))) {
    refuse(lock, request.words.data());
    return true;
  }
  try {
    return process(lock, request.words.data()) == 0;
  } catch (...) {
    const std::string reason = VrnException::handler();
    refuse(lock, request.words.data());
    lock->unlock();
    vrnlog(1, "AsyncRegistrar: %s request threw [%s]", what, reason.c_str());
    lock->lock();
    return true;
  }
}

// A built-in watcher, which counts on a watch that it has asked for, is told that it has none.
void AsyncRegistrar::refuse(std::unique_lock<std::mutex>* lock, void** record) {
  if (int_word(record[0]) != StartAIO) return;
  const auto file = static_cast<VrnFile*>(record[1]);
  const auto aio = static_cast<VrnAIO*>(record[2]);
  if (!aio->built_in || mgr->is_watching(file, aio)) return;
  mgr->tell_cancelled(lock, file, aio, false, true);
}

bool AsyncRegistrar::is_voided(const Request& request) {
  return int_word(request.words[0]) == VoidedRequest;
}

// Counts the request as it is taken out.
bool AsyncRegistrar::is_void(const Request& request) {
  const std::uint64_t number = carried_out++;
  if (is_voided(request)) return true;
  if (voided.empty()) return false;
  const auto voids = [&](const void* object, const void* second) {
    const auto it = voided.find({object, second});
    return it != voided.end() && number < it->second;
  };
  const int type = int_word(request.words[0]);
  const void* const first = request.words[1];
  const void* const aio = type == StartAIO || type == StopAIO ? request.words[2] : nullptr;
  const bool result = voids(first, nullptr) || (aio && (voids(aio, nullptr) || voids(first, aio)));
  if (carried_out >= taken) voided.clear();
  return result;
}

void AsyncRegistrar::voidRequests(const void* object, const void* second) {
  if (carried_out >= taken) return;
  try {
    voided[{object, second}] = taken;
  } catch (const std::bad_alloc&) {
    void_each(object, second);
  }
}

// What an object does that ends while there is no memory: it marks its requests themselves.
void AsyncRegistrar::void_each(const void* object, const void* second) {
  VrnMutexGuard guard(mutex.get());
  const auto mark = [&](Request* request) {
    const int type = int_word(request->words[0]);
    const void* const first = request->words[1];
    const void* const aio = type == StartAIO || type == StopAIO ? request->words[2] : nullptr;
    const bool names = second ? first == object && aio == second : first == object || aio == object;
    if (names) request->words[0] = type_word(VoidedRequest);
  };
  mark(&piped);
  for (std::vector<Request>* const requests : {&batch, &backlog, &queue}) {
    for (Request& request : *requests) mark(&request);
  }
}

int AsyncRegistrar::processRequest(void** record) {
  if (!record) throw VrnException(3, "AsyncRegistrar: Null request to carry out");
  std::unique_lock<std::mutex> lock(registry);
  return process(&lock, record);
}

int AsyncRegistrar::process(std::unique_lock<std::mutex>* lock, void** record) {
  const int type = int_word(record[0]);
  const auto file = static_cast<VrnFile*>(record[1]);
  const auto aio = static_cast<VrnAIO*>(record[2]);
  const auto timer = static_cast<VrnTimer*>(record[1]);
  const auto handler = static_cast<VrnSignalHandler*>(record[1]);
  const int signo = int_word(record[2]);
  const bool ignore = record[3] != nullptr;
  switch (type) {
    case StartAIO:
      if (!mgr->start_watch(file, aio)) refuse(lock, record);
      break;
    case StopAIO: mgr->stop_watch(lock, file, aio, true, false, false); break;
    case StartTimer: mgr->queue_timer(timer); break;
    case StopTimer: mgr->stop_timer(lock, timer, true); break;
    case StopDispatcher: close_write_end(); break;
    case StartSignal: mgr->change_signal(lock, true, false, handler, signo, false); break;
    case StopSignal: mgr->change_signal(lock, false, handler, handler, signo, ignore); break;
    default:
      lock->unlock();
      vrnlog(1, "AsyncRegistrar: Invalid request-type (%d)", type);
      lock->lock();
      return 1;
  }
  return 0;
}

void AsyncRegistrar::cancel(bool err) {
  mgr->syncstopAIO(rfile.get(), this, true, !err, err);
}

void AsyncRegistrar::aioCancelled(VrnFile*, bool hangup, bool err) {
  vrnlog(!err && is_open() ? 1 : 4, "AsyncRegistrar: Cancelled - hangup=%s, err=%s", yes_no(hangup),
         yes_no(err));
  close_write_end();
  mgr->syncstopDispatcher();
}

void AsyncRegistrar::close_write_end() {
  VrnMutexGuard guard(mutex.get());
  shut_write_end();
}

void AsyncRegistrar::shut_write_end() {
  if (wfd == -1) return;
  close_wake(wfd);
  close(wfd);
  wfd = -1;
}

void AsyncRegistrar::dispatcherStopped() {
  vrnlog(4, "AsyncRegistrar.dispatcherStopped: Enter with unreg_reqs=%d",
         static_cast<int>(queue.size()));
  close_write_end();  // a loop that was stopped before it began never watched the pipe
  {
    VrnMutexGuard guard(mutex.get());
    stopped = true;
  }
  // The loop may also have ended, by another thread or a failure, over requests that it had not
  // read: their stops are confirmed like those that came later.
  std::unique_lock<std::mutex> lock(registry);
  carry_out_rest(&lock, &backlog);
  carry_out_rest(&lock, &queue);
}

// Nothing is added to the rest meanwhile. Objects that end meanwhile find their requests in
// `batch`.
void AsyncRegistrar::carry_out_rest(std::unique_lock<std::mutex>* lock,
                                    std::vector<Request>* rest) {
  Request first;
  if (take_piped(&first)) carry_out(lock, first, "queued", true);
  take_batch(rest);
  for (size_t i = 0; i < batch.size(); ++i) carry_out(lock, batch[i], "queued", true);
  batch.clear();
}

// For writers and connects that wait for the end of their watch to be deleted. Nobody else is
// called: an application does not expect a callback while it destroys the event manager.
void AsyncRegistrar::confirm_ends() {
  Request first;
  if (take_piped(&first)) confirm_end(first);
  take_batch(&backlog);
  for (size_t i = 0; i < batch.size(); ++i) confirm_end(batch[i]);
  batch.clear();
}

void AsyncRegistrar::confirm_end(const Request& request) {
  std::unique_lock<std::mutex> lock(registry);
  if (is_void(request) || int_word(request.words[0]) != StopAIO) return;
  const auto file = static_cast<VrnFile*>(request.words[1]);
  const auto aio = static_cast<VrnAIO*>(request.words[2]);
  if (aio->built_in && !aio->list) mgr->tell_cancelled(&lock, file, aio, false, false);
}

// What the pipe holds is not asked: a process that was forked may have read from it, or written
// requests there that name objects of its own.
bool AsyncRegistrar::take_piped(Request* request) {
  VrnMutexGuard guard(mutex.get());
  *request = piped;
  return std::exchange(in_pipe, false);
}

void AsyncRegistrar::take_batch(std::vector<Request>* from) {
  VrnMutexGuard guard(mutex.get());
  batch.swap(*from);
}

}  // namespace vornfc
