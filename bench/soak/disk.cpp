// A daemon that does nothing but log, two records a millisecond and, by its own clock, an hour in
// every 200 records, so that a log that cycles is always about to open the next file. The records
// are numbered. Ends on SIGTERM.
#include "stepped_clock.h"
#include "vornfc/vornfc.h"

#include <csignal>

using namespace vornfc;

namespace {

class Disk : public VrnAppShell, VrnTimer, VrnSignalHandler {
 public:
  Disk() : VrnAppShell(nullptr, "disk", nullptr, nullptr), VrnTimer("tick") {}

 private:
  int appInit() override {
    startTimer(0, 0, 0, 2000);  // a wait of a millisecond, as a timer may be early by another
    evtmgr->startSignal(this, SIGTERM);
    return 0;
  }

  void timerExpired() override {
    for (int i = 0; i < 2; ++i) {
      vrnlog(1, "record %ld of a disk that may be full at any of its bytes .", ++number);
    }
    if (number % 200 == 0) step_clock(3600);
  }
  void timerStopped() override {}

  void signalReceived(int) override { appTerminate(); }
  void signalStopped(int) override {}
  const char* sigtag() const override { return "disk"; }

  long number = 0;
};

Disk app;

}  // namespace
