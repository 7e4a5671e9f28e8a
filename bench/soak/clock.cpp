// Timers and a log under a time of day that is set by steps of a second to a year, forward and
// back, by another thread at any moment. Prints "step SECONDS" for each step that all went well
// with, or "failed: ..." and ends; at the end, "records COUNT" for the log. Ends on SIGTERM.
//
// A timer expires at a time of day. So after a step forward all that are due by then have to fire,
// and after a step back none before the time of day comes again, unless it is set anew.
#include "stepped_clock.h"
#include "vornfc/vornfc.h"

#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace vornfc;

namespace {

constexpr int Ticks = 20;
constexpr int AlarmSeconds = 20;  // long enough not to pass while one step is looked at
constexpr auto Limit = std::chrono::seconds(30);

std::atomic<bool> ended{false};
std::atomic<long> records{0};

// Started by the driver, which is also the one that sets the clock.
class Tick : public VrnTimer {
 public:
  Tick(const std::string& name, bool is_logged) : VrnTimer(name), logged(is_logged) {}

  void arm(int sec, int usec, int isec, int iusec) {
    lock();
    startTimer(sec, usec, isec, iusec, true);
    note_expiry();
    unlock();
  }

  void timerExpired() override {
    lock();
    if (is_early(time_of_day()) && clock_as_armed()) early = true;
    note_expiry();
    unlock();
    if (logged) vrnlog(1, "record %ld", ++records);
    ++fired;
  }
  void timerStopped() override {}

  std::atomic<long> fired{0};
  std::atomic<bool> early{false};

 private:
  // With the lock held.
  void note_expiry() {
    getExpiryAbs(&expiry, true);
    setting_when_armed = clock_setting();
  }

  // A step between the loop's look at the time and this one makes every timer look early.
  bool clock_as_armed() const {
    return setting_when_armed % 2 == 0 && setting_when_armed == clock_setting();
  }

  // Up to a millisecond is allowed.
  bool is_early(const timeval& now) const {
    timeval difference;
    timersub(&expiry, &now, &difference);
    return difference.tv_sec * 1000000 + difference.tv_usec >= 1000;
  }

  const bool logged;
  timeval expiry{};
  unsigned setting_when_armed = 0;
};

bool within_limit(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + Limit;
  while (!condition()) {
    if (ended || std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

class Clock : public VrnAppShell, VrnSignalHandler {
 public:
  Clock() : VrnAppShell(nullptr, "clock", nullptr, nullptr) {
    for (int i = 0; i < Ticks; ++i) {
      ticks.push_back(std::make_unique<Tick>("tick " + std::to_string(i), i == 0));
    }
  }

 private:
  int appInit() override {
    for (const int signo : {SIGTERM, SIGUSR1}) evtmgr->startSignal(this, signo);
    return 0;
  }

  void appRun() override {
    driver = std::thread([this] { drive(); });
    VrnAppShell::appRun();
  }

  void appTerminated() override {
    ended = true;
    if (driver.joinable()) driver.join();
    std::printf("records %ld\n", records.load());
  }

  // Every step is taken back some time, so that the clock stays within a few years.
  void drive() {
    constexpr long Minute = 60, Hour = 60 * Minute, Day = 24 * Hour, Year = 365 * Day;
    std::vector<long> walk;
    for (const long size : {1L, Minute, Hour, Day, 31 * Day, Year}) {
      walk.insert(walk.end(), {size, -size, -size, size});
    }
    arm_all();
    for (size_t i = 0; !ended; i = (i + 1) % walk.size()) {
      const char* const failure = step(walk[i]);
      if (ended) return;
      if (failure) {
        std::printf("failed: %s at a step of %ld s\n", failure, walk[i]);
      } else {
        std::printf("step %ld\n", walk[i]);
      }
      std::fflush(stdout);
      if (failure) return appTerminate();
    }
  }

  const char* step(long seconds) {
    const bool is_long = std::labs(seconds) > AlarmSeconds;
    const long rung = alarm.fired;
    if (is_long) alarm.arm(AlarmSeconds, 0, 0, 0);
    step_clock(seconds);
    if (is_long && seconds < 0) {
      if (const char* const failure = stay_silent(rung)) return failure;
      arm_all();
    }
    if (!all_fire()) return "a timer is lost";
    if (is_long && seconds > 0) {
      if (!within_limit([&] { return alarm.fired != rung; })) return "the alarm is lost";
      if (alarm.fired != rung + 1) return "the alarm has fired twice";
    }
    for (const auto& tick : ticks) {
      if (tick->early) return "a timer was early";
    }
    return alarm.early ? "the alarm was early" : nullptr;
  }

  // Nothing that was set before a step back fires now, and what is set now does.
  const char* stay_silent(long rung) {
    if (!new_turn()) return "the loop does not go on";
    const std::vector<long> before = fired();
    const long quick = nudger.fired;
    nudger.arm(0, 20000, 0, 0);
    if (!within_limit([&] { return nudger.fired != quick; })) return "a new timer is lost";
    if (fired() != before) return "a timer fired ahead of its time of day";
    if (alarm.fired != rung) return "the alarm rang ahead of its time of day";
    return nullptr;
  }

  // Waits for a turn that begins after this call. Its signals come before its look at the time.
  bool new_turn() {
    const long before = turns;
    kill(getpid(), SIGUSR1);
    return within_limit([&] { return turns != before; });
  }

  void arm_all() {
    int milliseconds = 3;  // below two, a precision unit early is at once
    for (const auto& tick : ticks) {
      tick->arm(0, milliseconds * 1000, 0, milliseconds * 1000);
      ++milliseconds;
    }
  }

  // Each timer fires, and repeats.
  bool all_fire() const {
    const std::vector<long> before = fired();
    return within_limit([&] {
      const std::vector<long> now = fired();
      for (size_t i = 0; i < now.size(); ++i) {
        if (now[i] < before[i] + 3) return false;
      }
      return true;
    });
  }

  std::vector<long> fired() const {
    std::vector<long> counts;
    for (const auto& tick : ticks) counts.push_back(tick->fired);
    return counts;
  }

  void signalReceived(int signo) override {
    if (signo == SIGUSR1) ++turns;
    if (signo == SIGTERM) appTerminate();
  }
  void signalStopped(int) override {}
  const char* sigtag() const override { return "clock"; }

  std::vector<std::unique_ptr<Tick>> ticks;
  Tick alarm{"alarm", false};
  Tick nudger{"nudger", false};
  std::atomic<long> turns{0};  // that the driver asked for
  std::thread driver;
};

Clock app;

}  // namespace
