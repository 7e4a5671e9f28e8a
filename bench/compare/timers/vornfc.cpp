#include "vornfc/vornfc.h"

#include "timers.h"

#include <deque>
#include <thread>

using namespace vornfc;

namespace {

struct Timer : VrnTimer {
  explicit Timer(size_t n) : VrnTimer("t"), number(n) {}
  void timerExpired() override { expired(number); }
  void timerStopped() override {}

  const size_t number;
};

std::deque<Timer> timers;

void open(size_t count) {
  for (size_t i = 0; i < count; ++i) timers.emplace_back(i);
  VrnAppShell::evtmgr = VrnEvtMgr::instance();
}

void start(size_t timer, long usec) {
  timers[timer].startTimer(static_cast<int>(usec / 1000000), static_cast<int>(usec % 1000000), 0,
                           0);
}

void stop(size_t timer) {
  timers[timer].stopTimer();
}

void run() {
  VrnAppShell::evtmgr->startDispatcher();
}

void quit() {
  VrnAppShell::evtmgr->stopDispatcher();
}

// From another thread than that of the dispatcher, which runs meanwhile.
void outside(void (*calls)()) {
  std::thread thread([calls] {
    calls();
    quit();
  });
  run();
  thread.join();
}

const compare::Enter<Timers> entry("vornfc", {open, start, stop, run, quit, outside});

}  // namespace
