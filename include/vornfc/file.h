#pragma once
/// A named file descriptor, and timed blocking reads and writes of an exact byte count.

#include "vornfc/export.h"

#include <memory>
#include <string>

namespace vornfc {

struct ImplFile;

/// Gives a file descriptor a name for log lines, an owner and a blocking mode. It is what the event
/// manager watches, and the base of VrnSocket.
///
/// Lifetime: a file that is watched should be stopped before it is destroyed; one that is destroyed
/// all the same is forgotten by the event manager, without a callback.
/// Threads: no lock; one thread at a time uses a file, as a rule the dispatcher thread.
class VORNFC_EXPORT VrnFile {
 public:
  VrnFile();           ///< Unassigned: `fd` is -1.
  virtual ~VrnFile();  ///< Closes the descriptor when it is assigned and owned.
  VrnFile(const VrnFile&) = delete;
  VrnFile& operator=(const VrnFile&) = delete;

  /// Binds the object to descriptor `fd`, once. `name` is copied; empty: "?fd?". `owns`: the
  /// destructor closes `fd`; from a successful return on it is the object's to close.
  /// Throws VrnException 3 when `fd` is negative or the object is assigned already; the caller then
  /// keeps `fd`.
  void assign(int fd, const std::string& name, bool owns);

  /// The name given to assign(), "_UNASSIGNED_" before it. Valid as long as the object.
  const char* name() const;

  /// Clears (`blocking`) or sets O_NONBLOCK. No system call when the mode is known to be that
  /// already. Throws VrnException 2 when the flags cannot be read or set, 3 when unassigned.
  void setBlockingMode(bool blocking);

  /// True when the last setBlockingMode() left the descriptor blocking. False also before the first
  /// call, whatever the descriptor's mode is: only the remembered flags are consulted.
  bool blockingMode() const;

  /// Reads exactly `len` bytes from `fd` into `buf`. Returns the count, which is below `len` after
  /// a time-out or at the end of file, or -1 with `errno` set after an error.
  ///
  /// `noWait`: return 0 when the first read finds a non-blocking descriptor empty; otherwise, and
  /// once a byte has arrived, an empty descriptor is tried again every 10 ms.
  /// `timeout`: 0 none; N > 0: N seconds for the whole transfer; -N: N seconds for each wait.
  /// `eof`: set to true at the end of file, and left alone otherwise; null makes the end of file an
  /// error.
  ///
  /// A time-out uses the process's alarm and SIGALRM action: one timed transfer at a time in the
  /// process, on a thread that does not block SIGALRM; other threads may run. An alarm that was
  /// pending is set again with its remaining seconds, but is lost when the transfer times out.
  /// Throws VrnException 3 when `len` is negative, or `buf` null with `len` above 0; 2 when the
  /// action of SIGALRM cannot be set for a time-out.
  static int bread(int fd, void* buf, int len, bool noWait, int timeout, bool* eof);

  /// Writes exactly `len` bytes; as bread() without `noWait` and `eof`.
  static int bwrite(int fd, const void* buf, int len, int timeout);

  int fd = -1;  ///< The descriptor, -1 while unassigned. To be read, not changed.

 private:
  friend class VrnEvtMgrNative;
  friend struct ImplFile;
  std::unique_ptr<ImplFile> impl;  // null while unassigned
};

}  // namespace vornfc
