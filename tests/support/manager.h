#pragma once
// An event manager of a test's own, for what objects ask of one and do with its answers.

#include "vornfc/appshell.h"
#include "vornfc/evtmgr.h"

#include <functional>

// Runs nothing. It answers what the test put into its fields, and "done" without that. It is the
// one event manager, and the application shell's, until it is destroyed.
class StandInManager : public vornfc::VrnEvtMgr {
 public:
  using AIORequest = std::function<bool(vornfc::VrnFile*, vornfc::VrnAIO*)>;

  StandInManager() { vornfc::VrnAppShell::evtmgr = this; }

  void startDispatcher() override {
    if (on_run) on_run();
  }
  void stopDispatcher() override {
    if (on_end) on_end();
  }
  bool startAIO(vornfc::VrnFile* file, vornfc::VrnAIO* aio) override {
    return !on_start || on_start(file, aio);
  }
  bool stopAIO(vornfc::VrnFile* file, vornfc::VrnAIO* aio) override {
    return !on_stop || on_stop(file, aio);
  }
  bool startTimer(vornfc::VrnTimer*) override { return true; }
  bool stopTimer(vornfc::VrnTimer*) override { return !on_stop_timer || on_stop_timer(); }
  vornfc::VrnSignalHandler* startSignal(vornfc::VrnSignalHandler*, int) override { return nullptr; }
  bool stopSignal(vornfc::VrnSignalHandler*, int, bool) override { return true; }

  AIORequest on_start;
  AIORequest on_stop;
  std::function<bool()> on_stop_timer;
  std::function<void()> on_run;
  std::function<void()> on_end;
};
