// The smallest application: says hello once a second until it is interrupted.
#include "vornfc/vornfc.h"

#include <cstdio>

class Hello : public vornfc::VrnAppShell, private vornfc::VrnTimer {
 public:
  Hello() : VrnAppShell(nullptr, "hello", nullptr, "Says hello"), VrnTimer("hello") {}

 private:
  int appInit() override {
    startTimer(0, 0, 1, 0);  // at once, then every second
    return 0;
  }
  void timerExpired() override {
    std::puts("Hello, world");
    std::fflush(stdout);
  }
  void timerStopped() override {}
};

static Hello app;
