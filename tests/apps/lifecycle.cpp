// An application that prints which of its hooks are called. What it does in them is chosen by its
// options:
//   -i TEXT   appInit() throws TEXT        -f        appInit() fails
//   -s        appInit() asks for the stop  -w FILE   appRun() runs until FILE is gone
#include "vornfc/appshell.h"
#include "vornfc/exception.h"
#include "vornfc/timer.h"
#include "vornsupport/support.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

class Lifecycle : public vornfc::VrnAppShell, private vornfc::VrnTimer {
 public:
  Lifecycle() : VrnAppShell(nullptr, "lifecycle", "1.0", "Prints its hooks"), VrnTimer("watch") {
    appSetOpts("i:fsw:", "[WORD...]");
  }
  ~Lifecycle() override { say("destroyed"); }

 private:
  static void say(const std::string& text) {
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
  }

  int appSetup(gnl_init_ctrl*) override {
    say("appSetup " + std::string(gnl_prognam));
    return std::getenv("LIFECYCLE_NO_SETUP") ? 1 : 0;
  }
  int appParseArg(int isSwitch, int opt, const char* arg) override {
    if (!isSwitch) {
      say("parameter " + std::to_string(opt) + " " + arg);
      return 0;
    }
    switch (opt) {
      case 'i': thrown = arg; return 0;
      case 'f': fails = true; return 0;
      case 's': stops = true; return 0;
      case 'w': watched = arg; return 0;
      default: return 3;
    }
  }
  int appInit() override {
    say("appInit");
    if (!thrown.empty()) throw vornfc::VrnException(7, "%s", thrown.c_str());
    if (stops || watched.empty()) appTerminate();
    startTimer(0, 0, 0, 10000);
    return fails ? 1 : 0;
  }
  void appRun() override {
    say("appRun");
    VrnAppShell::appRun();
    say("appRun returns");
  }
  void appTerminated() override { say("appTerminated"); }

  void timerExpired() override {
    if (!watched.empty() && access(watched.c_str(), F_OK) == -1) appTerminate();
  }
  void timerStopped() override {}

  std::string thrown;
  std::string watched;
  bool fails = false;
  bool stops = false;
};

Lifecycle app;

}  // namespace
