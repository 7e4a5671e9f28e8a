#include "connection.h"

#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>

using namespace vornfc;

Limits limits;
std::set<Connection*> Connection::all;

// Seconds of a clock that nobody sets.
static time_t now() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec;
}

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
    : name(rule + " " + accepted->name()),
      client(this, "client"),
      target(this, "target"),
      last_active(now()) {
  client.outlet = new Outlet(this, accepted.get());
  client.socket = accepted.release();
  all.insert(this);
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

void Connection::end_if_silent() {
  const time_t silent = now() - last_active;
  if (silent > (connecting ? limits.connect_timeout : limits.idle)) end("timed out");
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
  all.erase(this);
  delete this;
}
