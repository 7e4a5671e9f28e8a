#pragma once
/// Reads requested numbers of bytes from any number of files.

#include "vornfc/evtmgr.h"
#include "vornfc/export.h"

#include <memory>
#include <string>

namespace vornfc {

struct ImplAsyRdr;

/// Derive, implement the three callbacks, request. For each file it reads the number of bytes that
/// was requested into the application's buffer, by one read() each time the file is ready, and
/// tells when the buffer is full. A file without a request is listened to: the application is told
/// that it is ready, and reads itself. The event manager is `VrnAppShell::evtmgr`.
///
/// Ownership: neither files nor buffers are owned. A buffer is in use until its request is replaced
/// or its file removed. Lifetime: all files are stopped, and pending stops confirmed, before it is
/// destroyed; one that is destroyed with stops pending ends the process with exit(1). Threads: any
/// thread; callbacks run on the dispatcher thread. Locks: an operation takes the lock of VrnAIO
/// unless `locked` says that the caller holds it, and throws VrnException 2 when it cannot be
/// taken.
class VORNFC_EXPORT VrnAsyncReader : public VrnAIO {
 public:
  explicit VrnAsyncReader(
      const std::string& name);                 ///< `name` is for log lines; empty: the address
  VrnAsyncReader(const VrnAsyncReader& other);  ///< Named like `other`, without its files.

  /// Forgets the files of this reader without stopping them, and takes nothing of `other`.
  VrnAsyncReader& operator=(const VrnAsyncReader& other);
  ~VrnAsyncReader() override;

  /// Reads `bytes` bytes of `file` into `buf`, again and again, with an aioReceived() each time; 0:
  /// listens. A request replaces the one before, and what that had read is abandoned. Watches
  /// `file` from now on if it is not watched yet. A request made while a stop of the file is under
  /// way does not undo the stop: aioRemoved() follows all the same.
  /// Throws VrnException 3 when `bytes` is negative, `buf` null with `bytes` above 0, `file` null,
  /// or there is no event manager, and what VrnEvtMgr::startAIO() throws; nothing has then changed.
  /// Once the loop has ended a file counts as watched all the same, until it is stopped, but no
  /// callback follows.
  void aioRequest(VrnFile* file, int bytes, char* buf, bool locked = false);

  /// As aioRequest(file, 0, nullptr). Takes the lock whatever `locked` says: not to be called by
  /// who holds it.
  void aioListen(VrnFile* file, bool locked = false);

  /// The bytes requested, 0 while listening; -1 when `file` is not watched.
  int requestedBytes(VrnFile* file, bool locked = false) const;

  /// The bytes that are in the buffer already; -1 when `file` is not watched.
  int pendingBytes(VrnFile* file, bool locked = false) const;

  bool aioFile(VrnFile* file, bool locked = false) const;  ///< Whether `file` is watched.
  int aioFiles(bool locked = false) const;                 ///< How many files are watched.

  /// Stops watching `file`. True: it is not watched (any more), no callback follows. False: the
  /// stop is under way and aioRemoved() follows. Called on another thread while this object's
  /// callback runs, it waits for the end of the callback, for 100 ms at most, and not at all if
  /// `locked`. Throws what VrnEvtMgr::stopAIO() throws; `file` then stays as it was.
  bool aioStop(VrnFile* file, bool locked = false);

  /// Stops watching every file. Returns the number of those whose stop is under way; with none,
  /// waits for a running callback as aioStop() does. Throws what that throws.
  int aioTerminate(bool locked = false);

  /// For the event manager: one read().
  void aioReady(VrnFile* file) override;

  /// For the event manager: drops `file` and calls aioRemoved().
  void aioCancelled(VrnFile* file, bool hangup, bool error) override;

  /// `file` is no longer watched: `hangup` at its end or because of the descriptor, `error` of a
  /// failed read(), an error on the descriptor, or a start that was queued and came to nothing;
  /// neither: a stop has completed. Dispatcher thread, no lock held; may destroy `file`, and this
  /// object if that was its last file. An exception is logged.
  virtual void aioRemoved(VrnFile* file, bool hangup, bool error) = 0;

  /// `bytes` bytes, the number requested, are in `buffer`. The request stays in force for the next
  /// ones; it may be changed from here. Dispatcher thread, no lock held. When it throws, the
  /// descriptor is closed and `file` dropped, without an aioRemoved().
  virtual void aioReceived(VrnFile* file, int bytes, char* buffer) = 0;

  /// `file`, which is listened to, can be read. Dispatcher thread, with the lock held: operations
  /// are called with `locked`, and the reader is not destroyed here. When it throws: as
  /// aioReceived().
  virtual void aioReadable(VrnFile* file) = 0;

 private:
  std::unique_ptr<ImplAsyRdr> impl;
};

}  // namespace vornfc
