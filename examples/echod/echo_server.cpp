#include "echo_server.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

using namespace vornfc;

void EchoServer::serve(const std::string& wanted) {
  if (wanted == address) return;
  auto fresh = std::make_unique<VrnServerSocket>(wanted.c_str(), true);
  fresh->activate();
  aioStart(fresh.get());
  listener = std::move(fresh);  // the event manager forgets the one that ends
  address = wanted;
  startTimer(1, 0, 1, 0);
}

void EchoServer::shut_down() {
  vrnlog(3, "Closing %d callers", static_cast<int>(callers.size()));
  aioTerminate();
  while (!callers.empty()) forget(callers.begin()->second);
  listener.reset();
}

void EchoServer::aioReady(VrnFile* file) {
  if (file == listener.get()) return accept();
  if (const auto it = callers.find(file); it != callers.end()) hear(it->second);
}

// Not by VrnServerSocket::accept(), to which the longest addresses are fatal: a caller may come
// from anywhere.
void EchoServer::accept() {
  sockaddr_in peer{};
  socklen_t size = sizeof peer;
  const int fd = accept4(listener->fd, reinterpret_cast<sockaddr*>(&peer), &size, SOCK_CLOEXEC);
  if (fd != -1) {
    const std::string port = std::to_string(ntohs(peer.sin_port));
    auto file = std::make_unique<VrnFile>();
    file->assign(fd, "caller-" + (inet_ntoa(peer.sin_addr) + (":" + port)), true);
    vrnlog(3, "%s connected", file->name());
    callers[file.get()] = new Caller(this, file.get());
    aioStart(file.release());
  } else if (errno == EMFILE || errno == ENFILE) {
    vrnlog(1, "Out of descriptors");
    aioStop(listener.get());  // until the next second
  }
}

void EchoServer::hear(Caller* caller) {
  if (caller->closing || caller->queuedBytes() > 0) return;  // the stop is on its way
  char buffer[65536];
  const ssize_t size = recv(caller->aioFile()->fd, buffer, sizeof buffer, 0);
  if (size == -1 && (errno == EAGAIN || errno == EINTR)) return;
  if (size <= 0) return close(caller);
  caller->last_active = time(nullptr);
  if (caller->awrite(buffer, static_cast<int>(size)) != 0) return close(caller);
  if (caller->queuedBytes() > 0) aioStop(caller->aioFile());
}

// The caller has taken something of its echo, or cannot any more.
void EchoServer::send_on(Caller* caller) {
  if (caller->error() != 0) return close(caller);
  caller->last_active = time(nullptr);
  if (caller->queuedBytes() == 0) aioStart(caller->aioFile());
}

// Now, or when the stop is confirmed.
void EchoServer::close(Caller* caller) {
  caller->closing = true;
  if (aioStop(caller->aioFile())) forget(caller);
}

void EchoServer::aioRemoved(VrnFile* file, bool hangup, bool error) {
  const auto it = callers.find(file);
  if (it != callers.end() && (hangup || error || it->second->closing)) forget(it->second);
}

void EchoServer::forget(Caller* caller) {
  vrnlog(3, "%s gone", caller->aioFile()->name());
  callers.erase(caller->aioFile());
  caller->closing = true;
  caller->destroy();
}

void EchoServer::timerExpired() {
  const time_t limit = time(nullptr) - idle_seconds;
  for (auto it = callers.begin(); it != callers.end();) {
    Caller* const caller = (it++)->second;  // it may be forgotten at once
    if (!caller->closing && caller->last_active < limit) close(caller);
  }
  if (!aioFile(listener.get())) aioStart(listener.get());
}

void Caller::aioReady(VrnFile* file) {
  VrnAsyncWriter::aioReady(file);
  if (!closing) server->send_on(this);
}

void Caller::aioCancelled(VrnFile* file, bool hangup, bool error) {
  const bool lost = !closing && (hangup || error);
  VrnAsyncWriter::aioCancelled(file, hangup, error);  // deletes this when it is destroyed already
  if (lost) server->close(this);
}
