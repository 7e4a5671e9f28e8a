// Greets: answers each line that a caller sends.
//
//   greetd -C FILE -L log [-D DIRECTORY]
//
// The file (greetd.conf) is read again on SIGUSR1. Ends on SIGTERM and SIGINT.
#include "line_server.h"

#include <vornfc/vornfc.h>
#include <vornsupport/support.h>

#include <csignal>
#include <cstring>
#include <string>

using namespace vornfc;

class Greetd : public VrnAppShell, VrnSignalHandler, VrnObserver {
 public:
  Greetd() : VrnAppShell(nullptr, "greetd", "1.0", "Greets its callers") {}

  bool ended_as_told = false;

 private:
  int appInit() override {
    signal(SIGPIPE, SIG_IGN);
    apply_settings();
    appConfig()->attach(this);
    for (const int signo : {SIGTERM, SIGINT, SIGUSR1}) {
      evtmgr->stopSignal(nullptr, signo, false);  // with -D the shell has asked for some before
      evtmgr->startSignal(this, signo);
    }
    return 0;
  }

  // Nothing changes unless everything is good.
  void apply_settings() {
    const VrnConfig& file = *appConfig()->config;
    const int idle = file.intval("greetd", "IDLE", 60, 0);
    VrnAssertFull(idle > 0, "Invalid IDLE (%d)", idle);
    server.serve(file.value("greetd", "ADDRESS", true, 0));
    server.allow_idle(idle);
    greeting = file.value("greetd", "GREETING", false, 0);
    vrnlog(3, "The greeting is '%s'", greeting.c_str());
  }

  // The configuration has been read again.
  void observerNotified(VrnNotifier*) override {
    try {
      apply_settings();
    } catch (...) {
      vrnlog(1, "The settings stay as they were: %s", VrnException::handler().c_str());
    }
  }
  void observerDetached(VrnNotifier*) override {}
  std::string observerName() const override { return "greetd"; }

  void signalReceived(int signo) override {
    if (signo == SIGUSR1) return reload();
    ended_as_told = true;
    appTerminate();
  }
  void signalStopped(int) override {}
  const char* sigtag() const override { return "greetd"; }

  void reload() {
    VrnConfig fresh(*appConfig()->config);
    fresh.update();  // throws, which is logged, when the file is faulty
    appLogger()->level(fresh.value("log", VrnLog::CFG_LEVEL, false, 0).c_str());  // so does this
    *appConfig()->config = fresh;
    appConfig()->notifyObservers();
  }

  void appTerminated() override {
    if (appConfig()) appConfig()->detach(this);
    server.shut_down();
  }

  std::string greeting;
  LineServer server{[this](const std::string& line) { return greeting + line; }};
};

static Greetd app;

// For a supervisor: the library's own main would end with 0 whatever has happened.
int main(int argc, char** argv) {
  char* const slash = strrchr(argv[0], '/');
  gnl_prognam = slash ? slash + 1 : argv[0];
  const int failed = app.start(argc, argv);
  return failed == 0 && app.ended_as_told ? 0 : 1;
}
