// A TCP echo server: sends back what each caller sends, and closes callers that fall silent.
//
//   echod [-a ADDRESS] [-t SECONDS]    ADDRESS is PORT or HOST:PORT, SECONDS the idle time allowed
//
// Ends on SIGTERM and SIGINT, with every connection closed.
#include "vornfc/vornfc.h"
#include "vornsupport/support.h"

#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <string>

using namespace vornfc;

class Echo;

// One connection. It is read from, by the server's receiver, or, while the caller does not take its
// echo, sent to: then the caller itself watches for room. Either watch ends before it is closed.
struct Caller : VrnAIO {
  Caller(Echo* server, VrnSocket* connection);
  void hear();
  void close();  // the stop that it asks for is confirmed, and ends the caller
  void aioReady(VrnFile* file) override;
  void aioCancelled(VrnFile* file, bool hangup, bool error) override;

  Echo* const echo;
  const std::unique_ptr<VrnSocket> socket;
  std::string unsent;
  bool closing = false;
  time_t last_heard = time(nullptr);
};

class Echo : public VrnAppShell, public VrnAsyncReceiver, VrnTimer, VrnSignalHandler {
 public:
  Echo()
      : VrnAppShell(nullptr, "echod", "1.0", "TCP echo server"),
        VrnAsyncReceiver("echod"),
        VrnTimer("idle check") {
    appSetOpts("a:t:", "");
  }

  void forget(VrnFile* file) {
    vrnlog(3, "%s gone", file->name());
    callers.erase(file);
  }

 private:
  int appParseArg(int isSwitch, int opt, const char* arg) override {
    if (!isSwitch) return 3;
    if (opt == 'a') address = arg;
    if (opt == 't') {
      idle_seconds = isdecstr(arg) ? atoi(arg) : 0;
      VrnAssertFull(idle_seconds > 0, "Invalid idle time (%s)", arg);
    }
    return 0;
  }

  void appUsage() const override {
    VrnAppShell::appUsage();
    fputs(
        "  -a address: serve on PORT or HOST:PORT (7777 on every interface)\n"
        "  -t seconds: close callers that are silent for that long (60)\n\n",
        stderr);
  }

  int appInit() override {
    server = std::make_unique<VrnServerSocket>(address.c_str(), true);
    server->activate();
    vrnlog(3, "Serving on %s, idle callers are closed after %d s", server->name(), idle_seconds);
    aioStart(server.get());
    startTimer(1, 0, 1, 0);
    for (const int signo : {SIGTERM, SIGINT}) evtmgr->startSignal(this, signo);
    return 0;
  }

  void appTerminated() override {
    vrnlog(3, "Closing %d callers", static_cast<int>(callers.size()));
    aioTerminate();
    callers.clear();
    server.reset();
  }

  void aioReady(VrnFile* file) override {
    if (file != server.get()) return callers.at(file)->hear();
    if (VrnSocket* const connection = server->accept()) {
      vrnlog(3, "%s connected", connection->name());
      callers[connection] = std::make_unique<Caller>(this, connection);
      aioStart(connection);
    }
  }

  void aioRemoved(VrnFile* file, bool hangup, bool) override {
    const auto it = callers.find(file);
    if (it != callers.end() && (hangup || it->second->closing)) forget(file);
  }

  void timerExpired() override {
    const time_t limit = time(nullptr) - idle_seconds;
    for (const auto& [file, caller] : callers) {
      if (caller->last_heard < limit) caller->close();
    }
  }
  void timerStopped() override {}

  void signalReceived(int signo) override {
    vrnlog(3, "Received signal %d", signo);
    appTerminate();
  }
  void signalStopped(int) override {}
  const char* sigtag() const override { return "echod"; }

  std::string address = "7777";
  int idle_seconds = 60;
  std::unique_ptr<VrnServerSocket> server;
  std::map<VrnFile*, std::unique_ptr<Caller>> callers;
};

Caller::Caller(Echo* server, VrnSocket* connection)
    : VrnAIO(false, connection->name()), echo(server), socket(connection) {}

void Caller::hear() {
  if (closing || !unsent.empty()) return;  // its watch is about to end
  char buffer[65536];
  const ssize_t size = recv(socket->fd, buffer, sizeof buffer, 0);
  if (size == -1 && (errno == EAGAIN || errno == EINTR)) return;
  if (size <= 0) return close();
  last_heard = time(nullptr);
  const ssize_t sent = send(socket->fd, buffer, static_cast<size_t>(size), MSG_NOSIGNAL);
  if (sent == size) return;
  if (sent == -1 && errno != EAGAIN && errno != EINTR) return close();
  unsent.assign(buffer + (sent > 0 ? sent : 0), buffer + size);
  echo->aioStop(socket.get());
  VrnAppShell::evtmgr->startAIO(socket.get(), this);
}

void Caller::close() {
  if (closing) return;
  closing = true;
  if (unsent.empty()) {
    echo->aioStop(socket.get());
  } else {
    VrnAppShell::evtmgr->stopAIO(socket.get(), this);
  }
}

void Caller::aioReady(VrnFile* file) {
  const ssize_t sent = send(file->fd, unsent.data(), unsent.size(), MSG_NOSIGNAL);
  if (sent == -1 && (errno == EAGAIN || errno == EINTR)) return;
  if (sent == -1) return close();
  unsent.erase(0, static_cast<size_t>(sent));
  last_heard = time(nullptr);
  if (!unsent.empty()) return;
  VrnAppShell::evtmgr->stopAIO(file, this);
  echo->aioStart(file);
}

void Caller::aioCancelled(VrnFile* file, bool hangup, bool) {
  if (hangup || closing) echo->forget(file);
}

static Echo app;
