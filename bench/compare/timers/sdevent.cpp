#include "timers.h"

#include <systemd/sd-event.h>

namespace {

sd_event* loop;
std::vector<sd_event_source*> timers;

int ready(sd_event_source*, uint64_t, void* number) {
  expired(reinterpret_cast<size_t>(number));
  return 0;
}

// With the accuracy left at its default, timers may be a quarter of a second late.
constexpr uint64_t Accuracy = 1;

void open(size_t count) {
  sd_event_new(&loop);
  timers.resize(count);
  for (size_t i = 0; i < count; ++i) {
    sd_event_add_time(loop, &timers[i], CLOCK_MONOTONIC, 0, Accuracy, ready,
                      reinterpret_cast<void*>(i));
    sd_event_source_set_enabled(timers[i], SD_EVENT_OFF);
  }
}

void start(size_t timer, long usec) {
  sd_event_source_set_time_relative(timers[timer], static_cast<uint64_t>(usec));
  sd_event_source_set_enabled(timers[timer], SD_EVENT_ONESHOT);
}

void stop(size_t timer) {
  sd_event_source_set_enabled(timers[timer], SD_EVENT_OFF);
}

void run() {
  sd_event_loop(loop);
}

void quit() {
  sd_event_exit(loop, 0);
}

const compare::Enter<Timers> entry("sdevent", {open, start, stop, run, quit});

}  // namespace
