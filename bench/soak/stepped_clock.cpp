#include "stepped_clock.h"

#include <atomic>
#include <ctime>

namespace {

constexpr long Start = 1794729600;  // 2026-11-15 08:00:00 UTC

std::atomic<long> offset{Start};
std::atomic<unsigned> setting{0};  // odd while a step is made

}  // namespace

void step_clock(long seconds) {
  ++setting;
  offset += seconds;
  ++setting;
}

unsigned clock_setting() {
  return setting;
}

timeval time_of_day() {
  timespec running;
  clock_gettime(CLOCK_MONOTONIC, &running);
  return {offset + running.tv_sec, running.tv_nsec / 1000};
}

extern "C" int gettimeofday(timeval* now, void*) noexcept {
  *now = time_of_day();
  return 0;
}
