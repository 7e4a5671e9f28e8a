#include "fault_table.h"

#include <netdb.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace inject {

namespace {

enum Extra : unsigned {
  Shorts = 1,    // the call may take a part
  Storms = 2,    // EINTR, many times in a row
  Repeats = 4,   // each error also several times in a row
  Resumes = 8,   // EINTR is no failure
  Awaited = 16,  // nor is EAGAIN
};

struct Row {
  Call call;
  const char* name;
  std::vector<int> errors;
  unsigned extra = 0;
};

// Calls that cannot fail with the arguments that the library gives, and whose result nobody can
// use, are not here: gettimeofday(), clock_gettime(), getpid(), alarm(), umask(), sigemptyset().
// Nor are points made of pthread_mutex_lock(): it cannot fail for a mutex of the default type.
const std::array<Row, CallKinds>& table() {
  static const std::array<Row, CallKinds> rows{{
      {Call::Accept,
       "accept",
       {EAGAIN,       EBADF,       ECONNABORTED, EFAULT,          EINTR,           EINVAL,
        EMFILE,       ENFILE,      ENOBUFS,      ENOMEM,          ENOTSOCK,        EOPNOTSUPP,
        EPERM,        EPROTO,      ENETDOWN,     ENOPROTOOPT,     EHOSTDOWN,       ENONET,
        EHOSTUNREACH, ENETUNREACH, ENOSR,        ESOCKTNOSUPPORT, EPROTONOSUPPORT, ETIMEDOUT},
       Storms | Resumes},
      {Call::Allocate, "new", {ENOMEM}, Repeats},
      {Call::Bind,
       "bind",
       {EACCES, EADDRINUSE, EBADF, EINVAL, ENOTSOCK, EADDRNOTAVAIL, EFAULT, ELOOP, ENAMETOOLONG,
        ENOENT, ENOMEM, ENOTDIR, EROFS}},
      {Call::Chdir, "chdir", {EACCES, EFAULT, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR}},
      {Call::Close, "close", {EBADF, EINTR, EIO, ENOSPC, EDQUOT}},
      {Call::Connect,
       "connect",
       {EACCES, EPERM, EADDRINUSE, EADDRNOTAVAIL, EAFNOSUPPORT, EAGAIN, EALREADY, EBADF,
        ECONNREFUSED, EFAULT, EINPROGRESS, EINTR, EISCONN, ENETUNREACH, ENOTSOCK, EPROTOTYPE,
        ETIMEDOUT},
       Storms | Resumes},
      {Call::EpollCreate, "epoll_create1", {EINVAL, EMFILE, ENFILE, ENOMEM}},
      {Call::EpollCtl, "epoll_ctl", {EBADF, EEXIST, EINVAL, ELOOP, ENOENT, ENOMEM, ENOSPC, EPERM}},
      {Call::EpollWait, "epoll_wait", {EBADF, EFAULT, EINTR, EINVAL}, Storms | Resumes},
      {Call::Fclose, "fclose", {EBADF, EINTR, EIO, ENOSPC, EDQUOT, EAGAIN, EFBIG, EPIPE}},
      {Call::Fcntl,
       "fcntl",
       {EACCES, EAGAIN, EBADF, EBUSY, EDEADLK, EFAULT, EINTR, EINVAL, EMFILE, ENOLCK, EPERM}},
      {Call::Fflush,
       "fflush",
       {EBADF, EAGAIN, EDQUOT, EFAULT, EFBIG, EINTR, EINVAL, EIO, ENOSPC, EPERM, EPIPE}},
      {Call::Fgets, "fgets", {EAGAIN, EBADF, EFAULT, EINTR, EINVAL, EIO, EISDIR, ENOMEM}},
      {Call::Fopen, "fopen", {EACCES,     EDQUOT,    EEXIST, EFAULT, EFBIG,        EINTR,
                              EINVAL,     EISDIR,    ELOOP,  EMFILE, ENAMETOOLONG, ENFILE,
                              ENODEV,     ENOENT,    ENOMEM, ENOSPC, ENOTDIR,      ENXIO,
                              EOPNOTSUPP, EOVERFLOW, EPERM,  EROFS,  ETXTBSY,      EAGAIN}},
      {Call::Fork, "fork", {EAGAIN, ENOMEM, ENOSYS}},
      {Call::Fstat, "fstat", {EACCES, EBADF, EFAULT, ENOMEM, EOVERFLOW}},
      {Call::Fwrite,
       "fwrite",
       {EAGAIN, EBADF, EDQUOT, EFAULT, EFBIG, EINTR, EINVAL, EIO, ENOSPC, EPERM, EPIPE, ENOMEM},
       Shorts},
      {Call::GetHostByName, "gethostbyname", {HOST_NOT_FOUND, TRY_AGAIN, NO_RECOVERY, NO_DATA}},
      {Call::GetItimer, "getitimer", {EFAULT, EINVAL}},
      {Call::GetServByName, "getservbyname", {ENOENT}},
      {Call::Getsockopt, "getsockopt", {EBADF, EFAULT, EINVAL, ENOPROTOOPT, ENOTSOCK}},
      {Call::Listen, "listen", {EADDRINUSE, EBADF, ENOTSOCK, EOPNOTSUPP}},
      {Call::LocaltimeR, "localtime_r", {EOVERFLOW}},
      {Call::MutexAttrInit, "pthread_mutexattr_init", {ENOMEM}},
      {Call::MutexAttrSetType, "pthread_mutexattr_settype", {EINVAL}},
      {Call::MutexDestroy, "pthread_mutex_destroy", {EBUSY, EINVAL}},
      {Call::MutexInit, "pthread_mutex_init", {EAGAIN, ENOMEM, EPERM, EINVAL}},
      {Call::MutexLock, "pthread_mutex_lock", {}},
      {Call::Open, "open", {EACCES, EBUSY,  EDQUOT,  EEXIST,  EFAULT,       EFBIG,      EINTR,
                            EINVAL, EISDIR, ELOOP,   EMFILE,  ENAMETOOLONG, ENFILE,     ENODEV,
                            ENOENT, ENOMEM, ENOSPC,  ENOTDIR, ENXIO,        EOPNOTSUPP, EOVERFLOW,
                            EPERM,  EROFS,  ETXTBSY, EAGAIN}},
      {Call::Pipe, "pipe", {EFAULT, EINVAL, EMFILE, ENFILE, ENOPKG}},
      {Call::Poll, "poll", {EFAULT, EINTR, EINVAL, ENOMEM}, Storms | Resumes},
      {Call::Pread,
       "pread",
       {EAGAIN, EBADF, EFAULT, EINTR, EINVAL, EIO, EISDIR, ENXIO, EOVERFLOW, ESPIPE}},
      {Call::PthreadAtfork, "pthread_atfork", {ENOMEM}},
      {Call::PthreadSigmask, "pthread_sigmask", {EFAULT, EINVAL}},
      {Call::Read,
       "read",
       {EAGAIN, EBADF, EFAULT, EINTR, EINVAL, EIO, EISDIR, ECONNRESET, ETIMEDOUT, ENOBUFS, ENOMEM},
       Shorts | Storms | Resumes | Awaited},
      {Call::Setitimer, "setitimer", {EFAULT, EINVAL}},
      {Call::Setsid, "setsid", {EPERM}},
      {Call::Setsockopt, "setsockopt", {EBADF, EFAULT, EINVAL, ENOPROTOOPT, ENOTSOCK}},
      {Call::Setvbuf, "setvbuf", {EBADF, EINVAL, ENOMEM}},
      {Call::Sigaction, "sigaction", {EFAULT, EINVAL}},
      {Call::Sigtimedwait, "sigtimedwait", {EAGAIN, EINTR, EINVAL}, Storms | Resumes | Awaited},
      {Call::Socket,
       "socket",
       {EACCES, EAFNOSUPPORT, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPROTONOSUPPORT}},
      {Call::Stat,
       "stat",
       {EACCES, EBADF, EFAULT, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW}},
      {Call::Usleep, "usleep", {EINTR, EINVAL}, Storms | Resumes},
      {Call::Write,
       "write",
       {EAGAIN, EBADF, EDESTADDRREQ, EDQUOT, EFAULT, EFBIG, EINTR, EINVAL, EIO, ENOSPC, EPERM,
        EPIPE, ECONNRESET},
       Shorts | Storms | Resumes | Awaited},
  }};
  return rows;
}

const Row& row_of(Call call) {
  return table()[static_cast<std::size_t>(call)];
}

constexpr int StormTimes[] = {7, 100};
constexpr int RepeatTimes[] = {2, 8};

}  // namespace

const char* name_of(Call call) {
  return row_of(call).name;
}

bool call_named(const std::string& name, Call* call) {
  for (const Row& row : table()) {
    if (name != row.name) continue;
    *call = row.call;
    return true;
  }
  return false;
}

std::vector<Fault> faults_of(Call call) {
  const Row& row = row_of(call);
  std::vector<Fault> faults;
  for (const int error : row.errors) faults.push_back({Fault::Error, error, 1});
  if (row.extra & Shorts) {
    faults.push_back({Fault::ShortOne});
    faults.push_back({Fault::ShortHalf});
  }
  if (row.extra & Storms) {
    for (const int times : StormTimes) faults.push_back({Fault::Error, EINTR, times});
  }
  if (row.extra & Repeats) {
    for (const int times : RepeatTimes) faults.push_back({Fault::Error, row.errors[0], times});
  }
  return faults;
}

std::string text_of(const Fault& fault) {
  if (fault.kind == Fault::ShortOne) return "short-one";
  if (fault.kind == Fault::ShortHalf) return "short-half";
  std::string text = strerrorname_np(fault.error);
  if (fault.times > 1) text += "*" + std::to_string(fault.times);
  return text;
}

bool fault_named(const std::string& text, Fault* fault) {
  for (const Row& row : table()) {
    for (const Fault& known : faults_of(row.call)) {
      if (text_of(known) != text) continue;
      *fault = known;
      return true;
    }
  }
  return false;
}

bool is_harmless(Call call, const Fault& fault) {
  const unsigned extra = row_of(call).extra;
  if (call == Call::Fwrite) return false;  // the stream does not tell what it has taken
  if (fault.kind != Fault::Error) return true;
  if (fault.error == EINTR) return (extra & Resumes) != 0;
  return fault.error == EAGAIN && (extra & Awaited) != 0;
}

}  // namespace inject
