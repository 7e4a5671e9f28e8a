// Connects: blocking, with a time-out, by name, refused, and without blocking in the loop, where
// one succeeds, one is refused and one is given up.

#include "app.h"
#include "scenario.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <utility>

using inject::Own;
using vornfc::VrnClientSocket;
using vornfc::VrnServerSocket;
using vornfc::VrnSocket;
using vornfc::VrnSocketsClient;

namespace {

constexpr int MostTicks = 500;  // what has no outcome by then has none to come

// A port at which connections are refused: bound, and nobody listens.
class RefusedPort {
 public:
  RefusedPort() {
    const Own own;
    fd = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in any = loopback(0);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0) fail("bind");
  }
  RefusedPort(const RefusedPort&) = delete;
  RefusedPort& operator=(const RefusedPort&) = delete;
  ~RefusedPort() {
    const Own own;
    close(fd);
  }

  int number() const { return port_of(fd); }

 private:
  int fd;
};

// `result` is what the peer's state makes it, or the failure was told of by it.
void expect(int result, int wanted, const char* what) {
  const Own own;
  if (result == wanted) return;
  if (result == 0) fail("%s: connected", what);
  told();
  if (report->harmless) lost(what);
}

void accept_one(VrnServerSocket* listener) {
  library([&] {
    const std::unique_ptr<VrnSocket> accepted(listener->accept());
    if (!accepted) told();
  });
}

void connect_blocking(VrnServerSocket* listener, int timeout) {
  const int port = port_of(listener->fd);
  int result = -3;
  library([&] {
    VrnClientSocket client(nullptr, port, true);
    result = client.connect(nullptr, timeout);
    if (result == 0) accept_one(listener);
  });
  expect(result, 0, "connect");
}

void connect_by_name(VrnServerSocket* listener) {
  char port[16];
  {
    const Own own;
    std::snprintf(port, sizeof port, "%d", port_of(listener->fd));
  }
  int result = -3;
  library([&] {
    VrnClientSocket client("localhost", port, true);
    result = client.connect(nullptr, 2000);
    if (result == 0) listener->reject();
  });
  expect(result, 0, "connect by name");
}

void connect_refused(int port) {
  int result = -3;
  library([&] {
    VrnClientSocket client(nullptr, port, true);
    result = client.connect(nullptr, 1000);
  });
  expect(result, ECONNREFUSED, "refused connect");
}

class Attempt : public VrnSocketsClient {
 public:
  void begin(int port) {
    started = library([&] {
      socket = new VrnClientSocket(nullptr, port, true);
      returned = socket->connect(this, 0);
    });
    if (started && returned == 1 && calls != 1) fail("%d calls of socketConnected()", calls);
  }

  // Asks again later when it cannot be asked now.
  void give_up() {
    VrnClientSocket* const given = std::exchange(socket, nullptr);
    given_up = true;
    const bool asked = library([&] {
      if (given) given->destroy();
    });
    if (asked) return;
    given_up = false;
    socket = given;
  }

  // An application that is short of memory tries until it has some.
  void end() {
    for (int tries = 0; socket && tries < MostTicks; ++tries) give_up();
  }

  void socketConnected(VrnClientSocket*, int outcome) override {
    const Own own;
    if (++calls > 1) fail("socketConnected() is called again");
    if (given_up) fail("socketConnected() after destroy()");
    result = outcome;
  }

  bool is_over() const { return !started || given_up || calls > 0; }

  VrnClientSocket* socket = nullptr;
  bool started = true;
  bool given_up = false;
  int returned = 0;
  int calls = 0;
  int result = -3;
};

struct Attempts {
  Attempt good;
  Attempt refused;
  Attempt abandoned;
};

void connect_in_loop(VrnServerSocket* listener, int refused_port) {
  const int port = port_of(listener->fd);
  Attempts attempts;
  int ticks = 0;
  {
    const Loop loop;
    if (!loop.ready) return;
    std::unique_ptr<Ticker> pace;
    library([&] {
      pace = std::make_unique<Ticker>("pace");
      pace->on_expired = [&] {
        const bool over = attempts.good.is_over() && attempts.refused.is_over();
        if (over || ++ticks == MostTicks) return Loop::stop();
        if (!library([&] { pace->startTimer(0, 2000, 0, 0); })) Loop::stop();
      };
      attempts.good.begin(port);
      attempts.refused.begin(refused_port);
      attempts.abandoned.begin(port);
      attempts.abandoned.give_up();
      pace->startTimer(0, 0, 0, 0);
      Loop::run();
    });
    attempts.good.end();
    attempts.refused.end();
    attempts.abandoned.end();
  }
  if (attempts.good.started && attempts.good.calls == 0) lost("no outcome of a connect");
  if (attempts.refused.started && attempts.refused.calls == 0) lost("no outcome of a refusal");
  if (attempts.good.calls > 0) expect(attempts.good.result, 0, "asynchronous connect");
  if (attempts.refused.calls > 0 && attempts.refused.result == 0) fail("refused, yet connected");
}

}  // namespace

void run_connect() {
  stop_when_stalled(Loop::stop);
  const RefusedPort refused;
  std::unique_ptr<VrnServerSocket> listener;
  unsigned address = htonl(INADDR_LOOPBACK);
  const bool listens = library([&] {
    listener = std::make_unique<VrnServerSocket>(&address, 0, true);
    listener->activate();
  });
  if (!listens) return;
  connect_blocking(listener.get(), 0);
  connect_blocking(listener.get(), 3000);
  connect_by_name(listener.get());
  connect_refused(refused.number());
  connect_in_loop(listener.get(), refused.number());
}
