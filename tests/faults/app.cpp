#include "app.h"

#include <arpa/inet.h>
#include <sys/socket.h>

using vornfc::VrnAppShell;
using vornfc::VrnEvtMgr;

Loop::Loop() {
  ready = library([] { VrnAppShell::evtmgr = VrnEvtMgr::instance(0); });
}

Loop::~Loop() {
  library([] { VrnEvtMgr::destroy(); });
}

void Loop::run() {
  library([] { VrnAppShell::evtmgr->startDispatcher(); });
}

void Loop::stop() {
  if (VrnAppShell::evtmgr) library([] { VrnAppShell::evtmgr->stopDispatcher(); });
}

void Ticker::timerExpired() {
  const inject::Own own;
  on_expired();
}

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

int port_of(int fd) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}
