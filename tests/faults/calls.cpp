// The calls of the C library that the library under test makes, as this program's own definitions.

#include "fault_table.h"
#include "inject.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <optional>

using inject::active;
using inject::Call;
using inject::hooks;
using inject::next;
using inject::Own;

namespace {

// The definition that this program's own one, `self`, hides.
template <auto self, typename... P>
auto carry_out(const char* name, P... args) {
  static std::atomic<void*> hidden{nullptr};
  if (!hidden) hidden = dlsym(RTLD_NEXT, name);
  return reinterpret_cast<decltype(self)>(hidden.load())(args...);
}

template <auto self, typename... P>
int errno_call(Call call, P... args) {
  if (const int error = next(call).error) {
    errno = error;
    return -1;
  }
  return carry_out<self>(inject::name_of(call), args...);
}

// A call that returns the error.
template <auto self, typename... P>
int result_call(Call call, P... args) {
  if (const int error = next(call).error) return error;
  return carry_out<self>(inject::name_of(call), args...);
}

// A call whose failure leaves nothing to be called again: it is carried out all the same.
template <auto self, typename... P>
int done_call(Call call, P... args) {
  const int error = next(call).error;
  const int result = carry_out<self>(inject::name_of(call), args...);
  if (error == 0) return result;
  errno = error;
  return -1;
}

void run(void (*hook)()) {
  if (!hook) return;
  const Own own;
  const int saved_errno = errno;
  hook();
  errno = saved_errno;
}

// A call that a sanitizer's runtime makes to look at memory is not the library's: it is not counted
// in the scope of this.
class Caller {
 public:
  explicit Caller(const void* return_address) {
    if (!active()) return;
    Dl_info info{};
    const bool known = dladdr(return_address, &info) != 0 && info.dli_fname;
    if (!known || !std::strstr(info.dli_fname, "libvornfc_mt")) own.emplace();
  }

 private:
  std::optional<Own> own;
};

// The bytes that sockets take until the library waits again.
std::size_t credit = 0;

bool is_pipe(int fd) {
  const Own own;
  struct stat info;
  return fstat(fd, &info) == 0 && S_ISFIFO(info.st_mode);
}

// What is written to a pipe at once arrives at once, so neither side sees a part of it.
std::size_t divisible(int fd, std::size_t length) {
  return active() && is_pipe(fd) ? 0 : length;
}

// A pipe with room takes what it is given.
bool is_full(int fd) {
  pollfd entry{fd, POLLOUT, 0};
  return carry_out<&poll>("poll", &entry, nfds_t{1}, 0) == 0;
}

ssize_t write_throttled(int fd, const void* data, std::size_t length) {
  const bool limited = active() && inject::throttle != 0 && !is_pipe(fd);
  if (limited && credit == 0 && length > 0) {
    errno = EAGAIN;
    return -1;
  }
  const std::size_t part = limited ? std::min(length, credit) : length;
  const ssize_t written = carry_out<&write>("write", fd, data, part);
  if (limited && written > 0) credit -= static_cast<std::size_t>(written);
  return written;
}

// The peers' turn comes that often while the library waits.
constexpr int SliceMillis = 10;

// Mutexes that were made by a call, as the library's own class makes them: std::mutex is not.
std::array<std::atomic<pthread_mutex_t*>, 256> made_mutexes{};

void replace_mutex(pthread_mutex_t* from, pthread_mutex_t* to) {
  for (auto& made : made_mutexes) {
    pthread_mutex_t* expected = from;
    if (made.compare_exchange_strong(expected, to)) return;
  }
}

bool was_made(pthread_mutex_t* mutex) {
  return std::find(made_mutexes.begin(), made_mutexes.end(), mutex) != made_mutexes.end();
}

std::FILE* broken_stream = nullptr;  // whose error indicator a fault has set

long micros(const timeval& time) {
  return time.tv_sec * 1000000 + time.tv_usec;
}

void* allocate(std::size_t size) {
  if (next(Call::Allocate).error != 0) throw std::bad_alloc();
  void* const memory = std::malloc(size == 0 ? 1 : size);
  if (!memory) throw std::bad_alloc();
  inject::allocated();
  return memory;
}

void release(void* memory) {
  if (memory) inject::freed();
  std::free(memory);
}

}  // namespace

void* operator new(std::size_t size) {
  return allocate(size);
}

void* operator new[](std::size_t size) {
  return allocate(size);
}

void operator delete(void* memory) noexcept {
  release(memory);
}

void operator delete[](void* memory) noexcept {
  release(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  release(memory);
}

void operator delete[](void* memory, std::size_t) noexcept {
  release(memory);
}

// clang-format off
extern "C" {

int bind(int fd, const sockaddr* addr, socklen_t size) noexcept { return errno_call<&bind>(Call::Bind, fd, addr, size); }
int chdir(const char* path) noexcept { return errno_call<&chdir>(Call::Chdir, path); }
int epoll_create1(int flags) noexcept { return errno_call<&epoll_create1>(Call::EpollCreate, flags); }
int epoll_ctl(int queue, int what, int fd, epoll_event* event) noexcept { return errno_call<&epoll_ctl>(Call::EpollCtl, queue, what, fd, event); }
int epoll_wait(int queue, epoll_event* events, int size, int timeout) { return errno_call<&epoll_wait>(Call::EpollWait, queue, events, size, timeout); }
int accept(int fd, sockaddr* peer, socklen_t* size) { return errno_call<&accept>(Call::Accept, fd, peer, size); }
int fstat(int fd, struct stat* info) noexcept { return errno_call<&fstat>(Call::Fstat, fd, info); }
int getitimer(__itimer_which_t which, itimerval* timer) noexcept { return errno_call<&getitimer>(Call::GetItimer, which, timer); }
int setitimer(__itimer_which_t which, const itimerval* timer, itimerval* old) noexcept { return errno_call<&setitimer>(Call::Setitimer, which, timer, old); }
int getsockopt(int fd, int level, int name, void* value, socklen_t* size) noexcept { return errno_call<&getsockopt>(Call::Getsockopt, fd, level, name, value, size); }
int setsockopt(int fd, int level, int name, const void* value, socklen_t size) noexcept { return errno_call<&setsockopt>(Call::Setsockopt, fd, level, name, value, size); }
int listen(int fd, int backlog) noexcept { return errno_call<&listen>(Call::Listen, fd, backlog); }
pid_t setsid() noexcept { return errno_call<&setsid>(Call::Setsid); }
int sigaction(int signo, const struct sigaction* action, struct sigaction* old) noexcept { return errno_call<&sigaction>(Call::Sigaction, signo, action, old); }
int sigtimedwait(const sigset_t* set, siginfo_t* info, const timespec* timeout) { return errno_call<&sigtimedwait>(Call::Sigtimedwait, set, info, timeout); }
int socket(int domain, int type, int protocol) noexcept { return errno_call<&socket>(Call::Socket, domain, type, protocol); }
int stat(const char* path, struct stat* info) noexcept { return errno_call<&stat>(Call::Stat, path, info); }
int pthread_mutexattr_init(pthread_mutexattr_t* attr) noexcept { return result_call<&pthread_mutexattr_init>(Call::MutexAttrInit, attr); }
int pthread_mutexattr_settype(pthread_mutexattr_t* attr, int type) noexcept { return result_call<&pthread_mutexattr_settype>(Call::MutexAttrSetType, attr, type); }
int pthread_sigmask(int how, const sigset_t* set, sigset_t* old) noexcept { return result_call<&pthread_sigmask>(Call::PthreadSigmask, how, set, old); }
int __register_atfork(void (*prepare)(), void (*parent)(), void (*child)(), void* handle);  // NOLINT(bugprone-reserved-identifier)

}  // extern "C"
// clang-format on

extern "C" {

ssize_t read(int fd, void* data, std::size_t length) {
  const inject::Decision decision = next(Call::Read, divisible(fd, length));
  if (decision.error != 0) {
    errno = decision.error;
    return -1;
  }
  const bool cut = decision.length != 0 && decision.length < length;
  return carry_out<&read>("read", fd, data, cut ? decision.length : length);
}

int pipe(int* ends) noexcept {
  const Caller caller(__builtin_return_address(0));
  return errno_call<&pipe>(Call::Pipe, ends);
}

int close(int fd) {
  const Caller caller(__builtin_return_address(0));
  return done_call<&close>(Call::Close, fd);
}

ssize_t write(int fd, const void* data, std::size_t length) {
  const Caller caller(__builtin_return_address(0));
  const inject::Decision decision = next(Call::Write, divisible(fd, length));
  if (decision.error != 0 && (decision.error != EAGAIN || !is_pipe(fd) || is_full(fd))) {
    errno = decision.error;
    return -1;
  }
  const bool cut = decision.length != 0 && decision.length < length;
  return write_throttled(fd, data, cut ? decision.length : length);
}

ssize_t pread(int fd, void* data, std::size_t length, off_t offset) {
  if (const int error = next(Call::Pread).error) {
    errno = error;
    return -1;
  }
  return carry_out<&pread>("pread", fd, data, length, offset);
}

int poll(pollfd* entries, nfds_t count, int timeout) {
  if (!active()) return carry_out<&poll>("poll", entries, count, timeout);
  credit = inject::throttle;
  run(hooks.waits);
  if (const int error = next(Call::Poll).error) {
    errno = error;
    return -1;
  }
  if (timeout >= 0 && timeout < inject::StallMillis) {
    return carry_out<&poll>("poll", entries, count, timeout);
  }
  for (int waited = 0;; waited += SliceMillis) {
    const int ready = carry_out<&poll>("poll", entries, count, SliceMillis);
    if (ready != 0) return ready;
    run(hooks.waits);
    if (waited < inject::StallMillis) continue;
    waited = 0;
    run(hooks.stalled);
  }
}

// A connect that is under way goes on, whatever the result.
int connect(int fd, const sockaddr* peer, socklen_t size) {
  const int error = next(Call::Connect).error;
  if (error != 0 && error != EINPROGRESS) {
    errno = error;
    return -1;
  }
  const int result = carry_out<&connect>("connect", fd, peer, size);
  if (error == 0) return result;
  errno = error;
  return -1;
}

int fcntl(int fd, int command, ...) {
  va_list args;
  va_start(args, command);
  const long argument = va_arg(args, long);
  va_end(args);
  return errno_call<&fcntl>(Call::Fcntl, fd, command, argument);
}

int open(const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const auto mode = va_arg(args, mode_t);
  va_end(args);
  return errno_call<&open>(Call::Open, path, flags, mode);
}

pid_t fork() noexcept {
  const pid_t pid = errno_call<&fork>(Call::Fork);
  if (pid == 0 && active()) run(hooks.forked);
  return pid;
}

// Seconds are scaled. What is left of an alarm is never reported as none.
unsigned alarm(unsigned seconds) noexcept {
  if (!active()) return carry_out<&alarm>("alarm", seconds);
  const Own own;
  const long length = static_cast<long>(seconds) * inject::MicrosPerSecond;
  itimerval timer{};
  itimerval old{};
  timer.it_value = {length / 1000000, length % 1000000};
  setitimer(ITIMER_REAL, &timer, &old);
  const long left = micros(old.it_value);
  return static_cast<unsigned>((left + inject::MicrosPerSecond - 1) / inject::MicrosPerSecond);
}

int usleep(useconds_t length) {
  if (!active()) return carry_out<&usleep>("usleep", length);
  run(hooks.sleeps);
  if (const int error = next(Call::Usleep).error) {
    errno = error;
    return -1;
  }
  return carry_out<&usleep>("usleep", std::min<useconds_t>(length, 100));
}

int gettimeofday(timeval* time, void* zone) noexcept {
  if (!active() || inject::clock_time == 0) {
    return carry_out<&gettimeofday>("gettimeofday", time, zone);
  }
  *time = {inject::clock_time, 0};
  return 0;
}

tm* localtime_r(const time_t* time, tm* local) noexcept {
  if (const int error = next(Call::LocaltimeR).error) {
    errno = error;
    return nullptr;
  }
  return carry_out<&localtime_r>("localtime_r", time, local);
}

hostent* gethostbyname(const char* name) {
  if (const int error = next(Call::GetHostByName).error) {
    h_errno = error;
    return nullptr;
  }
  const Own own;
  return carry_out<&gethostbyname>("gethostbyname", name);
}

servent* getservbyname(const char* name, const char* protocol) {
  if (next(Call::GetServByName).error != 0) return nullptr;
  const Own own;
  return carry_out<&getservbyname>("getservbyname", name, protocol);
}

std::FILE* fopen(const char* path, const char* mode) {
  if (const int error = next(Call::Fopen).error) {
    errno = error;
    return nullptr;
  }
  return carry_out<&fopen>("fopen", path, mode);
}

int fclose(std::FILE* stream) {
  if (stream == broken_stream) broken_stream = nullptr;
  return done_call<&fclose>(Call::Fclose, stream);
}

int fflush(std::FILE* stream) {
  return errno_call<&fflush>(Call::Fflush, stream);
}

int setvbuf(std::FILE* stream, char* buffer, int mode, std::size_t size) noexcept {
  return errno_call<&setvbuf>(Call::Setvbuf, stream, buffer, mode, size);
}

char* fgets(char* line, int size, std::FILE* stream) {
  if (const int error = next(Call::Fgets).error) {
    broken_stream = stream;
    errno = error;
    return nullptr;
  }
  return carry_out<&fgets>("fgets", line, size, stream);
}

int ferror(std::FILE* stream) noexcept {
  return stream == broken_stream ? 1 : carry_out<&ferror>("ferror", stream);
}

std::size_t fwrite(const void* data, std::size_t size, std::size_t count, std::FILE* stream) {
  const inject::Decision decision = next(Call::Fwrite, size * count);
  if (decision.error != 0) {
    errno = decision.error;
    return 0;
  }
  const bool cut = decision.length < size * count;
  if (!cut) return carry_out<&fwrite>("fwrite", data, size, count, stream);
  return carry_out<&fwrite>("fwrite", data, std::size_t{1}, decision.length, stream) / size;
}

int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attr) noexcept {
  if (const int error = next(Call::MutexInit).error) return error;
  replace_mutex(nullptr, mutex);
  return carry_out<&pthread_mutex_init>("pthread_mutex_init", mutex, attr);
}

int pthread_mutex_destroy(pthread_mutex_t* mutex) noexcept {
  const int error = next(Call::MutexDestroy).error;
  replace_mutex(mutex, nullptr);
  const int result = carry_out<&pthread_mutex_destroy>("pthread_mutex_destroy", mutex);
  return error != 0 ? error : result;
}

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  if (active() && was_made(mutex)) {
    if (const int error = next(Call::MutexLock).error) return error;
  }
  return carry_out<&pthread_mutex_lock>("pthread_mutex_lock", mutex);
}

// What pthread_atfork() calls.
int __register_atfork(void (*prepare)(), void (*parent)(), void (*child)(), void* handle) {
  if (const int error = next(Call::PthreadAtfork).error) return error;
  return carry_out<&__register_atfork>("__register_atfork", prepare, parent, child, handle);
}

}  // extern "C"
