// A TCP relay: accepts connections, connects each to a target, and passes on what either side
// sends.
//
//   relayd -C FILE [-L LOGGER-GROUP] [-D DIRECTORY]
//
// The file's group "rules" says where to listen and whom to connect to, "relayd" holds the limits
// (relayd.conf shows both). They are followed when the file changes: a daemon reads it again on
// SIGUSR1. Ends on SIGTERM and SIGINT, with every connection closed.
#include "vornfc/vornfc.h"

#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

using namespace vornfc;

struct Connection;

struct Limits {
  int connect_timeout = 5, idle = 300, queued = 1 << 20;
};
static Limits limits;

// Seconds of a clock that nobody sets.
static time_t now() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec;
}

static std::set<Connection*> connections;

// What goes to one side. It tells its connection when there is room again, and when the side is
// lost.
struct Outlet : VrnAsyncWriter {
  Outlet(Connection* conn, VrnFile* file) : VrnAsyncWriter(file, true), connection(conn) {}
  void aioReady(VrnFile* file) override;
  void aioCancelled(VrnFile* file, bool hangup, bool error) override;

  Connection* connection;  // null: it has ended
};

// What comes from one side. The outlet owns the socket.
struct Side : VrnAsyncReceiver {
  Side(Connection* conn, const char* name) : VrnAsyncReceiver(name), connection(conn) {}
  void listen();
  void pause();
  void aioReady(VrnFile* file) override;
  void aioRemoved(VrnFile* file, bool hangup, bool error) override;

  Connection* const connection;
  VrnSocket* socket = nullptr;
  Outlet* outlet = nullptr;
  bool paused = false;    // the other side has too much to take
  bool finished = false;  // it has sent all that it will
  unsigned long long received = 0;
};

struct Connection : VrnSocketsClient {
  Connection(const std::string& rule, std::unique_ptr<VrnSocket> accepted);
  void connect(sockaddr_in target);
  void socketConnected(VrnClientSocket* socket, int result) override;
  void pass_on(Side* from);
  void flow();
  void end(const char* reason);
  void finish();
  Side* other(const Side* side) { return side == &client ? &target : &client; }

  const std::string name;
  Side client, target;
  VrnClientSocket* connecting = nullptr;
  bool ending = false;
  time_t last_active = now();
};

void Outlet::aioReady(VrnFile* file) {
  VrnAsyncWriter::aioReady(file);
  if (!connection) return;
  if (const int code = error()) return connection->end(code > 0 ? "write error" : "lost");
  connection->last_active = now();
  connection->flow();
}

void Outlet::aioCancelled(VrnFile* file, bool hangup, bool err) {
  Connection* const told = connection;
  VrnAsyncWriter::aioCancelled(file, hangup, err);  // deletes this when the connection has ended
  if (told && (hangup || err)) told->end("lost");
}

void Side::listen() {
  paused = false;
  aioStart(socket);
}

void Side::pause() {
  paused = true;
  aioStop(socket);
}

void Side::aioReady(VrnFile*) {
  if (!paused && !finished && !connection->ending) connection->pass_on(this);
}

void Side::aioRemoved(VrnFile*, bool hangup, bool error) {
  if (connection->ending) return connection->finish();
  if (hangup || error) connection->end("lost");
}

Connection::Connection(const std::string& rule, std::unique_ptr<VrnSocket> accepted)
    : name(rule + " " + accepted->name()), client(this, "client"), target(this, "target") {
  client.outlet = new Outlet(this, accepted.get());
  client.socket = accepted.release();
  connections.insert(this);
}

void Connection::connect(sockaddr_in address) {
  connecting = new VrnClientSocket(&address.sin_addr.s_addr, ntohs(address.sin_port), true);
  connecting->connect(this, 0);
}

void Connection::socketConnected(VrnClientSocket* socket, int result) {
  if (result != 0) {
    vrnlog(1, "%s: cannot reach %s (%d)", name.c_str(), socket->name(), result);
    return end("not connected");
  }
  connecting = nullptr;
  target.outlet = new Outlet(this, socket);
  target.socket = socket;
  last_active = now();
  for (Side* side : {&client, &target}) {
    const int on = 1;
    setsockopt(side->socket->fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    side->listen();
  }
}

void Connection::pass_on(Side* from) {
  static char buffer[128 * 1024];
  Outlet* const to = other(from)->outlet;
  const ssize_t size = recv(from->socket->fd, buffer, sizeof buffer, 0);
  if (size == -1 && (errno == EAGAIN || errno == EINTR)) return;
  if (size == -1) return end("read error");
  last_active = now();
  if (size == 0) {
    from->finished = true;
    from->aioStop(from->socket);
    return flow();
  }
  from->received += static_cast<unsigned long long>(size);
  if (to->awrite(buffer, static_cast<int>(size)) != 0) return end("write error");
  if (to->queuedBytes() > limits.queued) from->pause();
}

// A queue has become shorter, or a side has finished.
void Connection::flow() {
  bool over = true;
  for (Side* side : {&client, &target}) {
    const int queued = other(side)->outlet->queuedBytes();
    if (side->paused && queued <= limits.queued / 2) side->listen();
    if (side->finished && queued == 0) shutdown(other(side)->socket->fd, SHUT_WR);
    over = over && side->finished && queued == 0;
  }
  if (over) end("closed");
}

// The stops that are asked for here are confirmed to aioRemoved().
void Connection::end(const char* reason) {
  if (ending) return;
  ending = true;
  vrnlog(3, "%s: %s, %llu bytes to the target, %llu back", name.c_str(), reason, client.received,
         target.received);
  client.aioTerminate();
  target.aioTerminate();
  finish();
}

void Connection::finish() {
  if (client.aioFiles() + target.aioFiles() > 0) return;
  if (connecting) connecting->destroy();
  for (Side* side : {&client, &target}) {
    if (!side->outlet) continue;
    side->outlet->connection = nullptr;
    side->outlet->destroy();
  }
  connections.erase(this);
  delete this;
}

// One address that is served.
struct Rule : VrnAsyncReceiver {
  Rule(const std::string& rule, const std::string& listen, const std::string& to)
      : VrnAsyncReceiver(rule), name(rule), address(listen), server(listen.c_str(), true) {
    server.activate();
    aim(rule, to);
    accept_callers();
  }

  void aim(const std::string& rule, const std::string& to) {
    name = rule;
    target = VrnClientSocket(to.c_str(), true).address;
    vrnlog(3, "%s: %s is relayed to %s", name.c_str(), address.c_str(), to.c_str());
  }

  void accept_callers() {
    if (aioFiles() == 0) aioStart(&server);
  }

  // Deletes this, when its stop is confirmed.
  void retire() {
    vrnlog(3, "%s: %s is not served any more", name.c_str(), address.c_str());
    retired = true;
    if (aioStop(&server)) delete this;
  }

  void aioRemoved(VrnFile*, bool, bool) override {
    if (retired) delete this;
  }

  // Without a descriptor left, the next caller waits until the next second.
  void aioReady(VrnFile*) override {
    try {
      std::unique_ptr<VrnSocket> caller(server.accept());
      if (!caller && (errno == EMFILE || errno == ENFILE)) {
        vrnlog(1, "%s: out of descriptors", name.c_str());
        aioStop(&server);
      }
      if (caller) connect(std::move(caller));
    } catch (...) {
      vrnlog(1, "%s: %s", name.c_str(), VrnException::handler().c_str());
    }
  }

  void connect(std::unique_ptr<VrnSocket> caller) const {
    auto* const connection = new Connection(name, std::move(caller));
    try {
      connection->connect(target);
    } catch (...) {
      vrnlog(1, "%s: %s", connection->name.c_str(), VrnException::handler().c_str());
      connection->end("not connected");
    }
  }

  std::string name;
  const std::string address;
  VrnServerSocket server;
  sockaddr_in target{};
  bool retired = false;
};

class Relay : public VrnAppShell, VrnTimer, VrnSignalHandler, VrnObserver {
 public:
  Relay() : VrnAppShell(nullptr, "relayd", "1.0", "TCP relay"), VrnTimer("relayd") {}

 private:
  int appInit() override {
    signal(SIGPIPE, SIG_IGN);
    apply_settings();
    appConfig()->attach(this);
    startTimer(1, 0, 1, 0);
    for (const int signo : {SIGTERM, SIGINT}) evtmgr->startSignal(this, signo);
    return 0;
  }

  void apply_settings() {
    const VrnConfig& file = *appConfig()->config;
    const auto positive = [&file](const char* item, int otherwise) {
      const int value = file.intval("relayd", item, otherwise, 0);
      VrnAssertFull(value > 0, "Invalid %s (%d)", item, value);
      return value;
    };
    limits = {positive("CONNECT_TIMEOUT", 5), positive("IDLE", 300), positive("LIMIT", 1 << 20)};
    std::set<std::string> addresses;
    for (const std::string& name : file.items("rules", true)) {
      addresses.insert(file.value("rules", name, true, 0));
    }
    for (auto it = rules.begin(); it != rules.end();) {
      const bool stays = addresses.count(it->first) != 0;
      if (!stays) it->second.release()->retire();
      it = stays ? std::next(it) : rules.erase(it);
    }
    for (const std::string& name : file.items("rules", true)) {
      apply_rule(name, file.value("rules", name, true, 0), file.value("rules", name, true, 1));
    }
  }

  // An address that is served already is only aimed anew.
  void apply_rule(const std::string& name, const std::string& address, const std::string& target) {
    const auto it = rules.find(address);
    if (it != rules.end()) return it->second->aim(name, target);
    rules[address] = std::make_unique<Rule>(name, address, target);
  }

  // What could not be applied is said; the rules before it have been, those behind it stay.
  void observerNotified(VrnNotifier*) override {
    try {
      apply_settings();
    } catch (...) {
      vrnlog(1, "Not all settings are applied: %s", VrnException::handler().c_str());
    }
  }
  void observerDetached(VrnNotifier*) override {}
  std::string observerName() const override { return "relayd"; }

  void timerExpired() override {
    for (const auto& entry : rules) entry.second->accept_callers();
    for (Connection* connection :
         std::vector<Connection*>(connections.begin(), connections.end())) {
      const time_t silent = now() - connection->last_active;
      if (connection->connecting ? silent > limits.connect_timeout : silent > limits.idle) {
        connection->end("timed out");
      }
    }
  }
  void timerStopped() override {}

  void appTerminated() override {
    if (appConfig()) appConfig()->detach(this);
    while (!connections.empty()) (*connections.begin())->end("shut down");
    rules.clear();
  }

  void signalReceived(int) override { appTerminate(); }
  void signalStopped(int) override {}
  const char* sigtag() const override { return "relayd"; }

  std::map<std::string, std::unique_ptr<Rule>> rules;  // by address
};

static Relay app;
