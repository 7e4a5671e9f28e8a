// A TCP echo server: sends back what each caller sends, and closes callers that fall silent.
//
//   echod [-a ADDRESS] [-t SECONDS] [-C FILE[:GROUP]] [-L LOGGER-GROUP] [-D DIRECTORY]
//
// ADDRESS is PORT or HOST:PORT, SECONDS the idle time allowed. Without the options they are the
// items ADDRESS and IDLE of the file's group (echod.conf shows one), and are followed when that
// changes: a daemon reads it again on SIGUSR1. Ends on SIGTERM, and without -D on SIGINT, with
// every connection closed.
#include "echo_server.h"
#include "vornfc/vornfc.h"
#include "vornsupport/support.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

using namespace vornfc;

class Echo : public VrnAppShell, VrnSignalHandler, VrnObserver {
 public:
  Echo() : VrnAppShell(nullptr, "echod", "1.0", "TCP echo server") { appSetOpts("a:t:", ""); }

 private:
  int appParseArg(int isSwitch, int opt, const char* arg) override {
    if (!isSwitch) return GNL_REJECTED;
    if (opt == 'a') address_option = arg;
    if (opt == 't') {
      idle_option = isdecstr(arg) ? atoi(arg) : 0;
      VrnAssertFull(idle_option > 0, "Invalid idle time (%s)", arg);
    }
    return 0;
  }

  void appUsage() const override {
    VrnAppShell::appUsage();
    fputs(
        "  -a address: serve on PORT or HOST:PORT (7777 on every interface)\n"
        "  -t seconds: close callers that are silent for that long (60)\n\n",
        stderr);
  }

  int appInit() override {
    signal(SIGPIPE, SIG_IGN);
    apply_settings();
    appConfig()->attach(this);
    for (const int signo : {SIGTERM, SIGINT}) evtmgr->startSignal(this, signo);
    return 0;
  }

  // Nothing changes unless everything is good.
  void apply_settings() {
    const VrnConfig& file = *appConfig()->config;
    const std::string group = appConfig()->group.empty() ? "echod" : appConfig()->group;
    std::string address = address_option;
    if (address.empty()) address = file.value(group, "ADDRESS", false, 0);
    if (address.empty()) address = "7777";
    const int idle = idle_option > 0 ? idle_option : file.intval(group, "IDLE", 60, 0);
    VrnAssertFull(idle > 0, "Invalid idle time (%d)", idle);
    server.serve(address);
    server.allow_idle(idle);
    vrnlog(3, "Serving on %s, idle callers are closed after %d s", server.name(), idle);
  }

  void observerNotified(VrnNotifier*) override {
    try {
      apply_settings();
    } catch (...) {
      vrnlog(1, "The settings stay as they were: %s", VrnException::handler().c_str());
    }
  }
  void observerDetached(VrnNotifier*) override {}
  std::string observerName() const override { return "echod"; }

  void appTerminated() override {
    if (appConfig()) appConfig()->detach(this);
    server.shut_down();
  }

  void signalReceived(int signo) override {
    vrnlog(3, "Received signal %d", signo);
    appTerminate();
  }
  void signalStopped(int) override {}
  const char* sigtag() const override { return "echod"; }

  std::string address_option;
  int idle_option = 0;
  EchoServer server;
};

static Echo app;
