#pragma once
// Makes one call of the C library, or one allocation, fail while the library under test runs. The
// program defines the calls itself (calls.cpp), so the shared library uses the program's.
//
// Calls are counted from arm() to disarm(), except inside an Own scope: what the scenario does for
// itself, as a peer or in a callback, is neither counted nor made to fail.

#include <sys/types.h>

#include <cstddef>
#include <ctime>

namespace inject {

// The calls that can be made to fail, in the order of fault_table.cpp.
enum class Call : unsigned char {
  Accept,
  Allocate,
  Bind,
  Chdir,
  Close,
  Connect,
  EpollCreate,
  EpollCtl,
  EpollWait,
  Fclose,
  Fcntl,
  Fflush,
  Fgets,
  Fopen,
  Fork,
  Fstat,
  Fwrite,
  GetHostByName,
  GetItimer,
  GetServByName,
  Getsockopt,
  Listen,
  LocaltimeR,
  MutexAttrInit,
  MutexAttrSetType,
  MutexDestroy,
  MutexInit,
  MutexLock,
  Open,
  Pipe,
  Poll,
  Pread,
  PthreadAtfork,
  PthreadSigmask,
  Read,
  Setitimer,
  Setsid,
  Setsockopt,
  Setvbuf,
  Sigaction,
  Sigtimedwait,
  Socket,
  Stat,
  Usleep,
  Write
};
constexpr std::size_t CallKinds = static_cast<std::size_t>(Call::Write) + 1;

struct Fault {
  enum Kind {
    None,
    Error,      // fails with `error`, `times` times in a row
    ShortOne,   // takes one byte
    ShortHalf,  // takes half of the bytes
  };
  Kind kind = None;
  int error = 0;
  int times = 1;
};

// What an interposed call is to do.
struct Decision {
  int error = 0;           // 0: carry the call out
  std::size_t length = 0;  // the bytes that it may take
};

// From now on calls are counted, and call number `number` (from 1) of `call` meets `fault`.
void arm(Call call, int number, const Fault& fault);
void arm();     // counts only
void disarm();  // neither counts nor fails

int count(Call call);  // since arm()
bool reached();        // the fault has been met
bool met(Call call);   // by this call
bool met(int error);   // and is this error
bool active();         // a call made now is counted
long allocations();    // that are not freed yet, of the whole process

// Counts a call. `length`: the bytes that it transfers, for short counts.
Decision next(Call call, std::size_t length = 0);

void allocated();
void freed();

// The scenario's own work, to the end of a scope.
class Own {
 public:
  Own();
  Own(const Own&) = delete;
  Own& operator=(const Own&) = delete;
  ~Own();

 private:
  const bool was;
};

// The library's work again, inside an Own scope.
class Lib {
 public:
  Lib();
  Lib(const Lib&) = delete;
  Lib& operator=(const Lib&) = delete;
  ~Lib();

 private:
  const bool was;
};

// What the environment of the library does while it runs; null: nothing. All run as scenario's own.
struct Hooks {
  void (*waits)() = nullptr;    // the library begins to wait for events: the peers' turn
  void (*sleeps)() = nullptr;   // the library begins to sleep
  void (*stalled)() = nullptr;  // it waits, and no event is left to come
  void (*spins)() = nullptr;    // it has made more calls than `most_calls`
  void (*forked)() = nullptr;   // in the child
  int most_calls = 100000;
};
extern Hooks hooks;

// The bytes that sockets take from one wait to the next; 0: any number.
extern std::size_t throttle;

// The library's time of day, in seconds since 1970; 0: the system's.
extern std::time_t clock_time;

// The library's seconds of alarm() are this short, so that time-outs can be awaited by the
// thousand.
constexpr long MicrosPerSecond = 20000;

constexpr int StallMillis = 1000;  // a wait that is this long without an event has none to come

}  // namespace inject
