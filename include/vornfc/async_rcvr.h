#pragma once
/// Watches any number of files for input on behalf of one application object.

#include "vornfc/evtmgr.h"
#include "vornfc/export.h"

#include <memory>
#include <string>

namespace vornfc {

struct ImplAsyRcv;

/// Derive, implement aioReady() and aioRemoved(), start files. It remembers which files it has
/// started; it neither reads, closes nor owns them. The event manager is `VrnAppShell::evtmgr`.
///
/// Lifetime: all files are stopped, and pending stops confirmed, before it is destroyed; one that
/// is destroyed with stops pending ends the process with exit(1). Threads: any thread; callbacks
/// run on the dispatcher thread, without the lock. Locks: an operation takes the lock of VrnAIO
/// unless `locked` says that the caller holds it, and throws VrnException 2 when it cannot be
/// taken.
class VORNFC_EXPORT VrnAsyncReceiver : public VrnAIO {
 public:
  explicit VrnAsyncReceiver(
      const std::string& name);                     ///< `name` is for log lines; empty: the address
  VrnAsyncReceiver(const VrnAsyncReceiver& other);  ///< Named like `other`, without its files.

  /// Forgets the files of this receiver without stopping them, and takes nothing of `other`.
  VrnAsyncReceiver& operator=(const VrnAsyncReceiver& other);
  ~VrnAsyncReceiver() override;

  /// Watches `file`, which must not be destroyed before it is stopped. Once the loop has ended the
  /// file counts as watched all the same, until it is stopped, but no callback follows.
  /// Throws VrnException 3 when there is no event manager or `file` is null, and what
  /// VrnEvtMgr::startAIO() throws; `file` is then not watched.
  void aioStart(VrnFile* file, bool locked = false);

  /// Stops watching `file`. True: it is not watched (any more), no callback follows. False: the
  /// stop is under way and aioRemoved() follows. Called on another thread while this object's
  /// callback runs, it waits for the end of the callback, for 100 ms at most, and not at all if
  /// `locked`. Throws what VrnEvtMgr::stopAIO() throws; `file` then stays as it was.
  bool aioStop(VrnFile* file, bool locked = false);

  /// Stops watching every file. Returns the number of those whose stop is under way; with none,
  /// waits for a running callback as aioStop() does. Throws what that throws.
  int aioTerminate(bool locked = false);

  bool aioFile(VrnFile* file, bool locked = false) const;  ///< Whether `file` is watched.
  int aioFiles(bool locked = false) const;                 ///< How many files are watched.

  /// `file` can be read. Dispatcher thread, no lock held. When it throws, the descriptor is closed
  /// and `file` dropped, without an aioRemoved().
  void aioReady(VrnFile* file) override = 0;

  /// For the event manager: drops `file` and calls aioRemoved().
  void aioCancelled(VrnFile* file, bool hangup, bool error) override;

  /// `file` is no longer watched: `hangup` because of the descriptor, `error` of an error on it;
  /// `error` alone: a start that was queued came to nothing; neither: a stop has completed.
  /// Dispatcher thread, no lock held; may destroy `file`, and this object if that was its last
  /// file. An exception is logged.
  virtual void aioRemoved(VrnFile* file, bool hangup, bool error) = 0;

 private:
  std::unique_ptr<ImplAsyRcv> impl;
};

}  // namespace vornfc
