#include "timers.h"

#include <ev.h>

namespace {

struct ev_loop* loop;
std::vector<ev_timer> timers;

void ready(struct ev_loop*, ev_timer* timer, int) {
  expired(static_cast<size_t>(timer - timers.data()));
}

void open(size_t count) {
  loop = ev_loop_new(0);
  timers.resize(count);
  for (ev_timer& timer : timers) ev_timer_init(&timer, ready, 0, 0);
}

// Not ev_timer_again(), which repeats.
void start(size_t timer, long usec) {
  ev_timer_stop(loop, &timers[timer]);
  ev_timer_set(&timers[timer], static_cast<double>(usec) / 1e6, 0);
  ev_timer_start(loop, &timers[timer]);
}

void stop(size_t timer) {
  ev_timer_stop(loop, &timers[timer]);
}

void run() {
  ev_run(loop, 0);
}

void quit() {
  ev_break(loop, EVBREAK_ALL);
}

const compare::Enter<Timers> entry("libev", {open, start, stop, run, quit});

}  // namespace
