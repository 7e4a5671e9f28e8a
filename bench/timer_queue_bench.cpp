// What does a timer cost to start, to stop and to fire, with few or many others in the queue?

#include "vornfc/appshell.h"
#include "vornfc/evtmgr.h"
#include "vornfc/timer.h"

#include <benchmark/benchmark.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr int FAR_AWAY = 2000000000;  // seconds since the epoch; the year 2033

class Timer : public vornfc::VrnTimer {
 public:
  explicit Timer(std::function<void()> call = nullptr) : VrnTimer("t"), expired(std::move(call)) {}
  void timerExpired() override {
    if (expired) expired();
  }
  void timerStopped() override {}

 private:
  const std::function<void()> expired;
};

// The one event manager, and timers that wait in its queue. Its owner is a thread that is gone, so
// that the benchmark's calls are carried out at once.
class Queue {
 public:
  explicit Queue(long size) {
    std::thread([] { vornfc::VrnAppShell::evtmgr = vornfc::VrnEvtMgr::instance(); }).join();
    std::minstd_rand random;
    for (long i = 0; i < size; ++i) {
      timers.push_back(std::make_unique<Timer>());
      timers.back()->startTimerAbs(FAR_AWAY + static_cast<int>(random() % 100000), 0, 0, 0);
    }
  }
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;
  ~Queue() {
    timers.clear();
    vornfc::VrnEvtMgr::destroy();
  }

  std::vector<std::unique_ptr<Timer>> timers;
};

// One timer in and out again.
void BM_StartStop(benchmark::State& state) {
  const Queue queue(state.range(0));
  Timer timer;
  for (auto _ : state) {
    timer.startTimerAbs(FAR_AWAY + 50000, 0, 0, 0);
    timer.stopTimer();
  }
}
BENCHMARK(BM_StartStop)->RangeMultiplier(10)->Range(100, 100000);

// Timers of the middle of the queue are set anew, as time-outs of connections are.
void BM_Restart(benchmark::State& state) {
  const Queue queue(state.range(0));
  std::size_t next = 0;
  for (auto _ : state) {
    queue.timers[next]->startTimerAbs(FAR_AWAY + 50000, 0, 0, 0);
    next = (next + 7919) % queue.timers.size();
  }
}
BENCHMARK(BM_Restart)->RangeMultiplier(10)->Range(100, 100000);

// Repeating timers that are always due; one turn of the loop fires each of them once.
void BM_Fire(benchmark::State& state) {
  vornfc::VrnAppShell::evtmgr = vornfc::VrnEvtMgr::instance();
  std::vector<std::unique_ptr<Timer>> timers;
  long fired = 0;
  bool ending = false;
  for (long i = 0; i < state.range(0); ++i) {
    timers.push_back(std::make_unique<Timer>([&] { ++fired; }));
    timers.back()->startTimer(0, 0, 0, 1);
  }
  Timer clock([&] {
    if (ending || state.KeepRunning()) return;
    ending = true;
    vornfc::VrnAppShell::evtmgr->stopDispatcher();
  });
  clock.startTimer(0, 0, 0, 1);
  vornfc::VrnAppShell::evtmgr->startDispatcher();
  state.SetItemsProcessed(fired);
  timers.clear();
  clock.stopTimer();
  vornfc::VrnEvtMgr::destroy();
}
BENCHMARK(BM_Fire)->Arg(1)->Arg(100)->Arg(10000);

}  // namespace
