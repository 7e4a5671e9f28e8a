// An echo server: a listener, a receiver, timers and blocking transfers, over loopback. In the
// second run every descriptor waits in the kernel's queue.

#include "app.h"
#include "scenario.h"

#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

using inject::Own;
using vornfc::VrnAsyncReceiver;
using vornfc::VrnFile;
using vornfc::VrnServerSocket;
using vornfc::VrnSocket;

namespace {

constexpr int Messages = 30;
constexpr int MessageSize = 16;

// A client outside of the library, which sends a message when the one before has come back.
class Client {
 public:
  void open(int port, char mark) {
    letter = mark;
    fd = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in peer = loopback(port);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) end();
  }

  ~Client() { end(); }

  void step() {
    if (fd == -1) return;
    receive();
    if (fd == -1 || received != sent) return;
    if (sent == Messages * MessageSize) {
      shutdown(fd, SHUT_WR);
    } else {
      send_message();
    }
  }

  bool is_done() const { return fd == -1; }
  bool has_all() const { return received == Messages * MessageSize; }

 private:
  char byte_at(int position) const { return static_cast<char>(letter + position % 23); }

  void send_message() {
    std::array<char, MessageSize> message;
    for (int i = 0; i < MessageSize; ++i) message[static_cast<std::size_t>(i)] = byte_at(sent + i);
    if (send(fd, message.data(), message.size(), MSG_NOSIGNAL) != MessageSize) return end();
    sent += MessageSize;
  }

  void receive() {
    std::array<char, 256> data;
    const ssize_t size = recv(fd, data.data(), data.size(), MSG_DONTWAIT);
    if (size == -1 && errno == EAGAIN) return;
    if (size <= 0) return end();
    for (ssize_t i = 0; i < size; ++i) {
      if (data[static_cast<std::size_t>(i)] != byte_at(received++)) {
        fail("corrupt: client %c, byte %d", letter, received - 1);
      }
    }
  }

  void end() {
    const Own own;
    if (fd != -1) close(fd);
    fd = -1;
  }

  int fd = -1;
  char letter = '?';
  int sent = 0;
  int received = 0;
};

std::array<Client, 3>* clients = nullptr;

class EchoServer : public VrnAsyncReceiver {
 public:
  EchoServer() : VrnAsyncReceiver("echo") {}

  ~EchoServer() override {
    const Own own;
    for (VrnFile*& connection : connections) remove(&connection);
  }

  void serve(VrnServerSocket* socket) {
    listener = socket;
    library([&] { aioStart(listener); });
    pace.on_expired = [this] { end_when_idle(); };
  }

  void aioReady(VrnFile* file) override {
    const Own own;
    if (file == listener) return take_connection();
    echo(file);
  }

  void aioRemoved(VrnFile* file, bool, bool error) override {
    const Own own;
    if (error) told();
    for (VrnFile*& connection : connections) {
      if (connection == file) remove(&connection);
    }
    library([&] { pace.startTimer(0, 0, 0, 0); });
  }

 private:
  void take_connection() {
    VrnSocket* connection = nullptr;
    library([&] { connection = listener->accept(); });
    if (!connection) return;  // the next turn finds it again
    const int on = 1;
    setsockopt(connection->fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    for (VrnFile*& place : connections) {
      if (place) continue;
      place = connection;
      ++accepted;
      if (!library([&] { aioStart(connection); })) remove(&place);
      return;
    }
  }

  void echo(VrnFile* file) {
    std::array<char, MessageSize> message;
    bool at_end = false;
    int size = 0;
    library([&] { size = bread(file, message.data(), &at_end); });
    if (size == 0 && !at_end) return;  // not ready after all
    int written = -1;
    if (size == MessageSize) {
      library([&] { written = VrnFile::bwrite(file->fd, message.data(), MessageSize, 0); });
    }
    if (written == MessageSize) return;
    if (!at_end) told();
    drop(file);
  }

  static int bread(VrnFile* file, char* data, bool* at_end) {
    return VrnFile::bread(file->fd, data, MessageSize, true, 0, at_end);
  }

  void drop(VrnFile* file) {
    bool removed = true;
    library([&] { removed = aioStop(file); });
    if (removed) aioRemoved(file, false, false);
  }

  static void remove(VrnFile** place) {
    const inject::Lib lib;
    delete *place;
    *place = nullptr;
  }

  void end_when_idle() {
    bool idle = accepted >= static_cast<int>(connections.size());
    for (const VrnFile* connection : connections) idle = idle && !connection;
    if (!idle || ending) return;
    ending = true;
    library([&] { aioStop(listener); });
    Loop::stop();
  }

  VrnServerSocket* listener = nullptr;
  std::array<VrnFile*, 3> connections{};
  int accepted = 0;
  bool ending = false;
  Ticker pace{"pace"};
};

void serve_clients(std::array<Client, 3>* peers) {
  std::unique_ptr<VrnServerSocket> listener;
  unsigned address = htonl(INADDR_LOOPBACK);
  const bool listens = library([&] {
    listener = std::make_unique<VrnServerSocket>(&address, 0, true);
    listener->activate();
  });
  if (!listens) return;
  {
    const Own own;
    char mark = 'a';
    for (Client& client : *peers) client.open(port_of(listener->fd), mark++);
  }
  inject::hooks.waits = [] {
    for (Client& client : *clients) client.step();
  };
  std::unique_ptr<EchoServer> server;
  Loop loop;
  if (!loop.ready) return;
  library([&] {
    server = std::make_unique<EchoServer>();
    server->serve(listener.get());
    loop.run();
  });
}

}  // namespace

void run_echo() {
  std::array<Client, 3> peers;
  clients = &peers;
  stop_when_stalled(Loop::stop);
  serve_clients(&peers);
  const Own own;
  for (const Client& client : peers) {
    if (!client.has_all()) lost("a client has not got all back");
  }
}

void run_echo_queue() {
  setenv("VORN_EM_POLLMAX", "0", 1);
  run_echo();
}
