// Operations on a dozen timers, decoded from the input: starts at offsets and at times of day, with
// and without repetition, stops, restarts, assignments and copies, ends, the end of the loop; made
// between the turns of the loop, inside callbacks, and on another thread. The clock is the test's
// own and passes in poll() only, or where the input says so. A model, the table of states of a
// timer and a multimap of expiries, says which callback comes next and how long poll() is to wait.

#include "clock.h"
#include "fuzzing.h"
#include "requests.h"
#include "vornfc/appshell.h"
#include "vornfc/evtmgr.h"
#include "vornfc/exception.h"
#include "vornfc/timer.h"

#include <dlfcn.h>
#include <poll.h>
#include <stdlib.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using vornfc::VrnAppShell;
using vornfc::VrnEvtMgr;
using vornfc::VrnTimer;

constexpr int TIMERS = 12;
constexpr long MICROSECONDS = 1000000;
constexpr long START = 1700000000 * MICROSECONDS;

struct Time {
  long sec = 0;
  long usec = 0;

  long micros() const { return sec * MICROSECONDS + usec; }
  Time operator+(const Time& other) const { return {sec + other.sec, usec + other.usec}; }
};

Time present() {
  return {clock_now() / MICROSECONDS, clock_now() % MICROSECONDS};
}

// ---- the model ----

enum class Thread { Dispatcher, Other };

class Model {
 public:
  enum State { Idle, Queued, Stopping, Restart };

  struct Timer {
    State state = Idle;
    Time expiry, interval, pending_expiry, pending_interval;
  };

  void start(int id, Time expiry, Time interval, Thread thread) {
    Timer& timer = timers[id];
    if (timer.state == Queued) stop(id, thread);
    if (timer.state != Idle) {
      timer.pending_expiry = expiry;
      timer.pending_interval = interval;
      timer.state = Restart;
      return;
    }
    timer.expiry = expiry;
    timer.interval = interval;
    timer.state = Queued;
    if (thread == Thread::Dispatcher) {
      requests.submit({Request::Start, id, false});
    } else if (!dead) {
      insert(id);
    }
  }

  bool stop(int id, Thread thread) {
    Timer& timer = timers[id];
    if (timer.state == Queued) timer.state = take_out(id, thread) ? Idle : Stopping;
    if (timer.state == Restart) timer.state = Stopping;
    return timer.state == Idle;
  }

  void assign(int id, int from, Thread thread) {
    if (id == from) return;
    const Timer other = timers[from];
    if (other.state == Queued) {
      start(id, other.expiry, other.interval, thread);
    } else if (other.state == Restart) {
      start(id, other.pending_expiry, other.pending_interval, thread);
    } else {
      stop(id, thread);
    }
  }

  void stop_loop(Thread thread) {
    if (thread == Thread::Dispatcher) {
      requests.submit({Request::End, 0, false});
    } else {
      dead = true;
    }
  }

  const Time* expiry(int id) const {
    const Timer& timer = timers[id];
    if (timer.state == Queued) return &timer.expiry;
    return timer.state == Restart ? &timer.pending_expiry : nullptr;
  }

  // poll() is entered; returns the time-out that it is to have.
  int before_poll() {
    begin_firing();
    firing = false;
    while (!queue.empty()) {
      const int left = milliseconds_left();
      const int id = queue.begin()->second;
      if (left > 0) return left;
      require(timers[id].state != Queued, "timer %d is due and has not fired", id);
      queue.erase(queue.begin());
    }
    return -1;
  }

  void after_poll() { delivering = true; }

  // Returns the timer that fires next.
  int fire() {
    begin_firing();
    for (;;) {
      require(!queue.empty() && milliseconds_left() <= 0, "a timer fires and none is due");
      const int id = queue.begin()->second;
      queue.erase(queue.begin());
      Timer& timer = timers[id];
      if (timer.state != Queued) continue;
      timer.state = Idle;
      if (timer.interval.sec != 0 || timer.interval.usec != 0) {
        start(id, now + timer.interval, timer.interval, Thread::Dispatcher);
      }
      return id;
    }
  }

  // Returns the timer whose stop is confirmed next, or -1 when none is.
  int confirm() {
    if (delivering) {
      const int id = carry_out();
      if (id != -1) return id;
      end_delivery();
    }
    if (!dead) return -1;
    requests.end();
    return carry_out();
  }

  Timer timers[TIMERS];
  bool dead = false;

 private:
  struct Request {
    enum Type { Start, Stop, End } type;
    int id;
    bool is_stop;
  };

  bool take_out(int id, Thread thread) {
    if (thread == Thread::Dispatcher && requests.submit({Request::Stop, id, true})) return false;
    requests.withdraw_if([id](const Request& r) { return r.type != Request::End && r.id == id; });
    erase(id);
    return true;
  }

  void insert(int id) {
    erase(id);
    queue.emplace(timers[id].expiry.micros(), id);  // behind those that are equal
  }

  void erase(int id) {
    const auto it =
        std::find_if(queue.begin(), queue.end(), [id](const auto& e) { return e.second == id; });
    if (it != queue.end()) queue.erase(it);
  }

  int milliseconds_left() const {
    const long left = queue.begin()->first - now.micros();
    return static_cast<int>(std::clamp<long>(left, INT_MIN, INT_MAX) / 1000);
  }

  // The timers of one turn fire against the time at which the first of them does.
  void begin_firing() {
    if (delivering) {
      const int id = carry_out();
      require(id == -1, "the stop of timer %d is not confirmed", id);
      end_delivery();
    }
    if (firing) return;
    require(!dead, "the loop goes on");
    firing = true;
    now = present();
  }

  void end_delivery() {
    delivering = false;
    if (!requests.open) dead = true;
  }

  // Up to the next stop that is confirmed to the application.
  int carry_out() {
    while (!requests.queue.empty()) {
      const Request request = requests.queue.front();
      requests.queue.pop_front();
      Timer& timer = timers[request.id];
      switch (request.type) {
        case Request::End: requests.open = false; break;
        case Request::Start:
          if (!dead) insert(request.id);
          break;
        case Request::Stop:
          erase(request.id);
          require(timer.state == Stopping || timer.state == Restart, "the model is wrong");
          if (std::exchange(timer.state, Idle) == Stopping) return request.id;
          start(request.id, timer.pending_expiry, timer.pending_interval, Thread::Dispatcher);
      }
    }
    return -1;
  }

  Requests<Request> requests;
  std::multimap<long, int> queue;
  bool delivering = false;  // poll() has returned, and the timers are not looked at again yet
  bool firing = false;
  Time now;  // while firing
};

// ---- the library, driven by the input ----

class Run {
 public:
  explicit Run(Input an_input) : input(an_input), stops_all(input.chance(2)) {
    set_clock(START);
    mgr = VrnAppShell::evtmgr = VrnEvtMgr::instance(0);
    for (int id = 0; id < TIMERS; ++id) timers[id] = std::make_unique<Timer>(this, id);
  }

  void go() {
    current = this;
    operate(4);
    mgr->startDispatcher();
    current = nullptr;
    const int id = model.confirm();
    require(id == -1, "the stop of timer %d is not confirmed after the loop", id);
    require(model.dead, "the loop has ended too early");
    check_expiries();
    if (input.chance(2)) end_timers();
    VrnEvtMgr::destroy();
    end_timers();
  }

  int wait(pollfd* entries, nfds_t count, int timeout) {
    const int expected = model.before_poll();
    require(timeout == expected, "poll() waits for %d ms instead of %d", timeout, expected);
    check_expiries();
    operate(4);
    if (input.empty()) finish();
    int ready = system_poll(entries, count);
    if (ready == 0 && timeout == -1) {
      stop_loop(Thread::Dispatcher);  // nothing would ever happen
      ready = system_poll(entries, count);
    }
    if (ready == 0) set_clock(clock_now() + timeout * 1000L);
    model.after_poll();
    return ready;
  }

  static Run* current;

 private:
  struct Timer : VrnTimer {
    Timer(Run* a_run, int an_id) : VrnTimer("t"), run(a_run), id(an_id) {}
    Timer(Run* a_run, int an_id, const Timer& other) : VrnTimer(other), run(a_run), id(an_id) {}
    void timerExpired() override { run->called(id, run->model.fire(), "expired"); }
    void timerStopped() override { run->called(id, run->model.confirm(), "stopped"); }

    Run* const run;
    const int id;
  };

  static int system_poll(pollfd* entries, nfds_t count) {
    static const auto hidden = reinterpret_cast<decltype(&poll)>(dlsym(RTLD_NEXT, "poll"));
    return hidden(entries, count, 0);
  }

  void called(int id, int expected, const char* what) {
    require(id == expected, "timer %d has %s instead of %d", id, what, expected);
    const int outer = std::exchange(in_callback, id);
    operate(3);
    in_callback = outer;
    if (input.chance(16)) throw std::string("by chance");
  }

  void operate(unsigned at_most) {
    for (unsigned i = input.below(at_most + 1); i > 0; --i) operate_once();
  }

  void operate_once() {
    const unsigned operation = input.below(20);
    const int id = static_cast<int>(input.below(TIMERS));
    if (operation < 12) return operate_on(id, operation, Thread::Dispatcher);
    if (operation == 12) return set_clock(clock_now() + (input.number() & 0xfffff));
    if (operation == 13) return check_misuse(id);
    if (operation == 14) return input.chance(4) ? stop_loop(Thread::Dispatcher) : void();
    if (operation == 15) return input.chance(16) ? stop_loop(Thread::Other) : void();
    // A timer is not stopped by another thread in its own callback: that would wait for its end.
    if (id == in_callback) return;
    const unsigned other = input.below(12);
    std::thread([&] { operate_on(id, other, Thread::Other); }).join();
  }

  void operate_on(int id, unsigned operation, Thread thread) {
    VrnTimer& timer = *timers[id];
    if (operation < 4) {
      const int sec = operation == 0 ? input.number() : 0;
      const int usec = input.number() % 20000000 * (operation == 3 ? 1 : 100);
      const int isec = operation == 1 && input.chance(4) ? input.number() : 0;
      const int iusec = operation == 1 ? input.number() : 0;
      model.start(id, present() + Time{sec, usec}, {isec, iusec}, thread);
      timer.startTimer(sec, usec, isec, iusec);
    } else if (operation < 6) {
      const int sec = operation == 4 ? static_cast<int>(present().sec) : input.number();
      const int usec = static_cast<int>(present().usec) + input.number() / 2;
      model.start(id, {sec, usec}, {}, thread);
      timer.startTimerAbs(sec, usec, 0, 0);
    } else if (operation < 9) {
      const bool idle = model.stop(id, thread);
      require(timer.stopTimer() == idle, "stopTimer() of %d: not %d", id, idle);
    } else if (operation == 9) {
      const int from = static_cast<int>(input.below(TIMERS));
      model.assign(id, from, thread);
      timer = *timers[from];
    } else {
      renew(id, operation == 10 ? -1 : static_cast<int>(input.below(TIMERS)), thread);
    }
    check_expiry(id);
  }

  // Ends a timer, where that may be done at once, and makes another one, or a copy of one.
  void renew(int id, int from, Thread thread) {
    const Model::State state = model.timers[id].state;
    const bool may_end =
        state == Model::Idle || (state == Model::Queued && thread == Thread::Other);
    if (!may_end || id == from) return;
    model.stop(id, thread);
    timers[id].reset();
    if (from == -1) {
      timers[id] = std::make_unique<Timer>(this, id);
      return;
    }
    model.assign(id, from, thread);
    timers[id] = std::make_unique<Timer>(this, id, *timers[from]);
    require(timers[id]->tmrtag() == std::string(timers[from]->tmrtag()) + "-copy", "tag %s",
            timers[id]->tmrtag());
  }

  void stop_loop(Thread thread) {
    model.stop_loop(thread);
    if (thread == Thread::Dispatcher) return mgr->stopDispatcher();
    std::thread([&] { mgr->stopDispatcher(); }).join();
  }

  // At the end of the input: first the timers, if they all are to be stopped, then the loop.
  void finish() {
    bool all_idle = true;
    for (int id = 0; id < TIMERS && stops_all; ++id) {
      const bool idle = model.stop(id, Thread::Dispatcher);
      require(timers[id]->stopTimer() == idle, "stopTimer() of %d: not %d", id, idle);
      all_idle = all_idle && idle;
    }
    if (all_idle) stop_loop(Thread::Dispatcher);
  }

  void check_misuse(int id) {
    const Model::State state = model.timers[id].state;
    if (state != Model::Idle && state != Model::Queued) return;
    try {
      timers[id]->timerCancelled();
      require(false, "timerCancelled() without a stop");
    } catch (const vornfc::VrnException& e) {
      require(e.err() == 3, "code %d", e.err());
    }
    timeval now{0, 0};
    if (state == Model::Idle) timers[id]->triggerTimer(&now);
  }

  void check_expiry(int id) const {
    const Time* const expected = model.expiry(id);
    timeval expiry{-1, -1};
    require(timers[id]->getExpiryAbs(&expiry) == (expected != nullptr), "expiry of %d", id);
    if (!expected) return;
    require(expiry.tv_sec == expected->sec && expiry.tv_usec == expected->usec,
            "timer %d expires at %ld.%06ld", id, expiry.tv_sec, expiry.tv_usec);
    timeval left{};
    const bool has_any = timers[id]->getExpiry(&left, nullptr);
    const long distance = std::clamp<long>(expected->micros() - clock_now(), INT_MIN, INT_MAX);
    require(has_any && left.tv_sec == distance / MICROSECONDS &&
                left.tv_usec == distance % MICROSECONDS,
            "timer %d: %ld.%06ld left", id, left.tv_sec, left.tv_usec);
  }

  void check_expiries() const {
    for (int id = 0; id < TIMERS; ++id) {
      if (timers[id]) check_expiry(id);
    }
  }

  void end_timers() {
    for (auto& timer : timers) timer.reset();
  }

  Input input;
  const bool stops_all;
  VrnEvtMgr* mgr;
  Model model;
  std::unique_ptr<Timer> timers[TIMERS];
  int in_callback = -1;
};

Run* Run::current = nullptr;

}  // namespace

// The poll() that the library uses.
extern "C" int poll(pollfd* entries, nfds_t count, int timeout) {
  return Run::current->wait(entries, count, timeout);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool prepared = [] {
    unsetenv("VORN_EM_POLLMAX");
    unsetenv("VORN_EM_TIMERPREC");
    unsetenv("VORN_EM_THROWTASKS");
    drop_log_lines();
    return true;
  }();
  require(prepared, "not prepared");
  Run(Input(data, size)).go();
  return 0;
}
