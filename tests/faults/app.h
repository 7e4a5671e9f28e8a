#pragma once
// What the scenarios with an event loop share.

#include "report.h"
#include "vornfc/vornfc.h"

#include <netinet/in.h>

#include <functional>
#include <string>

// An event manager for a scope. False by `ready` when it could not be made.
class Loop {
 public:
  Loop();
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;
  ~Loop();

  static void run();   // the dispatcher, until it is stopped
  static void stop();  // also from inside a callback

  bool ready = false;
};

// Calls back once, or again and again.
class Ticker : public vornfc::VrnTimer {
 public:
  explicit Ticker(const char* name) : VrnTimer(name) {}
  void timerExpired() override;
  void timerStopped() override {}

  std::function<void()> on_expired;
};

sockaddr_in loopback(int port);
int port_of(int fd);  // that a socket is bound to
