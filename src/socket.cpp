#include "vornfc/socket.h"

#include "unique_fd.h"
#include "vornfc/exception.h"
#include "vornfc/utils.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace vornfc {

VrnSocket::VrnSocket() = default;

VrnSocket::VrnSocket(bool isServer, unsigned* addr, int port, bool isTcp)
    : tcp(isTcp), server(isServer) {
  setup(addr, port);
}

VrnSocket::VrnSocket(bool isServer, const char* host, const char* port, bool isTcp)
    : tcp(isTcp), server(isServer) {
  setup(host, port);
}

VrnSocket::VrnSocket(bool isServer, const char* spec, bool isTcp) : tcp(isTcp), server(isServer) {
  if (!spec || !*spec) {
    VrnAssertFull(!tcp && !server, "Socket: Null address spec for %s %s", tcp ? "TCP" : "UDP",
                  server ? "Server" : "Client");
    setup(nullptr, -1);
    return;
  }
  const char* colon = std::strchr(spec, ':');
  const std::string host(spec, colon ? colon : spec);
  setup(host.c_str(), colon ? colon + 1 : spec);
}

VrnSocket::~VrnSocket() = default;

void VrnSocket::setup(unsigned* addr, int port) {
  sockaddr_in wanted{};
  std::string label = server ? "S/" : "C/";
  label += tcp ? "TCP-" : "UDP-";
  if (port == -1) {
    label += "unconnected";
  } else {
    wanted.sin_family = AF_INET;
    wanted.sin_port = htons(static_cast<std::uint16_t>(port));
    wanted.sin_addr.s_addr = addr ? *addr : htonl(server ? INADDR_ANY : INADDR_LOOPBACK);
    label += inet_ntoa(wanted.sin_addr);
    label += ":" + std::to_string(port);
  }

  UniqueFd created(tcp ? socket(AF_INET, SOCK_STREAM, 0) : socket(AF_INET, SOCK_DGRAM, 0));
  if (created.get() == -1) throw VrnException(2, "Failed to create %s socket", label.c_str());
  assign(created.get(), label, true);
  created.release();
  address = wanted;
}

void VrnSocket::setup(const char* host, const char* port) {
  const bool given = host && *host;
  unsigned addr = INADDR_NONE;
  if (given && ipaddr(host, &addr) != 0) throw VrnException(8, "Bad hostspec (%s)", host);

  const int number = portnumber(port, tcp);
  if (number == -1) throw VrnException(8, "Bad portspec (%s)", port ? port : "<NULL>");
  setup(given ? &addr : nullptr, number);
}

int VrnSocket::portnumber(const char* text, bool isTcp) {
  if (!text) return -1;
  const int number = static_cast<int>(std::strtol(text, nullptr, 10));
  if (number != 0) return number;
  const servent* service = getservbyname(text, isTcp ? "tcp" : "udp");
  return service ? ntohs(static_cast<std::uint16_t>(service->s_port)) : -1;
}

int VrnSocket::ipaddr(const char* text, unsigned* addr) {
  VrnAssertFull(addr != nullptr, "Socket: Null address for host %s", text ? text : "<NULL>");
  *addr = INADDR_NONE;
  if (!text) return 1;
  *addr = inet_addr(text);
  if (*addr != INADDR_NONE) return 0;
  // Its value is the one by which inet_addr() reports a failure.
  if (std::strcmp(text, "255.255.255.255") == 0) return 0;

  const hostent* host = gethostbyname(text);
  if (!host || host->h_addrtype != AF_INET || host->h_length != sizeof *addr) return 1;
  std::memcpy(addr, host->h_addr_list[0], sizeof *addr);
  return 0;
}

}  // namespace vornfc
