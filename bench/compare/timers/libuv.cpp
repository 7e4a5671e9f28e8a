#include "timers.h"

#include <uv.h>

namespace {

uv_loop_t loop;
std::vector<uv_timer_t> timers;

void ready(uv_timer_t* timer) {
  expired(static_cast<size_t>(timer - timers.data()));
}

void open(size_t count) {
  uv_loop_init(&loop);
  timers.resize(count);
  for (uv_timer_t& timer : timers) uv_timer_init(&loop, &timer);
}

void start(size_t timer, long usec) {
  uv_timer_start(&timers[timer], ready, static_cast<uint64_t>((usec + 999) / 1000), 0);
}

void stop(size_t timer) {
  uv_timer_stop(&timers[timer]);
}

void run() {
  uv_run(&loop, UV_RUN_DEFAULT);
}

void quit() {
  uv_stop(&loop);
}

const compare::Enter<Timers> entry("libuv", {open, start, stop, run, quit});

}  // namespace
