#include "vornfc/server_socket.h"

#include "unique_fd.h"
#include "vornfc/exception.h"
#include "vornfc/utils.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace vornfc {

namespace {

// Fills in "caller-<address>:<port>". That can take up to 28 characters, so the limit of 24 is
// real: a name that does not fit is never shortened to what may be the name of another caller.
void name_caller(char (&name)[25], const sockaddr_in& peer) {
  const char* addr = inet_ntoa(peer.sin_addr);
  const int port = ntohs(peer.sin_port);
  const int length = std::snprintf(name, sizeof name, "caller-%s:%d", addr, port);
  if (length < static_cast<int>(sizeof name)) return;
  vrnlog(1, "Socket: Name of caller %s:%d is too long - ABORT APP !", addr, port);
  std::abort();
}

// The next connection of listener `fd`, or -1 and `errno`.
int accept_from(int fd, sockaddr_in* peer) {
  int accepted;
  do {
    socklen_t size = sizeof *peer;
    accepted = accept(fd, reinterpret_cast<sockaddr*>(peer), &size);
  } while (accepted == -1 && errno == EINTR);
  return accepted;
}

}  // namespace

VrnServerSocket::VrnServerSocket(unsigned* addr, int port, bool isTcp)
    : VrnSocket(true, addr, port, isTcp) {}

VrnServerSocket::VrnServerSocket(const char* host, const char* port, bool isTcp)
    : VrnSocket(true, host, port, isTcp) {}

VrnServerSocket::VrnServerSocket(const char* spec, bool isTcp) : VrnSocket(true, spec, isTcp) {}

void VrnServerSocket::activate() {
  const int on = 1;
  if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1) {
    throw VrnException(2, "Failed to set sockopt(REUSEADDR) for %s", name());
  }
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
    throw VrnException(12, "Failed to bind socket %s", name());
  }
  if (tcp && listen(fd, 1024) == -1) {
    throw VrnException(2, "Failed to listen on socket %s", name());
  }
  vrnlog(4, "Socket: Listening on %d=%s", fd, name());
}

VrnSocket* VrnServerSocket::accept() {
  static constexpr char outcome[] = "Socket %d=%s accept(%s) returned %d (%d)";
  sockaddr_in peer{};
  UniqueFd accepted(accept_from(fd, &peer));
  if (accepted.get() == -1) {
    vrnlog(5, outcome, fd, name(), "<NULL>", -1, errno);
    return nullptr;
  }
  char caller[25];
  name_caller(caller, peer);
  std::unique_ptr<VrnSocket> connection(new VrnSocket);
  connection->assign(accepted.get(), caller, true);
  accepted.release();
  connection->address = peer;

  errno = 0;
  vrnlog(5, outcome, fd, name(), connection->name(), connection->fd, 0);
  return connection.release();
}

void VrnServerSocket::reject() {
  delete accept();
}

}  // namespace vornfc
