// What does a request made inside a callback cost, by the number of requests that the callback
// makes; and how soon does the loop take notice of another thread?

#include "vornfc/appshell.h"
#include "vornfc/evtmgr.h"
#include "vornfc/timer.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace {

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

// Starts and stops of timers, half and half.
void BM_Requests(benchmark::State& state) {
  vornfc::VrnAppShell::evtmgr = vornfc::VrnEvtMgr::instance();
  std::vector<std::unique_ptr<Timer>> timers;
  for (long i = 0; i < state.range(0) / 2; ++i) timers.push_back(std::make_unique<Timer>());
  bool ending = false;
  Timer clock([&] {  // fires at every turn
    if (ending) return;
    if (state.KeepRunning()) {
      for (const auto& timer : timers) {
        timer->startTimer(3600, 0, 0, 0);
        timer->stopTimer();
      }
    } else {
      ending = true;
      vornfc::VrnAppShell::evtmgr->stopDispatcher();
    }
  });
  clock.startTimer(0, 0, 0, 1);
  vornfc::VrnAppShell::evtmgr->startDispatcher();
  state.SetItemsProcessed(state.iterations() * static_cast<long>(timers.size()) * 2);
  timers.clear();
  clock.stopTimer();
  vornfc::VrnEvtMgr::destroy();
}
BENCHMARK(BM_Requests)->Arg(0)->Arg(2)->Arg(100)->Arg(10000);

// From a start on another thread to the expiry on the dispatcher thread, which sleeps until then.
void BM_WakeByAnotherThread(benchmark::State& state) {
  std::atomic<vornfc::VrnEvtMgr*> manager{nullptr};
  std::thread dispatcher([&] {
    vornfc::VrnAppShell::evtmgr = vornfc::VrnEvtMgr::instance();
    manager = vornfc::VrnAppShell::evtmgr;
    vornfc::VrnAppShell::evtmgr->startDispatcher();
  });
  while (!manager) std::this_thread::yield();
  std::atomic<long> fired{0};
  Timer timer([&] { ++fired; });
  long started = 0;
  for (auto _ : state) {
    timer.startTimer(0, 0, 0, 0);
    ++started;
    while (fired != started) std::this_thread::yield();
  }
  manager.load()->stopDispatcher();
  dispatcher.join();
  vornfc::VrnEvtMgr::destroy();
}
BENCHMARK(BM_WakeByAnotherThread)->UseRealTime();

}  // namespace
