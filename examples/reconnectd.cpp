// Stays connected to a server, and logs each line that it sends.
//
//   reconnectd -C FILE [-L LOGGER-GROUP] [-D DIRECTORY]
//
// When the server cannot be reached, or hangs up, it is tried again after a delay that begins with
// FIRST milliseconds and doubles up to LIMIT. Each wait is a random time between half the delay and
// the whole of it, so that clients that lost a server together do not come back together. Once the
// server has sent something the delay begins anew; one that only accepts and hangs up is not well.
// The file's group "reconnectd" (reconnectd.conf shows one) is followed when the file changes: a
// daemon reads it again on SIGUSR1. Ends on SIGTERM, and without -D on SIGINT.
#include "vornfc/vornfc.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <random>
#include <string>

using namespace vornfc;

class Reconnect : public VrnAppShell,
                  VrnSocketsClient,
                  VrnAsyncReceiver,
                  VrnTimer,
                  VrnSignalHandler,
                  VrnObserver {
 public:
  Reconnect()
      : VrnAppShell(nullptr, "reconnectd", "1.0", "Stays connected to a server"),
        VrnAsyncReceiver("reconnectd"),
        VrnTimer("reconnectd") {}

 private:
  struct Settings {
    std::string server;
    int first, limit, timeout;
  };

  int appInit() override {
    read_settings();
    connect();
    appConfig()->attach(this);
    for (const int signo : {SIGTERM, SIGINT}) evtmgr->startSignal(this, signo);
    return 0;
  }

  // Nothing changes unless everything is good.
  void read_settings() {
    const VrnConfig& file = *appConfig()->config;
    const auto number = [&file](const char* item, int otherwise) {
      const int value = file.intval("reconnectd", item, otherwise, 0);
      VrnAssertFull(value > 0 && value <= 3600000, "Invalid %s (%d)", item, value);
      return value;
    };
    settings = {file.value("reconnectd", "SERVER", true, 0), number("FIRST", 100),
                number("LIMIT", 30000), number("CONNECT_TIMEOUT", 5000)};
    delay = settings.first;
  }

  void observerNotified(VrnNotifier*) override {
    try {
      read_settings();
      drop();
      connect();
    } catch (...) {
      vrnlog(1, "The settings stay as they were: %s", VrnException::handler().c_str());
    }
  }
  void observerDetached(VrnNotifier*) override {}
  std::string observerName() const override { return "reconnectd"; }

  // The timer is the limit of the attempt while that lasts, and then the wait for the next one.
  void connect() {
    start_timer(settings.timeout);
    try {
      socket = new VrnClientSocket(settings.server.c_str(), true);  // a name is looked up each time
      socket->connect(this, 0);
    } catch (...) {
      try_again(VrnException::handler());
    }
  }

  void socketConnected(VrnClientSocket*, int result) override {
    if (result != 0) return try_again("not connected, error " + std::to_string(result));
    const int on = 1;
    setsockopt(socket->fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);  // a server may just vanish
    stopTimer();
    vrnlog(3, "Connected to %s", settings.server.c_str());
    aioStart(socket);
  }

  void timerExpired() override {
    if (socket) return try_again("no answer");
    connect();
  }
  void timerStopped() override {}

  void aioReady(VrnFile* file) override {
    char text[4096];
    const ssize_t size = recv(file->fd, text, sizeof text, 0);
    if (size == -1 && (errno == EAGAIN || errno == EINTR)) return;
    if (size <= 0) return try_again("the server has hung up");
    delay = settings.first;
    for (const char c : std::string(text, static_cast<size_t>(size))) {
      if (c != '\n') line += c;
      if (c != '\n' && line.size() < sizeof text) continue;
      vrnlog(3, "Received: %s", line.c_str());
      line.clear();
    }
  }
  void aioRemoved(VrnFile*, bool, bool) override { try_again("the connection is lost"); }

  void try_again(const std::string& reason) {
    const int wait = std::uniform_int_distribution<>((delay + 1) / 2, delay)(random);
    vrnlog(1, "%s: %s; trying again in %d ms", settings.server.c_str(), reason.c_str(), wait);
    drop();
    start_timer(wait);
    delay = std::min(2 * delay, settings.limit);
  }

  // The event manager forgets a socket that ends, so no aioRemoved() follows.
  void drop() {
    if (socket) socket->destroy();
    socket = nullptr;
    line.clear();
  }

  void start_timer(int ms) { startTimer(ms / 1000, ms % 1000 * 1000, 0, 0); }

  void appTerminated() override {
    if (appConfig()) appConfig()->detach(this);
    stopTimer();
    drop();
  }

  void signalReceived(int) override { appTerminate(); }
  void signalStopped(int) override {}
  const char* sigtag() const override { return "reconnectd"; }

  Settings settings;
  int delay = 0;                      // ms, the longest time to wait after the next failure
  VrnClientSocket* socket = nullptr;  // null: waiting for the next attempt
  std::string line;                   // the beginning of one
  std::mt19937 random{std::random_device{}()};
};

static Reconnect app;
