// A relay: a connection is accepted, another one made without blocking, and what a reader takes
// from the first goes through a writer, whose descriptor takes less than it is given, to the
// second.

#include "app.h"
#include "scenario.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <utility>

using inject::Own;
using vornfc::VrnAsyncReader;
using vornfc::VrnAsyncReceiver;
using vornfc::VrnAsyncWriter;
using vornfc::VrnClientSocket;
using vornfc::VrnFile;
using vornfc::VrnServerSocket;
using vornfc::VrnSocket;
using vornfc::VrnSocketsClient;

namespace {

constexpr int Total = 24576;
constexpr int Block = 256;
constexpr std::size_t TakenAtOnce = 300;
constexpr int MostTicks = 1000;  // what has not arrived by then has been lost

char byte_at(int position) {
  return static_cast<char>('0' + position % 71);
}

// The peers outside of the library: a source that sends as much as it can, and a sink.
class Peers {
 public:
  Peers() {
    const Own own;
    listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    const sockaddr_in any = loopback(0);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0) fail("bind");
    if (listen(listener, 4) != 0) fail("listen");
  }

  ~Peers() {
    const Own own;
    end(&listener);
    end(&source);
    end(&sink);
  }

  void open_source(int port) {
    const Own own;
    source = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in peer = loopback(port);
    if (connect(source, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0)
      fail("connect");
  }

  void step() {
    supply();
    if (sink == -1) sink = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK);
    consume();
  }

  int port() const { return port_of(listener); }
  int received_bytes() const { return received; }

 private:
  void supply() {
    if (source == -1) return;
    while (sent < Total) {
      std::array<char, Block> block;
      for (int i = 0; i < Block; ++i) block[static_cast<std::size_t>(i)] = byte_at(sent + i);
      const ssize_t size = send(source, block.data(), block.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
      if (size == -1 && errno != EAGAIN) return end(&source);
      if (size == -1) return;
      sent += static_cast<int>(size);
    }
    shutdown(source, SHUT_WR);
  }

  void consume() {
    std::array<char, 1024> data;
    ssize_t size;
    while (sink != -1 && (size = recv(sink, data.data(), data.size(), 0)) > 0) {
      for (ssize_t i = 0; i < size; ++i) {
        if (data[static_cast<std::size_t>(i)] != byte_at(received++)) {
          fail("corrupt: byte %d", received - 1);
        }
      }
    }
  }

  static void end(int* fd) {
    if (*fd != -1) close(*fd);
    *fd = -1;
  }

  int listener = -1;
  int source = -1;
  int sink = -1;
  int sent = 0;
  int received = 0;
};

Peers* peers = nullptr;

class Relay;

class Reader : public VrnAsyncReader {
 public:
  explicit Reader(Relay* relay) : VrnAsyncReader("relay"), owner(relay) {}
  void aioReceived(VrnFile* file, int bytes, char* data) override;
  void aioReadable(VrnFile*) override {}
  void aioRemoved(VrnFile* file, bool hangup, bool error) override;

 private:
  Relay* const owner;
};

class Relay : public VrnAsyncReceiver, public VrnSocketsClient {
 public:
  Relay() : VrnAsyncReceiver("listener") {}

  ~Relay() override {
    delete source;
    if (writer) writer->destroy();
    if (client) client->destroy();
  }

  void begin(VrnServerSocket* socket) {
    listener = socket;
    pace.on_expired = [this] { look(); };
    library([&] { aioStart(listener); });
  }

  void aioReady(VrnFile*) override {
    const Own own;
    if (!source) library([&] { source = listener->accept(); });
    if (!source) return;
    library([&] { aioStop(listener); });
    const bool connecting = library([&] {
      client = new VrnClientSocket(nullptr, peers->port(), true);
      client->connect(this, 0);
    });
    if (!connecting) finish();
  }

  void aioRemoved(VrnFile*, bool, bool error) override {
    const Own own;
    if (error) told();
  }

  void socketConnected(VrnClientSocket*, int result) override {
    const Own own;
    if (result != 0) {
      told();
      return finish();
    }
    const bool started = library([&] {
      writer = new VrnAsyncWriter(client, true);
      client = nullptr;  // the writer's now
      reader.aioRequest(source, Block, buffer.data());
      pace.startTimer(0, 0, 0, 0);
    });
    if (!started) finish();
  }

  void received(int bytes, const char* data) {
    int error = -1;
    library([&] { error = writer ? writer->awrite(data, bytes) : -1; });
    if (error != 0) {
      told();
      finish();
    }
  }

  void removed(bool error) {
    if (error) told();
    source_ended = true;
  }

 private:
  // The end: everything has come, and has gone.
  void look() {
    int waiting = 0;
    if (writer) {
      library([&] {
        waiting = writer->queuedBytes();
        if (writer->error() != 0) told();
        if (writer->error() != 0) source_ended = true;
      });
    }
    if ((source_ended && waiting == 0) || ++ticks == MostTicks) return finish();
    if (!library([&] { pace.startTimer(0, 2000, 0, 0); })) finish();
  }

  void finish() {
    if (finished) return;
    finished = true;
    library([&] {
      if (source && !source_ended) reader.aioStop(source);
    });
    if (VrnAsyncWriter* const last = std::exchange(writer, nullptr)) {
      library([&] { last->destroy(); });
    }
    if (VrnClientSocket* const last = std::exchange(client, nullptr)) {
      library([&] { last->destroy(); });
    }
    Loop::stop();
  }

  VrnServerSocket* listener = nullptr;
  VrnSocket* source = nullptr;
  VrnClientSocket* client = nullptr;
  VrnAsyncWriter* writer = nullptr;
  std::array<char, Block> buffer{};
  int ticks = 0;
  bool source_ended = false;
  bool finished = false;
  Reader reader{this};
  Ticker pace{"pace"};
};

void Reader::aioReceived(VrnFile*, int bytes, char* data) {
  const Own own;
  owner->received(bytes, data);
}

void Reader::aioRemoved(VrnFile*, bool, bool error) {
  const Own own;
  owner->removed(error);
}

void relay_all() {
  std::unique_ptr<VrnServerSocket> listener;
  unsigned address = htonl(INADDR_LOOPBACK);
  const bool listens = library([&] {
    listener = std::make_unique<VrnServerSocket>(&address, 0, true);
    listener->activate();
  });
  if (!listens) return;
  peers->open_source(port_of(listener->fd));
  inject::hooks.waits = [] { peers->step(); };
  std::unique_ptr<Relay> relay;
  Loop loop;
  if (!loop.ready) return;
  library([&] {
    relay = std::make_unique<Relay>();
    relay->begin(listener.get());
    loop.run();
  });
}

}  // namespace

void run_relay() {
  Peers both;
  peers = &both;
  inject::throttle = TakenAtOnce;
  stop_when_stalled(Loop::stop);
  relay_all();
  const Own own;
  both.step();
  if (both.received_bytes() < Total) lost("the sink has not got all");
}
