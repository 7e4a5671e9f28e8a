#pragma once
/// An IPv4 socket that is created, addressed and named, but neither connected nor bound.

#include "vornfc/export.h"
#include "vornfc/file.h"

#include <netinet/in.h>

namespace vornfc {

/// Creates a TCP or UDP socket at construction and resolves the address that a client will connect
/// to or a server will serve on. The descriptor is owned and in blocking mode.
///
/// The name tells log lines what it is: "C/" or "S/" for client or server, "TCP-" or "UDP-", then
/// "unconnected" or address and port, as in "S/TCP-0.0.0.0:8080".
///
/// Threads: as VrnFile. Names are resolved by gethostbyname() and getservbyname(), which block and
/// keep their results in static storage: one thread at a time resolves in the process.
///
/// The constructors leave no descriptor open when they throw. Errors, always VrnException: 2 the
/// socket cannot be created; 8 the host does not resolve, or the port is neither number nor
/// service.
class VORNFC_EXPORT VrnSocket : public VrnFile {
 public:
  /// As setup(unsigned*, int).
  VrnSocket(bool isServer, unsigned* addr, int port, bool isTcp);

  /// As setup(const char*, const char*).
  VrnSocket(bool isServer, const char* host, const char* port, bool isTcp);

  /// `spec` is "port", ":port" or "host:port", split at its first colon. Null or empty makes a UDP
  /// client that is unconnected, and throws VrnException 3 for any other kind of socket.
  VrnSocket(bool isServer, const char* spec, bool isTcp);

  ~VrnSocket() override;

  /// Fills `address` and creates, names and assigns the socket; the constructors do so, and a
  /// second time throws VrnException 3 and changes nothing.
  ///
  /// `addr`: the IPv4 address in network order; null: any address for a server, the loopback
  /// address for a client. `port`: in host order, of which the low 16 bits count; -1: unconnected,
  /// `addr` is ignored.
  void setup(unsigned* addr, int port);

  /// The same from text. `host`: see ipaddr(); null or empty: the default address. `port`: see
  /// portnumber().
  void setup(const char* host, const char* port);

  /// The number that `text` begins with, taken as it is, without a check of its range ("80abc" is
  /// 80); where there is none, or it is 0, the port in host order of the service of that name. -1
  /// for an unknown service and for null.
  static int portnumber(const char* text, bool isTcp);

  /// Resolves dotted notation or a host name. Returns 0 and stores the address in network order in
  /// `*addr`; 1, with `*addr` INADDR_NONE, when `text` is null or has no IPv4 address. The
  /// broadcast address 255.255.255.255 is valid. Throws VrnException 3 when `addr` is null.
  static int ipaddr(const char* text, unsigned* addr);

  sockaddr_in address{};  ///< Peer (client) or local address (server); all zero while unconnected.
  bool tcp = false;       ///< Stream socket; false: datagram socket.
  bool server = false;    ///< Made to listen; false: made to connect.

 private:
  friend class VrnServerSocket;
  VrnSocket();  // unassigned, for a connection that is accepted
};

}  // namespace vornfc
