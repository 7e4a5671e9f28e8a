#include "timers.h"

#include <event2/event.h>
#include <event2/thread.h>

#include <thread>

namespace {

event_base* base;
std::vector<event*> timers;

void ready(evutil_socket_t, short, void* number) {
  expired(reinterpret_cast<size_t>(number));
}

void open_with(int flags, size_t count) {
  event_config* const config = event_config_new();
  event_config_set_flag(config, flags);
  base = event_base_new_with_config(config);
  for (size_t i = 0; i < count; ++i) {
    timers.push_back(evtimer_new(base, ready, reinterpret_cast<void*>(i)));
  }
}

// As it comes, its clock has steps of several milliseconds.
void open(size_t count) {
  open_with(0, count);
}

void open_precise(size_t count) {
  open_with(EVENT_BASE_FLAG_PRECISE_TIMER, count);
}

// Set up for calls from any thread, which is what the library always is.
void open_for_threads(size_t count) {
  evthread_use_pthreads();
  open_with(EVENT_BASE_FLAG_PRECISE_TIMER, count);
}

void start(size_t timer, long usec) {
  const timeval distance{usec / 1000000, usec % 1000000};
  event_add(timers[timer], &distance);
}

void stop(size_t timer) {
  event_del(timers[timer]);
}

void run() {
  event_base_dispatch(base);
}

void quit() {
  event_base_loopbreak(base);
}

void outside(void (*calls)()) {
  std::thread thread([calls] {
    calls();
    quit();
  });
  event_base_loop(base, EVLOOP_NO_EXIT_ON_EMPTY);
  thread.join();
}

const compare::Enter<Timers> entry("libevent", {open, start, stop, run, quit});
const compare::Enter<Timers> precise("libevent_precise", {open_precise, start, stop, run, quit});
const compare::Enter<Timers> threads("libevent_threads",
                                     {open_for_threads, start, stop, run, quit, outside});

}  // namespace
