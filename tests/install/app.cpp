// An application without a main of its own: the library's entry point finds the object, and one
// timer runs before the application ends itself.

#include <vornfc/vornfc.h>
#include <vornsupport/support.h>

#include <cstdio>

namespace {

class OneTick : public vornfc::VrnTimer {
 public:
  OneTick() : VrnTimer("one tick") {}

  void timerExpired() override {
    std::printf("%s ticked\n", gnl_prognam);
    vornfc::VrnAppShell::singleton->appTerminate();
  }
  void timerStopped() override {}
};

class Outside : public vornfc::VrnAppShell {
 public:
  Outside() : VrnAppShell(nullptr, "outside", nullptr, nullptr, false) {}

  int appInit() override {
    tick.startTimer(0, 1000, 0, 0);
    return 0;
  }

 private:
  OneTick tick;
};

Outside application;

}  // namespace
