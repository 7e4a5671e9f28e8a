#pragma once
/// A socket that connects, blocking or not.

#include "vornfc/export.h"
#include "vornfc/socket.h"

#include <memory>

namespace vornfc {

class VrnClientSocket;
struct ImplClientSocket;

/// Who is told the outcome of an asynchronous connect. Outlives the connect.
class VORNFC_EXPORT VrnSocketsClient {
 public:
  VrnSocketsClient() = default;
  VrnSocketsClient(const VrnSocketsClient&) = delete;
  VrnSocketsClient& operator=(const VrnSocketsClient&) = delete;

  /// `result`: 0 connected; positive: the `errno` value of connect() or of the socket's pending
  /// error; -1 that error could not be read; -2 the event manager has dropped the descriptor (as
  /// it does after a refusal, and when its loop has ended), or connect() failed with `errno` 0.
  /// Called once for each connect, from inside connect() or on the dispatcher thread, with no lock
  /// held. May destroy() `socket`.
  virtual void socketConnected(VrnClientSocket* socket, int result) = 0;

  virtual ~VrnSocketsClient();
};

/// Connects to the address given at construction, and bears the connection. Asynchronous connects
/// are watched by the event manager, `VrnAppShell::evtmgr`.
///
/// Lifetime: a socket with a connect under way is ended by destroy(); one that is deleted then,
/// unless that is on another thread than the dispatcher's or after the loop has ended, ends the
/// process with exit(1). Threads: connect() and destroy() may be called from any thread, one at a
/// time for one socket. Locks: they take the class's own lock, and one of the socket's that is
/// private.
class VORNFC_EXPORT VrnClientSocket : public VrnSocket {
 public:
  /// The constructors of VrnSocket for a client: the same arguments, defaults and errors.
  VrnClientSocket(unsigned* addr, int port, bool tcp);
  VrnClientSocket(const char* host, const char* port, bool tcp);  ///< The same from host and port.
  VrnClientSocket(const char* spec, bool tcp);                    ///< The same from "host:port".
  ~VrnClientSocket() override;

  /// Connects.
  ///
  /// `caller` null: puts the descriptor in blocking mode and waits. `timeout`: in milliseconds, of
  /// which whole seconds count, at least one; 0: none. Returns 0 connected; -1 timed out;
  /// otherwise the `errno` value, or -2 for a failure with `errno` 0. A time-out uses the process's
  /// alarm and SIGALRM action: one timed operation at a time in the process, on a thread that does
  /// not block SIGALRM; other threads may run. An alarm that was pending is set again with its
  /// remaining seconds. After a time-out the attempt goes on in the system until the socket is
  /// destroyed.
  ///
  /// With `caller`, which is not owned: puts the descriptor in non-blocking mode and waits for
  /// nothing. Returns 1 when the outcome is known and socketConnected() has been called already; 0
  /// when it follows on the dispatcher thread. After a success the socket does not remember that it
  /// is connected, unless the connection was made at once. After a refusal (-2) the system still
  /// holds the error, and gives it to the next connect() of the same socket.
  ///
  /// Throws VrnException 3 when the socket has no address, for a `timeout` with a `caller`, and
  /// when there is no event manager to wait with; 6 when a connect is under way or has succeeded at
  /// once; 2 when the action of SIGALRM cannot be set for a `timeout`; what
  /// VrnFile::setBlockingMode() and VrnEvtMgr::startAIO() throw. After an exception no
  /// call follows.
  int connect(VrnSocketsClient* caller, int timeout);

  /// Deletes the socket: at once, or, when a connect is under way and this is the dispatcher
  /// thread, as soon as its watch has ended. That connect's socketConnected() is not called. The
  /// socket is not to be used any more, unless this throws std::bad_alloc: then nothing has
  /// happened.
  void destroy();

 private:
  friend struct ImplClientSocket;
  std::unique_ptr<ImplClientSocket> impl;  // null until the first connect
};

}  // namespace vornfc
