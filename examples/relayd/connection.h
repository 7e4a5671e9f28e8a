#pragma once
// One relayed connection: a client, its target, and what flows between them.

#include "vornfc/vornfc.h"

#include <netinet/in.h>

#include <ctime>
#include <memory>
#include <set>
#include <string>

struct Connection;

struct Limits {
  int connect_timeout = 5;  // seconds allowed for reaching a target
  int idle = 300;           // seconds without a byte before a connection is closed
  int queued = 1 << 20;     // bytes that may wait for one side before the other is not read
};
extern Limits limits;

// What goes to one side. It tells its connection when there is room again, and when the side is
// lost.
struct Outlet : vornfc::VrnAsyncWriter {
  Outlet(Connection* conn, vornfc::VrnFile* file) : VrnAsyncWriter(file, true), connection(conn) {}
  void aioReady(vornfc::VrnFile* file) override;
  void aioCancelled(vornfc::VrnFile* file, bool hangup, bool error) override;

  Connection* connection;  // null: it has ended
};

// What comes from one side. The outlet owns the socket.
struct Side : vornfc::VrnAsyncReceiver {
  Side(Connection* conn, const char* name) : VrnAsyncReceiver(name), connection(conn) {}
  void listen();
  void pause();
  void aioReady(vornfc::VrnFile* file) override;
  void aioRemoved(vornfc::VrnFile* file, bool hangup, bool error) override;

  Connection* const connection;
  vornfc::VrnSocket* socket = nullptr;
  Outlet* outlet = nullptr;
  bool paused = false;    // the other side has too much to take
  bool finished = false;  // it has sent all that it will
  unsigned long long received = 0;
};

// Created for a client that was accepted; deletes itself some time after end().
struct Connection : vornfc::VrnSocketsClient {
  Connection(const std::string& rule, std::unique_ptr<vornfc::VrnSocket> accepted);
  void connect(sockaddr_in target);
  void socketConnected(vornfc::VrnClientSocket* socket, int result) override;
  void pass_on(Side* from);
  void flow();
  void end_if_silent();
  void end(const char* reason);
  void finish();
  Side* other(const Side* side) { return side == &client ? &target : &client; }

  static std::set<Connection*> all;

  const std::string name;
  Side client, target;
  vornfc::VrnClientSocket* connecting = nullptr;
  bool ending = false;
  time_t last_active;
};
