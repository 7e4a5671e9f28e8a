// A daemon that writes down what has become of its process. Its environment chooses how it starts:
//   STATE        the file to write to when the loop runs
//   DAEMON_LATE  set: the event manager is made after appInit()
//   DAEMON_SELF  the directory for appDaemonise(), which appInit() then calls, twice; empty: null
//   DAEMON_DEAF  set: SIGUSR1 is taken from the application shell when the loop runs
//   DAEMON_FAIL  the text that this application's own gnl_init fails with
#include "vornfc/appshell.h"
#include "vornfc/config.h"
#include "vornfc/evtmgr.h"
#include "vornfc/notifier.h"
#include "vornfc/timer.h"
#include "vornfc/utils.h"
#include "vornsupport/support.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#if defined(__SANITIZE_THREAD__)
#define EXIT_FLUSHES 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define EXIT_FLUSHES 1
#endif
#endif
#ifndef EXIT_FLUSHES
#define EXIT_FLUSHES 0
#endif

namespace {

// The _exit() of the thread sanitizer flushes the streams, which no other does.
constexpr int exit_flushes = EXIT_FLUSHES;

unsigned flags_at_init = 0;
pid_t process_at_init = 0;

}  // namespace

extern "C" int gnl_init(gnl_init_ctrl* ctrl) {
  flags_at_init = ctrl->flags;
  process_at_init = getpid();
  const char* const failure = std::getenv("DAEMON_FAIL");
  if (!failure) return 0;
  std::snprintf(gnl_usrmsg, GNL_USRMSG_SIZE, "%s", failure);
  errno = EACCES;
  return 1;
}

namespace {

class Daemon : public vornfc::VrnAppShell, private vornfc::VrnObserver, private vornfc::VrnTimer {
 public:
  Daemon()
      : VrnAppShell(nullptr, "daemon", nullptr, nullptr, std::getenv("DAEMON_LATE") != nullptr),
        VrnTimer("state") {
    std::atexit([] { std::fputs("at exit\n", stderr); });
    std::printf("buffered\n");  // and not flushed: each process has it
  }

 private:
  int appInit() override {
    process_at_app_init = getpid();
    appConfig()->attach(this);
    if (const char* const directory = std::getenv("DAEMON_SELF")) {
      appDaemonise(*directory ? directory : nullptr);
      appDaemonise("/nonexistent");
    }
    // Behind all that was asked for until now.
    if (evtmgr) startTimer(0, 0, 0, 0);
    return 0;
  }
  void appRun() override {
    if (std::getenv("DAEMON_LATE")) startTimer(0, 0, 0, 0);
    VrnAppShell::appRun();
  }
  void appTerminated() override {
    vornfc::vrnlog(1, "appTerminated");
    if (appConfig()) appConfig()->detach(this);  // it outlives this observer
  }

  void timerExpired() override {
    if (std::getenv("DAEMON_DEAF")) take_reload();
    write_state();
  }
  void timerStopped() override {}

  void observerNotified(vornfc::VrnNotifier* from) override {
    vornfc::vrnlog(1, "notified by %s: key=%s", from->notifierName().c_str(),
                   appConfig()->config->value("main", "key", false, 0).c_str());
  }
  void observerDetached(vornfc::VrnNotifier*) override {}
  std::string observerName() const override { return "daemon"; }

  // Another thread is told at once who has the signal.
  static void take_reload() {
    static struct : vornfc::VrnSignalHandler {
      void signalReceived(int) override {}
      void signalStopped(int) override {}
      const char* sigtag() const override { return "nobody"; }
    } nobody;
    vornfc::VrnSignalHandler* shell = nullptr;
    std::thread([&shell] { shell = evtmgr->startSignal(&nobody, SIGUSR1); }).join();
    evtmgr->stopSignal(shell, SIGUSR1, true);
  }

  // Complete when it appears under its name.
  void write_state() const {
    const char* const path = std::getenv("STATE");
    if (!path) return;
    const mode_t mask = umask(0);
    umask(mask);
    char directory[PATH_MAX] = "?";
    const char* const known = getcwd(directory, sizeof directory);
    const std::string unfinished = std::string(path) + ".new";
    std::FILE* const file = std::fopen(unfinished.c_str(), "w");
    if (!file) return;
    std::fprintf(file, "pid=%d\nsession=%d\ngroup=%d\n", getpid(), getsid(0), getpgrp());
    std::fprintf(file, "directory=%s\numask=%o\nflags=%u\n", known ? known : "?",
                 static_cast<unsigned>(mask), flags_at_init);
    std::fprintf(file, "process_at_init=%d\nprocess_at_app_init=%d\n", process_at_init,
                 process_at_app_init);
    std::fprintf(file, "exit_flushes=%d\n", exit_flushes);
    std::fclose(file);
    std::rename(unfinished.c_str(), path);
  }

  pid_t process_at_app_init = 0;
};

Daemon app;

}  // namespace
