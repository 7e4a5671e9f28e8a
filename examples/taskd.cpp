// Runs a task once in each period.
//
//   taskd -C FILE [-L LOGGER-GROUP] [-D DIRECTORY]
//
// The task is a command for the shell; what it prints is logged line by line, then how it ended. A
// period in which the former run still goes on is left out. Periods are measured by a clock that
// nobody sets: whatever happens to the time of day, runs neither pile up nor wait. The file's group
// "taskd" (taskd.conf shows one) is followed when the file changes: a daemon reads it again on
// SIGUSR1. Ends on SIGTERM, and without -D on SIGINT, and ends a run that goes on.
#include "vornfc/vornfc.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <memory>
#include <string>

using namespace vornfc;

class Task : public VrnAppShell, VrnAsyncReceiver, VrnSignalHandler, VrnObserver {
 public:
  Task() : VrnAppShell(nullptr, "taskd", "1.0", "Runs a task"), VrnAsyncReceiver("taskd") {}

 private:
  int appInit() override {
    const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (fd == -1) throw VrnException(2, "No timer");
    ticks.assign(fd, "period", true);
    aioStart(&ticks);
    apply_settings();
    appConfig()->attach(this);
    for (const int signo : {SIGTERM, SIGINT, SIGCHLD}) evtmgr->startSignal(this, signo);
    return 0;
  }

  // Nothing changes unless everything is good. A new period begins, with a run, at once.
  void apply_settings() {
    const VrnConfig& file = *appConfig()->config;
    const std::string wanted = file.value("taskd", "COMMAND", true, 0);
    const int seconds = file.intval("taskd", "PERIOD", 60, 0);
    VrnAssertFull(seconds > 0, "Invalid PERIOD (%d)", seconds);
    command = wanted;
    vrnlog(3, "Every %d s: %s", seconds, command.c_str());
    if (seconds == period) return;
    const itimerspec settings{{seconds, 0}, {0, 1}};
    if (timerfd_settime(ticks.fd, 0, &settings, nullptr) == -1) throw VrnException(2, "Timer");
    period = seconds;
  }

  void observerNotified(VrnNotifier*) override {
    try {
      apply_settings();
    } catch (...) {
      vrnlog(1, "The settings stay as they were: %s", VrnException::handler().c_str());
    }
  }
  void observerDetached(VrnNotifier*) override {}
  std::string observerName() const override { return "taskd"; }

  void aioReady(VrnFile* file) override {
    if (file == output.get()) return read_output();
    uint64_t periods;
    if (read(ticks.fd, &periods, sizeof periods) != sizeof periods) return;
    if (process == -1) return run();
    vrnlog(1, "The task still runs, this period is left out");
  }

  void run() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) == -1) return vrnlog(1, "No pipe (errno=%d)", errno);
    output = std::make_unique<VrnFile>();  // whoever holds the end of the former one writes in vain
    output->assign(ends[0], "output", true);
    aioStart(output.get());
    line.clear();
    spawn(ends[1]);
    close(ends[1]);
  }

  // In a process group of its own, so that it can be ended with all that it started; with the
  // signals that a daemon ignores as they are by default.
  void spawn(int out) {
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&files, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&files, out, STDERR_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t signals;
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF);
    char shell[] = "/bin/sh", option[] = "-c";
    char* const words[] = {shell, option, command.data(), nullptr};
    const int error = posix_spawn(&process, shell, &files, &attributes, words, environ);
    if (error != 0) {
      process = -1;
      vrnlog(1, "The task cannot be started (errno=%d)", error);
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
  }

  void read_output() {
    char text[1024];
    const ssize_t size = read(output->fd, text, sizeof text);
    if (size == 0) aioStop(output.get());
    for (const char c : std::string(text, size > 0 ? static_cast<size_t>(size) : 0)) {
      if (c != '\n') line += c;
      if (c == '\n' || line.size() == sizeof text) log_line();
    }
  }
  void aioRemoved(VrnFile*, bool, bool) override { log_line(); }
  void log_line() {
    if (!line.empty()) vrnlog(3, "Task: %s", line.c_str());
    line.clear();
  }

  void signalReceived(int signo) override {
    if (signo != SIGCHLD) return appTerminate();
    int status;
    if (process == -1 || waitpid(process, &status, WNOHANG) != process) return;
    process = -1;
    if (WIFSIGNALED(status)) return vrnlog(1, "The task was ended by signal %d", WTERMSIG(status));
    vrnlog(status == 0 ? 3 : 1, "The task ended with status %d", WEXITSTATUS(status));
  }
  void signalStopped(int) override {}
  const char* sigtag() const override { return "taskd"; }

  void appTerminated() override {
    if (appConfig()) appConfig()->detach(this);
    aioTerminate();
    if (process != -1) kill(-process, SIGTERM);
  }

  std::string command, line;
  int period = 0;  // none yet
  VrnFile ticks;
  std::unique_ptr<VrnFile> output;  // of the present run, or of the last one
  pid_t process = -1;               // -1: none runs
};

static Task app;
