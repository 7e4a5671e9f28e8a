// signals STATE SIGNAL...: receives the signals, and keeps the file STATE up to date with what came
// of them: see State. A timer shows whether the loop goes on meanwhile. Ends on SIGTERM.
#include "vornfc/vornfc.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <vector>

using namespace vornfc;

namespace {

// Times are nanoseconds of the monotonic clock. The driver reads the same bytes.
struct State {
  std::atomic<std::uint64_t> ticks;
  std::atomic<std::uint64_t> longest_wait;  // from one tick to the next
  struct Signal {
    std::atomic<std::uint64_t> deliveries;
    std::atomic<std::uint64_t> last;
  } signals[65];
};
static_assert(sizeof(State) == 8 * (2 + 2 * 65) && std::atomic<std::uint64_t>::is_always_lock_free);

std::uint64_t monotonic() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000000000 +
         static_cast<std::uint64_t>(now.tv_nsec);
}

State* map_state(const char* path) {
  VrnFile file;
  file.assign(open(path, O_RDWR | O_CLOEXEC), path, true);
  void* const place = mmap(nullptr, sizeof(State), PROT_READ | PROT_WRITE, MAP_SHARED, file.fd, 0);
  VrnAssertFull(place != MAP_FAILED, "Failed to map %s", path);
  return static_cast<State*>(place);
}

class Signals : public VrnAppShell, VrnTimer, VrnSignalHandler {
 public:
  Signals() : VrnAppShell(nullptr, "signals", nullptr, nullptr), VrnTimer("tick") {
    appSetParams(2, 0);
    appSetOpts("", "STATE SIGNAL...");
  }

 private:
  int appParseArg(int isSwitch, int opt, const char* arg) override {
    if (isSwitch) return 3;
    if (opt == 1) state = map_state(arg);
    if (opt > 1) numbers.push_back(atoi(arg));
    return 0;
  }

  // The requests are carried out in this order: after the first tick every signal is received.
  int appInit() override {
    for (const int signo : numbers) evtmgr->startSignal(this, signo);
    evtmgr->startSignal(this, SIGTERM);
    last_tick = monotonic();
    startTimer(0, 0, 0, 10000);
    return 0;
  }

  void timerExpired() override {
    const std::uint64_t now = monotonic();
    state->longest_wait = std::max(state->longest_wait.load(), now - last_tick);
    last_tick = now;
    ++state->ticks;
  }
  void timerStopped() override {}

  void signalReceived(int signo) override {
    if (signo == SIGTERM) return appTerminate();
    State::Signal& signal = state->signals[signo];
    signal.last = monotonic();
    ++signal.deliveries;
  }
  void signalStopped(int) override {}
  const char* sigtag() const override { return "signals"; }

  State* state = nullptr;
  std::vector<int> numbers;
  std::uint64_t last_tick = 0;
};

Signals app;

}  // namespace
