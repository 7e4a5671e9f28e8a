#pragma once
// Serves an address: each line that a caller sends has an answer of one line.

#include <vornfc/vornfc.h>

#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <string>

class LineServer;

// One connection: it sends the answers, and owns the descriptor. The server hears it, but not while
// answers wait to be taken.
struct Caller : vornfc::VrnAsyncWriter {
  Caller(LineServer* serving, vornfc::VrnFile* file)
      : VrnAsyncWriter(file, true), server(serving) {}
  void aioReady(vornfc::VrnFile* file) override;
  void aioCancelled(vornfc::VrnFile* file, bool hangup, bool error) override;

  LineServer* const server;
  std::string text;  // the beginning of a line
  bool closing = false;
  time_t last_active = time(nullptr);
};

class LineServer : vornfc::VrnAsyncReceiver, vornfc::VrnTimer {
 public:
  using Answer = std::function<std::string(const std::string& line)>;

  explicit LineServer(Answer to_a_line)
      : VrnAsyncReceiver("line server"), VrnTimer("idle check"), answer(std::move(to_a_line)) {}

  // From now on that address, PORT or HOST:PORT; callers stay. When it throws nothing has changed.
  void serve(const std::string& address);
  void allow_idle(int seconds) { idle_seconds = seconds; }
  void shut_down();  // when the loop has ended

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

  const Answer answer;
  std::string address;
  int idle_seconds = 60;
  std::unique_ptr<vornfc::VrnServerSocket> listener;
  std::map<vornfc::VrnFile*, Caller*> callers;
};
