#pragma once
// Serves an address: sends back what each caller sends, and closes callers that fall silent.

#include "vornfc/vornfc.h"

#include <ctime>
#include <map>
#include <memory>
#include <string>

class EchoServer;

// One connection: it sends the echo, and owns the descriptor. The server hears it, but not while an
// echo waits to be taken.
struct Caller : vornfc::VrnAsyncWriter {
  Caller(EchoServer* echo, vornfc::VrnFile* file) : VrnAsyncWriter(file, true), server(echo) {}
  void aioReady(vornfc::VrnFile* file) override;
  void aioCancelled(vornfc::VrnFile* file, bool hangup, bool error) override;

  EchoServer* const server;
  bool closing = false;
  time_t last_active = time(nullptr);
};

class EchoServer : vornfc::VrnAsyncReceiver, vornfc::VrnTimer {
 public:
  EchoServer() : VrnAsyncReceiver("echo"), VrnTimer("idle check") {}

  // From now on that address, PORT or HOST:PORT; callers stay. When it throws nothing has changed.
  void serve(const std::string& address);
  void allow_idle(int seconds) { idle_seconds = seconds; }
  void shut_down();  // when the loop has ended

  const char* name() const { return listener->name(); }

 private:
  friend struct Caller;
  void accept();
  void hear(Caller* caller);
  void send_on(Caller* caller);
  void close(Caller* caller);
  void forget(Caller* caller);

  void aioReady(vornfc::VrnFile* file) override;
  void aioRemoved(vornfc::VrnFile* file, bool hangup, bool error) override;
  void timerExpired() override;
  void timerStopped() override {}

  std::string address;
  int idle_seconds = 60;
  std::unique_ptr<vornfc::VrnServerSocket> listener;
  std::map<vornfc::VrnFile*, Caller*> callers;
};
