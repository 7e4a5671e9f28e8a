// A daemon's life: command line, configuration, logger, the forks, a signal to read the
// configuration again, and one to end.

#include "app.h"
#include "scenario.h"

#include <signal.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <memory>

using inject::Own;
using vornfc::VrnAppShell;
using vornfc::VrnNotifier;
using vornfc::VrnObserver;

struct gnl_init_ctrl;

namespace {

std::array<char, 64> config_path{};

void write_config(const char* level) {
  const Own own;
  std::FILE* const file = std::fopen(config_path.data(), "w");
  std::fprintf(file, "[daemon]\nname = value\n\n[log]\nFILENAME = STDERR\nLEVEL = %s\n", level);
  std::fclose(file);
}

bool handles(int signo) {
  struct sigaction action {};
  sigaction(signo, nullptr, &action);
  return action.sa_handler != SIG_DFL;
}

class Daemon : public VrnAppShell, public VrnObserver {
 public:
  Daemon() : VrnAppShell(nullptr, "faults", nullptr, "Daemon") {}

  // The first logger is there.
  int appSetup(gnl_init_ctrl*) override {
    report->may_terminate = false;
    return 0;
  }

  int appInit() override {
    const Own own;
    const bool prepared = library([&] {
      appConfig()->attach(this);
      pace = std::make_unique<Ticker>("pace");
      pace->on_expired = [this] { next(); };
      pace->startTimer(0, 0, 0, 0);
    });
    return prepared ? 0 : 1;
  }

  void observerNotified(VrnNotifier*) override { reconfigured = true; }
  void observerDetached(VrnNotifier*) override {}
  std::string observerName() const override { return "daemon"; }

  // The loop has ended: everything came to pass.
  void appTerminated() override {
    const Own own;
    pace.reset();
    library([&] {
      if (appConfig()) appConfig()->detach(this);
    });
    if (step < 2) lost("the daemon did not get to its end");
    if (step == 2 && !reconfigured) lost("the configuration was not read again");
  }

 private:
  void next() {
    const int signo = step == 0 ? SIGUSR1 : SIGTERM;
    ++step;
    if (step > 2) return;  // the end is under way
    if (signo == SIGUSR1) write_config("TRC");
    if (handles(signo)) {
      const inject::Lib lib;
      raise(signo);
    } else {
      lost("a signal of the daemon's is not handled");
      library([&] { appTerminate(); });
    }
    if (step < 2 && !library([&] { pace->startTimer(0, 5000, 0, 0); })) {
      library([&] { appTerminate(); });
    }
  }

  std::unique_ptr<Ticker> pace;
  int step = 0;
  bool reconfigured = false;
};

void terminate_daemon() {
  if (VrnAppShell::singleton) library([] { VrnAppShell::singleton->appTerminate(); });
}

}  // namespace

void run_daemonise() {
  {
    const Own own;
    setpgid(0, 0);  // a group leader, as by a shell's command line, takes two forks
    setenv("VORNTRC_FILENAME", "STDERR", 1);
    setenv("VORNTRC_LEVEL", "DBG", 1);
    setenv("VORNTRC_APPTAG", "daemon", 1);
    std::snprintf(config_path.data(), config_path.size(), "%s/config", work_directory);
    write_config("DBG");
  }
  stop_when_stalled(terminate_daemon);
  std::unique_ptr<Daemon> daemon;
  if (!library([&] { daemon = std::make_unique<Daemon>(); })) return;
  report->may_terminate = true;
  const char* const argv[] = {"daemon",           "-D", work_directory, "-C",
                              config_path.data(), "-L", "log:tag",      nullptr};
  if (daemon->start(7, argv) != 0) told();
  report->may_terminate = false;
}
