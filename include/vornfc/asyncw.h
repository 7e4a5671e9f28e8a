#pragma once
/// Writes whole messages to one file without blocking.

#include "vornfc/evtmgr.h"
#include "vornfc/export.h"

#include <memory>

namespace vornfc {

struct ImplAsyW;

/// Writes to one non-blocking file. What the descriptor does not take at once is copied into a
/// queue, which is drained on the dispatcher thread as the descriptor becomes ready; the file is
/// watched exactly while the queue holds bytes. The event manager is `VrnAppShell::evtmgr`.
///
/// An error is sticky: what is queued is discarded, and every awrite() from then on returns it and
/// writes nothing. Errors: an `errno` value of write(); -1 the peer has hung up, or the descriptor
/// is in error; -2 the event manager could not watch the file, or an override of aioReady() threw.
///
/// It writes by write(2), so a peer that is gone raises SIGPIPE: a process that does not run as a
/// daemon of VrnAppShell ignores that signal itself.
///
/// Lifetime: destroy() ends a writer whenever the application likes. One that is deleted while it
/// has bytes queued, unless that is on another thread than the dispatcher's or after the loop has
/// ended, ends the process with exit(1). Threads: any. Locks: every operation takes the lock of
/// VrnAIO unless `locked` says that the caller holds it, and throws VrnException 2 when it cannot
/// be taken; there are no callbacks.
class VORNFC_EXPORT VrnAsyncWriter : public VrnAIO {
 public:
  /// Puts `file` in non-blocking mode. `ownsFile`: it is deleted with the writer; otherwise it
  /// outlives the writer. Throws VrnException 3 when `file` is null, and what
  /// VrnFile::setBlockingMode() throws; `file` is then left to the caller.
  VrnAsyncWriter(VrnFile* file, bool ownsFile);
  ~VrnAsyncWriter() override;

  /// Writes the `len` bytes at `buf`, or what the descriptor takes of them, and queues the rest;
  /// queues them all when there is a queue already. Returns 0, or the sticky error. A message that
  /// is written at once is neither copied nor allocated for.
  /// Throws VrnException 3 when `len` is negative, `buf` null with `len` above 0, or bytes have to
  /// be queued and there is no event manager; what VrnEvtMgr::startAIO() throws; std::bad_alloc.
  /// Nothing has then been queued, but a part of the message may have been written.
  int awrite(const void* buf, int len);

  VrnFile* aioFile() const;  ///< The file written to. Takes no lock.

  int queuedBytes(bool locked = false) const;  ///< Bytes that wait; INT_MAX when there are more.
  int queuedMsgs(bool locked = false) const;   ///< Messages that wait, whole or in part.

  /// The sticky error, 0: none. Takes the lock whatever `locked` says: not to be called by who
  /// holds it.
  int error(bool locked = false) const;

  /// Discards what is queued and deletes the writer: at once, or, when it is watching its file and
  /// this is the dispatcher thread, as soon as that watch has ended. It is not to be used any more,
  /// unless this throws std::bad_alloc: then nothing has happened.
  void destroy();

  void aioReady(VrnFile* file) override;  ///< For the event manager: drains the queue.

  /// For the event manager: the watch has ended. Unless that is what the drained queue asked for,
  /// discards the queue; a hang-up or an error becomes the sticky error. After destroy(): deletes
  /// the writer.
  void aioCancelled(VrnFile* file, bool hangup, bool error) override;

 private:
  std::unique_ptr<ImplAsyW> impl;
};

}  // namespace vornfc
