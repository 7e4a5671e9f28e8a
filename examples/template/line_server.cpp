#include "line_server.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>

using namespace vornfc;

static constexpr size_t LongestLine = 65536;

void LineServer::serve(const std::string& wanted) {
  if (wanted == address) return;
  auto fresh = std::make_unique<VrnServerSocket>(wanted.c_str(), true);
  fresh->activate();
  aioStart(fresh.get());
  listener = std::move(fresh);  // the event manager forgets the one that ends
  address = wanted;
  startTimer(1, 0, 1, 0);
  vrnlog(3, "Serving on %s", listener->name());
}

void LineServer::shut_down() {
  aioTerminate();
  while (!callers.empty()) forget(callers.begin()->second);
  listener.reset();
}

void LineServer::aioReady(VrnFile* file) {
  if (file == listener.get()) return accept();
  const auto it = callers.find(file);
  if (it == callers.end()) return;
  Caller* const caller = it->second;
  try {
    hear(caller);
  } catch (...) {
    vrnlog(1, "%s: %s", file->name(), VrnException::handler().c_str());
    close(caller);
  }
}

void LineServer::accept() {
  sockaddr_in peer{};
  socklen_t size = sizeof peer;
  const int fd = accept4(listener->fd, reinterpret_cast<sockaddr*>(&peer), &size, SOCK_CLOEXEC);
  if (fd != -1) {
    const std::string port = std::to_string(ntohs(peer.sin_port));
    auto file = std::make_unique<VrnFile>();
    file->assign(fd, inet_ntoa(peer.sin_addr) + (":" + port), true);
    vrnlog(3, "%s connected", file->name());
    callers[file.get()] = new Caller(this, file.get());
    aioStart(file.release());
  } else if (errno == EMFILE || errno == ENFILE) {
    vrnlog(1, "Out of descriptors");
    aioStop(listener.get());  // until the next second
  }
}

void LineServer::hear(Caller* caller) {
  if (caller->closing || caller->queuedBytes() > 0) return;  // the stop is on its way
  char buffer[4096];
  const ssize_t size = recv(caller->aioFile()->fd, buffer, sizeof buffer, 0);
  if (size == -1 && (errno == EAGAIN || errno == EINTR)) return;
  if (size <= 0) return close(caller);
  caller->last_active = time(nullptr);
  std::string& text = caller->text.append(buffer, static_cast<size_t>(size));
  size_t begin = 0;
  for (size_t end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
    const std::string reply = answer(text.substr(begin, end - begin)) + "\n";
    if (caller->awrite(reply.data(), static_cast<int>(reply.size())) != 0) return close(caller);
  }
  text.erase(0, begin);
  if (text.size() > LongestLine) return close(caller);
  if (caller->queuedBytes() > 0) aioStop(caller->aioFile());
}

// The caller has taken some of its answers, or cannot any more.
void LineServer::send_on(Caller* caller) {
  if (caller->error() != 0) return close(caller);
  caller->last_active = time(nullptr);
  if (caller->queuedBytes() == 0) aioStart(caller->aioFile());
}

// Now, or when the stop is confirmed.
void LineServer::close(Caller* caller) {
  caller->closing = true;
  if (aioStop(caller->aioFile())) forget(caller);
}

void LineServer::aioRemoved(VrnFile* file, bool hangup, bool error) {
  const auto it = callers.find(file);
  if (it != callers.end() && (hangup || error || it->second->closing)) forget(it->second);
}

void LineServer::forget(Caller* caller) {
  vrnlog(3, "%s gone", caller->aioFile()->name());
  callers.erase(caller->aioFile());
  caller->closing = true;
  caller->destroy();
}

void LineServer::timerExpired() {
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
