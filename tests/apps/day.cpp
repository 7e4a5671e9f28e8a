// A daemon's day of eight hours, from 08:00 on 15 November 2026, in a few seconds: the application
// has a clock of its own, which moves only when the loop waits. Every 30 s it logs a "tick" at
// level 3 and a "detail" at level 4; a hundred times it changes the level in its configuration file
// and sends itself SIGUSR1. DAY_CONF is the file, DAY_LOG the log's name in it, DAY_STATE where it
// leaves what it expects.
#include "vornfc/vornfc.h"

#include <poll.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

using namespace vornfc;

namespace {

constexpr int Ticks = 960;
constexpr int Reloads = 100;

timeval clock_now{1794729600, 0};  // 2026-11-15 08:00:00 UTC

}  // namespace

extern "C" int gettimeofday(timeval* tv, void*) noexcept {
  *tv = clock_now;
  return 0;
}

// With nothing to do but wait, the time has passed.
extern "C" int poll(pollfd* entries, nfds_t count, int timeout) {
  const auto ready = static_cast<int>(syscall(SYS_poll, entries, count, timeout > 0 ? 0 : timeout));
  if (ready == 0 && timeout > 0) {
    clock_now.tv_usec += timeout % 1000 * 1000L;
    clock_now.tv_sec += timeout / 1000 + clock_now.tv_usec / 1000000;
    clock_now.tv_usec %= 1000000;
  }
  return ready;
}

namespace {

class Day : public VrnAppShell, VrnTimer {
 public:
  Day() : VrnAppShell(nullptr, "day", nullptr, nullptr), VrnTimer("tick") {}

 private:
  int appInit() override {
    startTimer(0, 0, 30, 0);
    return 0;
  }

  void timerExpired() override {
    ++tick;
    vrnlog(3, "tick %d", tick);
    vrnlog(4, "detail %d", tick);
    if (level >= 4) ++details;
    if (tick * Reloads / Ticks > reloads) reload();
    if (tick == Ticks) appTerminate();
  }
  void timerStopped() override {}

  void reload() {
    ++reloads;
    level = level == 3 ? 4 : 3;
    std::FILE* const file = std::fopen(getenv("DAY_CONF"), "w");
    std::fprintf(file, "[log]\nFILENAME = %s\nCYCLEFREQ = HOURLY\nTIMEPREC = NONE\nLEVEL = %d\n",
                 getenv("DAY_LOG"), level);
    std::fclose(file);
    std::raise(SIGUSR1);
  }

  void appTerminated() override {
    std::FILE* const file = std::fopen(getenv("DAY_STATE"), "w");
    std::fprintf(file, "ticks=%d details=%d reloads=%d pid=%d\n", tick, details, reloads, getpid());
    std::fclose(file);
  }

  int tick = 0;
  int details = 0;
  int reloads = 0;
  int level = 3;
};

Day app;

}  // namespace
