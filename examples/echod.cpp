// A TCP echo server: sends back what each caller sends, and closes callers that fall silent.
//
//   echod [-a ADDRESS] [-t SECONDS] [-C FILE[:GROUP]] [-L LOGGER-GROUP] [-D DIRECTORY]
//
// ADDRESS is PORT or HOST:PORT, SECONDS the idle time allowed. Without the options they are the
// items ADDRESS and IDLE of the file's group (echod.conf shows one), and are followed when that
// changes: a daemon reads it again on SIGUSR1. Ends on SIGTERM and SIGINT, with every connection
// closed.
#include "vornfc/vornfc.h"
#include "vornsupport/support.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <vector>

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

class Echo : public VrnAppShell, public VrnAsyncReceiver, VrnTimer, VrnSignalHandler, VrnObserver {
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
    if (opt == 'a') address_option = arg;
    if (opt == 't') {
      idle_option = isdecstr(arg) ? atoi(arg) : 0;
      VrnAssertFull(idle_option > 0, "Invalid idle time (%s)", arg);
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
    apply_settings();
    appConfig()->attach(this);
    startTimer(1, 0, 1, 0);
    for (const int signo : {SIGTERM, SIGINT}) evtmgr->startSignal(this, signo);
    return 0;
  }

  // Nothing changes unless everything is good.
  void apply_settings() {
    const VrnConfig& file = *appConfig()->config;
    const std::string group = appConfig()->group.empty() ? "echod" : appConfig()->group;
    std::string address = address_option;
    if (address.empty()) address = file.value(group, "ADDRESS", false, 0);
    if (address.empty()) address = "7777";
    const int idle = idle_option > 0 ? idle_option : file.intval(group, "IDLE", 60, 0);
    VrnAssertFull(idle > 0, "Invalid idle time (%d)", idle);
    if (address != served_address) serve(address);
    idle_seconds = idle;
    vrnlog(3, "Serving on %s, idle callers are closed after %d s", server->name(), idle_seconds);
  }

  void serve(const std::string& address) {
    auto fresh = std::make_unique<VrnServerSocket>(address.c_str(), true);
    fresh->activate();
    aioStart(fresh.get());
    if (server && !aioStop(server.get())) retired.push_back(std::move(server));
    server = std::move(fresh);
    served_address = address;
  }

  void observerNotified(VrnNotifier*) override {
    try {
      apply_settings();
    } catch (...) {
      vrnlog(1, "The settings stay as they were: %s", VrnException::handler().c_str());
    }
  }
  void observerDetached(VrnNotifier*) override {}
  std::string observerName() const override { return "echod"; }

  void appTerminated() override {
    vrnlog(3, "Closing %d callers", static_cast<int>(callers.size()));
    if (appConfig()) appConfig()->detach(this);
    aioTerminate();
    callers.clear();
    retired.clear();
    server.reset();
  }

  void aioReady(VrnFile* file) override {
    if (const auto it = callers.find(file); it != callers.end()) return it->second->hear();
    if (file != server.get()) return;  // retired
    if (VrnSocket* const connection = server->accept()) {
      vrnlog(3, "%s connected", connection->name());
      callers[connection] = std::make_unique<Caller>(this, connection);
      aioStart(connection);
    } else if (errno == EMFILE || errno == ENFILE) {
      vrnlog(1, "Out of descriptors");
      aioStop(file);  // until the next second
    }
  }

  void aioRemoved(VrnFile* file, bool hangup, bool) override {
    const auto it = callers.find(file);
    if (it != callers.end() && (hangup || it->second->closing)) forget(file);
    const auto is_it = [file](const auto& socket) { return socket.get() == file; };
    retired.erase(std::remove_if(retired.begin(), retired.end(), is_it), retired.end());
  }

  void timerExpired() override {
    const time_t limit = time(nullptr) - idle_seconds;
    for (const auto& [file, caller] : callers) {
      if (caller->last_heard < limit) caller->close();
    }
    if (!aioFile(server.get())) aioStart(server.get());
  }
  void timerStopped() override {}

  void signalReceived(int signo) override {
    vrnlog(3, "Received signal %d", signo);
    appTerminate();
  }
  void signalStopped(int) override {}
  const char* sigtag() const override { return "echod"; }

  std::string address_option;
  int idle_option = 0;
  std::string served_address;
  int idle_seconds = 0;
  std::unique_ptr<VrnServerSocket> server;
  std::vector<std::unique_ptr<VrnServerSocket>> retired;  // until their stop is confirmed
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
