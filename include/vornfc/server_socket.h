#pragma once
/// A socket that serves on a local address.

#include "vornfc/export.h"
#include "vornfc/socket.h"

namespace vornfc {

/// Construct, activate, watch the descriptor with a VrnAIO, and accept whenever it is ready.
/// Threads: one thread at a time uses a server socket, as a rule the dispatcher thread.
class VORNFC_EXPORT VrnServerSocket : public VrnSocket {
 public:
  /// The constructors of VrnSocket for a server: the same arguments, defaults and errors.
  VrnServerSocket(unsigned* addr, int port, bool isTcp);

  /// The same from host and port.
  VrnServerSocket(const char* host, const char* port, bool isTcp);

  VrnServerSocket(const char* spec, bool isTcp);  ///< The same from "host:port".

  /// Allows the address to be reused, binds it and, for TCP, listens with a backlog of 1024. Throws
  /// VrnException 12 when the address is taken or not local, 2 when another step fails.
  void activate();

  /// Takes one waiting connection; in blocking mode, which is the default, waits for one. Returns a
  /// new socket, owned by the caller, that holds the peer's address and is named
  /// "caller-<address>:<port>"; its `tcp` and `server` mean nothing. `errno` is then 0. Null, with
  /// the reason in `errno`, on failure.
  ///
  /// A name beyond 24 characters ends the process with a level-1 line and abort().
  VrnSocket* accept();

  /// Takes one waiting connection, like accept(), and closes it at once.
  void reject();
};

}  // namespace vornfc
